// The trace writer. A module holds a trace handle: which flags are on, at
// which level, to which trace file, through which per-flag filters. A trace
// statement decides cheaply whether it is enabled (without evaluating its
// arguments), renders one line into the process-wide message buffer and hands
// it to syslog, to the trace file, or to both. Trace files are plain text,
// size-limited and rotated (docs/tracing.md gives the line format).
//
// The library sits below the task kernel: it allocates, prints and reads the
// time only through the hooks of trace_app_ctx, which the framework fills
// before trace_init. The defaults are the C library's (calloc, vsnprintf,
// clock_gettime), so that the library works on its own.
//
//   static trace_handle *my_trace;
//   trace_init(nullptr);
//   trace_file *f = trace_file_locate("my.trace", 1 << 20, 0, 3, 0, nullptr, false);
//   ztrace_store(&my_trace, MY_FLAG, 0, 0, f, my_types);   // takes over f
//   trace_on(f);
//   ZTRACE(my_trace, MY_FLAG, "got %d bytes", n);
//
// Single-threaded: the message buffer and the streams take no lock. Only the
// reference counts are atomic.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "containers/hbt.h"
#include "format/task_fmt_check.h"

// ---- Constants --------------------------------------------------------------

constexpr uint32_t ZTRACE_MAGIC = 0xbad0bad1;
constexpr size_t ZTRACE_MSG_SIZE = 1024;    // the message buffer; longer lines are cut
constexpr size_t ZTRACE_SCRATCH_N = 4;      // scratch strings of the flag printers
constexpr int ZTASK_FMT_MAXARGS = 24;       // segments of a call site
constexpr size_t ZTRACE_PID_LEN = 12;       // room for "%d" of a pid

// The control word, on a handle and on one message.
enum : uint32_t {
  TRC_LEVEL_MASK = 0xf,          // message level / handle threshold
  TRC_LEVEL_ONLY = 1u << 23,     // handle: pass on the level alone; message: dropped without it
  TRC_STACK = 1u << 24,          // stack trace in the prefix (both message and handle)
  TRC_NO_NEWLINE = 1u << 25,     // end the line without a newline
  TRC_NL_AFTER = 1u << 26,       // "nl_after": newline and the prefix again after the text
  TRC_NL_BEFORE = 1u << 27,      // "nl_before": the prefix and a newline before the text
  TRC_LOG_ONLY = 1u << 29,       // "log only": syslog only, never the trace file
  TRC_EVENT = 1u << 30,          // message: an event report (severity 5, 2 or 3)
  TRC_NO_TIMESTAMP = 1u << 31,   // "no timestamp"
};

// trf_flags of a trace file.
enum : uint32_t {
  TRF_REPLACE = 0x1,        // truncate on open
  TRF_WORLD_READABLE = 0x2, // mode 0644, else 0640
  TRF_SUSPENDED = 0x4,      // tested only by a replaced "is on" hook
};

// Allocation classes handed to the allocator hooks.
enum trace_alloc_class : int {
  TRACE_CLASS_HANDLE = 1,
  TRACE_CLASS_FILENAME = 2,
  TRACE_CLASS_FILE = 3,
  TRACE_CLASS_FILTER_NODE = 4,
  TRACE_CLASS_FILTER_TABLE = 6,
  TRACE_CLASS_APP_CTX = 7,
  TRACE_CLASS_EVENT = 8,  // event systems and the memtrace ring
};

// Option bits of trace_app_ctx.
enum : uint32_t {
  ZTRACE_OPT_INCREMENTAL = 0x1,  // keep appending; configuration changes are incremental
};

// ---- Records ------------------------------------------------------------------

// A flag-name table for trace_args and the printers: {low word, high word,
// name}, ended by a record with both words zero.
struct trace_types {
  uint32_t tt_lo;
  uint32_t tt_hi;
  const char *tt_name;
};

// A 32-bit name table for trace_bits: {mask, name}, ended by a null name.
struct trace_bit_name {
  uint32_t tbn_mask;
  const char *tbn_name;
};

// A trace file: reference counted, in the library's list.
struct trace_file {
  trace_file *trf_next;
  trace_file *trf_prev;
  FILE *trf_stream;          // null when closed; stderr for a file without a name
  char *trf_name;            // real path; null means stderr
  uint32_t trf_size;         // bytes written or found on open
  uint32_t trf_limit_size;   // 0: no limit
  uint32_t trf_limit_files;  // generations kept
  uint32_t trf_flags;        // TRF_*
  uint32_t trf_changed;      // cleared when a flag changes
  int32_t trf_refcount;
  int32_t trf_trpcount;      // handles pointing here
  uint32_t trf_bytes;        // what the add-bytes hook counted
};

struct trace_filter;

// A trace handle: reference counted, interned in trace_list, so that modules
// with the same options share one.
struct trace_handle {
  hbt_node tr_hnode;
  uint64_t tr_flags;              // low word then high word
  uint32_t tr_control;
  const trace_types *tr_types;    // the module's own flag names
  trace_file *tr_file;            // may be null
  trace_filter *tr_filters;       // the interned filter table, may be null
  int32_t tr_refcount;
};

// One segment of a prepared call site.
struct ztrace_segment {
  uint16_t zs_start;     // offset of the directive in the format
  uint16_t zs_end;       // one past its conversion character
  uint8_t zs_letter;     // conversion character ('z' / 'Z' give the extension letter here)
  uint8_t zs_ext;        // 1 for an extension directive
  uint16_t zs_argcount;  // arguments it takes
};

// The static record of one trace statement, filled on first use.
struct ztrace_callsite {
  const char *zcs_file;
  const char *zcs_func;
  int zcs_line;            // zero until prepared
  uint16_t zcs_nseg;
  uint16_t zcs_next;       // extension arguments
  uint16_t zcs_fmtlen;
  const char *zfmt_fmtstr; // the first format seen here
  ztrace_segment zcs_seg[ZTASK_FMT_MAXARGS];
};

// One message, an automatic object of the statement.
struct ztrace_msg {
  ztrace_callsite *zm_site;
  int zm_errno;          // restored before rendering and after the statement
  uint64_t zm_flags;
  uint32_t zm_control;
  int zm_priority;       // syslog priority, 0 for none
  bool zm_to_trace;      // the handle's file is on
  trace_handle *zm_trace;
  void *zm_work[4];      // the rendering back end's
};

// ---- The application binding ---------------------------------------------------

struct trace_flag_entry;  // trace/trace_config.h

using trace_filter_run_fn = bool (*)(const void *data, const void *arg);

// The slots that make up the back end; ztrace_backend_reset writes the
// defaults back into them.
struct ztrace_backend {
  // Message buffer.
  void (*append)(const char *fmt, va_list ap);
  char *(*start_message)(void);
  void (*write_line)(trace_handle *tp, uint32_t control);
  void (*reset_message)(void);
  // Trace-file list.
  trace_file *(*first)(void);
  trace_file *(*next)(trace_file *f);
  trace_file *(*find_by_name)(const char *name);
  void (*add)(trace_file *f);
  void (*remove)(trace_file *f);
  void (*release)(trace_file *f);
  // End of a configuration pass.
  void (*finish)(void);
  // Format-extension look-ups (the framework's formatter sets them): by
  // letter and argument count, 0 and the code, second value and family value
  // through the pointers, or -1; by family index the same for %A families.
  int (*ztask_ztrace_zext)(int letter, int argcount, int *code, int *value2, int *family);
  int (*ztask_ztrace_zgf)(int gf, int *code, int *value);
  // Call-site preparation (0 or an error) and rendering.
  int (*ztask_ztrace_fmtinit)(ztrace_callsite *site, const char *fmt, const char *file, const char *func,
                              int line);
  void (*render)(ztrace_msg *m, const char *fmt, va_list ap);
  // Trace-file state.
  void (*set_stream)(trace_file *f, FILE *stream);
  void (*off)(trace_file *f, bool announce);
  void (*on)(trace_file *f);
  void (*toggle)(void);
  void (*add_bytes)(trace_file *f, uint32_t n);
};

struct ztrace_app_ctx {
  uint32_t magic;                  // ZTRACE_MAGIC
  const char *progname;            // for messages
  const char *logdir;              // prefix of relative file names (null: "/var/log" under the root)
  const char *livedump_dir;
  const char *default_subdir;      // instance directory when the caller gives none
  pid_t main_pid;                  // 0: getpid() at trace_init
  pid_t (*get_pid)(void);          // the pid of this process (default getpid)
  void *framework_word;
  // The time text (15 characters, "Mon dd hh:mm:ss", or "" for none) and the
  // microseconds; default: the wall clock, the text cached per second.
  const char *(*time_string)(uint32_t *usec);
  const char *(*start_time_string)(void);
  // The printf family. All but sprintf are required.
  int (*ztrace_snprintf)(char *buf, size_t len, const char *fmt, ...);
  int (*ztrace_fprintf)(FILE *f, const char *fmt, ...);
  int (*ztrace_sprintf)(char *buf, const char *fmt, ...);
  int (*ztrace_vsprintf)(char *buf, const char *fmt, va_list ap);
  int (*ztrace_vsnprintf)(char *buf, size_t len, const char *fmt, va_list ap);
  int (*ztrace_vfprintf)(FILE *f, const char *fmt, va_list ap);
  // Allocation: zeroed memory that never fails as seen from here.
  void *(*alloc)(int cls, size_t size);
  void (*free)(int cls, void *p);
  char *(*strdup)(const char *s);
  bool (*may_use)(void);           // tracing may run now (default: always)
  bool (*is_on)(const trace_file *f);  // null: a file is on when it has a stream
  ztrace_backend backend;
  // Structured events and the syslog path (default event_send_syslog).
  void (*event)(int priority, const char *tag, const char *fmt, ...);
  // Event objects of ztrace_fmt_events_valist.
  const char *(*event_name)(const void *evobj, int index, char *buf, size_t len);
  int (*event_severity)(const void *evobj, int index);
  int (*event_level)(const void *evobj, int index);
  void (*event_report)(const char *text);
  // Flag-name tables, walked in this order by trace_args.
  const trace_types *global_types;
  const trace_types *module_types;
  const trace_types *further_types;
  // The configuration's tables: flag keywords (when the caller gives none)
  // and control-flag keywords.
  const trace_flag_entry *flag_table;
  const trace_bit_name *control_names;
  // Where configuration errors are traced (default: a line to the global
  // handle); trace_init gives it to the configuration store.
  void (*parse_trace)(const char *text);
  uint32_t options;                // ZTRACE_OPT_*
  // Filters: the run table (index: filter type), retain, store, compare, release.
  uint32_t ztrace_filter_type_max;
  const trace_filter_run_fn *filter_run;
  void (*filter_retain)(void *data);
  void *(*filter_store)(void *data);
  int (*filter_compare)(const void *a, const void *b);
  void (*filter_release)(void *data);
  // Library state.
  trace_file *files;               // head of the file list
  hbt_root filter_tree;
  pid_t cached_pid;
};

// The context in force (the built-in default until trace_init is given one).
extern ztrace_app_ctx *trace_app_ctx;

#define ZTRACE_SNPRINTF (trace_app_ctx->ztrace_snprintf)
#define ZTRACE_FPRINTF (trace_app_ctx->ztrace_fprintf)
#define ZTRACE_VSPRINTF (trace_app_ctx->ztrace_vsprintf)
#define ZTRACE_VSNPRINTF (trace_app_ctx->ztrace_vsnprintf)
#define ZTRACE_VFPRINTF (trace_app_ctx->ztrace_vfprintf)

// The built-in context with every default in place (the printf family of the
// C library, calloc/free/strdup, the wall clock).
void ztrace_app_ctx_defaults(ztrace_app_ctx *ctx);
// Writes the default back end into ctx->backend.
void ztrace_backend_reset(ztrace_app_ctx *ctx);

// Setters for the hooks the framework installs before trace_init.
void ztrace_set_alloc(void *(*alloc)(int, size_t), void (*release)(int, void *), char *(*dup)(const char *));
void ztrace_set_printf(int (*snp)(char *, size_t, const char *, ...), int (*fp)(FILE *, const char *, ...),
                       int (*sp)(char *, const char *, ...), int (*vsp)(char *, const char *, va_list),
                       int (*vsnp)(char *, size_t, const char *, va_list),
                       int (*vfp)(FILE *, const char *, va_list));
void ztrace_set_time(const char *(*time_string)(uint32_t *usec));
// The formatter's extension look-ups (backend.ztask_ztrace_zext and _zgf),
// kept across the first trace_init of the built-in context.
void ztrace_set_format_lookups(int (*zext)(int letter, int argcount, int *code, int *value2, int *family),
                               int (*zgf)(int gf, int *code, int *value));
void ztrace_set_progname(const char *name);

// Checks the context (magic, printf family), makes it the one in force,
// creates the global handle with a stderr file, turns that file on.
void trace_init(ztrace_app_ctx *ctx);
// Frees every handle, file and filter node and the global handle; for tests
// and an orderly exit. The context in force stays.
void trace_shutdown(void);

// The syslog path: 0 syslog (the event hook), 1 drop, 2 standard error for
// priorities below 5.
void ztrace_set_syslog_mode(int mode);
int ztrace_syslog_mode(void);

// The pid cache is dropped in a forked child (and by this call), so that a
// child's lines carry "[pid] ".
void ztrace_pid_reset(void);

// ---- The statement path ------------------------------------------------------

// The global handle (never interned; updated in place).
extern trace_handle *ztrace_global;

inline bool ztrace_file_on(const trace_file *f) {
  if (!f) return false;
  return trace_app_ctx->is_on ? trace_app_ctx->is_on(f) : f->trf_stream != nullptr;
}

// True when the statement's flags meet the handle's in either word, or the
// handle has all 64 flags, and its file is on.
inline bool trace_enabled(const trace_handle *tp, uint32_t lo, uint32_t hi) {
  if (!tp) return false;
  const uint64_t want = lo | static_cast<uint64_t>(hi) << 32;
  if (!(tp->tr_flags & want) && tp->tr_flags != ~0ull) return false;
  return ztrace_file_on(tp->tr_file);
}

// trace_enabled with the level of the control word: the message's level must
// be at least the handle's; TRC_LEVEL_ONLY as told above.
inline bool trace_enabled_level(const trace_handle *tp, uint32_t lo, uint32_t hi, uint32_t control) {
  if (!tp) return false;
  if ((control & TRC_LEVEL_MASK) < (tp->tr_control & TRC_LEVEL_MASK)) return false;
  if (tp->tr_control & TRC_LEVEL_ONLY) return ztrace_file_on(tp->tr_file);
  if (control & TRC_LEVEL_ONLY) return false;
  return trace_enabled(tp, lo, hi);
}

// Whether this statement's format must be rendered as it stands: a format on
// the stack (the same 8 MB region as a local), or one that differs from the
// one the call site remembers.
inline bool ztrace_dynamic(const ztrace_callsite *site, const char *fmt) {
  char probe;
  const uintptr_t region = ~static_cast<uintptr_t>((8u << 20) - 1);
  if ((reinterpret_cast<uintptr_t>(fmt) & region) == (reinterpret_cast<uintptr_t>(&probe) & region))
    return true;
  return site->zfmt_fmtstr && site->zfmt_fmtstr != fmt;
}

void ztrace_fmt_valist(bool dynamic, const char *fmt, const char *file, const char *func, int line,
                       ztrace_msg *m, va_list ap);
void ztrace_fmt(bool dynamic, const char *fmt, const char *file, const char *func, int line, ztrace_msg *m,
                ...);
// The event path: an event object and its number.
void ztrace_fmt_events_valist(const void *evobj, int index, const char *fmt, const char *file,
                              const char *func, int line, ztrace_msg *m, va_list ap);

// Every statement's format is checked while compiling against its arguments,
// as the framework's formatter will read them (the check is never run).
template <class... Args>
inline void ztrace_check_format(task_fmt::format_for<Args...>, const Args &...) {}

// The general statement: `enabled` is the statement's test. Nothing of the
// format's arguments is evaluated unless it holds or the statement has a
// syslog priority.
#define ZTRACE_STMT(enabled, tp, flags64, control, priority, fmt, ...)                                  \
  do {                                                                                                 \
    if (false) ztrace_check_format(fmt __VA_OPT__(, ) __VA_ARGS__);                                    \
    ZTRACE_STMT_DYNAMIC(enabled, tp, flags64, control, priority, fmt __VA_OPT__(, ) __VA_ARGS__);      \
  } while (0)
// The same for a format built at run time, which no compiler can check.
#define ZTRACE_STMT_DYNAMIC(enabled, tp, flags64, control, priority, fmt, ...)                         \
  do {                                                                                                \
    trace_handle *ztr_tp_ = (tp);                                                                     \
    const uint64_t ztr_fl_ = (flags64);                                                               \
    const uint32_t ztr_ctl_ = (control);                                                              \
    const int ztr_pri_ = (priority);                                                                  \
    const bool ztr_on_ = enabled(ztr_tp_, static_cast<uint32_t>(ztr_fl_),                             \
                                 static_cast<uint32_t>(ztr_fl_ >> 32), ztr_ctl_);                     \
    if (__builtin_expect(ztr_on_ || ztr_pri_ != 0, 0)) {                                              \
      static ztrace_callsite ztr_site_;                                                               \
      ztrace_msg ztr_m_{};                                                                            \
      ztr_m_.zm_site = &ztr_site_;                                                                    \
      ztr_m_.zm_errno = errno;                                                                        \
      ztr_m_.zm_flags = ztr_fl_;                                                                      \
      ztr_m_.zm_control = ztr_ctl_;                                                                   \
      ztr_m_.zm_priority = ztr_pri_;                                                                  \
      ztr_m_.zm_to_trace = ztr_on_;                                                                   \
      ztr_m_.zm_trace = ztr_tp_;                                                                      \
      ztrace_fmt(ztrace_dynamic(&ztr_site_, fmt), fmt, __FILE__, __func__, __LINE__,                  \
                 &ztr_m_ __VA_OPT__(, ) __VA_ARGS__);                                                 \
      errno = ztr_m_.zm_errno;                                                                        \
    }                                                                                                 \
  } while (0)

// The flag test alone, for statements without a level.
inline bool ztrace_enabled_flags(const trace_handle *tp, uint32_t lo, uint32_t hi, uint32_t) {
  return trace_enabled(tp, lo, hi);
}

// A line under flags (64-bit mask).
#define ZTRACE(tp, flags64, fmt, ...) \
  ZTRACE_STMT(ztrace_enabled_flags, tp, flags64, 0, 0, fmt __VA_OPT__(, ) __VA_ARGS__)
// A line at a level: the low 4 bits of the control word, tested against the
// handle's threshold.
#define ZTRACE_LEVEL(tp, flags64, level, fmt, ...) \
  ZTRACE_STMT(trace_enabled_level, tp, flags64, (level)&TRC_LEVEL_MASK, 0, fmt __VA_OPT__(, ) __VA_ARGS__)
// A line with a whole control word (level and line controls).
#define ZTRACE_CTL(tp, flags64, control, fmt, ...) \
  ZTRACE_STMT(trace_enabled_level, tp, flags64, control, 0, fmt __VA_OPT__(, ) __VA_ARGS__)
// A line that also goes to syslog at priority (which must not be 0).
#define ZTRACE_LOG(tp, flags64, priority, fmt, ...) \
  ZTRACE_STMT(ztrace_enabled_flags, tp, flags64, 0, priority, fmt __VA_OPT__(, ) __VA_ARGS__)

// The message buffer, for back ends and the platform forwarders.
void ztrace_msg_append(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ztrace_msg_vappend(const char *fmt, va_list ap);
const char *ztrace_msg_text(void);
size_t ztrace_msg_len(void);
void ztrace_msg_reset(void);
unsigned long ztrace_msg_appends(void);
// Sends the message buffer to the syslog path at priority, with tag.
void ztrace_syslog(int priority, const char *tag);

// Writes the message buffer as one line to tp's file; see docs/tracing.md.
void ztrace_trace_st(trace_handle *tp, uint32_t control);

// ---- Handles -------------------------------------------------------------------

// Takes a reference; returns tp.
trace_handle *trace_alloc(trace_handle *tp);
// Drops a reference; the last frees the handle (the global one is reset).
void trace_free(trace_handle *tp);

// Makes *slot the handle with these options, sharing an equal one. Releases
// what the slot held. Takes over the caller's reference to file and to the
// filter table; a null file stores nothing (the slot becomes null).
trace_handle *ztrace_store_internal(trace_handle **slot, uint32_t lo, uint32_t hi, uint32_t control,
                                    trace_file *file, const trace_types *types, trace_filter *filters);
trace_handle *ztrace_store(trace_handle **slot, uint32_t lo, uint32_t hi, uint32_t control, trace_file *file,
                           const trace_types *types);
trace_handle *ztrace_store_filters(trace_handle **slot, uint32_t lo, uint32_t hi, uint32_t control,
                                   trace_file *file, const trace_types *types, trace_filter *filters);

// After configuration: a global handle on stderr without flags lets its file
// go; one held only by its slot gives up a named file and its filters.
void ztrace_global_reset(void);

// Key changes of a handle, re-keying it in trace_list when it is linked.
// ztrace_trace_file_set takes over the caller's reference to file.
void ztrace_trace_file_set(trace_handle *tp, trace_file *file);
void ztrace_tr_control_set(trace_handle *tp, uint32_t control);
void ztrace_set_tr_flags(trace_handle *tp, uint32_t lo, uint32_t hi);

// A child's handle derived from the global one: the global flags under mask
// (the high word also keeps 0x7e000000), control & 0x81800000, the same
// file. Null when the global handle has no flags or file, or when
// incremental configuration is on and none is pending. Not interned.
trace_handle *ztrace_trace_child(const trace_types *types, uint64_t mask);
// Marks configuration pending (for the incremental mode).
void ztrace_set_config_pending(bool pending);

// Handles in trace_list, and a check of the tree (tests).
size_t ztrace_handle_count(void);
bool ztrace_handles_verify(void);

// ---- Files ---------------------------------------------------------------------

// The file of this name (relative names under the log directory and the
// subdirectory, which falls back to the context's default), retained; made
// if it is new, with its changed limits and flags adopted if not. A null name
// gives the global handle's file.
trace_file *trace_file_locate(const char *name, uint32_t size, uint32_t unused, uint32_t files, uint32_t flags,
                              const char *subdir, bool no_create);
trace_file *trace_file_retain(trace_file *f);
void trace_file_release(trace_file *f);

// Opens the file (does nothing if it has a stream). See docs/tracing.md.
void trace_on_safe(trace_file *f);
// trace_on_safe, then appending from now on (the "on" slot).
void trace_on(trace_file *f);
// Closes the stream; with announce, says so to the trace first.
void trace_off_st(trace_file *f, bool announce);
// Rotates the generations and reopens.
void trace_rotate(trace_file *f);
// Every named file off if any is open, else every named file on.
void trace_toggle(void);

// rotate_log as the platform names it: name -> name.0 -> name.1 ..., keeping
// `files` generations in all (name included). Mode 2 is the only mode.
// Returns 0 or an errno value.
int rotate_log(const char *name, unsigned files, int mode);

// ---- Flags and printers ----------------------------------------------------

// Comma-separated names (split in place) to a mask; "all" and "none" as told
// in docs/tracing.md; unknown names are reported and skipped.
uint64_t trace_args(char *names);

// Flag lists in one of four rotating scratch strings: " name name", " none",
// " all".
const char *trace_bits(const trace_bit_name *table, uint32_t word);
const char *trace_bits64(const trace_types *table, uint64_t flags);
const char *trace_bits2(const trace_types *module, const trace_types *global, uint64_t flags);

// The names of the printed control bits.
extern const trace_bit_name ztrace_control_names[];

// "Tracing flags enabled:..." to the handle's trace.
void trace_display(trace_handle *tp, uint32_t lo, uint32_t hi);
// The handle's options and file, as a dump file shows them.
void trace_dump_handle(FILE *out, const trace_handle *tp);
// "Tracing:" and every file with its state.
void trace_dump_state(FILE *out);
