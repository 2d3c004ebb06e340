// The management channel: a daemon's local command socket. A person (with
// socat) or a tool sends one-line commands; every answer is one or more
// numbered lines, "%03d" then '-' on a line that more lines follow or ' ' on
// the last, then the text and "\r\n":
//
//   $ socat - UNIX-CONNECT:/var/run/task_example_mgmt
//   show version
//   100 task_example release 0.1.0 built by ... on ...
//   help show
//   200-version
//   200-memory
//   ...
//   200 trace
//
// Codes: 100 command output, 101 resynchronised (after "abort"), 200 a help
// row, 201 "Command syntax correct", 500 the command failed, 510 the line was
// too large.
//
// Commands are static tables of rows (mgmt_cmd) ended by a row with a null
// name; a row leads to a sub-table or runs a method with the rest of the line.
// A last row with a null name but a sub-table takes any word as a value
// (mc_values) and walks on in its sub-table; with a method instead, it gets
// the unmatched word and the rest of the line (and, for "help ...", the help
// flag, so it answers 200 or 201 itself).
// Words are compared without regard to case. A daemon usually mounts its own
// table beside the framework's in one call, before the scheduler starts:
//
//   static const mgmt_cmd show_rows[] = {
//       {"vni", MY_MODULE_ID, nullptr, show_vni},   // "show vni ..."
//       {},
//   };
//   static const mgmt_cmd my_cmds[] = {{"show", MGMT_MODULE_NONE, show_rows, nullptr}, {}};
//   mgmt_framework_mount(my_cmds);            // help, show version/memory/task/...
//   mgmt_listen_on("/var/run/my_daemon_mgmt");
//
// Rows of the same name in the mounted tables merge: "show" above reaches
// both the framework's "show" rows and the daemon's. A row whose module id is
// not MGMT_MODULE_NONE answers 500 "Module not running" while that module of
// the daemon's table (task/lifecycle.h) is not running.
//
// A method writes its answer with mgmt_reply. A long answer goes through
// mgmt_generator (or mgmt_reply_text), whose function is called only when the
// peer has taken what was queued, so a slow reader never stalls the daemon
// and memory stays at about one buffer per peer. While a generator runs, the
// peer may only send the session commands "abort" (drop the rest: 101
// "--RESYNC--", then 101 "Current output aborted") and "quit".
//
// Each peer keeps its own half line between reads. Everything runs on the
// scheduler's thread. docs/mgmt.md has the commands of the framework's table.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "task/noblock.h"
#include "task/task.h"

struct trace_handle;
struct trace_types;

extern "C" {

// ---- Command tables ------------------------------------------------------------------
struct mgmt_cmd_ctx;
// The rest of the line after the row's word (null when nothing follows; for a
// catch-all method, the unmatched word and the rest). A result of
// MGMT_CMD_DONE flushes the answer, MGMT_CMD_SESSION says a generator now
// owns the output, MGMT_CMD_CLOSED that the method closed the peer; any
// other value closes the peer with that value as the close event.
typedef int (*mgmt_cmd_method)(mgmt_cmd_ctx *ctx, char *args);

struct mgmt_cmd {
  const char *cmd_name;        // null ends the table; a last row with a null name
  uint32_t cmd_module_id;      //   and a sub-table or a method is a catch-all
  const mgmt_cmd *cmd_next;    // sub-table, or null
  mgmt_cmd_method cmd_method;  // run when the line ends at this row (or the row has no sub-table)
};

enum : uint32_t { MGMT_MODULE_NONE = 0xFFFFFFFFu };  // a row that no module state guards
enum { MGMT_CMD_DONE = 0, MGMT_CMD_SESSION = 1, MGMT_CMD_CLOSED = 2 };
enum : uint32_t { MGMT_CMD_HELP = 0x1 };  // mc_flags: the line began with "help "
enum { MGMT_DEPTH_SAVED = 30, MGMT_VALUES_MAX = 8 };

struct mgmtPeer;

// What a method is given. Module ids of the rows walked are saved up to
// depth 30 (deeper tables still run). Words taken by catch-all sub-tables
// ("show vni 100 detail", with a catch-all for the number) are in
// mc_values, in order, up to 8.
struct mgmt_cmd_ctx {
  mgmtPeer *mc_peer;
  uint32_t mc_module_id;  // of the last row matched
  uint32_t mc_flags;      // MGMT_CMD_HELP
  uint32_t mc_depth;
  uint32_t mc_module_ids[MGMT_DEPTH_SAVED];
  uint32_t mc_nvalues;
  const char *mc_values[MGMT_VALUES_MAX];
};

// The root: the table given replaces every root registered.
void mgmt_cmd_register(const mgmt_cmd *root_table);
// Adds a root beside those registered (at most MGMT_ROOTS_MAX); rows of an
// earlier root come first in help and win a tie.
enum { MGMT_ROOTS_MAX = 4 };
void mgmt_cmd_mount(const mgmt_cmd *table);
// The framework's table with the daemon's beside it (null: the framework's
// alone), and mgmt_init; in builds with the debug shell (mgmt/dbgsh.h) it
// starts that too. The one call a daemon makes before mgmt_listen_on.
void mgmt_framework_mount(const mgmt_cmd *daemon_table);
extern const mgmt_cmd mgmt_framework_cmds[];
// The trace handle that "set trace" and "show trace" change and show, and
// the names of its module flags (the framework's names come too).
void mgmt_framework_set_trace(trace_handle **slot, const trace_types *module_types);

// ---- Peers ------------------------------------------------------------------------------
enum { MGMT_NAME_SIZE = 40 };

typedef int (*mgmt_generator_fn)(mgmtPeer *mp, void *data);  // non-zero while more is to come
typedef void (*mgmt_genclose_fn)(mgmtPeer *mp, void *data, int aborted);

struct mgmtPeer {
  mgmtPeer *mp_next, *mp_prev;  // the block's list of peers
  task *mp_task;                // "MGMT", its socket the connection
  FILE *mp_file;                // the peer's non-blocking stream (task/noblock.h)
  char mp_name[MGMT_NAME_SIZE]; // "%#A" of the peer, "local pid N" for an unnamed local peer
  uint32_t mp_created;          // seconds of the kernel's clock
  uint32_t mp_last;             // last full line, seconds
  task_timer *mp_idle_timer;    // "PeerIdleTimeOut", null without a timeout
  int mp_xml_tag;               // always 0: there is no XML front end here
  mgmt_generator_fn mp_generator;
  mgmt_genclose_fn mp_genclose;
  void *mp_gendata;
  noblock_cookie *mp_cookie;
  uint8_t mp_discarding;        // the rest of a line too large is being dropped
  uint8_t mp_generating;        // inside the generator: replies are not flushed one by one
  void *mp_user;                // the hooks' own
};

// Hooks (mgmt_set_hooks): each may be null.
struct mgmt_hooks {
  int (*mh_accepted)(mgmtPeer *mp);            // 0 refuses the connection (closed at once)
  int (*mh_idle)(mgmtPeer *mp);                // 1 keeps an idle peer another timeout
  void (*mh_closing)(mgmtPeer *mp, int event); // before the peer goes
  void (*mh_command)(mgmtPeer *mp, const char *line);  // each full line, before it runs
  void (*mh_output_done)(mgmtPeer *mp);        // a generator finished or was aborted
};
void mgmt_set_hooks(const mgmt_hooks *hooks);

// Close events (mh_closing, the close trace).
enum {
  MGMT_EVENT_EOF = 4,        // end of stream or a read failure
  MGMT_EVENT_TIMEOUT = 5,    // idle for the timeout
  MGMT_EVENT_QUIT = 6,       // "quit"
  MGMT_EVENT_REFUSED = 7,    // mh_accepted said no
  MGMT_EVENT_TERMINATE = 8,  // the daemon terminates, or the listener was replaced
};

// ---- The channel ------------------------------------------------------------------------
// Makes the block; idempotent.
void mgmt_init(void);
// Listens on a logical path (under TAVOX_ROOT): an older listener and its
// peers go; the path is unlinked, bound with mode 0600, listened on with a
// backlog of 5. Any failure logs ZTASK_MGMT_LISTEN and quits with its errno.
// On reconfiguration the listener moves when app_mgmt_path changed.
void mgmt_listen_on(const char *path);
// Closes every peer and the listener, and removes the socket file (the
// listener's terminate method).
void mgmt_shutdown(void);
// Seconds without a full line before a peer is closed (0: never, the
// default); applies to peers accepted from now on. Logs
// ZTASK_MGMT_TIMEOUT unless mh_idle keeps the peer. A peer with output
// still queued or a generator running is not idle.
void mgmt_set_idle_timeout(uint32_t seconds);
void mgmt_set_trace(trace_handle *trace);  // the channel's own lines
uint32_t mgmt_peer_count(void);
mgmtPeer *mgmt_peer_first(void);
mgmtPeer *mgmt_peer_next(const mgmtPeer *mp);
// Closes the peer: hooks, app_peer_closed, the queued output dropped, the
// task deleted.
void mgmtp_close(mgmtPeer *mp, int event);

// Runs one command line (spaces at both ends stripped) as if the peer had
// sent it; the result as a method's.
int mgmt_run_line(mgmtPeer *mp, char *line);

// ---- Answers -----------------------------------------------------------------------------
enum {
  MGMT_CODE_OUTPUT = 100,
  MGMT_CODE_RESYNC = 101,
  MGMT_CODE_HELP = 200,
  MGMT_CODE_SYNTAX_OK = 201,
  MGMT_CODE_FAIL = 500,
  MGMT_CODE_TOO_LARGE = 510,
};
// One line: "%03d%c" ('-' when continued), the text in the framework's
// format (task/format: %A and the others), "\r\n"; then flushed (not inside
// a generator, which is flushed once per call).
void mgmt_reply(mgmtPeer *mp, int code, int continued, const char *format, ...);
void mgmt_vreply(mgmtPeer *mp, int code, int continued, const char *format, va_list ap);
// A block of text as lines of one code, the last one marked last; long texts
// go through a generator. The text is copied.
int mgmt_reply_text(mgmtPeer *mp, int code, const char *text, size_t length);

task *mgmt_task(mgmtPeer *mp);
noblock_cookie *mgmt_cookie(mgmtPeer *mp);
FILE *mgmt_file(mgmtPeer *mp);
int mgmt_xml_tag(mgmtPeer *mp);
// 0, or -1 when the stream failed.
int mgmt_flush(mgmtPeer *mp);
size_t mgmt_outstanding(mgmtPeer *mp);
// Hands the rest of the answer to generator: called whenever the peer has
// taken everything queued, until it returns 0; close runs once at the end
// (aborted non-zero for "abort" or a closing peer). A method that calls it
// returns MGMT_CMD_SESSION.
void mgmt_generator(mgmtPeer *mp, mgmt_generator_fn generator, mgmt_genclose_fn close, void *data);
bool mgmt_active_session(const mgmtPeer *mp);

// Lines of the channel are traced under this flag of the channel's handle.
constexpr uint64_t MGMT_TRACE_FLAG = 0x7F00;

}  // extern "C"
