// The debug shell: a developer's console inside a running daemon. It reads
// and writes the daemon's memory, calls its functions, loads a shared library
// into it and shows asynchronous debug messages, so it is a build option
// (TVX_DEBUG_SHELL, on by default; production builds turn it off) and it
// listens only where the daemon's owner can reach it: a local socket of mode
// 0600, "/var/run/PROGRAM_dbgsh" ("/var/run/PROGRAM_LSYS_dbgsh" with -Jl), and,
// only with -Jt [PORT], TCP on 127.0.0.1 (port 10000 by default).
//
//   $ sudo socat - UNIX-CONNECT:/var/run/task_example_dbgsh
//   task_example-DbgSh # print configurations
//   ...
//
// Symbols are found with dlsym in the running program, so a daemon links with
// exported symbols (-rdynamic, CMake's ENABLE_EXPORTS). Addresses print as
// 64-bit numbers; values read and written are 32-bit words. Everything runs
// on the scheduler's thread: a command that takes long stalls the daemon.
// mgmt_framework_mount starts the shell in builds that have it; docs/mgmt.md
// lists the commands.
#pragma once

#include <cstdint>
#include <cstdio>

extern "C" {

// Starts the two listeners ("DbgSh UX", and "DbgSh TCP" with -Jt) one second
// from now, and runs -Jd commands and -Jf files then (their output on
// standard error). -Ja turns asynchronous message collection on. Idempotent.
void dbg_sh_init(void);
// Closes every session and both listeners, and removes the socket file.
void dbg_sh_shutdown(void);
// Runs one command line, writing its output to out; 0 to go on, 1 when the
// line ends the session ("exit", "quit").
int dbg_sh_run_line(FILE *out, char *line);

// An asynchronous debug message: kept in the ring that "past" shows (the
// last DBG_SH_PAST records) and streamed to every session in "monitor" mode,
// framed as
//   DBG_SH_START:\n<time>.<usec>:<file>:<function>():<line>
//   \nDBG_SH_MSG:\n<text>\nDBG_SH_BT:\n<backtrace>\nDBG_SH_END:\n
// Nothing happens while collection is off ("async off", the default unless -Ja).
void dbg_sh_async_msg(const char *file, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
#define DBG_SH_ASYNC(...) dbg_sh_async_msg(__FILE__, __func__, __LINE__, __VA_ARGS__)

enum { DBG_SH_CONNECTLIST_SIZE = 8, DBG_SH_PAST = 32, DBG_SH_LINE_MAX = 1024 };
constexpr uint16_t DBG_SH_TCP_PORT = 10000;

// A library's own commands beside the shell's: rows sorted by name, ended by
// a row with a null name; each gets the words of the line (argv[0] the command).
struct dbg_sh_cmd {
  const char *dc_name;
  const char *dc_alias;  // a short form, or null
  void (*dc_fn)(FILE *out, int argc, char **argv);
  const char *dc_help;   // one line of "help"; a second line after '\n' is allowed
};
void dbg_sh_add_table(const dbg_sh_cmd *table);
// Compares two rows as the table is sorted: the first word without regard to
// case, then the second.
int dbg_sh_routine_cmp(const void *a, const void *b);

}  // extern "C"
