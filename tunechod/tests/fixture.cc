#include "fixture.h"

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "config/ddl.h"
#include "platform/path.h"
#include "sockaddr/families.h"
#include "trace/trace.h"

namespace {
ztrace_app_ctx actx;
}

void Tunechod::SetUp() {
  char tmpl[] = "/tmp/tunechodtestXXXXXX";
  root_ = mkdtemp(tmpl);
  tvx_path_set_root(root_.c_str());
  ASSERT_EQ(tvx_mkdirs((root_ + "/var/log").c_str(), 0755), 0);
  ASSERT_EQ(tvx_mkdirs((root_ + "/var/run").c_str(), 0755), 0);
  log_ = &evlog_capture_start();
  ztrace_app_ctx_defaults(&actx);
  actx.progname = "tunechod";
  trace_init(&actx);
  tunechod_schema_register();
  zsock_hooks h = zsock_hooks_libc();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
  zsock_register_inet(GF_INET);
  zsock_register_inet6(GF_INET6);
  zsock_register_unix(GF_UNIX);
  zsock_register_i802(GF_I802);
  ddl_access_config_error_clear_flags(DDL_ERR_STDERR);
  const std::string conf = root_ + "/tunechod.conf";
  std::ofstream(conf) << "protocols { overlay { traceoptions { file tunechod no-stamp size 10m; flag all; } } }\n";
  ASSERT_NE(ddl_access_open_db(0, conf.c_str(), TUNECHOD_SCHEMA, 0, 1), nullptr);
  ASSERT_EQ(tunechod_config_read(), 1);
  memset(&tunechod_app, 0, sizeof tunechod_app);
  memset(&tunechod_stats, 0, sizeof tunechod_stats);
  tunechod_tables_init();
  log_->records.clear();  // the trace file's opening line
}

void Tunechod::TearDown() {
  daemon_trace_close(&tunechod_trace);
  trace_shutdown();
  ddl_access_close_db(0, 0);
  evlog_capture_stop();
  tvx_path_set_root(nullptr);
  EXPECT_EQ(system(("rm -rf '" + root_ + "'").c_str()), 0);
}

std::string Tunechod::trace_text() const {
  std::ifstream in(root_ + "/var/log/tunechod");
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

rts_bd_msg Tunechod::bd(uint8_t op, uint16_t rtb, uint16_t index, uint32_t vni, bool vxlan) {
  rts_bd_msg m;
  memset(&m, 0, sizeof m);
  m.hdr.version = 98;
  m.hdr.type = RTS_T_BRIDGE_DOMAIN;
  m.hdr.operation = op;
  m.hdr.size = 200;
  m.rtb_id = rtb;
  m.bdm_index = index;
  m.vnid = vni;
  m.vlan.vlan = 10;
  m.cfg_flags = vxlan ? uint64_t{TUNECHOD_BD_VXLAN} : 0;
  return m;
}
