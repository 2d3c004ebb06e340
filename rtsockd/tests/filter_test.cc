// The real rtsockd with clients that install filters: a compiled program
// narrows a client's notifications and its listen mask comes with it; a
// malformed program is refused; an empty one removes the filter; a record
// without a program (a filter's text) is kept but not applied.
#include "peer_harness.h"
#include "rtsock/rts_filter.h"

namespace {

using namespace rtsockd_test;

std::vector<uint8_t> program(const char *text) {
  std::vector<uint8_t> p(RTS_FILTER_MAX);
  EXPECT_EQ(rts_filter_compile(text, strlen(text), p.data(), p.size(), nullptr), 0) << text;
  return p;
}

int set_filter(Handle &h, const uint8_t *record) {
  int r = rts_lower()->lo_setopt(nullptr, h.c->fd, RTS_SOL, RTS_OPT_FILTER, record, RTS_FILTER_RECORD);
  return r < 0 ? errno : 0;
}

// The vnis of the bridge-domain notifications queued for a handle.
std::vector<unsigned> drain(Handle &h) {
  std::vector<unsigned> out;
  void *m;
  while (rtslib_msg_read_idl(h, &m) == 0) {
    auto *bd = static_cast<rts_bd_msg *>(m);
    out.push_back(bd->hdr.operation == RTS_OP_DELETE ? 1000000 + bd->vnid : bd->vnid);
    rtslib_msg_idl_release(nullptr, m);
  }
  return out;
}

TEST(RtsockdFilter, AProgramNarrowsTheStreamOfItsClientOnly) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle filtered(1), plain(2);
  plain.listen(0, 0x1000);
  uint32_t mask[2] = {0, 0x1000};  // the mask travels in the record
  uint8_t rec[RTS_FILTER_RECORD];
  ASSERT_TRUE(rts_filter_record(program("bd->vnid >= 200 && bd->operation != 3").data(), mask, rec));
  ASSERT_EQ(set_filter(filtered, rec), 0);
  for (const char *cmd : {"add bd index=12 rtb_id=7 vnid=300", "add bd index=13 rtb_id=7 vnid=150",
                          "change bd index=13 rtb_id=7 vnid=210", "delete bd index=12"})
    EXPECT_EQ(peer.admin(cmd), "ok\n") << cmd;
  EXPECT_EQ(drain(filtered), (std::vector<unsigned>{300, 210}));
  EXPECT_EQ(drain(plain), (std::vector<unsigned>{300, 150, 210, 1000300}));

  // An empty program area removes the filter; the mask stays.
  uint8_t none[RTS_FILTER_RECORD] = {};
  memcpy(none, mask, 8);
  ASSERT_EQ(set_filter(filtered, none), 0);
  EXPECT_EQ(peer.admin("delete bd index=13"), "ok\n");
  EXPECT_EQ(drain(filtered), (std::vector<unsigned>{1000210}));
}

TEST(RtsockdFilter, MalformedProgramsAreRefusedAndTextIsKept) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle h(1);
  h.listen(0, 0x1000);
  uint32_t mask[2] = {0, 0x1000};
  uint8_t rec[RTS_FILTER_RECORD];
  ASSERT_TRUE(rts_filter_record(program("bd->vnid == 1").data(), mask, rec));
  rec[RTS_FILTER_PROGRAM_OFF + 24] = RTS_FI_AND;  // pops what is not there
  EXPECT_EQ(set_filter(h, rec), EINVAL);
  uint8_t text[RTS_FILTER_RECORD] = {};
  memcpy(text, mask, 8);
  strcpy(reinterpret_cast<char *>(text) + RTS_FILTER_PROGRAM_OFF, "match type 89");
  EXPECT_EQ(set_filter(h, text), 0);
  EXPECT_TRUE(peer.wait_log("filter record without a compiled program: kept, not applied"));
  EXPECT_EQ(peer.admin("add bd index=12 rtb_id=7 vnid=300"), "ok\n");
  EXPECT_EQ(drain(h), std::vector<unsigned>{300});
}

}  // namespace
