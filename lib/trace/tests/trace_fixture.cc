#include "trace_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/path.h"
#include "trace/trace_config.h"
#include "trace/zevt.h"

const char *const kTimeText = "Nov 21 11:16:58";
uint32_t fixed_usec = 42;
alloc_counts trace_allocs;

namespace {

const char *fixed_time(uint32_t *usec) {
  *usec = fixed_usec;
  return kTimeText;
}

void *count_alloc(int cls, size_t size) {
  trace_allocs.live[cls]++;
  trace_allocs.calls++;
  return calloc(1, size);
}
void count_free(int cls, void *p) {
  trace_allocs.live[cls]--;
  free(p);
}
char *count_strdup(const char *s) {
  trace_allocs.live[TRACE_CLASS_FILENAME]++;
  return strdup(s);
}

const ddl_node filter_attrs[] = {{.dn_name = "port", .dn_type = DDL_UINT}, {}};
const ddl_node loose_flag_attrs[] = {
    {.dn_name = "detail", .dn_type = DDL_TOGGLE},
    {.dn_name = "disable", .dn_type = DDL_TOGGLE},
    {.dn_name = "send", .dn_type = DDL_TOGGLE},
    {.dn_name = "receive", .dn_type = DDL_TOGGLE},
    {.dn_name = "filter", .dn_type = DDL_CONTAINER, .dn_children = filter_attrs},
    {},
};

const ddl_node loose_traceoptions[] = {
    {.dn_name = "file", .dn_type = DDL_CONTAINER, .dn_key_type = DDL_STRING, .dn_key = "filename",
     .dn_children = ztrace_traceoptions_schema.dn_children[0].dn_children},
    {.dn_name = "flag", .dn_type = DDL_CONTAINER, .dn_flags = DDL_LIST, .dn_key_type = DDL_STRING,
     .dn_key = "flag_name", .dn_children = loose_flag_attrs},
    ztrace_traceoptions_schema.dn_children[2],
    {.dn_name = "level", .dn_type = DDL_UINT},
    ztrace_traceoptions_schema.dn_children[4],
    {},
};
const ddl_node loose_node = {.dn_name = "traceoptions", .dn_type = DDL_CONTAINER, .dn_children = loose_traceoptions};

const ddl_node strict_overlay[] = {ztrace_traceoptions_schema, {}};
const ddl_node loose_overlay[] = {loose_node, {}};
const ddl_node strict_protocols[] = {{.dn_name = "overlay", .dn_type = DDL_CONTAINER, .dn_children = strict_overlay}, {}};
const ddl_node loose_protocols[] = {{.dn_name = "overlay", .dn_type = DDL_CONTAINER, .dn_children = loose_overlay}, {}};
const ddl_node strict_top[] = {{.dn_name = "protocols", .dn_type = DDL_CONTAINER, .dn_children = strict_protocols}, {}};
const ddl_node loose_top[] = {{.dn_name = "protocols", .dn_type = DDL_CONTAINER, .dn_children = loose_protocols}, {}};
const ddl_node strict_root = {.dn_name = "", .dn_type = DDL_CONTAINER, .dn_children = strict_top};
const ddl_node loose_root = {.dn_name = "", .dn_type = DDL_CONTAINER, .dn_children = loose_top};

}  // namespace

void TraceTest::SetUp() {
  char tmpl[] = "/tmp/tracetestXXXXXX";
  root_ = mkdtemp(tmpl);
  tvx_path_set_root(root_.c_str());
  ASSERT_EQ(tvx_mkdirs((root_ + "/var/log").c_str(), 0755), 0);
  trace_allocs = alloc_counts{};
  ztrace_app_ctx_defaults(&actx_);
  actx_.progname = "tracetest";
  actx_.time_string = fixed_time;
  actx_.alloc = count_alloc;
  actx_.free = count_free;
  actx_.strdup = count_strdup;
  log_ = &evlog_capture_start();
  ddl_schema_register(kTraceSchema, &strict_root);
  ddl_schema_register(kLooseSchema, &loose_root);
  ddl_access_config_error_clear_flags(DDL_ERR_STDERR);
  trace_init(&actx_);
}

void TraceTest::TearDown() {
  trace_shutdown();
  zevt_system_destroy_all();
  task_memtrace_enable(task_memtrace_main(), false);
  *task_memtrace_main() = task_memtrace_ctx{};
  task_memtrace_main()->memtrace_name = "global";
  for (auto &[cls, n] : trace_allocs.live) EXPECT_EQ(n, 0) << "allocation class " << cls;
  ddl_access_close_db(0, 0);
  evlog_capture_stop();
  std::string cmd = "rm -rf '" + root_ + "'";
  if (system(cmd.c_str()) != 0) perror("rm");
  tvx_path_set_root(nullptr);
}

bool TraceTest::configure(const std::string &text, uint32_t schema) {
  const std::string path = root_ + "/test.conf";
  std::ofstream(path) << text;
  return ddl_access_open_db(0, path.c_str(), schema, 0, 1) != nullptr;
}

std::string slurp(const std::string &path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::string log_text(const evlog_capture &c) {
  std::string out;
  for (const auto &r : c.records) out += r.text + "\n";
  return out;
}
