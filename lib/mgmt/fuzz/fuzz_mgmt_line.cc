// The line run on any bytes (a peer's line, cut at its newline): prefixes,
// the walk through merged roots, sub-tables, catch-all rows and values; every
// answer is well framed and the line's words are handed to methods intact.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mgmt/mgmt.h"
#include "task/sched.h"

namespace {

FILE *sink;
mgmtPeer peer;

int echo(mgmt_cmd_ctx *ctx, char *args) {
  if (args && (!*args || *args == ' ' || *args == '\t')) abort();  // arguments start at a word
  for (uint32_t i = 0; i < ctx->mc_nvalues && i < MGMT_VALUES_MAX; i++)
    if (!ctx->mc_values[i][0]) abort();
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "%s", args ? args : "");
  return MGMT_CMD_DONE;
}
int catch_all(mgmt_cmd_ctx *ctx, char *args) {
  if (!(ctx->mc_flags & MGMT_CMD_HELP) && args && !*args) abort();
  return echo(ctx, nullptr);
}

const mgmt_cmd value_rows[] = {{"detail", MGMT_MODULE_NONE, nullptr, echo}, {}};
const mgmt_cmd vni_rows[] = {{nullptr, MGMT_MODULE_NONE, value_rows, echo}};
const mgmt_cmd show_rows[] = {{"a", MGMT_MODULE_NONE, nullptr, echo}, {"b", MGMT_MODULE_NONE, vni_rows, echo}, {}};
const mgmt_cmd root_a[] = {{"show", MGMT_MODULE_NONE, show_rows, nullptr},
                           {"vni", MGMT_MODULE_NONE, vni_rows, nullptr},
                           {nullptr, MGMT_MODULE_NONE, nullptr, catch_all}};
const mgmt_cmd more_show[] = {{"c", MGMT_MODULE_NONE, nullptr, echo}, {}};
const mgmt_cmd root_b[] = {{"show", MGMT_MODULE_NONE, more_show, nullptr}, {"x", MGMT_MODULE_NONE, nullptr, echo}, {}};

void setup(void) {
  task_kernel_init();
  mgmt_init();
  mgmt_cmd_register(root_a);
  mgmt_cmd_mount(root_b);
  sink = fopen("/dev/null", "w");
  peer.mp_task = task_alloc("fuzz", 10, nullptr);
  peer.mp_file = sink;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (!sink) setup();
  if (size > 4096) return 0;
  std::string line(reinterpret_cast<const char *>(data), size);
  line.resize(strlen(line.c_str()));  // a line ends at its first NUL, as the reader's does
  int rc = mgmt_run_line(&peer, line.data());
  if (rc != MGMT_CMD_DONE && rc != MGMT_EVENT_QUIT) abort();  // "quit" closes, nothing else may
  return 0;
}
