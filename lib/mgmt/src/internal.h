// What the channel's source files share.
#pragma once

#include <sys/un.h>

#include "mgmt/mgmt.h"
#include "trace/trace.h"

struct task_block;

// The management block: one per process, the channel runs on the
// scheduler's thread only.
struct mgmt_var {
  bool mv_init;
  task *mv_listen_task;     // "MGMT_Listen"
  uint32_t mv_peer_count;
  mgmtPeer mv_peers;        // the list's sentinel
  uint32_t mv_idle_timeout; // seconds, 0 for none
  trace_handle *mv_trace;
  char mv_path[sizeof(sockaddr_un::sun_path)];  // logical path listened on
  uint8_t mv_listen_wanted;
  const mgmt_cmd *mv_roots[MGMT_ROOTS_MAX];
  uint32_t mv_nroots;
  mgmt_hooks mv_hooks;
  task_block *mv_peer_block;  // "mgmtPeer"
};
extern mgmt_var mgmt_block;

#define MGMT_TRACE(fmt, ...) ZTRACE(mgmt_block.mv_trace, MGMT_TRACE_FLAG, fmt __VA_OPT__(, ) __VA_ARGS__)

// The longest command line taken: commands are a few words, and the bound is
// what one peer can make the daemon hold between two reads.
constexpr int MGMT_LINE_MAX = 8192;

// line.cc
void mgmtp_recv(task *tp);
// reply.cc
void mgmt_generator_end(mgmtPeer *mp, int aborted);
// walk.cc
int mgmt_walk(mgmt_cmd_ctx *ctx, const mgmt_cmd *const *tables, uint32_t ntables, char *rest);
extern const mgmt_cmd mgmt_session_cmds[];
// 200 rows: the first words of every root.
int mgmt_list_roots(mgmtPeer *mp);
// listen.cc: a full line arrived; the idle timer starts again.
void mgmt_peer_touched(mgmtPeer *mp);
