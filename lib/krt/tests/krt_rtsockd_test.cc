// The channel against the real rtsockd: a scan of a large table with
// changes made through the admin socket while it runs, and a flood of
// notifications through the read job.
#include <gtest/gtest.h>

#include <poll.h>

#include <map>
#include <sstream>

#include "io_fixture.h"
#include "krt/krt.h"
#include "krt/krt_scan.h"
#include "rtsockd_proc.h"

namespace {

constexpr uint32_t kBds = 65000;  // bridge-domain indexes are 16 bits

std::map<uint16_t, uint32_t> table;  // index -> vnid, as the daemon learns it
Rtsockd *peer;
uint32_t replies, notifications;
std::vector<std::string> changes;  // admin commands in order, one every so many replies
size_t next_change;

void on_bd(task *, void *m, uint32_t) {
  auto *b = static_cast<rts_bd_msg *>(m);
  notifications++;
  if (b->hdr.operation == RTS_OP_DELETE) table.erase(b->bdm_index);
  else table[b->bdm_index] = b->vnid;
}

int scan_reply(void *m, uint32_t, krt_scan_state *st) {
  auto *b = static_cast<rts_bd_msg *>(m);
  table[b->bdm_index] = b->vnid;
  reinterpret_cast<krt_cursor_bd *>(st->priv)->index = b->bdm_index;
  if (++replies % 5000 == 0 && next_change < changes.size()) {
    std::string r = peer->admin(changes[next_change]);
    EXPECT_NE(r.find("ok"), std::string::npos) << changes[next_change] << ": " << r;
    next_change++;
  }
  return 1;
}

bool scan_done;
void on_done() { scan_done = true; }

class KrtRtsockd : public tt::Io {};

// The table after the changes, by applying their text to the first state.
std::map<uint16_t, uint32_t> expected(std::map<uint16_t, uint32_t> t, const std::vector<std::string> &cmds) {
  for (const std::string &c : cmds) {
    std::istringstream in(c);
    std::string verb, kind, f;
    in >> verb >> kind;
    uint32_t index = 0, vnid = 0;
    while (in >> f) {
      if (f.rfind("index=", 0) == 0) index = static_cast<uint32_t>(std::stoul(f.substr(6)));
      if (f.rfind("vnid=", 0) == 0) vnid = static_cast<uint32_t>(std::stoul(f.substr(5)));
    }
    if (verb == "delete") t.erase(static_cast<uint16_t>(index));
    else t[static_cast<uint16_t>(index)] = vnid;
  }
  return t;
}

TEST_F(KrtRtsockd, AScanOfALargeTableWithChangesInterleavedEndsWithTheExactTable) {
  std::string state;
  std::map<uint16_t, uint32_t> first;
  for (uint32_t i = 1; i <= kBds; i++) {
    state += "bd index=" + std::to_string(i) + " rtb_id=7 vnid=" + std::to_string(10000 + i) + " cfg_flags=0x800\n";
    first[static_cast<uint16_t>(i)] = 10000 + i;
  }
  Rtsockd p(state);
  ASSERT_TRUE(p.ready());
  peer = &p;
  // Behind the cursor and ahead of it, additions, changes and deletions;
  // one every 5,000 replies.
  changes = {"delete bd index=20000",   "delete bd index=2",
             "change bd index=64000 rtb_id=7 vnid=1", "add bd index=65100 rtb_id=7 vnid=5",
             "change bd index=3 rtb_id=7 vnid=33",    "delete bd index=60001",
             "add bd index=0 rtb_id=7 vnid=77",       "delete bd index=30000",
             "add bd index=20000 rtb_id=7 vnid=2"};
  static krt_handler_fn handlers[KRT_HANDLER_COUNT] = {};
  handlers[RTS_T_BRIDGE_DOMAIN] = on_bd;
  static const krt_scan scan = {89, 1, sizeof(krt_cursor_bd), 1, nullptr, nullptr, nullptr,
                                krt_scan_req_bridge_domain, scan_reply, on_done};
  static krt_config cfg{};
  cfg.sender_id = 131;
  cfg.listen_mask[1] = 0x1000;
  cfg.async_mode_on = 1;
  cfg.handlers = handlers;
  cfg.scans = &scan;
  cfg.scan_count = 1;
  krt_var_init();
  krt_start(&cfg);
  for (int i = 0; i < 100 && !scan_done; i++) real_passes(2);
  ASSERT_TRUE(scan_done);
  EXPECT_EQ(next_change, changes.size());
  // Notifications that came after the last reply.
  for (int i = 0; i < 10; i++) real_passes(2);
  EXPECT_GT(notifications, 0u);
  auto expect = expected(first, changes);
  EXPECT_EQ(expect.size(), kBds - 1u);
  EXPECT_EQ(table.size(), expect.size());
  EXPECT_TRUE(table == expect);
  EXPECT_EQ(table.count(2), 0u);
  EXPECT_EQ(table[3], 33u);
  EXPECT_EQ(table[64000], 1u);
  EXPECT_EQ(table[0], 77u);
}

TEST_F(KrtRtsockd, AFloodOfNotificationsReachesTheHandlerInBatchesOfTen) {
  Rtsockd p("bd index=5 rtb_id=7 vnid=500 cfg_flags=0x800\n");
  ASSERT_TRUE(p.ready());
  static krt_handler_fn handlers[KRT_HANDLER_COUNT] = {};
  handlers[RTS_T_BRIDGE_DOMAIN] = on_bd;
  static krt_config cfg{};
  cfg.sender_id = 131;
  cfg.listen_mask[1] = 0x1000;
  cfg.async_mode_on = 1;
  cfg.handlers = handlers;
  krt_var_init();
  krt_start(&cfg);
  notifications = 0;
  // The peer sees our listen mask and sender id.
  std::string clients = p.admin("clients");
  EXPECT_NE(clients.find("sender 131 listen 0x0 0x1000"), std::string::npos) << clients;
  EXPECT_NE(p.admin("flood 20000 bd index=5").find("flooding 20000 to 1"), std::string::npos);
  uint32_t before = 0;
  bool batches_of_ten = true;
  // The peer is another process: when nothing has come, wait for the socket.
  for (int idle = 0; idle < 50 && notifications < 20000;) {
    real_passes(2);
    if (notifications - before > 2 * KRT_READ_BUDGET) batches_of_ten = false;
    if (notifications == before && !krt_read_job()) {
      pollfd pf{krt_task()->task_socket, POLLIN, 0};
      idle = poll(&pf, 1, 200) > 0 ? 0 : idle + 1;
    }
    before = notifications;
  }
  EXPECT_EQ(notifications, 20000u);
  EXPECT_TRUE(batches_of_ten);
  EXPECT_EQ(table[5], 500u);
}

}  // namespace
