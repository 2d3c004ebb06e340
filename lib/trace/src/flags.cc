// Trace flags by name: parsing lists of names, printing masks, and the
// display and dump printers.
#include <strings.h>
#include <syslog.h>

#include <cstring>

#include "internal.h"

const trace_bit_name ztrace_control_names[] = {
    {TRC_NO_TIMESTAMP, "no timestamp"},
    {TRC_LOG_ONLY, "log only"},
    {TRC_NL_BEFORE, "nl_before"},
    {TRC_NL_AFTER, "nl_after"},
    {0, nullptr},
};

namespace tvx::trace {
namespace {

bool table_end(const trace_types *t) { return t->tt_lo == 0 && t->tt_hi == 0; }
uint64_t mask_of(const trace_types *t) { return t->tt_lo | static_cast<uint64_t>(t->tt_hi) << 32; }

// Appends sep and name to out (a scratch string); false, with the report,
// when it no longer fits.
bool add_name(char *out, const char *sep, const char *name) {
  const size_t have = strlen(out), need = strlen(sep) + strlen(name);
  if (have + need + 1 > ZTRACE_MSG_SIZE) {
    report_syslog(LOG_ERR, "ZTRACE_NOT_ENOUGH_SPACE_IN_TRACE_BUFFER",
                  "ZTRACE_NOT_ENOUGH_SPACE_IN_TRACE_BUFFER: Insufficient space to add trace-flag %s", name);
    return false;
  }
  memcpy(out + have, sep, strlen(sep));
  memcpy(out + have + strlen(sep), name, strlen(name) + 1);
  return true;
}

// Names of one 64-bit table whose whole mask is in flags and not yet
// printed; a shorter alias after a longer mask is skipped.
bool print64(char *out, const trace_types *t, uint64_t flags, uint64_t &printed, const char *sep) {
  for (; t && !table_end(t); t++) {
    const uint64_t m = mask_of(t);
    if ((flags & m) != m || (printed & m) == m) continue;
    if (!add_name(out, out[0] ? sep : " ", t->tt_name)) return false;
    printed |= m;
  }
  return true;
}

const trace_types *lookup(const trace_types *t, const char *name) {
  for (; t && !table_end(t); t++)
    if (t->tt_name && strcasecmp(t->tt_name, name) == 0) return t;
  return nullptr;
}

// The three texts of the option printers: flags, level, control names.
struct option_text {
  const char *flags;
  char level[16];
  const char *control;
};

option_text options_of(const trace_handle *tp, uint64_t flags) {
  option_text o{};
  o.flags = trace_bits2(tp->tr_types, trace_app_ctx->global_types, flags);
  const unsigned lvl = tp->tr_control & TRC_LEVEL_MASK;
  if (lvl) trace_app_ctx->ztrace_snprintf(o.level, sizeof o.level, " level %u", lvl);
  const char *c = trace_bits(trace_app_ctx->control_names, tp->tr_control & ~TRC_LEVEL_MASK);
  o.control = strcmp(c, " none") == 0 ? "" : c + 1;
  return o;
}

}  // namespace
}  // namespace tvx::trace

using namespace tvx::trace;

uint64_t trace_args(char *names) {
  uint64_t mask = 0;
  const ztrace_app_ctx *a = trace_app_ctx;
  char *rest = names;
  while (char *name = strsep(&rest, ",")) {
    if (!*name) continue;
    if (strcasecmp(name, "all") == 0) {
      mask = ~0ull;
      continue;
    }
    if (strcasecmp(name, "none") == 0) {
      mask = 0;
      continue;
    }
    const trace_types *hit = lookup(a->global_types, name);
    if (!hit) hit = lookup(a->module_types, name);
    if (!hit) hit = lookup(a->further_types, name);
    if (hit)
      mask |= mask_of(hit);
    else
      report(LOG_ERR, 0, "%s: unknown trace flag: %s", a->progname ? a->progname : "", name);
  }
  return mask;
}

const char *trace_bits(const trace_bit_name *t, uint32_t word) {
  char *out = scratch();
  if (!word) {
    strcpy(out, " none");
    return out;
  }
  uint32_t printed = 0;
  for (; t && t->tbn_name; t++) {
    const uint32_t m = t->tbn_mask;
    if (!m || (word & m) != m || (printed & m) == m) continue;
    if (!add_name(out, " ", t->tbn_name)) break;
    printed |= m;
  }
  return out;
}

const char *trace_bits64(const trace_types *t, uint64_t flags) {
  char *out = scratch();
  if (!flags) {
    strcpy(out, " none");
  } else if (flags == ~0ull) {
    strcpy(out, " all");
  } else {
    uint64_t printed = 0;
    print64(out, t, flags, printed, " ");
  }
  return out;
}

const char *trace_bits2(const trace_types *module, const trace_types *global, uint64_t flags) {
  char *out = scratch();
  if (!flags) {
    strcpy(out, " none");
  } else if (flags == ~0ull) {
    strcpy(out, " all");
  } else {
    uint64_t printed = 0;
    if (print64(out, module, flags, printed, ", ")) print64(out, global, flags, printed, ", ");
  }
  return out;
}

void trace_display(trace_handle *tp, uint32_t lo, uint32_t hi) {
  if (!tp) return;
  const option_text o = options_of(tp, lo | static_cast<uint64_t>(hi) << 32);
  ZTRACE_STMT(ztrace_enabled_flags, tp, ~0ull, TRC_NL_AFTER | TRC_NL_BEFORE, 0, "Tracing flags enabled:%s%s %s",
              o.flags, o.level, o.control);
}

void trace_dump_handle(FILE *out, const trace_handle *tp) {
  if (!tp) return;
  const ztrace_app_ctx *a = trace_app_ctx;
  const option_text o = options_of(tp, tp->tr_flags);
  a->ztrace_fprintf(out, "  Trace options:%s%s %s\n", o.flags, o.level, o.control);
  if (const trace_file *f = tp->tr_file) {
    a->ztrace_fprintf(out, "  Trace file: %s", f->trf_name ? f->trf_name : "(stderr)");
    if (f->trf_limit_size) a->ztrace_fprintf(out, "\tsize %u", f->trf_limit_size);
    if (f->trf_limit_files) a->ztrace_fprintf(out, "\tfiles %u", f->trf_limit_files);
    a->ztrace_fprintf(out, "\n");
  }
}

void trace_dump_state(FILE *out) {
  const ztrace_app_ctx *a = trace_app_ctx;
  const trace_handle *g = ztrace_global;
  a->ztrace_fprintf(out, "Tracing:\n\tGlobal:\t%s\n\tFiles:\n",
                    g ? trace_bits2(g->tr_types, a->global_types, g->tr_flags) : " none");
  for (trace_file *f = a->backend.first(); f; f = a->backend.next(f)) {
    const char *state = !f->trf_stream ? "closed" : (f->trf_flags & TRF_SUSPENDED) ? "off" : "on";
    a->ztrace_fprintf(out, "\t\t%s:\n\t\t\t%s  refcount %u  size %u  limit %u files %u\n",
                      f->trf_name ? f->trf_name : "(stderr)", state, f->trf_refcount, f->trf_size,
                      f->trf_limit_size, f->trf_limit_files);
  }
}
