// The task kernel: a single-threaded event loop over a list of tasks. A task
// owns what a piece of the daemon uses (one socket at most, timers, jobs, a
// name, a trace handle) and a table of methods the kernel calls at known
// points of a scheduler pass. This header has the task record, the process
// state word, the application record through which a daemon configures the
// framework, and the task list with its deferred deletion: a deleted task is
// flagged "Delete", skipped by every walk and freed later by the job
// "task_collect", so that deleting from inside any callback is safe.
//
//   task *tp = task_alloc("my task", 10, app_trace);
//   task_set_recv(tp, my_read);
//   task_create(tp);
//   ...
//   task_delete(tp);   // the last delete ends the process with status 0
//
// The scheduler is task/sched.h, jobs task/job.h, timers task/timer.h, the
// event queues task/evq.h, the exit path task/quit.h. docs/task.md has more.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "containers/hbt.h"
#include "containers/var_context.h"
#include "htimer/utime.h"
#include "task/quit.h"

struct trace_handle;
struct zsockaddr_t;
struct task_timer;
struct task_job;
struct task_mem_cookie;
struct task_io_hook;
struct task_module;

extern "C" {

struct task;
typedef void (*task_method)(task *tp);

constexpr uint32_t TASK_MAGIC = 0xc01dc01a;
enum { TASK_KEVENT_TASK = 1, TASK_KEVENT_IO_HOOK = 2 };
enum { TASK_NAME_SIZE = 128 };

// task_flags
enum : uint32_t {
  TASK_FLAG_ACCEPT = 0x001,
  TASK_FLAG_CONNECT = 0x002,
  TASK_FLAG_DELETE = 0x004,
  TASK_FLAG_LOWPRIO = 0x008,
  TASK_FLAG_MSERVER = 0x010,
  TASK_FLAG_READDISABLE = 0x020,
  TASK_FLAG_WRITEDISABLE = 0x040,
  TASK_FLAG_REPLICATION = 0x080,
  TASK_FLAG_DSTADDR = 0x100,
  TASK_FLAG_APPL_TIMER_ROOT = 0x200,
  TASK_FLAG_AUTOMERGE = 0x400,
};

// The process state word (task_state), changed through task_newstate.
enum : uint32_t {
  TASKS_INIT = 0x0001,
  TASKS_TEST = 0x0002,
  TASKS_RECONFIG = 0x0004,
  TASKS_TERMINATE = 0x0008,
  TASKS_NORECONFIG = 0x0010,
  TASKS_FOREGROUND = 0x0100,
  TASKS_NODUMP = 0x0400,
  TASKS_PARSECONFIG = 0x0800,
  TASKS_NODETACH = 0x1000,
  TASKS_TERMINATE_REQUEST = 0x2000,
  TASKS_LOWMEM = 0x4000,
  TASKS_HUP_PENDING = 0x8000,
};

enum { TASK_CHANGE_KINDS = 6, TASK_NOTIFY_LISTS = 10 };
// The notification lists of the change kinds (ifstate/ifchange.h); the
// route-table kind has none, its broadcast walks every task.
enum : unsigned {
  TASK_NOTIFY_IFA = 0,       // task_ifachange
  TASK_NOTIFY_IFF = 1,       // task_iffchange, task_iffreplay
  TASK_NOTIFY_IFL = 2,       // task_iflchange, task_ifl_agg_change
  TASK_NOTIFY_IFD = 3,       // task_ifdchange
  TASK_NOTIFY_IFF_FLAG = 4,  // task_iff_flag_change
};
enum { TASK_TIMER_CLASS_HIGH = 0, TASK_TIMER_CLASS_NORMAL = 1, TASK_TIMER_CLASS_LOW = 2 };

// Time charged to a task for one kind of callback.
struct task_accounting {
  uint32_t ta_calls;
  task_utime ta_user;
  task_utime ta_system;
  task_utime ta_longest;
};
enum { TASK_ACCT_READ, TASK_ACCT_WRITE, TASK_ACCT_TIMER, TASK_ACCT_OTHER, TASK_ACCT_KINDS };

typedef void (*task_change_fn)(task *tp, void *arg);

// Kernel-state mirrors (lib/ifstate): the objects whose changes tasks hear of.
struct if_device;
struct if_link;
struct if_family;
struct if_address;
struct if_agg_member;
struct rt_instance;
// The change callbacks and filters (ifstate/ifchange.h tells what each gets).
typedef void (*task_iffreplay_fn)(task *tp, void *object, void *arg, int flag, int number);
typedef void (*task_ifachange_fn)(task *tp, if_address *ifa);
typedef void (*task_iffchange_fn)(task *tp, if_family *iff, uint32_t previous, void *arg, int number);
typedef void (*task_iflchange_fn)(task *tp, if_link *ifl);
typedef void (*task_ifdchange_fn)(task *tp, if_device *ifd, void *arg, uint32_t extra);
typedef void (*task_iff_flag_change_fn)(task *tp, if_family *iff, uint32_t old_flags, uint32_t new_flags,
                                        void *arg);
typedef void (*task_ifl_agg_change_fn)(task *tp, const if_agg_member *member);
typedef void (*task_rttchange_fn)(task *tp, rt_instance *rti);
typedef int (*task_ifa_filter_fn)(task *tp, const if_address *ifa);
typedef int (*task_iff_filter_fn)(task *tp, const if_family *iff);
typedef int (*task_ifl_filter_fn)(task *tp, const if_link *ifl);
typedef int (*task_ifd_filter_fn)(task *tp, const if_device *ifd);

struct task {
  task *task_forw;
  task *task_back;
  char *task_name_base;
  char task_name[TASK_NAME_SIZE];
  task_var_context *task_context;
  uint32_t task_flags;
  uint32_t task_magic;
  int32_t task_proto;
  int32_t task_socket;
  int32_t task_addrfamily;
  int32_t task_send_lowat;
  int32_t task_kevent_udata;  // TASK_KEVENT_TASK; its address is the events' user data
  int32_t task_priority;
  trace_handle *task_trace;
  task_method task_recv, task_accept, task_write, task_connect;
  task_method task_pre_terminate;
  task_method task_terminate;
  task_method task_shutdown;
  // Change notification (kernel-state changes).
  uint8_t task_change_replay[TASK_CHANGE_KINDS];
  task_change_fn task_change_current[TASK_CHANGE_KINDS];
  task_change_fn task_change_registered[TASK_CHANGE_KINDS];
  // The five kinds the application record gives defaults for (copied by
  // task_alloc); ifstate/ifchange.h sets them, and the kinds below, later.
  task_ifachange_fn task_ifachange;
  task_ifdchange_fn task_ifdchange;
  task_iffchange_fn task_iffchange;
  task_iflchange_fn task_iflchange;
  task_rttchange_fn task_rttchange;
  task_method task_cleanup;
  task_method task_reinit;
  task_method task_mastership;
  hbt_node task_lowmem_thread;
  uint32_t task_lowmem_priority;
  task_method task_lowmem;
  zsockaddr_t *task_addr;
  void *task_data;
  task_timer *task_timer_root;
  void *task_info;
  pid_t task_pid;
  task_method task_process, task_child;
  task_timer *task_timers;
  task_timer *task_timer_parent[3];
  uint32_t task_user_word;
  uint32_t task_recv_count, task_write_count;
  uint32_t task_send_count, task_send_errors;
  task_accounting task_acct[TASK_ACCT_KINDS];
  uint8_t task_app_byte;
  task_method task_change_aggregate;
  void *task_change_more;
  task *task_notify_links[TASK_NOTIFY_LISTS][2];
  task_io_hook *task_hooks;
  task *task_delete_next;
  int (*task_kevent_error)(task *tp, int code, int err);
  int32_t task_kevent_errno;
  task_method task_delete_hook;
  task_mem_cookie *task_cookie;  // allocations charged to this task
  // Completion events of asynchronous I/O (the task found through
  // app_aio_lookup) and route/next-hop acknowledgements (the event names the
  // task). Linux raises neither by itself; a platform layer that does hands
  // them to the event pass like any other.
  task_method task_aio;
  task_method task_ack;
  uint8_t task_ack_stopped;  // acknowledgements are not run while set
  // The further change callbacks of the kernel-state mirrors (ifstate/ifchange.h
  // sets them and links the task into task_notify_links). Kept behind the
  // fields the scheduler's pass reads.
  task_iffreplay_fn task_iffreplay;
  task_iff_flag_change_fn task_iff_flag_change;
  task_ifl_agg_change_fn task_ifl_agg_change;
  task_ifa_filter_fn task_ifa_filter;
  task_iff_filter_fn task_iff_filter;
  task_ifl_filter_fn task_ifl_filter;
  task_ifd_filter_fn task_ifd_filter;
  uint8_t task_ifreplay_wanted;  // broadcasts marked "replay" reach the task
};

// ---- The application record ---------------------------------------------------
// Zero-filled and static in the daemon, filled before the kernel starts; a null
// hook means that step is skipped. Fields used by parts of the kernel not yet
// present are kept in place so that daemons can be written against it.
struct task_app_ctx_t {
  const char *app_name;
  void *app_db_arg;
  const char *app_instance;
  const char *app_pid_path;
  const char *app_pid_pattern;
  const char *app_mgmt_path;
  int (*app_read_config)(void);
  int (*app_check_config)(void);
  void (*app_process_reconfigure)(void);
  void (*app_vtalrm)(int);
  void (*app_pre_reconfigure)(void);
  uint8_t app_af_count;
  const void *app_af_table;
  void *(*app_alloc)(size_t);
  void (*app_free)(void *);
  void (*app_aux)(void);
  void *app_fmt_functions[7];
  uint32_t app_pagesize;
  int (*app_parse_arg)(int argc, char **argv, int index);
  trace_handle *app_trace;
  struct {
    uint32_t count;
    const task_module *backup;  // also the table of the "Test" state
    const task_module *master;
    const task_module *third;
  } modules;
  int (*app_module_filter)(uint32_t id, uintptr_t tag, int phase);  // non-zero skips the row
  uint8_t app_no_flush;
  void (*app_flush)(void);
  uint8_t app_needs_terminate_wait;
  void (*app_peer_closed)(void *peer);
  void (*app_signal_hook)(int signo);
  uint32_t (*app_term_remaining)(void);
  uint32_t app_term_limit;
  uint8_t app_ignore_usr1;
  bool (*app_may_reconfigure)(void);
  void (*app_packet_hook)(void);
  const int *app_quit_flag;
  void (*app_post_config)(void);
  task *(*app_mastership_task)(void);  // the task whose mastership method goes first
  void (*app_mastership_done)(void);
  void (*app_switchover_begin)(int starting);
  uint8_t app_has_no_config;
  uint8_t app_db_per_thread, app_keep_db, app_hup_deferred;
  void (*app_reconfigure_done)(void *ctx, void *arg);
  uint8_t app_sig_always, app_diag_mode, app_sim_mode;
  void (*task_reconfigure)(void *ctx, void *arg);
  uint32_t app_mem_high_percent;
  const char *app_lr_name;
  int (*app_lr_check)(void);
  void (*app_pre_parse)(void);
  uint8_t app_use_own_modules;
  void (*app_modules_startup)(void *ctx), (*app_modules_init)(void *ctx), (*app_modules_var_init)(void *ctx),
      (*app_modules_config)(void *ctx);
  uint8_t app_no_lr_option;
  // Default change callbacks, copied into every task task_alloc makes.
  task_ifdchange_fn app_ifd_change;
  task_iffchange_fn app_iff_change;
  task_iflchange_fn app_ifl_change;
  task_ifachange_fn app_ifa_change;
  task_rttchange_fn app_rtt_change;
  void (*app_quit_hook)(int status);
  void (*app_finish)(void *ctx, void *arg);
  int (*app_term_veto)(void);
  uint8_t app_term_mode;
  int (*app_setclass)(void *), *app_class_name, *app_class_arg;
  void (*app_sock_hook_a)(void), (*app_sock_hook_b)(void);
  void (*app_db_opened)(void);
  void (*app_db_after_open)(void);
  uintptr_t app_db_handle;
  void (*app_task_deleted)(task *tp);
  int (*app_pre_read)(void);  // 0 stops the read
  void (*app_pre_init)(void), (*app_after_reread)(void);
  void *app_open_file, *app_read_file, *app_close_file;
  void (*app_switch_mode)(void);
  uint32_t app_recv_buf_size, app_send_buf_size;
  uint32_t app_is_master;
  void *app_log_hook[4];
  void (*app_version_hook)(void);
  uint8_t app_keep_modules, app_allow_nonroot;
  void (*app_role_hook)(void);
  uint8_t app_no_pid_file;
  task *(*app_aio_lookup)(void *request);
  void (*app_pre_wait)(void), (*app_post_wait)(void);
  const char *app_cleanup_pattern;
  uint8_t app_check_backup;
  void (*app_role_wait)(void), (*app_go_master)(void), (*app_after_init)(void);
  void (*app_start_hook)(void), (*app_init_begin)(void), (*app_init_end)(void);
  void (*app_milestone)(const char *text);
  uint32_t (*app_signal_counts)[2];
};

task_app_ctx_t *task_get_task_app_ctx(void);
void task_set_task_app_ctx(task_app_ctx_t *ctx);

// ---- Per-context kernel state ------------------------------------------------------

struct task_base_var {
  uint32_t taskbase_count;       // live (created, not deleted) tasks
  task taskbase_task_head;       // the list's sentinel, "taskHead"
  task *taskbase_delete_queue;   // deleted tasks awaiting task_collect
  task_job *taskbase_collect_job;
  task_timer *taskbase_shutdown_timer;
  uint32_t taskbase_term_count;  // SIGTERMs seen
  task_timer *taskbase_term_timer;  // "Task Terminate"
  uint32_t taskbase_term_remaining; // app_term_remaining at the last SIGTERM
  uint32_t taskbase_term_repeats;   // SIGTERMs that found it unchanged
  uint8_t taskbase_rebooting;       // "hw.re.tvx_rebooting"
  hbt_root task_lowmem_list;        // tasks with a low-memory method, by priority
};

// The kernel state of tp's context (the current one for null or a task
// without a context).
task_base_var *task_var_base(const task *tp);

// ---- Tasks ----------------------------------------------------------------------

// A new task, not yet on the list; its terminate method is task_delete.
task *task_alloc(const char *name, int priority, trace_handle *trace_options);
// Links the task by priority (among equals the newest first); returns 1.
int task_create(task *tp);
// Gives the task up: its timers, jobs, address and socket go now, the record
// itself when the job "task_collect" runs. Deleting the last task ends the
// process with status 0. Also the default terminate method.
void task_delete(task *tp);
void task_verify(const task *tp);
void task_verify_parent(const task *tp);

task *task_get_head(void);
task *task_next(const task *tp);

// Notification lists: per-thread lists of tasks through
// task_notify_links[list], ordered by task_priority (equal priorities in the
// order added). A task leaves every list when its record is collected, so a
// list never points at a freed task; a walk reads the next task before
// calling out, and a deleted task stays on the list, flagged, until then.
void task_notify_list_add(task *tp, unsigned list);     // no-op when already on it
void task_notify_list_remove(task *tp, unsigned list);  // no-op when not on it
bool task_notify_list_has(const task *tp, unsigned list);
task *task_notify_list_first(unsigned list);
task *task_notify_list_next(const task *tp, unsigned list);
// Live tasks of the current context.
uint32_t task_count(void);

const char *task_name(task *tp);
void task_name_format(task *tp);
void task_name_reset(task *tp);
const char *task_daemon_name(void);
void task_set_daemon_name(const char *argv0);

extern uint32_t task_state;
void task_newstate(uint32_t set_bits, uint32_t clear_bits);

// Setters: each ignores a null task.
void task_set_recv(task *tp, task_method m);
void task_set_accept(task *tp, task_method m);
void task_set_write(task *tp, task_method m);
void task_set_connect(task *tp, task_method m);
void task_set_pre_terminate(task *tp, task_method m);
void task_set_terminate(task *tp, task_method m);
void task_set_shutdown(task *tp, task_method m);
void task_set_cleanup(task *tp, task_method m);
void task_set_reinit(task *tp, task_method m);
void task_set_mastership(task *tp, task_method m);
void task_set_delete_hook(task *tp, task_method m);
void task_set_aio(task *tp, task_method m);
void task_set_ack(task *tp, task_method m);
// Stops (true) or resumes the task's acknowledgement processing.
void task_set_ack_stopped(task *tp, bool stopped);
void task_set_process(task *tp, task_method m);
void task_set_child(task *tp, task_method m);
// The low-memory method and its place in the pass: task_set_lowmem in task/process.h.
// Called when registering the task's socket events fails: code 0 for an add,
// 1 a delete, 2 an enable or disable, 3 the rest, and the errno; a non-zero
// answer ends the process. Without one, any errno but ENOENT does.
void task_set_kevent_error(task *tp, int (*hook)(task *tp, int code, int err));
// The write event's low-water mark in bytes (0: none). Linux has no such
// note: the value is kept and the event is as without it.
void task_set_send_lowat(task *tp, int32_t bytes);
void task_set_proto(task *tp, int proto);
void task_set_addr(task *tp, zsockaddr_t *addr);  // takes ownership
void task_set_pid(task *tp, pid_t pid);

bool task_flag_test(const task *tp, uint32_t mask);
void task_flag_set(task *tp, uint32_t mask);
void task_flag_clear(task *tp, uint32_t mask);
void *task_get_data(const task *tp);
void task_set_data(task *tp, void *data);
void *task_get_info(const task *tp);
void task_set_info(task *tp, void *info);
task_timer *task_get_timer_root(const task *tp);
void task_set_timer_root(task *tp, task_timer *root);
int task_get_addrfamily(const task *tp);
void task_set_addrfamily(task *tp, int af);
uint32_t task_get_user_word(const task *tp);
void task_set_user_word(task *tp, uint32_t w);
uint8_t task_get_app_byte(const task *tp);
void task_set_app_byte(task *tp, uint8_t b);

// The state word and the live tasks, one line each (the management
// channel's "show task").
void task_dump(FILE *fp);
// Appends the tracing state and the task list to "/var/tmp/PROGRAM_dump"
// under an exclusive flock, waiting for another holder up to ten times 15
// seconds (through task_daemon_nap). 0, or -1 after logging why.
int trace_do_dump(void);
// The dump file at `path` opened for appending (a device or FIFO for
// writing) and locked exclusively, or null after logging why. Waits for
// another holder through task_daemon_nap, 15 seconds a time, ten times.
FILE *trace_get_dump_file(const char *path);

}  // extern "C"
