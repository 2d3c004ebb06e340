// Registration tables of the formatter: extension letters, the per-family
// extension array, the AS-dot option and the time offset; the trace
// library's look-ups over them.
#include <cstdlib>

#include "fmt_internal.h"
#include "format/task_assert.h"

namespace {

struct sockaddr_ext {
  zsock_printer_fn tse_printer;
  uint8_t tse_gf;
  uint8_t tse_code;
  uint16_t tse_value;
};

tf::ext_row ext_table[26];
sockaddr_ext *sockaddr_printf_extensions;
unsigned gf_max_safe;
bool asdot_on;
int64_t offset_sec;
int32_t offset_usec;

}  // namespace

namespace tf {

const ext_row &ext_row_of(int letter) { return ext_table[letter - 'a']; }
bool asdot() { return asdot_on; }
void time_offset(int64_t *sec, int32_t *usec) {
  *sec = offset_sec;
  *usec = offset_usec;
}

}  // namespace tf

extern "C" {

void task_fmt_init(unsigned gf_max) {
  free(sockaddr_printf_extensions);
  gf_max_safe = gf_max;
  sockaddr_printf_extensions = static_cast<sockaddr_ext *>(calloc(gf_max + 1, sizeof(sockaddr_ext)));
  task_assert(sockaddr_printf_extensions);
}

void task_fmt_register_ext(int fmt, task_fmt_render_fn render, unsigned code, unsigned family, unsigned gf,
                           unsigned value) {
  task_assert((fmt >= 'a') && (fmt <= 'z'));
  tf::ext_row &r = ext_table[fmt - 'a'];
  r.tfe_render = render;
  r.tfe_code = static_cast<uint8_t>(code);
  r.tfe_gf = static_cast<uint8_t>(gf);
  r.tfe_family = static_cast<uint16_t>(family);
  r.tfe_value = static_cast<uint16_t>(value);
  // The look-ups' count follows the registration alone; what a format reads
  // follows the class tables. A letter of two arguments registers a value.
  r.tfe_argcount = value ? 2 : 1;
}

void task_fmt_set_sockaddr_ext(unsigned gf, zsock_printer_fn printer, unsigned code, unsigned value) {
  task_assert(sockaddr_printf_extensions);
  task_assert(gf < gf_max_safe);
  task_assert(code == ZTASK_FMT_ZSOCKA);
  sockaddr_ext &e = sockaddr_printf_extensions[gf];
  e.tse_printer = printer;
  e.tse_gf = static_cast<uint8_t>(gf);
  e.tse_code = static_cast<uint8_t>(code);
  e.tse_value = static_cast<uint16_t>(value);
}

void task_fmt_set_time_offset(int64_t sec, int32_t usec) {
  offset_sec = sec + usec / 1000000;
  offset_usec = usec % 1000000;
  if (offset_usec < 0) {
    offset_usec += 1000000;
    offset_sec--;
  }
}

void task_fmt_set_asdot(bool on) { asdot_on = on; }

int task_fmt_zext_try(int letter, unsigned argcount, unsigned *code, unsigned *value, unsigned *family) {
  if (letter < 'a' || letter > 'z') return -1;
  const tf::ext_row &r = ext_table[letter - 'a'];
  if (r.tfe_argcount == 0 || r.tfe_argcount != argcount) return -1;
  if (code) *code = r.tfe_code;
  if (value) *value = r.tfe_value;
  if (family) *family = r.tfe_family;
  return 0;
}

int task_fmt_zext(int fmt, unsigned argcount, unsigned *code, unsigned *value, unsigned *family) {
  task_assert((fmt >= 'a') && (fmt <= 'z'));
  if (argcount == 1) {
    unsigned t = task_fmt_lang::tf_ext_second[fmt - 'a'];
    task_assert((t == 0) || (t == 8));
  }
  return task_fmt_zext_try(fmt, argcount, code, value, family);
}

int task_fmt_zgf(unsigned gf, unsigned *code, unsigned *value) {
  if (!sockaddr_printf_extensions || gf >= gf_max_safe) return -1;
  const sockaddr_ext &e = sockaddr_printf_extensions[gf];
  if (e.tse_code == 0) return -1;
  if (code) *code = e.tse_code;
  if (value) *value = e.tse_value;
  return 0;
}

void task_fmt_zsock_hooks(zsock_hooks *hooks) {
  hooks->printf_ext = task_fmt_set_sockaddr_ext;
  hooks->register_ext = task_fmt_register_ext;
  hooks->snprintf = task_fmt_snprintf;
  hooks->fprintf = task_fmt_fprintf;
  hooks->vsnprintf = task_fmt_vsnprintf;
}

}  // extern "C"
