// The bridge-domain tables: the conflict rules of add, change and delete,
// checked case by case and against a model over a seeded random stream.
#include <map>
#include <random>
#include <vector>

#include "fixture.h"
#include "krt/krt_scan.h"

namespace {

bd_data *by_bd(uint32_t rtb, uint32_t bd_id) {
  rtb_entry *e = tunechod_rtb_find(rtb);
  return e ? static_cast<bd_data *>(sparse_table16_lookup(e->bd_tbl, &bd_id)) : nullptr;
}
bd_data *by_vni(uint32_t rtb, uint32_t vni) {
  rtb_entry *e = tunechod_rtb_find(rtb);
  return e ? static_cast<bd_data *>(sparse_table32_lookup(e->vni_tbl, &vni)) : nullptr;
}

class BdTables : public Tunechod {
 protected:
  int send(uint8_t op, uint16_t rtb, uint16_t index, uint32_t vni, bool vxlan = true) {
    rts_bd_msg m = bd(op, rtb, index, vni, vxlan);
    return tunechod_rtsock_decode_bd(&m);
  }
};

TEST_F(BdTables, SamePairTwiceIsAlreadyPresent) {
  EXPECT_EQ(send(RTS_OP_ADD, 7, 5, 100), 1);
  bd_data *first = by_bd(7, 5);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->vni, 100u);
  EXPECT_EQ(first->vlan, 10);
  EXPECT_EQ(by_vni(7, 100), first);
  EXPECT_EQ(send(RTS_OP_CHANGE, 7, 5, 100), 1);
  EXPECT_EQ(by_bd(7, 5), first);
  EXPECT_TRUE(traced("Received BD add for bdm_index 5 rtb_id 7"));
  EXPECT_TRUE(traced("): [vni 100, bdm_index 5] already present\n"));
  EXPECT_EQ(tunechod_app.def_rtb_id, 7);
  EXPECT_EQ(tunechod_app.def_rtb_id_set, 1);
  send(RTS_OP_ADD, 9, 1, 1);
  EXPECT_EQ(tunechod_app.def_rtb_id, 7) << "the first table stays the default";
}

TEST_F(BdTables, TheNewestMessageWins) {
  // A bridge domain takes a new VNI: the old VNI is gone.
  send(RTS_OP_ADD, 7, 5, 100);
  EXPECT_EQ(send(RTS_OP_CHANGE, 7, 5, 200), 1);
  EXPECT_EQ(by_bd(7, 5)->vni, 200u);
  EXPECT_EQ(by_vni(7, 100), nullptr);
  EXPECT_EQ(by_vni(7, 200), by_bd(7, 5));
  // A VNI moves to another bridge domain: the old bridge domain is gone.
  EXPECT_EQ(send(RTS_OP_ADD, 7, 6, 200), 1);
  EXPECT_EQ(by_bd(7, 5), nullptr);
  EXPECT_EQ(by_vni(7, 200)->bd_id, 6);
  EXPECT_TRUE(traced("Removing conflicting [vni 200, bdm_index 5] - before adding [vni 200, bdm_index 6]"));
  // Both at once: bridge domain 9 takes VNI 200 from bridge domain 6.
  send(RTS_OP_ADD, 7, 9, 300);
  EXPECT_EQ(send(RTS_OP_CHANGE, 7, 9, 200), 1);
  EXPECT_EQ(by_bd(7, 6), nullptr);
  EXPECT_EQ(by_vni(7, 300), nullptr);
  EXPECT_EQ(by_vni(7, 200), by_bd(7, 9));
  send(RTS_OP_ADD, 7, 6, 200);
  // Tables are per routing table.
  EXPECT_EQ(send(RTS_OP_ADD, 8, 6, 200), 1);
  EXPECT_EQ(by_bd(7, 6)->vni, 200u);
  EXPECT_EQ(by_bd(8, 6)->vni, 200u);
  EXPECT_NE(by_bd(7, 6), by_bd(8, 6));
  for (auto &r : log_->records) ADD_FAILURE() << r.tag << ": " << r.text;
}

TEST_F(BdTables, TheVxlanFlagCountsForAddsOnly) {
  EXPECT_EQ(send(RTS_OP_ADD, 7, 5, 100, false), 1);
  EXPECT_EQ(tunechod_rtb_find(7), nullptr) << "not a VXLAN bridge domain";
  send(RTS_OP_ADD, 7, 5, 100);
  EXPECT_EQ(send(RTS_OP_CHANGE, 7, 5, 300, false), 1);
  EXPECT_EQ(by_bd(7, 5)->vni, 100u) << "a change without the flag leaves the entry";
  EXPECT_EQ(send(RTS_OP_DELETE, 7, 5, 0, false), 1);
  EXPECT_EQ(by_bd(7, 5), nullptr);
  EXPECT_EQ(by_vni(7, 100), nullptr);
  EXPECT_TRUE(traced("Deleting [vni 100, bdm_index 5] from bd_tbl and vni_tbl"));
  EXPECT_NE(tunechod_rtb_find(7), nullptr) << "the routing table's entry stays";
}

TEST_F(BdTables, GetRepliesFillAndUnknownsAreRefusedOrIgnored) {
  EXPECT_EQ(send(RTS_OP_GETNEXT, 7, 5, 100), 1);
  EXPECT_EQ(send(RTS_OP_GET, 7, 6, 101), 1);
  EXPECT_NE(by_vni(7, 100), nullptr);
  EXPECT_NE(by_vni(7, 101), nullptr);
  EXPECT_EQ(send(RTS_OP_DELETE, 99, 5, 0), 1) << "unknown table: silent";
  EXPECT_EQ(send(RTS_OP_DELETE, 7, 77, 0), 1) << "unknown bridge domain: silent";
  for (uint8_t op : {0, 6, 9, 255}) {
    EXPECT_EQ(send(op, 7, 5, 100), 0);
    EXPECT_TRUE(traced("Received unknown message " + std::to_string(op) + " for bdm_index 5 rtb_id 7"));
  }
  EXPECT_NE(by_vni(7, 100), nullptr);
}

TEST_F(BdTables, ABrokenInvariantIsTheOneLoggedError) {
  send(RTS_OP_ADD, 7, 5, 100);
  // Another object under VNI 100: the pair no longer leads back to itself.
  static bd_data stray = {100, 9, 0};
  uint32_t vni = 100;
  sparse_table32_insert(tunechod_rtb_find(7)->vni_tbl, &stray, &vni);
  EXPECT_EQ(send(RTS_OP_DELETE, 7, 5, 0), 0);
  ASSERT_EQ(log_->records.size(), 1u);
  EXPECT_EQ(log_->records[0].priority, 3);
  EXPECT_EQ(log_->records[0].tag, "TUNECHOD_VNI_DELETE_FAILED");
  EXPECT_EQ(log_->records[0].text,
            "TUNECHOD_VNI_DELETE_FAILED: Delete failed for [vni 100, bdm_index 5] - conflicts with [vni 100, "
            "bdm_index 9]");
  EXPECT_EQ(send(RTS_OP_CHANGE, 7, 5, 300), 0);
  EXPECT_EQ(log_->records.back().tag, "TUNECHOD_VNI_DELETE3_FAILED");
  EXPECT_TRUE(traced("Del(3) failed for [vni 100, bdm_index 5] - conflicts with [vni 100, bdm_index 9]"));
  EXPECT_NE(by_bd(7, 5), nullptr) << "nothing removed on a refusal";
}

// A seeded stream of messages against a model of "newest wins".
TEST_F(BdTables, RandomStreamMatchesTheModel) {
  std::mt19937 rng(20261123);
  std::map<std::pair<uint32_t, uint32_t>, uint32_t> model;  // (rtb, bd) -> vni
  for (int i = 0; i < 20000; i++) {
    uint16_t rtb = static_cast<uint16_t>(1 + rng() % 3), bdi = static_cast<uint16_t>(rng() % 40);
    uint32_t vni = 1000 + rng() % 40;
    uint8_t op = static_cast<uint8_t>(1 + rng() % 3);
    bool vxlan = rng() % 8 != 0;
    ASSERT_EQ(send(op, rtb, bdi, vni, vxlan), 1) << i << ": op " << int(op) << " " << rtb << "/" << bdi << " vni " << vni;
    if (op == RTS_OP_DELETE) {
      model.erase({rtb, bdi});
    } else if (vxlan) {
      for (auto it = model.begin(); it != model.end();)
        it = it->first.first == rtb && it->second == vni ? model.erase(it) : std::next(it);
      model[{rtb, bdi}] = vni;
    }
  }
  size_t seen = 0;
  for (uint32_t rtb = 1; rtb <= 3; rtb++)
    for (uint32_t bdi = 0; bdi < 40; bdi++) {
      bd_data *b = by_bd(rtb, bdi);
      auto it = model.find({rtb, bdi});
      ASSERT_EQ(b != nullptr, it != model.end()) << rtb << "/" << bdi;
      if (!b) continue;
      seen++;
      EXPECT_EQ(b->vni, it->second);
      EXPECT_EQ(by_vni(rtb, b->vni), b);
    }
  EXPECT_EQ(seen, model.size());
  EXPECT_TRUE(log_->records.empty());
}

TEST_F(BdTables, ScanRequestsWalkByGetnextFromTheReplies) {
  std::vector<uint8_t> area(sizeof(krt_scan_state) + 8);
  auto *st = reinterpret_cast<krt_scan_state *>(area.data());
  tunechod_bd_scan_init(st);
  alignas(8) uint8_t buf[KRT_SCAN_REQUEST_MAX];
  uint32_t len = 0;
  tunechod_bd_scan_request(buf, &len, st);
  auto *req = reinterpret_cast<rts_bd_msg *>(buf);
  EXPECT_EQ(len, 200u);
  EXPECT_EQ(req->hdr.type, RTS_T_BRIDGE_DOMAIN);
  EXPECT_EQ(req->hdr.version, 98);
  EXPECT_EQ(req->hdr.operation, RTS_OP_GETNEXT);
  EXPECT_EQ(req->hdr.sender, 131u);
  EXPECT_EQ(req->bdm_index, 0);
  rts_bd_msg reply = bd(RTS_OP_GETNEXT, 7, 12, 500);
  EXPECT_EQ(tunechod_bd_scan_reply(&reply, 200, st), 1);
  tunechod_bd_scan_request(buf, &len, st);
  EXPECT_EQ(req->bdm_index, 12) << "the next request starts behind the reply";
  rts_bd_msg bad = bd(0, 7, 40, 500);
  EXPECT_EQ(tunechod_bd_scan_reply(&bad, 200, st), 0);
  tunechod_bd_scan_request(buf, &len, st);
  EXPECT_EQ(req->bdm_index, 12) << "a refused reply does not move the cursor";
  st->first_request = 1;
  tunechod_bd_scan_request(buf, &len, st);
  EXPECT_EQ(req->hdr.operation, RTS_OP_GET);
}

}  // namespace
