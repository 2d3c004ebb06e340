// libstats: the client library through which a daemon asks the statistics
// daemon cntd for the counters the forwarding plane holds. It speaks to cntd
// over an ipcconn Unix-domain client ("/var/run/libstats-cntd" under the
// root, CNTD_PATH overrides); replies arrive asynchronously and become calls
// to the application's callbacks. A second, synchronous path answers the
// route socket's rtslib_iflsm_get_by_index question with cntd's figures
// merged into the kernel's, when "global.retrieve_ifl_stats_from_cntd"
// (platform/pvidb.h) allows it or the caller asks for it.
//
// The interface path (requests of type 1, replies 5, 10 and 29) is complete.
// Subscriber, service, mobile and multicast statistics are plumbing: their
// requests go out and their replies are read, counted and handed to the
// application, but the comparison with the subscriber database is left to
// the subscriber store, which is not built yet (the application gets the
// reply's figures as they came).
//
//   libstats_session *s = libstats_session_create("tunechod", task);
//   s->cb.iflstats = on_ifl;               // merged rts_ifstats_msg, or null
//   libstats_connect(s);
//   libstats_rtslib_async_iflsm_get_by_index(s, rtslib, 71, ctx);
//
// The wire (stats/libstats_wire.h) is byte-serialised: its 0xAD-byte request
// record and 0xB9-byte request are constants, never sizeof of a struct.
#pragma once

#include <cstdint>

#include "rtsock/rts_msg.h"
#include "rtsock/rtslib.h"
#include "stats/libstats_wire.h"

struct task;
struct ipcconn_client;
struct ipc_msg;

extern "C" {

// ---- Status codes ----------------------------------------------------------------------
enum libstats_status : int {
  LIBSTATS_SUCCESS = 0,
  LIBSTATS_UNKNOWN_ERROR = 1,
  LIBSTATS_NULL_SESSION = 2,
  LIBSTATS_DB_OP_FAILED = 3,
  LIBSTATS_SOCKET_CONNECT_FAILURE = 4,
  LIBSTATS_SOCKET_OPEN = 5,
  LIBSTATS_SOCKET_CLOSED = 6,
  LIBSTATS_SOCKET_IPC_FAILURE = 7,
  LIBSTATS_INVALID_ARG = 8,
  LIBSTATS_INVALID_CALLBACK = 9,
  LIBSTATS_INTERIM_NOT_FOUND = 10,
  LIBSTATS_FINAL_NOT_FOUND = 11,
  LIBSTATS_FILTER_NOT_FOUND = 12,
  LIBSTATS_MEMORY_ALLOC_FAILURE = 13,
  LIBSTATS_SEND_TIMEDOUT = 14,
  LIBSTATS_STATUS_COUNT = 15,
};
// "no-error" ... "stats-request-send-timedout"; "INVALID-ERROR" beyond.
const char *libstats_status_str(int status);

// Statistics kinds 0 "Full Stats" ... 24 "mcast clear stats intf"; "INVALID-STATS-TYPE" beyond.
enum { LIBSTATS_KIND_FULL = 0, LIBSTATS_KIND_FULL_OTHER = 1, LIBSTATS_KIND_SUB_BASELINE = 2,
       LIBSTATS_KIND_SUB_INTERIM = 3, LIBSTATS_KIND_SUB_FINAL = 4, LIBSTATS_KIND_SUB_IMMEDIATE = 5,
       LIBSTATS_KIND_SUB_THRESHOLD = 6, LIBSTATS_KIND_SUB_OTHER = 7, LIBSTATS_KIND_SERV_INTERIM = 8,
       LIBSTATS_KIND_SERV_FINAL = 9, LIBSTATS_KIND_SERV_IMMEDIATE = 10, LIBSTATS_KIND_SERV_THRESHOLD = 11,
       LIBSTATS_KIND_SERV_OTHER = 12, LIBSTATS_KIND_IFLSET_FULL = 13, LIBSTATS_KIND_MCAST_FIRST = 14,
       LIBSTATS_KIND_MCAST_LAST = 24, LIBSTATS_KIND_COUNT = 25 };
const char *libstats_stats_type_str(int kind);
// Error classes 0 "   General Error" ... 6 "   PFE Error".
enum { LIBSTATS_ERR_GENERAL = 0, LIBSTATS_ERR_KERNEL = 1, LIBSTATS_ERR_MEMORY = 2, LIBSTATS_ERR_IPC = 3,
       LIBSTATS_ERR_VALIDATION = 4, LIBSTATS_ERR_DB_LOOKUP = 5, LIBSTATS_ERR_PFE = 6, LIBSTATS_ERR_CLASS_COUNT = 7 };
const char *libstats_error_type_str(int cls);
// Requests to cntd: 0 "Subscriber Interim" ... 3 "Service Delete".
const char *libstats_cntd_req_type_str(int req);

// ---- The application table -------------------------------------------------------------
// The ipcconn app-id of a program name: its place (1 up) in the table of this
// system's daemons and tools; a name not listed gets the value after the
// table's last.
uint32_t libstats_app_index(const char *name);

// ---- Sessions --------------------------------------------------------------------------
struct libstats_session;
// Connection state: LIBSTATS_SOCKET_OPEN or LIBSTATS_SOCKET_CLOSED.
typedef void (*libstats_conn_fn)(libstats_session *s, int status, void *app_ctx);
// An interface's (or interface set's) statistics: status 0 with the merged
// message (the library frees it after the call), else a status and null.
typedef void (*libstats_ifl_fn)(libstats_session *s, int status, uint32_t index, uint32_t id,
                                const rts_ifstats_msg *stats, void *req_ctx);
// Subscriber, service, multicast and mobile replies as they came: the kind,
// the session id (0 for multicast), the reply's error and its TLVs.
typedef void (*libstats_acct_fn)(libstats_session *s, int kind, uint64_t sid, uint32_t id, uint32_t err,
                                 const uint8_t *tlv, uint32_t tlv_len, void *app_ctx);

struct libstats_callbacks {
  libstats_conn_fn conn;
  libstats_ifl_fn iflstats;
  libstats_ifl_fn iflsetstats;
  libstats_acct_fn substats;
  libstats_acct_fn servstats;
  libstats_acct_fn mcaststats;
  libstats_acct_fn mobilestats;
};

enum : uint32_t {
  LIBSTATS_SESSION_BLOCKING = 0x1,  // connect waits for cntd: 60 tries a second apart
  LIBSTATS_SESSION_MERGE_ALWAYS = 0x2,  // merge cntd's figures whatever the platform flag says
};
// Trace flags of the session's trace file.
enum : uint32_t { LIBSTATS_TRACE_NORMAL = 0x200, LIBSTATS_TRACE_DETAIL = 0x400, LIBSTATS_TRACE_PACKETS = 0x800 };

enum { LIBSTATS_MAX_PENDING = 1024 };  // interface requests awaiting their reply

struct libstats_pending {
  uint32_t id, index, flags;
  rtslib_cookie *rtslib;  // the kernel's figures are read from it when the reply comes
  void *ctx;
  uint8_t used;
};

// Tallies by message type (0..63); errors by statistics kind and class.
enum { LIBSTATS_TYPE_SLOTS = 64 };
struct libstats_counters {
  uint64_t sends, send_failures, backpressure;
  uint64_t requests[LIBSTATS_TYPE_SLOTS], replies[LIBSTATS_TYPE_SLOTS];
  uint64_t unknown, dropped, empty_replies, failed_replies;
  uint64_t errors[LIBSTATS_KIND_COUNT][LIBSTATS_ERR_CLASS_COUNT];  // by statistics kind
};

struct libstats_session {
  char app_name[64];
  uint32_t app_index;
  task *ptask;
  uint32_t session_flags;
  libstats_callbacks cb;
  void *app_ctx;
  ipcconn_client *ipcconn_client;
  uint8_t ipcconn_client_active;
  uint32_t seq;  // the next request's id; never -1
  libstats_pending pending[LIBSTATS_MAX_PENDING];
  uint32_t n_pending;  // entries in use, so that a look-up stops at the last
  libstats_counters counters;
  uint8_t alloc_failure_reported;
  uint32_t trace_flags;
  void *trace_file;  // FILE*, the session's trace while on
  uint32_t ingress_q_process_rate_max;
  void *mobile_q;  // the ingress queue of mobile replies
  void *scratch;   // two libstats_ifl_figures for the reply path, made at first use
};

// A session for program name on task tp (its ipcconn client runs there).
// Null on no memory.
libstats_session *libstats_session_create(const char *app_name, task *tp);
// Disconnects and frees; null is ignored.
void libstats_session_destroy(libstats_session *s);

// 0, or 2 (null session), 4 (no client could be made). Connecting an active
// session only logs. The result of the connect comes as cb.conn(5) or (6).
int libstats_connect(libstats_session *s);
int libstats_disconnect(libstats_session *s);
// The cntd socket's logical path: CNTD_PATH, else "/var/run/libstats-cntd".
const char *libstats_cntd_path(void);

// Sends msg (a whole libstats message, header first) at high priority,
// connecting first when the session has no active client. 0 when sent or
// queued, 7 on an IPC failure, 6 when the connection is closed or failed,
// 2 for a null session, 1 otherwise.
int libstats_send_msg_to_cntd(libstats_session *s, const void *msg, uint32_t len);

// The ipcconn callbacks (exported for tests).
void libstats_conn_event_handler(ipcconn_client *client, int event, void *session);
int libstats_process_msg(ipcconn_client *client, uint8_t *space, uint32_t overhead, ipc_msg *msg, void *session);

// ---- Interface statistics --------------------------------------------------------------
// Builds and sends the full request of interface ifl: looks it up through
// rtslib, refuses private and chassis-local interfaces (iflm_flags
// LS_IFL_PRIVATE, LS_IFL_CHASSIS_LOCAL) and unsupported ones (the loopback
// lo*, whose counters the kernel alone holds). filter is 0x50 bytes or null;
// id 0 takes the session's next. Returns a status; *id_out the id used.
int libstats_compose_and_send_iflstats_full_request(rtslib_cookie *rtslib, uint32_t ifl, libstats_session *s,
                                                    uint32_t flags, uint32_t subtype, const uint8_t *filter,
                                                    uint32_t id, uint32_t *id_out);
// Sends a request record already filled (LS_REQ_LEN bytes) as msg_type. Its
// reply comes to cb.iflstats with cntd's figures alone (no route socket to
// merge with), status 10 when cntd has none.
int libstats_send_iflstats_full_request(libstats_session *s, const uint8_t *request, uint32_t msg_type);

// Asynchronous forms: the answer comes through cb.iflstats with req_ctx.
// Each refuses a null session or rtslib cookie (8).
int libstats_rtslib_async_iflsm_get_by_index(libstats_session *s, rtslib_cookie *rtslib, uint32_t ifl,
                                             void *req_ctx);
int libstats_rtslib_async_iflsm_get_by_index_subtype(libstats_session *s, rtslib_cookie *rtslib, uint32_t ifl,
                                                     uint32_t subtype, void *req_ctx);
int libstats_rtslib_async_iflsm_get_by_name(libstats_session *s, rtslib_cookie *rtslib, const char *device,
                                            uint32_t unit, void *req_ctx);
int libstats_rtslib_async_iflsm_clear_by_index(libstats_session *s, rtslib_cookie *rtslib, uint32_t ifl,
                                               void *req_ctx);
// An interface set's statistics (reply 29, through cb.iflsetstats).
int libstats_iflset_get_by_index(libstats_session *s, uint32_t iflset, void *req_ctx);

// The synchronous path of rtslib_iflsm_get_by_index. With merging allowed
// (how LIBSTATS_MERGE_BY_PLATFORM and the flag on, or LIBSTATS_MERGE_ALWAYS)
// cntd is asked over a synchronous client and its figures are added to the
// kernel's; an empty reply, a failed answer or an unreachable cntd leaves
// the kernel's figures alone. *result is malloc'ed (free it with
// libstats_iflsm_free). Returns rtslib's errno of the kernel's lookup, or 0;
// *cntd_status (may be null) says what cntd gave: 0 merged, 10 empty reply
// or failed answer, 4 unreachable, 7 an IPC failure, -1 not asked.
enum { LIBSTATS_MERGE_BY_PLATFORM = 0, LIBSTATS_MERGE_ALWAYS = 1, LIBSTATS_MERGE_NEVER = 2 };
int libstats_rtslib_iflsm_get_by_index_internal(rtslib_cookie *rtslib, uint32_t ifl, int how,
                                                rts_ifstats_msg **result, int *cntd_status);
void libstats_iflsm_free(rts_ifstats_msg *msg);

// cntd's reply (its TLVs) as the parts of a statistics message: counters,
// baseline, queues, Ethernet details. Filled by
// libstats_iflstats_full_convert_from_tlvs_to_iflsm.
struct libstats_ifl_figures {
  uint8_t has_fixed, has_cur, has_base, has_mac, has_link;
  uint8_t flags, media;
  uint16_t link_type;
  uint64_t rates[4];
  uint64_t clear_time;
  uint64_t cur[RTS_IFSC_COUNT];
  uint64_t base[RTS_IFSC_COUNT];
  uint32_t n_queues[4];  // egress, egress baseline, voq, voq baseline
  alignas(8) rts_ifst_ether_mac mac;  // wire records: 4-byte aligned unless told
  alignas(8) rts_ifst_ether_link link;
  uint32_t members;  // bundle members summed (counter TLVs seen)
  // Last, and never cleared as a whole: only the first n_queues of a set are figures.
  alignas(8) rts_ifst_queue queues[4][LS_MAX_QUEUES];
};
// 0, or EINVAL when a TLV is malformed (too short for its type, a queue
// count over LS_MAX_QUEUES). TLVs of unknown types are skipped.
int libstats_iflstats_full_convert_from_tlvs_to_iflsm(const uint8_t *tlv, uint32_t len, libstats_ifl_figures *out);
// Figures of a statistics message (the kernel's), in the same form.
int libstats_figures_from_iflsm(const void *msg, uint32_t len, libstats_ifl_figures *out);
// Adds b into a, per family: traffic of IPv4 and IPv6 (generic), queues by
// number (generic_q), errors and transit (aggr); aggr_deux is the bundle
// form, one member's figures into the sum.
void libstats_rtslib_encode_generic_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b);
void libstats_rtslib_encode_generic_q_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b);
void libstats_rtslib_encode_aggr_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b);
void libstats_rtslib_encode_aggr_deux_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b);
// The statistics message of the figures, with the kernel's fixed part (its
// header, index) and name: bytes written, or 0 when room is short (logged
// "pid:%d: libstats_rtslib_iflsmput() exceeded buffer of len: %u with %u bytes!").
uint32_t libstats_rtslib_pack_iflstats_msg(const rts_ifstats_msg *fixed, const char *name,
                                           const libstats_ifl_figures *f, void *buf, uint32_t room);

// ---- Subscriber, service, multicast and mobile plumbing --------------------------------
// Requests of kind LS_CNTD_REQ_* for session id sid.
int libstats_send_servstats_request(libstats_session *s, uint32_t req_kind, uint64_t sid);
int libstats_servstats_delete_by_sid(libstats_session *s, uint64_t sid);
int libstats_servstats_interim_delete_by_sid(libstats_session *s, uint64_t sid);
// The database side (the subscriber store): not built yet, 3 (database-operation-failed).
int libstats_servstats_get_aggr_stats_from_db(libstats_session *s, uint64_t sid, void *out);
int libstats_servstats_db_delete_by_sid(libstats_session *s, uint64_t sid);
// A multicast request of kind 14..24 on interface ifl (0: all).
int libstats_mcast_request(libstats_session *s, int kind, uint32_t ifl, const uint8_t group[16]);
// Mobile replies wait in an ingress queue; this delivers at most
// ingress_q_process_rate_max of them (0: all). Returns how many.
uint32_t libstats_process_mobilestats_msg(libstats_session *s);
uint32_t libstats_q_ingress_depth(const libstats_session *s);

// ---- Run-time settings -----------------------------------------------------------------
void libstats_update_flags(libstats_session *s, uint32_t new_flags);
enum : uint32_t { LIBSTATS_PARAM_INGRESS_Q_RATE = 0x1 };
// 0, or 8 for an unknown param_set_flag.
int libstats_update_dyn_param(libstats_session *s, uint32_t param_set_flag, uint32_t value);

// ---- Reports ---------------------------------------------------------------------------
// The session's tallies as text (a "libstats_error CLASS: COUNT-KIND" line
// per non-zero error tally); the length of the whole, written within len.
int libstats_report(const libstats_session *s, char *buf, int len);

// Where the library's lines go (default: the event log, errors at LOG_ERR,
// traces at LOG_DEBUG); tests take them.
typedef void (*libstats_log_fn)(int error, const char *line);
void libstats_set_log_hook(libstats_log_fn fn);
// The pause of a blocking connect between tries (default: sleep(1)); tests replace it.
void libstats_set_sleep_hook(void (*fn)(unsigned seconds));

// Linking this pulls the library into a program that never calls it.
void libstats_force_link(void);

}  // extern "C"
