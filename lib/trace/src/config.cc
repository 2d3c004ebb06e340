// Reading "traceoptions" from the configuration store into trace handles.
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "internal.h"
#include "trace/trace_config.h"
#include "trace/zevt.h"

namespace {

constexpr const char *kActions[] = {"disable", "memtrace", "memtrace-bt", nullptr};

constexpr ddl_node kFileAttrs[] = {
    {.dn_name = "size", .dn_type = DDL_UINT},
    {.dn_name = "files", .dn_type = DDL_UINT, .dn_min = 2, .dn_max = 1000},
    {.dn_name = "world-readable", .dn_type = DDL_TOGGLE},
    {.dn_name = "replace", .dn_type = DDL_TOGGLE},
    {.dn_name = "no-stamp", .dn_type = DDL_TOGGLE},
    {},
};

constexpr ddl_node kFlagAttrs[] = {
    {.dn_name = "detail", .dn_type = DDL_TOGGLE},
    {.dn_name = "disable", .dn_type = DDL_TOGGLE},
    {.dn_name = "send", .dn_type = DDL_TOGGLE},
    {.dn_name = "receive", .dn_type = DDL_TOGGLE},
    {},
};

constexpr ddl_node kEventAttrs[] = {
    {.dn_name = "trace-action", .dn_type = DDL_CHOICE, .dn_choices = kActions},
    {},
};

constexpr ddl_node kTraceoptions[] = {
    {.dn_name = "file", .dn_type = DDL_CONTAINER, .dn_key_type = DDL_STRING, .dn_key = "filename",
     .dn_maxlen = 255, .dn_children = kFileAttrs},
    {.dn_name = "flag", .dn_type = DDL_CONTAINER, .dn_flags = DDL_LIST, .dn_key_type = DDL_STRING,
     .dn_key = "flag_name", .dn_maxlen = 63, .dn_children = kFlagAttrs},
    {.dn_name = "control-flag", .dn_type = DDL_CONTAINER, .dn_flags = DDL_LIST, .dn_key_type = DDL_STRING,
     .dn_key = "control_flag_name", .dn_maxlen = 63, .dn_children = kFlagAttrs + 4},
    {.dn_name = "level", .dn_type = DDL_UINT, .dn_min = 0, .dn_max = 5},
    {.dn_name = "trace-events", .dn_type = DDL_CONTAINER, .dn_flags = DDL_LIST, .dn_key_type = DDL_STRING,
     .dn_key = "evtsys_name", .dn_maxlen = 255, .dn_children = kEventAttrs},
    {},
};

// Leads of the packet masks: send and receive bits of one type, with detail.
constexpr uint32_t packet_mask(unsigned detail, unsigned dir, unsigned type) {
  uint32_t m = 0;
  for (unsigned i = 1; i <= 7; i++) {
    if (type && type != i) continue;
    if (dir != 2) m |= 1u << i | (detail ? 1u << (14 + i) : 0);
    if (dir != 1) m |= 1u << (7 + i) | (detail ? 1u << (21 + i) : 0);
  }
  return m;
}

struct packet_table {
  uint32_t v[TR_PARSE_DETAIL_VALS][TR_PARSE_SENDRECV][TR_PARSE_PACKETS_VALS];
};

constexpr packet_table make_packet_table() {
  packet_table t{};
  for (unsigned d = 0; d < TR_PARSE_DETAIL_VALS; d++)
    for (unsigned s = 0; s < TR_PARSE_SENDRECV; s++)
      for (unsigned i = 0; i < TR_PARSE_PACKETS_VALS; i++) t.v[d][s][i] = packet_mask(d, s, i);
  return t;
}

constexpr packet_table kPackets = make_packet_table();
static_assert(kPackets.v[1][2][0] == 0x1fc07f00, "detail receive and receive of every packet type");

constexpr uint32_t kFeature[TR_PARSE_FEATURE_VALS][TR_PARSE_SENDRECV] = {
    {0x6000, 0x2000, 0x4000},
    {0x36000, 0x12000, 0x24000},
};

const trace_flag_entry *find_flag(const trace_flag_entry *t, const char *name, bool *by_number) {
  *by_number = false;
  for (const trace_flag_entry *e = t; e && e->tfe_name; e++)
    if (strcasecmp(e->tfe_name, name) == 0) return e;
  char *end;
  unsigned long n = strtoul(name, &end, 0);
  if (*name && !*end) {
    *by_number = true;
    for (const trace_flag_entry *e = t; e && e->tfe_name; e++)
      if (e->tfe_number == n) return e;
  }
  return nullptr;
}

bool read_file(const ddl_object_t *to, uint32_t *control, trace_file **file) {
  ddl_object_t *fo = nullptr;
  if (!dax_get_object_by_name(to, "file", &fo)) {
    ddl_access_config_warning("No file specified.");
    return true;
  }
  char name[1024];
  if (!dax_get_string_by_name(fo, "filename", name, sizeof name)) {
    ddl_access_config_error("%s: filename required\n", "trace_config_file");
    dax_release_object(&fo);
    return false;
  }
  bool on;
  uint32_t size = 0, files = 0, flags = 0;
  if (dax_get_toggle_by_name(fo, "replace", &on)) flags |= TRF_REPLACE;
  if (dax_get_toggle_by_name(fo, "world-readable", &on)) flags |= TRF_WORLD_READABLE;
  if (dax_get_toggle_by_name(fo, "no-stamp", &on)) *control |= TRC_NO_TIMESTAMP;
  dax_get_uint_by_name(fo, "size", &size);
  dax_get_uint_by_name(fo, "files", &files);
  if (size && !files) files = 10;
  dax_release_object(&fo);
  *file = trace_file_locate(name, size, 0, files, flags, nullptr, false);
  return *file != nullptr;
}

bool read_flags(const ddl_object_t *to, const trace_flag_entry *table, trace_filter_parse_fn parse, void *user,
                uint64_t *flags, trace_filter **filters) {
  ddl_object_t *list = nullptr, *cur = nullptr;
  if (!dax_get_object_by_name(to, "flag", &list)) return true;
  uint64_t add = 0, remove = 0;
  bool ok = true;
  trace_filter *work = nullptr;
  std::vector<void *> parsed;
  while (ok && dax_visit_container(list, &cur)) {
    char name[256];
    if (!dax_get_string_by_name(cur, "flag_name", name, sizeof name) &&
        !dax_get_string_by_name(cur, "flag-name", name, sizeof name)) {
      dax_error(cur, "missing traceflag");
      ok = false;
      break;
    }
    bool by_number;
    const trace_flag_entry *e = find_flag(table, name, &by_number);
    if (!e) {
      if (by_number)
        dax_error(cur, "bad traceflag");
      else
        dax_error(cur, "bad traceflag %s", name);
      ok = false;
      break;
    }
    bool disable, detail, send, receive;
    dax_get_toggle_by_name(cur, "disable", &disable);
    dax_get_toggle_by_name(cur, "detail", &detail);
    dax_get_toggle_by_name(cur, "send", &send);
    dax_get_toggle_by_name(cur, "receive", &receive);
    const unsigned dir = (send ? 1u : 0u) | (receive ? 2u : 0u);
    uint64_t m = 0;
    switch (e->tfe_kind) {
      case TRACE_KIND_PACKET:
        m = trace_parse_packet(detail, dir, e->tfe_number);
        break;
      case TRACE_KIND_FEATURE:
        m = trace_parse_feature(detail, dir, e->tfe_number);
        break;
      case TRACE_KIND_COMBINED:
        m = e->tfe_lo | static_cast<uint64_t>(e->tfe_hi) << 32;
        if (detail) m |= e->tfe_detail_lo | static_cast<uint64_t>(e->tfe_detail_hi) << 32;
        break;
      default:
        m = e->tfe_lo | static_cast<uint64_t>(e->tfe_hi) << 32;
        break;
    }
    if (disable) {
      remove |= m;
      continue;
    }
    add |= m;
    ddl_object_t *fobj = nullptr;
    if (parse && dax_get_object_by_name(cur, "filter", &fobj)) {
      uint32_t type = 0;
      void *data = nullptr;
      const bool r = parse(fobj, &type, &data, user);
      dax_release_object(&fobj);
      if (!r) {
        ok = false;
        break;
      }
      if (!work)
        work = static_cast<trace_filter *>(
            tvx::trace::alloc(TRACE_CLASS_FILTER_TABLE, TRACE_FILTER_SLOTS * sizeof(trace_filter)));
      trace_filter_set(work, TRACE_FILTER_SLOTS, static_cast<uint32_t>(m), static_cast<uint32_t>(m >> 32), type,
                       data);
      parsed.push_back(data);
    }
  }
  if (cur) dax_release_object(&cur);
  dax_release_object(&list);
  if (ok) {
    *flags = ~remove & (add | *flags);
    if (work) *filters = trace_store_filter(work);
  }
  for (void *d : parsed)
    if (d && trace_app_ctx->filter_release) trace_app_ctx->filter_release(d);
  tvx::trace::release(TRACE_CLASS_FILTER_TABLE, work);
  return ok;
}

bool read_control_flags(const ddl_object_t *to, uint32_t *control) {
  ddl_object_t *list = nullptr, *cur = nullptr;
  if (!dax_get_object_by_name(to, "control-flag", &list)) return true;
  bool ok = true;
  while (dax_visit_container(list, &cur)) {
    char name[256];
    if (!dax_get_string_by_name(cur, "control_flag_name", name, sizeof name)) {
      dax_error(cur, "missing control-flag");
      ok = false;
      break;
    }
    const trace_bit_name *hit = nullptr;
    for (const trace_bit_name *t = trace_app_ctx->control_names; t && t->tbn_name; t++)
      if (strcasecmp(t->tbn_name, name) == 0) hit = t;
    char *end;
    const unsigned long n = strtoul(name, &end, 0);
    for (const trace_bit_name *t = trace_app_ctx->control_names; !hit && *name && !*end && t && t->tbn_name; t++)
      if (t->tbn_mask == n) hit = t;
    if (!hit) {
      dax_error(cur, "bad control-flag");
      ok = false;
      break;
    }
    *control |= hit->tbn_mask;
  }
  if (cur) dax_release_object(&cur);
  dax_release_object(&list);
  return ok;
}

}  // namespace

uint32_t trace_parse_packet(unsigned detail, unsigned direction, unsigned index) {
  if (direction == 3) direction = 0;
  if (detail >= TR_PARSE_DETAIL_VALS) detail = 1;
  if (direction >= TR_PARSE_SENDRECV || index >= TR_PARSE_PACKETS_VALS) return 0;
  return kPackets.v[detail][direction][index];
}

uint64_t trace_parse_feature(unsigned detail, unsigned direction, unsigned) {
  if (direction == 3) direction = 0;
  if (detail >= TR_PARSE_FEATURE_VALS) detail = 1;
  if (direction >= TR_PARSE_SENDRECV) return 0;
  return static_cast<uint64_t>(kFeature[detail][direction]) << 32;
}

int ztrace_level_bits(uint32_t level) {
  switch (level) {
    case 0: return 8;
    case 1: return 4;
    case 2: return 2;
    case 3: return 1;
    case 4:
    case 5: return 0;
    default: return -1;
  }
}

const ddl_node ztrace_traceoptions_schema = {
    .dn_name = "traceoptions", .dn_type = DDL_CONTAINER, .dn_children = kTraceoptions};

bool trace_config_traceoptions_internal(const ddl_object_t *to, const trace_flag_entry *table,
                                        trace_filter_parse_fn parse, void *user, uint64_t *flags,
                                        uint32_t *control, trace_file **file, trace_filter **filters) {
  if (!table) table = trace_app_ctx->flag_table;
  *file = nullptr;
  *filters = nullptr;
  auto fail = [&] {
    trace_file_release(*file);
    *file = nullptr;
    trace_filter_free(*filters);
    *filters = nullptr;
    return false;
  };
  if (!read_file(to, control, file)) return fail();
  if (!read_flags(to, table, parse, user, flags, filters)) return fail();
  if (!zevt_config_read(to)) return fail();
  if (!read_control_flags(to, control)) return fail();
  *control &= ~TRC_LEVEL_MASK;
  uint32_t level;
  if (dax_get_uint_by_name(to, "level", &level)) {
    const int bits = ztrace_level_bits(level);
    if (bits < 0) {
      dax_error(to, "bad trace level %u (levels are 0 to 5)", level);
      return fail();
    }
    *control |= static_cast<uint32_t>(bits);
  }
  trace_app_ctx->backend.finish();
  return true;
}

bool ztrace_config_trace_options(const ddl_object_t *parent, trace_handle **slot, const trace_flag_entry *table,
                                 const trace_types *types, trace_filter_parse_fn parse, void *user) {
  ddl_object_t *to = nullptr;
  if (!dax_get_object_by_name(parent, "traceoptions", &to)) {
    if (slot != &ztrace_global) {
      trace_free(*slot);
      *slot = nullptr;
    }
    return true;
  }
  uint64_t flags = 0;
  if ((trace_app_ctx->options & ZTRACE_OPT_INCREMENTAL) && *slot) flags = (*slot)->tr_flags;
  uint32_t control = 0;
  trace_file *file = nullptr;
  trace_filter *filters = nullptr;
  const bool ok = trace_config_traceoptions_internal(to, table, parse, user, &flags, &control, &file, &filters);
  dax_release_object(&to);
  if (!ok) return false;
  if (!file) {
    trace_filter_free(filters);
    return true;
  }
  trace_handle *tp = ztrace_store_internal(slot, static_cast<uint32_t>(flags), static_cast<uint32_t>(flags >> 32),
                                           control, file, types, filters);
  if (!tp) return true;
  if (!tp->tr_flags) {
    trace_off_st(tp->tr_file, true);
  } else {
    trace_app_ctx->backend.on(tp->tr_file);
    trace_display(tp, static_cast<uint32_t>(tp->tr_flags), static_cast<uint32_t>(tp->tr_flags >> 32));
  }
  return true;
}

bool ztrace_config_global(const ddl_object_t *parent) {
  trace_filter_mark_stale();
  const bool ok = ztrace_config_trace_options(parent, &ztrace_global, trace_app_ctx->flag_table,
                                              trace_app_ctx->global_types, nullptr, nullptr);
  if (ok && ztrace_global && !ztrace_global->tr_flags) ztrace_global_reset();
  return ok;
}
