// The responder's management commands, mounted beside the framework's on
// /var/run/tunechod_mgmt:
//
//   show vni [VNI]               VNI, bridge domain, routing table, VLAN
//   show bridge-domain [INDEX]   the same, by bridge domain
//   show statistics              the request path's counters
//   clear statistics
//
// The tables are walked in key order; a long answer goes out through the
// channel's generator, so a slow reader never holds the daemon up.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mgmt/mgmt.h"
#include "tunechod.h"

namespace {

// Module rows that guard the commands: the tables exist once "TUNECHOD
// Kernel" has run, the counters once "TUNECHOD Recv" has.
constexpr uint32_t kModuleRecv = 1, kModuleKernel = 3;

// An optional decimal argument; false (with the 500 line sent) when it is
// there and not a number up to max.
bool optional_number(mgmtPeer *mp, const char *args, uint32_t max, const char *what, bool *given, uint32_t *value) {
  *given = args && *args;
  if (!*given) return true;
  char *end = nullptr;
  errno = 0;
  unsigned long v = strtoul(args, &end, 10);
  while (end && *end == ' ') end++;
  if (errno || end == args || *end || *args == '-' || v > max) {
    mgmt_reply(mp, MGMT_CODE_FAIL, 0, "invalid %s '%s'", what, args);
    return false;
  }
  *value = static_cast<uint32_t>(v);
  return true;
}

void line(std::string &out, uint32_t vni, const bd_data *bd, uint32_t rtb) {
  char buf[96];
  snprintf(buf, sizeof buf, "%-10u %-14u %-14u %u\n", vni, static_cast<unsigned>(bd->bd_id), rtb,
           static_cast<unsigned>(bd->vlan));
  out += buf;
}

// Every bridge domain, routing table by routing table, keyed by VNI or by
// bridge-domain index; only `only` when given.
std::string listing(bool by_vni, bool given, uint32_t only) {
  std::string out = "VNI        Bridge domain  Routing table  VLAN\n";
  size_t header = out.size();
  if (!tunechod_app.rtb_tbl) return out;
  uint32_t rtb_id = 0;
  for (void *v = sparse_table16_next(tunechod_app.rtb_tbl, nullptr, &rtb_id); v;
       v = sparse_table16_next(tunechod_app.rtb_tbl, &rtb_id, &rtb_id)) {
    auto *rtb = static_cast<rtb_entry *>(v);
    if (given) {
      uint32_t key = only;
      auto *bd = static_cast<bd_data *>(by_vni ? sparse_table32_lookup(rtb->vni_tbl, &key)
                                               : (key < SPARSE16_LIMIT ? sparse_table16_lookup(rtb->bd_tbl, &key)
                                                                       : nullptr));
      if (bd) line(out, bd->vni, bd, rtb_id);
      continue;
    }
    uint32_t key = 0;
    if (by_vni) {
      for (void *b = sparse_table32_next(rtb->vni_tbl, nullptr, &key); b;
           b = sparse_table32_next(rtb->vni_tbl, &key, &key))
        line(out, key, static_cast<bd_data *>(b), rtb_id);
    } else {
      for (void *b = sparse_table16_next(rtb->bd_tbl, nullptr, &key); b;
           b = sparse_table16_next(rtb->bd_tbl, &key, &key))
        line(out, static_cast<bd_data *>(b)->vni, static_cast<bd_data *>(b), rtb_id);
    }
  }
  if (given && out.size() == header) out.clear();
  return out;
}

int answer(mgmt_cmd_ctx *ctx, bool by_vni, char *args) {
  bool given;
  uint32_t only = 0;
  if (!optional_number(ctx->mc_peer, args, by_vni ? 0xFFFFFF : 0xFFFF, by_vni ? "VNI" : "bridge-domain index",
                       &given, &only))
    return MGMT_CMD_DONE;
  std::string text = listing(by_vni, given, only);
  if (text.empty()) {
    mgmt_reply(ctx->mc_peer, MGMT_CODE_FAIL, 0, "%s %u not found", by_vni ? "VNI" : "bridge domain", only);
    return MGMT_CMD_DONE;
  }
  text.pop_back();  // the last newline
  return mgmt_reply_text(ctx->mc_peer, MGMT_CODE_OUTPUT, text.data(), text.size());
}

int show_vni(mgmt_cmd_ctx *ctx, char *args) { return answer(ctx, true, args); }
int show_bridge_domain(mgmt_cmd_ctx *ctx, char *args) { return answer(ctx, false, args); }

int show_statistics(mgmt_cmd_ctx *ctx, char *) {
  const tunechod_stats_t &s = tunechod_stats;
  const struct {
    const char *name;
    uint64_t value;
  } rows[] = {
      {"datagrams received", s.rx_datagrams},     {"refused: too short", s.rx_too_short},
      {"refused: too long", s.rx_too_long},       {"refused: not OAM", s.rx_not_oam},
      {"not an echo request", s.rx_not_request},  {"replies sent", s.tx_replies},
      {"send errors", s.tx_errors},               {"VNI known", s.vni_known},
      {"VNI unknown", s.vni_unknown},             {"MAC present", s.mac_present},
      {"MAC absent", s.mac_absent},               {"learning-daemon queries", s.fdblearnd_queries},
  };
  const size_t n = sizeof rows / sizeof rows[0];
  for (size_t i = 0; i < n; i++)
    mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, i + 1 < n, "%-24s %llu", rows[i].name,
               static_cast<unsigned long long>(rows[i].value));
  return MGMT_CMD_DONE;
}

int clear_statistics(mgmt_cmd_ctx *ctx, char *) {
  memset(&tunechod_stats, 0, sizeof tunechod_stats);
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "statistics cleared");
  return MGMT_CMD_DONE;
}

const mgmt_cmd show_rows[] = {
    {"vni", kModuleKernel, nullptr, show_vni},
    {"bridge-domain", kModuleKernel, nullptr, show_bridge_domain},
    {"statistics", kModuleRecv, nullptr, show_statistics},
    {},
};
const mgmt_cmd clear_rows[] = {{"statistics", kModuleRecv, nullptr, clear_statistics}, {}};

}  // namespace

const mgmt_cmd tunechod_mgmt_cmds[] = {
    {"show", MGMT_MODULE_NONE, show_rows, nullptr},
    {"clear", MGMT_MODULE_NONE, clear_rows, nullptr},
    {},
};

void tunechod_mgmt_init(const char *path) {
  mgmt_framework_mount(tunechod_mgmt_cmds);
  mgmt_framework_set_trace(&tunechod_trace.tc_handle, daemon_trace_types);  // "set trace packets"
  mgmt_listen_on(path);
}
