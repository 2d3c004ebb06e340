// task_fmt: the framework's printf family. It reads the ordinary printf
// language plus directives for the framework's own types:
//   %T  seconds (int; "l", "ll" for long, long long): time of day, %#T a duration
//   %t  pointer to task_fmt_time: the same with microseconds
//   %A  pointer to a socket address, through its family's printer
//   %m  text of the errno at entry (no argument, no padding)
//   %B  %b  an unsigned value in binary ("|_" or "10"); "l", "ll", "q" for 64 bit
//   %a  AS number (unsigned), "hi.lo" above 65535 with the AS-dot option on
//   %zX %ZX  extension letter X ("a" to "z", or "T": a task_fmt_time by value);
//            "ll" or "q" makes its first unsigned argument 64 bit
// A format with none of them, written in C's order, goes straight to
// vsnprintf/vfprintf; any other is parsed and assembled on the stack, without
// heap. Flags and length may stand in any order; a length applies only where
// C gives it a meaning ("%qf" is a double, "%lls" a char string).
// docs/format.md describes the language, the letters and the failure words.
//
// C habits that mean something else here: %zu, %zd (extension letters),
// %td (%t), %a (AS number). In C++ use the checked wrappers at the end of this
// header (task_fmt::snprintf and friends): a directive whose argument does not
// match is a compile error.
//
// Tables are written at start (task_fmt_init, the registrations, the two
// setters) and only read afterwards; formatting is reentrant.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "format/task_fmt_lang.h"
#include "sockaddr/zsockaddr.h"

extern "C" {

// A time of seconds and microseconds: what %t points to and %zT takes by
// value. The task kernel's task_utime has this layout.
struct task_fmt_time {
  int32_t tft_sec;
  int32_t tft_usec;
};

// Render function of an extension letter; see zsock_render_fn.
typedef zsock_render_fn task_fmt_render_fn;

enum {
  TASK_FMT_MAX_RECORDS = 64,  // directives in one format that has extension directives
  TASK_FMT_SCRATCH = 512,     // room for one rendered extension text
  TASK_FMT_SPRINTF_LIMIT = 0x7fffffff,
  TASK_FMT_MODE_STREAM = 1,
  TASK_FMT_MODE_BUFFER = 2,
};

// --- the print family ---
// snprintf/vsnprintf return the bytes stored: 0 for a size of 0 or a size
// that is negative as a signed value; at most size - 1 (a cut result reports
// size - 1, not the wanted length). sprintf is snprintf with 0x7fffffff. A
// wide character the locale cannot encode drops its directive's text only.
// fprintf/vfprintf return the bytes written, or -1 on a stream error.
int task_fmt_fprintf(FILE *stream, const char *fmt, ...);
int task_fmt_vfprintf(FILE *stream, const char *fmt, va_list ap);
int task_fmt_sprintf(char *buf, const char *fmt, ...);
int task_fmt_vsprintf(char *buf, const char *fmt, va_list ap);
int task_fmt_snprintf(char *buf, size_t size, const char *fmt, ...);
int task_fmt_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap);

// The engine behind them: output mode, errno at entry, size, destination
// (a FILE * in mode 1, a buffer in mode 2).
struct task_fmt_mode {
  int tfm_mode;
  int tfm_errno;
  size_t tfm_size;
  void *tfm_dest;
};
int task_fmt_vformat(task_fmt_mode *mode, const char *fmt, va_list ap);

// --- registration, at start ---
// Allocates the per-family extension table for families below gf_max.
void task_fmt_init(unsigned gf_max);
// Letter "a" to "z" (asserted). The letter's argument count, for the trace
// look-ups, is 2 when a second value (value, not 0) is given, else 1; a letter
// whose class table reads two arguments must give one. Its arguments in a
// format follow the class tables only ("ll" or "q" widening the first).
void task_fmt_register_ext(int letter, task_fmt_render_fn render, unsigned code, unsigned family, unsigned gf,
                           unsigned value);
// A family's %A printer, from the address library (code ZTASK_FMT_ZSOCKA).
void task_fmt_set_sockaddr_ext(unsigned gf, zsock_printer_fn printer, unsigned code, unsigned value);

// Fills the print members of the address library's hook table with this
// formatter (printf_ext, register_ext, snprintf, fprintf, vsnprintf), as the
// application gives them at zsock_init; the allocation hooks are the caller's.
void task_fmt_zsock_hooks(zsock_hooks *hooks);

// The offset from internal (monotonic) time to wall-clock time, added to %T
// and %t without "#". The timer block sets it; the default 0 means values
// already are wall-clock seconds.
void task_fmt_set_time_offset(int64_t sec, int32_t usec);
// The process's AS-dot option for %a.
void task_fmt_set_asdot(bool on);

// --- look-ups for the trace library's call-site preparation ---
// By letter and argument count: code, second value and family value; 0, or
// -1 for a letter out of range or a count other than the registered one.
// task_fmt_zext asserts the letter's range and, for one argument, that the
// letter's second class is none.
int task_fmt_zext(int letter, unsigned argcount, unsigned *code, unsigned *value, unsigned *family);
int task_fmt_zext_try(int letter, unsigned argcount, unsigned *code, unsigned *value, unsigned *family);
// By family index: code and value; -1 past the table or for a family that
// registered nothing.
int task_fmt_zgf(unsigned gf, unsigned *code, unsigned *value);

// --- one value outside a format; each returns buf ---
// directive 'a', 't', 'T', 'B' or 'b'; flag holds the flag bits of
// task_fmt_lang (TFF_ALT for "#", TFF_ZERO for "0"); value2 is the
// microseconds of 't'. B and b take all 64 bits of value.
char *task_fmt_one(char *buf, size_t size, int directive, unsigned flag, uint64_t value, uint64_t value2);
// Letter "a" to "z" or 'T', followed by its arguments as in %zX.
char *task_fmt_ext_one(char *buf, size_t size, int letter, ...);
// The %A text; an empty string for a null address, a family out of range or
// one without printer.
char *task_sockaddr_text(char *buf, size_t size, int alt, const zsockaddr_t *addr);

// True when bytes (len of them) are well-formed UTF-8 whose single bytes are
// printable or blank in the current locale.
bool task_fmt_is_printable(const void *bytes, uint16_t len);

}  // extern "C"

#include "format/task_fmt_check.h"
