// What the debug shell's files share.
#pragma once

#include "mgmt/dbgsh.h"
#include "task/noblock.h"
#include "task/task.h"

struct dbg_sh_session {
  task *ds_task;          // "DbgSh Session"
  noblock_cookie *ds_cookie;
  FILE *ds_file;
  uint8_t ds_monitor;     // streaming asynchronous messages until the next line
  uint8_t ds_discarding;  // the rest of a line too long is being dropped
  dbg_sh_session *ds_next;
};

// The session whose line runs now (null for -Jd and -Jf lines).
extern dbg_sh_session *dbg_sh_current;

// dbgsh_async.cc
bool dbg_sh_async_enabled(void);
void dbg_sh_async_set(bool on);
bool dbg_sh_async_test_running(void);
void dbg_sh_async_test_set(bool on);
void dbg_sh_past(FILE *out);
// Starts streaming to the session; false when DBG_SH_CONNECTLIST_SIZE
// sessions already monitor.
bool dbg_sh_monitor_start(dbg_sh_session *s);
void dbg_sh_monitor_stop(dbg_sh_session *s);
