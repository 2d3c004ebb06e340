// The real rtsockd process, started on a temporary socket path with the
// sample state: scans, gets, notifications by listen mask, faults, and
// clients that misbehave while the others are served.
#include "peer_harness.h"

namespace {

using namespace rtsockd_test;

TEST(RtsockdProcess, ScanByGetnextToTheEndOfATable) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle h;
  ASSERT_NE(h.c, nullptr);
  std::vector<unsigned> seen, vnis;
  uint16_t cursor = 0;
  int err;
  rts_bd_msg *bd;
  while ((err = bd_request(h, RTS_OP_GETNEXT, cursor, &bd)) == 0) {
    cursor = bd->bdm_index;
    seen.push_back(bd->bdm_index);
    vnis.push_back(bd->vnid);
    EXPECT_EQ(bd->rtb_id, 7);
    EXPECT_EQ(bd->hdr.operation, RTS_OP_GETNEXT);
    rtslib_msg_idl_release(h, bd);
  }
  EXPECT_EQ(err, ENOENT) << "the end of the table";
  EXPECT_EQ(seen, (std::vector<unsigned>{5, 6, 9}));
  EXPECT_EQ(vnis, (std::vector<unsigned>{100, 200, 0}));

  // The logical interfaces, by their own getnext.
  std::vector<unsigned> ifls;
  rts_ifl_msg *ifl;
  uint32_t index = 0;
  while (rtslib_iflm_get_by_index(h, index, RTS_OP_GETNEXT, &ifl, 0) == 0) {
    index = ifl->iflm_index;
    ifls.push_back(index);
    rtslib_msg_idl_release(h, ifl);
  }
  EXPECT_EQ(ifls, (std::vector<unsigned>{70, 71}));
}

TEST(RtsockdProcess, NextHopsByIndexAndInOrder) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle h;
  ASSERT_NE(h.c, nullptr);
  rts_nh_msg *nh = nullptr;
  ASSERT_EQ(rtslib_rnhm_get_by_index(h, 1001, RTS_OP_GET, &nh, 0), 0);
  EXPECT_EQ(nh->nhm_ifl_index, 71u);
  EXPECT_EQ(nh->nhm_type, 1);
  ASSERT_EQ(nh->nhm_gw_bits, 32);
  EXPECT_EQ(nh->nhm_gw[3], 254);
  rtslib_msg_idl_release(h, nh);
  EXPECT_EQ(rtslib_rnhm_get_by_index(h, 1003, RTS_OP_GET, &nh, 0), ENOENT);
  std::vector<uint32_t> order;
  for (uint32_t i = 0; order.size() < 10 && rtslib_rnhm_get_by_index(h, i, RTS_OP_GETNEXT, &nh, 0) == 0;) {
    i = nh->nhm_index;
    order.push_back(i);
    rtslib_msg_idl_release(h, nh);
  }
  EXPECT_EQ(order, (std::vector<uint32_t>{1001, 1002}));
  EXPECT_NE(peer.admin("show nh").find("nh index=1002 af=2 type=2"), std::string::npos) << peer.admin("show nh");
}

// Replies of a bulk batch come with its verdict, or, past 64 KiB, on the data
// socket ahead of it: either way every get has its answer.
TEST(RtsockdProcess, BulkRepliesSmallAndLarge) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle h;
  ASSERT_NE(h.c, nullptr);
  ASSERT_EQ(rtslib_set_sync_mode(h, RTS_SYNC_BULK_ENABLE), 0);
  for (uint32_t count : {3u, 600u}) {
    SCOPED_TRACE(count);
    std::vector<rts_bd_msg> reqs(count);
    std::vector<rtslib_bulk_iov> iov(count);
    for (uint32_t i = 0; i < count; i++) {
      reqs[i].hdr.version = 98;
      reqs[i].hdr.type = RTS_T_BRIDGE_DOMAIN;
      reqs[i].hdr.operation = RTS_OP_GET;
      reqs[i].hdr.size = 200;
      reqs[i].bdm_index = i % 2 ? 6 : 5;
      iov[i].rbi_msg = &reqs[i];
    }
    ASSERT_EQ(rtslib_msg_writev_idl(h, count, iov.data(), nullptr), 0);
    for (uint32_t i = 0; i < count; i++) {
      auto *bd = static_cast<rts_bd_msg *>(iov[i].rbi_reply);
      ASSERT_NE(bd, nullptr) << i;
      EXPECT_EQ(bd->vnid, i % 2 ? 200u : 100u);
      rtslib_msg_idl_release(h, bd);
    }
  }
  // A plain get after them finds its own answer.
  ASSERT_EQ(rtslib_set_sync_mode(h, 0), 0);
  rts_bd_msg *bd;
  ASSERT_EQ(bd_request(h, RTS_OP_GET, 6, &bd), 0);
  EXPECT_EQ(bd->vnid, 200u);
  rtslib_msg_idl_release(h, bd);
}

TEST(RtsockdProcess, GetsFindMissAndAnswerForEveryTable) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle h;
  ASSERT_NE(h.c, nullptr);
  // The MAC lookup of the responder: bridge domain 5, the MAC, 80 bits, table 7.
  const uint8_t key[10] = {0, 5, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  rts_rt_msg *rt;
  ASSERT_EQ(rtslib_rtm_get(h, 7, RTS_AF_BRIDGE, key, 80, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), 0);
  EXPECT_EQ(rt->rtm_type, 2);
  EXPECT_EQ(rt->rtm_flags & 1, 0u);
  EXPECT_EQ(rt->rtm_nh_index, 1001u);
  rtslib_msg_idl_release(h, rt);
  const uint8_t other[10] = {0, 5, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x56};
  EXPECT_EQ(rtslib_rtm_get(h, 7, RTS_AF_BRIDGE, other, 80, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), ENOENT);
  EXPECT_EQ(rt, nullptr);

  // The source-address choice: lo0 unit 0, its address, the ingress subnet.
  rts_ifl_msg *ifl;
  ASSERT_EQ(rtslib_iflm_get_by_name(h, "lo0", 0, RTS_OP_GET, &ifl, 0), 0);
  EXPECT_EQ(ifl->iflm_index, 70u);
  rtslib_msg_idl_release(h, ifl);
  rts_ifa_msg *ifa;
  const uint8_t lo[4] = {10, 255, 0, 1}, peer_addr[4] = {192, 0, 2, 77}, none[4] = {10, 255, 0, 2};
  ASSERT_EQ(rtslib_ifam_get_by_local(h, 70, 2, lo, 32, RTS_OP_GET, &ifa, 0), 0);
  rtslib_msg_idl_release(h, ifa);
  EXPECT_EQ(rtslib_ifam_get_by_local(h, 70, 2, none, 32, RTS_OP_GET, &ifa, 0), ENOENT);
  ASSERT_EQ(rtslib_ifam_get_by_dest(h, 71, 2, peer_addr, 32, RTS_OP_GET, &ifa, 0), 0);
  EXPECT_EQ(memcmp(ifa->ifam_local, "\xc0\x00\x02\x01", 4), 0);
  rtslib_msg_idl_release(h, ifa);

  rts_ifd_msg *ifd;
  ASSERT_EQ(rtslib_ifdm_get_by_snmp_index(h, 501, RTS_OP_GET, &ifd, 0), 0);
  EXPECT_STREQ(ifd->ifdm_name, "ge-0/0/0");
  rtslib_msg_idl_release(h, ifd);
  rts_iff_msg *iff;
  ASSERT_EQ(rtslib_iffm_get_by_dev_name(h, "ge-0/0/0.0", 2, RTS_OP_GET, &iff, 0), 0);
  EXPECT_EQ(iff->iffm_mtu, 1500u);
  rtslib_msg_idl_release(h, iff);
  rts_rtb_msg *rtb;
  ASSERT_EQ(rtslib_rtbm_get_by_name(h, RTS_AF_BRIDGE, "vs1.bridge", &rtb, 0), 0);
  EXPECT_EQ(rtb->rtbm_index, 7);
  rtslib_msg_idl_release(h, rtb);
  rts_rtmatch_msg *m;
  const uint8_t dst[4] = {10, 1, 2, 3};
  ASSERT_EQ(rtslib_rtmatch_by_prefix(h, 0, 2, RTS_OP_GET, dst, 32, &m, 0), 0);
  EXPECT_EQ(m->rtmm_match_bits, 8);
  EXPECT_EQ(m->rtmm_nh_index, 2u);
  rtslib_msg_idl_release(h, m);
  rts_ifstats_msg *st;
  ASSERT_EQ(rtslib_iflsm_get_by_index(h, 71, &st), 0);
  EXPECT_EQ(st->ifsm_index, 71u);
  rtslib_msg_idl_release(h, st);
  EXPECT_EQ(rtslib_ifdsm_get_by_index(h, 99, &st), ENOENT);
  // A table the peer does not serve.
  rts_msg_hdr g{};
  g.type = 14;  // firewall
  g.operation = RTS_OP_GET;
  EXPECT_EQ(rtslib_msg_write_idl(h, 14, &g, nullptr), EOPNOTSUPP);
}

TEST(RtsockdProcess, HandshakeFaults) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  LogCapture log;
  EXPECT_EQ(peer.admin("fault version iface 97"), "ok\n");
  EXPECT_EQ(rtslib_open(131), nullptr);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "interface version mismatch: kernel=97 library=98"));
  EXPECT_EQ(peer.admin("fault clear"), "ok\n");
  EXPECT_EQ(peer.admin("fault version count 111"), "ok\n");
  EXPECT_EQ(peer.admin("fault version type bd 97"), "ok\n");
  Handle h;
  ASSERT_NE(h.c, nullptr);
  EXPECT_TRUE(log.has(RTSLIB_LOG_WARNING, "kernel has new unknown messages: expected 110 got 111"));
  EXPECT_TRUE(log.has(RTSLIB_LOG_WARNING, "version mismatch for msg bridge-domain (89): expected 98 got 97"));
}

TEST(RtsockdProcess, FailSilenceAndRawBytes) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle h;
  ASSERT_NE(h.c, nullptr);
  rts_bd_msg *bd;
  EXPECT_EQ(peer.admin("fault fail bd EPERM"), "ok\n");
  EXPECT_EQ(bd_request(h, RTS_OP_GET, 5, &bd), EPERM);
  EXPECT_EQ(peer.admin("fault silent bd"), "ok\n");
  EXPECT_EQ(peer.admin("fault fail bd 0").find("error: bad errno"), 0u);
  EXPECT_EQ(peer.admin("fault clear"), "ok\n");
  EXPECT_EQ(peer.admin("fault silent 89"), "ok\n");
  EXPECT_EQ(bd_request(h, RTS_OP_GET, 5, &bd), EAGAIN) << "no answer queued";
  EXPECT_EQ(peer.admin("fault clear"), "ok\n");
  ASSERT_EQ(bd_request(h, RTS_OP_GET, 5, &bd), 0);
  rtslib_msg_idl_release(h, bd);
  // Raw bytes reach the client as one record.
  EXPECT_EQ(peer.admin("fault raw all 11500000ffff0000"), "sent to 1\nok\n");
  uint8_t *buf;
  uint32_t len;
  // Too short for a header: it reads as nothing queued, and stays.
  EXPECT_EQ(rtslib_msg_read(h, &buf, &len), EAGAIN);
  EXPECT_EQ(rts_lower()->lo_read(nullptr, h.c->fd, buf = nullptr, 0), -1) << "the record is still there";
  EXPECT_EQ(errno, EMSGSIZE);
}

TEST(RtsockdProcess, NotificationsGoToListenersOnly) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle bd_listener(1), addr_listener(2), deaf(3), writer(4);
  ASSERT_NE(writer.c, nullptr);
  bd_listener.listen(0, 0x1000);
  addr_listener.listen(0x20, 0);
  writer.listen(0, 0x1000);
  EXPECT_EQ(peer.admin("add bd index=12 rtb_id=7 vnid=300 cfg_flags=0x800"), "ok\n");
  void *m;
  ASSERT_EQ(rtslib_msg_read_idl(bd_listener, &m), 0);
  auto *bd = static_cast<rts_bd_msg *>(m);
  EXPECT_EQ(bd->hdr.operation, RTS_OP_ADD);
  EXPECT_EQ(bd->bdm_index, 12);
  EXPECT_EQ(bd->vnid, 300u);
  rtslib_msg_idl_release(nullptr, m);
  ASSERT_EQ(rtslib_msg_read_idl(writer, &m), 0);
  rtslib_msg_idl_release(nullptr, m);
  EXPECT_EQ(rtslib_msg_read_idl(addr_listener, &m), EAGAIN);
  EXPECT_EQ(rtslib_msg_read_idl(deaf, &m), EAGAIN);

  // A client's own change reaches the other listeners, not itself.
  rts_bd_msg change{};
  change.hdr.type = RTS_T_BRIDGE_DOMAIN;
  change.hdr.version = 98;
  change.hdr.operation = RTS_OP_CHANGE;
  change.bdm_index = 12;
  change.vnid = 301;
  ASSERT_EQ(rtslib_msg_write_idl(writer, RTS_T_BRIDGE_DOMAIN, &change, nullptr), 0);
  ASSERT_EQ(rtslib_msg_read_idl(bd_listener, &m), 0);
  EXPECT_EQ(static_cast<rts_bd_msg *>(m)->hdr.operation, RTS_OP_CHANGE);
  EXPECT_EQ(static_cast<rts_bd_msg *>(m)->hdr.sender, 4u);
  EXPECT_EQ(static_cast<rts_bd_msg *>(m)->vnid, 301u);
  rtslib_msg_idl_release(nullptr, m);
  EXPECT_EQ(rtslib_msg_read_idl(writer, &m), EAGAIN);

  // A delete carries the object as it was.
  EXPECT_EQ(peer.admin("delete bd index=12"), "ok\n");
  ASSERT_EQ(rtslib_msg_read_idl(bd_listener, &m), 0);
  EXPECT_EQ(static_cast<rts_bd_msg *>(m)->hdr.operation, RTS_OP_DELETE);
  EXPECT_EQ(static_cast<rts_bd_msg *>(m)->vnid, 301u);
  rtslib_msg_idl_release(nullptr, m);
  EXPECT_EQ(peer.admin("add ifa ifl_index=71 af=2 local=198.51.100.1/32"), "ok\n");
  ASSERT_EQ(rtslib_msg_read_idl(addr_listener, &m), 0);
  EXPECT_EQ(static_cast<rts_ifa_msg *>(m)->ifam_ifl_index, 71u);
  rtslib_msg_idl_release(nullptr, m);
  EXPECT_EQ(rtslib_msg_read_idl(bd_listener, &m), EAGAIN);
}

TEST(RtsockdProcess, MisbehavingClientsAreLoggedAndOthersServed) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle good;
  ASSERT_NE(good.c, nullptr);
  auto served = [&] {
    rts_bd_msg *bd;
    if (bd_request(good, RTS_OP_GET, 6, &bd) != 0) return false;
    rtslib_msg_idl_release(good, bd);
    return true;
  };

  // No hello: garbage as the first record.
  int raw = raw_client(peer.sock());
  ASSERT_EQ(send(raw, "garbage!", 8, 0), 8);
  EXPECT_TRUE(peer.wait_log("did not start with a hello and its control socket: dropped"));
  close(raw);
  EXPECT_TRUE(served());

  // Garbage and a cut envelope after a proper open: refused, the client stays.
  Handle bad(9);
  ASSERT_NE(bad.c, nullptr);
  auto write = [&](const std::vector<uint8_t> &b) {
    return rts_lower()->lo_write(nullptr, bad.c->fd, b.data(), b.size()) < 0 ? errno : 0;
  };
  EXPECT_EQ(write({1, 2, 3, 4, 5, 6, 7, 8}), EINVAL);
  EXPECT_TRUE(peer.wait_log("garbage record of 8 bytes (first word 0x4030201)"));
  std::vector<uint8_t> cut = {0x22, 0x50, 0, 0, 100, 0, 0, 0, 89, 0, 0, 0, 1, 2, 3, 4};
  EXPECT_EQ(write(cut), EINVAL);
  EXPECT_TRUE(peer.wait_log("envelope of 112 bytes in a record of 16"));
  std::vector<uint8_t> garbled = {0x22, 0x50, 0, 0, 4, 0, 0, 0, 89, 0, 0, 0, 1, 2, 3, 4};
  EXPECT_EQ(write(garbled), EINVAL);
  EXPECT_TRUE(peer.wait_log("undecodable IDR message of 16 bytes: Garbled Message"));
  EXPECT_EQ(write({3, 2}), EINVAL);
  EXPECT_TRUE(peer.wait_log("record of 2 bytes is too short"));
  EXPECT_TRUE(served());

  // A client that vanishes in the middle of its work.
  {
    Handle gone(10);
    gone.listen(0, 0x1000);
    ASSERT_EQ(bd_request(gone, RTS_OP_GET, 5, nullptr), 0);
  }
  // Closed, or reset with its reply unread: either way one line says so.
  EXPECT_TRUE(peer.wait_log("client 4 (sender 10) ")) << peer.log();
  EXPECT_EQ(peer.admin("add bd index=40 vnid=4"), "ok\n");
  EXPECT_TRUE(served());
  EXPECT_TRUE(peer.alive());
}

TEST(RtsockdProcess, AClientThatStopsReadingBlocksNobody) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle stuck(7), good(8);
  ASSERT_NE(good.c, nullptr);
  stuck.listen(0, 0x1000);
  good.listen(0, 0x1000);
  // More changes than the stuck client's socket and backlog hold, while the
  // good client drains its notifications and keeps asking.
  int got = 0;
  for (int i = 0; i < 4300; i++) {
    ASSERT_EQ(peer.admin("add bd index=" + std::to_string(1000 + i) + " vnid=" + std::to_string(i)), "ok\n");
    void *m;
    while (rtslib_msg_read_idl(good, &m) == 0) {
      got++;
      rtslib_msg_idl_release(nullptr, m);
    }
  }
  EXPECT_EQ(got, 4300);
  EXPECT_TRUE(peer.wait_log("client 1 (sender 7) is not reading: dropping notifications"));
  rts_bd_msg *bd;
  ASSERT_EQ(bd_request(good, RTS_OP_GET, 1042, &bd), 0);
  EXPECT_EQ(bd->vnid, 42u);
  rtslib_msg_idl_release(good, bd);
  // The stuck client's own get fails as on a full kernel socket.
  EXPECT_EQ(bd_request(stuck, RTS_OP_GET, 5, &bd), EAGAIN);
  std::string clients = peer.admin("clients");
  EXPECT_NE(clients.find("client 1 sender 7 listen 0x0 0x1000 backlog 4096 dropped"), std::string::npos) << clients;
}

}  // namespace
