// Generic configuration over the in-process peer: the request's rules and
// limits (a request unchanged by every failure), compression on sending and
// decompression of replies through zlib, gets that copy the reply back, a
// request's own channel, the peer-mask arithmetic and dependencies; and the
// route-add acknowledgement socket with additions that wait for an address.
#include <zlib.h>

#include <cstdlib>
#include <string>

#include "fake_peer.h"
#include "rtsock/rtslib_gencfg.h"

namespace {

int z_compress(uint8_t *d, unsigned long *dl, const uint8_t *s, unsigned long sl) { return compress(d, dl, s, sl); }
int z_uncompress(uint8_t *d, unsigned long *dl, const uint8_t *s, unsigned long sl) {
  return uncompress(d, dl, s, sl);
}
int z_fail(uint8_t *, unsigned long *, const uint8_t *, unsigned long) { return Z_BUF_ERROR; }

class Gencfg : public RtslibTest {
 protected:
  std::string key = "key-1";
  std::vector<uint8_t> blob = std::vector<uint8_t>(100, 'x');
  rts_gencfg_msg req{};
  samples::Arena arena{1 << 22};
  void SetUp() override {
    RtslibTest::SetUp();
    SetUp_request();
  }
  void SetUp_request() {
    req = rts_gencfg_msg{};
    req.major = 3;
    req.minor = 4;
    req.gencfg_flags = GENCFG_FLAG_ID | GENCFG_FLAG_KEY;
    req.blob_key = reinterpret_cast<uint8_t *>(key.data());
    req.blob_key_len = static_cast<uint32_t>(key.size());
    req.blob = blob.data();
    req.blob_len = static_cast<uint32_t>(blob.size());
  }
  // The request as the peer got it.
  rts_gencfg_msg *sent() { return peer.request<rts_gencfg_msg>(arena); }
  // Every field of a request, for "unchanged" checks.
  static std::vector<uint8_t> image(const rts_gencfg_msg &m) {
    auto *b = reinterpret_cast<const uint8_t *>(&m);
    return std::vector<uint8_t>(b, b + sizeof m);
  }
  // Answers each request with `reply`, its sequence number and operation.
  void answer_with(rts_gencfg_msg reply) {
    peer.on_write = [this, reply](const FakePeer::Msg &m) mutable {
      rts_msg_pair out{};
      samples::Arena a;
      if (rts_idr_decode(&out, m.data(), static_cast<uint32_t>(m.size()), samples::Arena::alloc, &a) <= 0) return EINVAL;
      auto *q = static_cast<rts_gencfg_msg *>(out.record);
      reply.hdr.type = RTS_T_GENCFG;
      reply.hdr.version = 105;
      reply.hdr.seq = q->hdr.seq;
      reply.hdr.operation = q->hdr.operation;
      peer.reply(RTS_T_GENCFG, &reply, true);
      return 0;
    };
  }
};

// ---- Rules and limits ----------------------------------------------------------------------

TEST_F(Gencfg, KeyOf250IsAcceptedAnd251Refused) {
  key.assign(250, 'k');
  req.blob_key = reinterpret_cast<uint8_t *>(key.data());
  req.blob_key_len = 250;
  ASSERT_EQ(rtslib_gencfg_add(c, &req), 0);
  EXPECT_EQ(sent()->blob_key_len, 250u);
  key.push_back('k');
  req.blob_key = reinterpret_cast<uint8_t *>(key.data());
  req.blob_key_len = 251;
  size_t writes = peer.written.size();
  auto before = image(req);
  EXPECT_EQ(rtslib_gencfg_add(c, &req), EINVAL);
  EXPECT_EQ(image(req), before);
  EXPECT_EQ(peer.written.size(), writes);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Gencfg blob key length (251) is greater than 250 bytes"));
}

TEST_F(Gencfg, BlobOf0x7FFFFIsAcceptedAnd0x80000RefusedWithEnospc) {
  blob.assign(0x80000, 'b');
  req.blob = blob.data();
  req.blob_len = 0x7FFFF;
  ASSERT_EQ(rtslib_gencfg_add(c, &req), 0);
  EXPECT_EQ(sent()->blob_len, 0x7FFFFu);
  req.blob_len = 0x80000;
  auto before = image(req);
  EXPECT_EQ(rtslib_gencfg_add(c, &req), ENOSPC);
  EXPECT_EQ(image(req), before);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Gencfg blob is too large (524288 bytes)"));
}

TEST_F(Gencfg, RulesOfFlagsKeysListsAndOperations) {
  rts_gencfg_msg *out = nullptr;
  auto refused = [&](uint8_t op, const char *why) {
    SCOPED_TRACE(why);
    auto before = image(req);
    size_t writes = peer.written.size();
    EXPECT_EQ(rtslib_gencfg_request(c, &req, op, &out, nullptr), EINVAL);
    EXPECT_EQ(image(req), before);
    EXPECT_EQ(peer.written.size(), writes);
    EXPECT_EQ(out, nullptr);
  };
  EXPECT_EQ(rtslib_gencfg_request(c, nullptr, RTS_OP_ADD, nullptr, nullptr), EINVAL);
  EXPECT_EQ(rtslib_gencfg_request(c, &req, RTS_OP_GET, nullptr, nullptr), EINVAL);  // no result
  req.gencfg_flags = 0;
  refused(RTS_OP_ADD, "flags 0 on an add");
  answer_with(req);
  rts_gencfg_msg get = req;  // a get copies the reply into its request
  ASSERT_EQ(rtslib_gencfg_get(c, &get, RTS_OP_GET, &out), 0);  // flags 0 on a get
  rtslib_msg_idl_release(c, out);
  out = nullptr;
  req.gencfg_flags = GENCFG_FLAG_DEPEND;
  refused(RTS_OP_ADD, "a dependency flag without the list");
  req.gencfg_flags = GENCFG_FLAG_KEY;
  req.gencfg_peer_count = 2;
  refused(RTS_OP_ADD, "peers counted without their records");
  req.gencfg_peer_count = 0;
  req.blob_key_len = 0;
  refused(RTS_OP_ADD, "a key flag without a key");
  refused(RTS_OP_DELETE, "the same on a delete");
  refused(RTS_OP_GETNEXT, "a key pointer without a length");
  req.gencfg_flags |= GENCFG_FLAG_KEY_OPTIONAL;
  EXPECT_EQ(rtslib_gencfg_add(c, &req), 0);
  refused(RTS_OP_CLEAR, "an operation gencfg does not have");
}

// ---- Compression ------------------------------------------------------------------------------

TEST_F(Gencfg, CompressOnSendRestoresTheCallersBlob) {
  blob.assign(200000, 0);
  for (size_t i = 0; i < blob.size(); i++) blob[i] = static_cast<uint8_t>(i % 61);
  req.blob = blob.data();
  req.blob_len = static_cast<uint32_t>(blob.size());
  req.gencfg_flags |= GENCFG_FLAG_COMPRESS;
  auto before = image(req);
  EXPECT_EQ(rtslib_gencfg_add(c, &req), EINVAL);  // nothing installed
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Compression was not initialized for rtslib"));
  rtslib_init_blob_compression(c, z_compress, nullptr);  // half a pair is ignored
  EXPECT_EQ(rtslib_gencfg_add(c, &req), EINVAL);
  rtslib_init_blob_compression(c, z_fail, z_uncompress);
  EXPECT_EQ(rtslib_gencfg_add(c, &req), EIO);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Failed to compress gencfg blob of 200000 bytes (rc -5)"));
  EXPECT_EQ(image(req), before);
  EXPECT_TRUE(peer.written.empty());

  rtslib_init_blob_compression(c, z_compress, z_uncompress);
  ASSERT_EQ(rtslib_gencfg_add(c, &req), 0);
  EXPECT_EQ(image(req), before);  // pointer and length as they were
  rts_gencfg_msg *m = sent();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->gencfg_flags, GENCFG_FLAG_ID | GENCFG_FLAG_KEY | GENCFG_FLAG_COMPRESS | GENCFG_FLAG_COMPRESSED);
  ASSERT_GT(m->blob_len, 4u);
  EXPECT_LT(m->blob_len, 10000u);
  uint32_t orig;
  memcpy(&orig, m->blob, 4);
  EXPECT_EQ(orig, 200000u);
  std::vector<uint8_t> back(orig);
  unsigned long got = orig;
  ASSERT_EQ(uncompress(back.data(), &got, m->blob + 4, m->blob_len - 4), Z_OK);
  EXPECT_EQ(back, blob);
  EXPECT_TRUE(log.has(RTSLIB_LOG_DEBUG, "Gencfg blob was compressed from 200000 to"));
  // A blob too large as it stands goes when it compresses below the limit.
  blob.assign(0x100000, 7);
  req.blob = blob.data();
  req.blob_len = 0x100000;
  EXPECT_EQ(rtslib_gencfg_add(c, &req), 0);
  // Only adds and changes compress: a delete sends the blob as it is.
  req.blob_len = 1000;
  ASSERT_EQ(rtslib_gencfg_delete(c, &req), 0);
  EXPECT_EQ(sent()->blob_len, 1000u);
  EXPECT_FALSE(sent()->gencfg_flags & GENCFG_FLAG_COMPRESSED);
}

TEST_F(Gencfg, GetDecompressesAndCopiesTheReplyBack) {
  rtslib_init_blob_compression(c, z_compress, z_uncompress);
  std::string text(3000, 'q');
  unsigned long room = compressBound(text.size());
  std::vector<uint8_t> packed(4 + room);
  uint32_t n = static_cast<uint32_t>(text.size());
  memcpy(packed.data(), &n, 4);
  ASSERT_EQ(compress(packed.data() + 4, &room, reinterpret_cast<const uint8_t *>(text.data()), text.size()), Z_OK);
  packed.resize(4 + room);
  rts_gencfg_msg reply{};
  reply.major = 3;
  reply.minor = 9;
  reply.gencfg_flags = GENCFG_FLAG_KEY | GENCFG_FLAG_COMPRESSED | GENCFG_FLAG_MORE;
  std::string next_key = "key-2";
  reply.blob_key = reinterpret_cast<uint8_t *>(next_key.data());
  reply.blob_key_len = 5;
  reply.blob = packed.data();
  reply.blob_len = static_cast<uint32_t>(packed.size());
  answer_with(reply);
  rts_msg_hdr hdr_before = req.hdr;
  rts_gencfg_msg *out = nullptr;
  ASSERT_EQ(rtslib_gencfg_get(c, &req, RTS_OP_GETNEXT, &out), 0);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out->blob), out->blob_len), text);
  EXPECT_EQ(out->gencfg_flags, GENCFG_FLAG_KEY | GENCFG_FLAG_MORE);
  EXPECT_EQ(req.minor, 9);
  EXPECT_EQ(req.blob, out->blob);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(req.blob_key), req.blob_key_len), "key-2");
  EXPECT_EQ(memcmp(&req.hdr, &hdr_before, sizeof hdr_before), 0);
  EXPECT_TRUE(log.has(RTSLIB_LOG_DEBUG, "Gencfg blob was decompressed from"));
  rtslib_msg_idl_release(c, out);
  // A reply that does not decompress fails the get and leaves the request.
  SetUp_request();
  reply.blob_len = 10;
  answer_with(reply);
  auto before = image(req);
  EXPECT_EQ(rtslib_gencfg_get(c, &req, RTS_OP_GET, &out), EIO);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(image(req), before);
  EXPECT_EQ(rtslib_gencfg_get(c, &req, RTS_OP_ADD, &out), EINVAL);
}

struct Channel {
  std::vector<rts_gencfg_msg> sent;
  int allocs = 0, frees = 0;
  bool refuse = false;
  static int send(void *ctx, rtslib_cookie *, const rts_gencfg_msg *m) {
    static_cast<Channel *>(ctx)->sent.push_back(*m);
    return 0;
  }
  static void *alloc(void *ctx, size_t n) {
    auto *ch = static_cast<Channel *>(ctx);
    if (ch->refuse) return nullptr;
    ch->allocs++;
    return malloc(n);
  }
  static void free_(void *ctx, void *p) {
    static_cast<Channel *>(ctx)->frees++;
    free(p);
  }
};

TEST_F(Gencfg, ARequestGoesByItsOwnChannel) {
  Channel ch;
  rtslib_gencfg_ops ops{nullptr, nullptr, Channel::send, nullptr, &ch, nullptr};
  uint32_t seq = c->seq;
  ASSERT_EQ(rtslib_gencfg_request(c, &req, RTS_OP_CHANGE, nullptr, &ops), 0);
  EXPECT_TRUE(peer.written.empty());
  ASSERT_EQ(ch.sent.size(), 1u);
  EXPECT_EQ(ch.sent[0].hdr.operation, RTS_OP_CHANGE);
  EXPECT_EQ(ch.sent[0].hdr.seq, seq);
  EXPECT_EQ(ch.sent[0].hdr.type, RTS_T_GENCFG);
  EXPECT_EQ(ch.sent[0].hdr.size, 108);
  EXPECT_EQ(ch.sent[0].hdr.sender, 131u);
  // With a counter of its own the channel numbers its requests.
  uint32_t own = 500;
  ops.seq = &own;
  ASSERT_EQ(rtslib_gencfg_request(c, &req, RTS_OP_ADD, nullptr, &ops), 0);
  EXPECT_EQ(ch.sent[1].hdr.seq, 500u);
  EXPECT_EQ(own, 501u);
  EXPECT_EQ(c->seq, seq + 1);
  // Its allocator serves the compressed copy of the blob.
  rtslib_init_blob_compression(c, z_compress, z_uncompress);
  ops.alloc = Channel::alloc;
  ops.free = Channel::free_;
  req.gencfg_flags |= GENCFG_FLAG_COMPRESS;
  ASSERT_EQ(rtslib_gencfg_request(c, &req, RTS_OP_ADD, nullptr, &ops), 0);
  EXPECT_EQ(ch.allocs, 1);
  EXPECT_EQ(ch.frees, 1);
  EXPECT_TRUE(ch.sent[2].gencfg_flags & GENCFG_FLAG_COMPRESSED);
  ch.refuse = true;
  EXPECT_EQ(rtslib_gencfg_request(c, &req, RTS_OP_ADD, nullptr, &ops), ENOMEM);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Failed to allocate memory for compressed blob"));
}

// ---- Peers and dependencies ---------------------------------------------------------------------

TEST_F(Gencfg, PeerMaskPlacesAndReadsBack) {
  EXPECT_EQ(rtslib_gencfg_create_peerinfo(c, &req, 6), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Number of gencfg peers exceeds 5"));
  ASSERT_EQ(rtslib_gencfg_create_peerinfo(c, &req, 3), 0);
  // Single peers: bit 5p.
  ASSERT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 0, 2, GENCFG_PEER_KIND_SINGLE, 7), 0);
  EXPECT_EQ(req.gencfg_peers[0].peer_mask[1], 1u << 5);  // 35: word 1, bit 5
  ASSERT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 0, 2, GENCFG_PEER_KIND_SINGLE, 47), 0);
  EXPECT_EQ(req.gencfg_peers[0].peer_mask[7], 1u << 25);  // 235
  uint16_t idx = 0;
  ASSERT_EQ(rtslib_gencfg_get_peer_index_from_peer_mask(&req.gencfg_peers[0], &idx), 0);
  EXPECT_EQ(idx, 7);
  EXPECT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 0, 2, GENCFG_PEER_KIND_SINGLE, 48), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Number of peers exceeds 48"));
  EXPECT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 0, 2, GENCFG_PEER_KIND_GROUP, 1), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "rtslib_gencfg_add_peerinfo: Peer Index choice mismatch, Existing: 16 New: 1"));
  // Groups of 8: member g mod 8 + 1 in the 5 bits from 5(g / 8).
  ASSERT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 1, 3, GENCFG_PEER_KIND_GROUP, 19), 0);
  EXPECT_EQ(req.gencfg_peers[1].peer_mask[0], 4u << 10);
  ASSERT_EQ(rtslib_gencfg_get_peer_index_from_peer_mask(&req.gencfg_peers[1], &idx), 0);
  EXPECT_EQ(idx, 19);
  ASSERT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 1, 3, GENCFG_PEER_KIND_GROUP, 383), 0);
  EXPECT_EQ(req.gencfg_peers[1].peer_mask[7], 8u << 25);
  EXPECT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 1, 3, GENCFG_PEER_KIND_GROUP, 384), EINVAL);
  EXPECT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 1, 3, GENCFG_PEER_KIND_GROUP, 16), EINVAL);  // place of 19 taken
  // Reserved indexes set nothing but mark the record in use.
  ASSERT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 2, 4, GENCFG_PEER_KIND_SINGLE, 65532), 0);
  EXPECT_EQ(req.gencfg_peers[2].mask_kind, GENCFG_PEER_KIND_SINGLE);
  EXPECT_EQ(req.gencfg_peers[2].peer_type, 4);
  for (uint32_t w : req.gencfg_peers[2].peer_mask) EXPECT_EQ(w, 0u);
  EXPECT_EQ(rtslib_gencfg_get_peer_index_from_peer_mask(&req.gencfg_peers[2], &idx), ENOENT);
  EXPECT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 3, 4, GENCFG_PEER_KIND_SINGLE, 1), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "buffer space too small for number of peers 4"));
  // The records travel with the request.
  ASSERT_EQ(rtslib_gencfg_add(c, &req), 0);
  rts_gencfg_msg *m = sent();
  ASSERT_EQ(m->gencfg_peer_count, 3);
  EXPECT_EQ(m->gencfg_peers[1].peer_mask[0], 4u << 10);
  rtslib_gencfg_delete_peerinfo(c, &req);
  EXPECT_EQ(req.gencfg_peers, nullptr);
}

TEST_F(Gencfg, TheKernelsMaskSizeBoundsThePeers) {
  setenv("TVX_SYSCTL_KERN_GENCFG_CFG2_PEERMASK", "60", 1);
  ASSERT_EQ(rtslib_gencfg_create_peerinfo(c, &req, 1), 0);
  EXPECT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 0, 1, GENCFG_PEER_KIND_SINGLE, 11), 0);
  EXPECT_EQ(rtslib_gencfg_add_peerinfo(c, &req, 0, 1, GENCFG_PEER_KIND_SINGLE, 12), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Number of peers exceeds 12"));
  unsetenv("TVX_SYSCTL_KERN_GENCFG_CFG2_PEERMASK");
  rtslib_gencfg_delete_peerinfo(c, &req);
}

TEST_F(Gencfg, DependenciesTravelWithTheirFlag) {
  ASSERT_EQ(rtslib_gencfg_create_depend(c, &req, 2), 0);
  EXPECT_TRUE(req.gencfg_flags & GENCFG_FLAG_DEPEND);
  ASSERT_EQ(rtslib_gencfg_add_depinfo(c, &req, 0, 9, 1, "dep", 3), 0);
  ASSERT_EQ(rtslib_gencfg_add_depinfo(c, &req, 1, 9, 2, nullptr, 0), 0);
  EXPECT_EQ(rtslib_gencfg_add_depinfo(c, &req, 2, 9, 3, nullptr, 0), EINVAL);
  EXPECT_EQ(rtslib_gencfg_add_depinfo(c, &req, 0, 9, 3, "0123456789abcdefg", 17), EINVAL);
  ASSERT_EQ(rtslib_gencfg_add(c, &req), 0);
  rts_gencfg_msg *m = sent();
  ASSERT_EQ(m->gencfg_dep_count, 2);
  EXPECT_EQ(m->gencfg_deps[0].dep_major, 9);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(m->gencfg_deps[0].dep_key), 3), "dep");
  EXPECT_EQ(m->gencfg_deps[1].dep_minor, 2);
  rtslib_gencfg_delete_depend(c, &req);
  EXPECT_FALSE(req.gencfg_flags & GENCFG_FLAG_DEPEND);
  EXPECT_EQ(req.gencfg_deps, nullptr);
}

// ---- Route-add acknowledgement -----------------------------------------------------------------

struct Done {
  std::vector<int> verdicts;
  static void fn(rtslib_cookie *, void *u, int verdict) { static_cast<Done *>(u)->verdicts.push_back(verdict); }
};

TEST_F(Gencfg, RouteAdditionsWaitForTheirAddress) {
  samples::Store st;
  rts_rt_msg rt = samples::route(st);
  rt.rtm_ifl_index = 70;
  rt.rtm_af = RTS_AF_INET;
  bool have_addr = false;
  peer.on_write = [&](const FakePeer::Msg &m) {
    uint32_t type;
    memcpy(&type, m.data() + 8, 4);
    if (type == RTS_T_IFADDR) {
      if (!have_addr) return ENOENT;
      auto *q = peer.request<rts_ifa_msg>(arena);
      rts_ifa_msg a = samples::ifa(st);
      a.hdr.seq = q->hdr.seq;
      a.hdr.operation = q->hdr.operation;
      peer.reply(RTS_T_IFADDR, &a);
    }
    return 0;
  };
  Done done;
  ASSERT_EQ(rtslib_route_add_acked(c, &rt, Done::fn, &done), EINPROGRESS);
  ASSERT_NE(c->ack, nullptr);
  EXPECT_EQ(rtslib_pending_count(c, RTS_AF_INET, 70), 1u);
  size_t writes = peer.written.size();  // the address lookup only
  // The address comes (the async path calls this after the user's handler).
  rtslib_pending_key key{70, RTS_AF_INET, RTS_OP_ADD};
  rtslib_pending_ifaddr(c, &key);
  EXPECT_EQ(done.verdicts, std::vector<int>{0});
  ASSERT_EQ(peer.written.size(), writes + 1);
  rts_rt_msg *sent_rt = peer.request<rts_rt_msg>(arena);
  ASSERT_NE(sent_rt, nullptr);
  EXPECT_EQ(sent_rt->hdr.operation, RTS_OP_ADD);
  EXPECT_EQ(sent_rt->rtm_prefix_bits, rt.rtm_prefix_bits);
  EXPECT_EQ(memcmp(sent_rt->rtm_prefix, rt.rtm_prefix, rt.rtm_prefix_plen), 0);
  // With the address there, the addition goes at once with its verdict.
  have_addr = true;
  EXPECT_EQ(rtslib_route_add_acked(c, &rt, Done::fn, &done), 0);
  EXPECT_EQ(done.verdicts.size(), 1u);
  // One still waiting when the handle closes is freed with it.
  have_addr = false;
  EXPECT_EQ(rtslib_route_add_acked(c, &rt, Done::fn, &done), EINPROGRESS);
}

TEST(RouteAck, ASocketThatCannotOpenIsLogged) {
  FakePeer peer;
  LogCapture log;
  rtslib_cookie *c = rtslib_open(9);
  ASSERT_NE(c, nullptr);
  peer.open_errno = EMFILE;
  samples::Store st;
  rts_rt_msg rt = samples::route(st);
  EXPECT_EQ(rtslib_route_add_acked(c, &rt, nullptr, nullptr), ENOTCONN);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "failed to get route add ack index"));
  peer.open_errno = 0;
  rtslib_close(c);
}

}  // namespace
