// rtslib's asynchronous events over the in-process peer: the context and the
// mode, registrations and the listen mask, the read-and-dispatch step (read
// limit, bulk walks over synthetic buffers, broken lengths, raw and unknown
// types, sequence checks), pending addresses, compressed generic
// configuration, close, and a real event loop.
#include <zlib.h>

#include <string>
#include <vector>

#include "fake_peer.h"
#include "io_fixture.h"
#include "rtsock/rts_filter.h"
#include "rtsock/rtslib_async.h"
#include "rtsock/rtslib_gencfg.h"

namespace {

using Msg = FakePeer::Msg;

struct Seen {
  std::vector<std::pair<std::string, void *>> calls;  // tag, message
  std::vector<uint8_t> types;
  std::vector<uint32_t> seqs;
};

void on_msg(rtslib_cookie *c, void *user, void *msg) {
  auto *s = static_cast<Seen *>(user);
  auto *h = static_cast<const rts_msg_hdr *>(msg);
  s->calls.emplace_back("handler", msg);
  s->types.push_back(h->word0 == 0 ? static_cast<const uint8_t *>(msg)[5] : h->type);
  s->seqs.push_back(h->seq);
  rtslib_msg_idl_release(c, msg);
}

// The caller's own loop: records what it was asked.
struct ExtLoop {
  int selects = 0, deselects = 0, fd = -1, mask = 0;
  void (*reader)(void *) = nullptr;
  void *arg = nullptr;
  static int select(void *loop, int fd, int mask, void (*reader)(void *), void *arg, void **id) {
    auto *l = static_cast<ExtLoop *>(loop);
    l->selects++;
    l->fd = fd;
    l->mask = mask;
    l->reader = reader;
    l->arg = arg;
    *id = l;
    return 0;
  }
  static int deselect(void *loop, void *id) {
    EXPECT_EQ(loop, id);
    static_cast<ExtLoop *>(loop)->deselects++;
    return 0;
  }
};

Msg concat(std::initializer_list<Msg> parts) {
  Msg out;
  for (auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Msg raw(uint8_t type, uint32_t seq, uint32_t len = 28) {
  Msg m(len, 0);
  m[4] = 1;
  m[5] = type;
  memcpy(&m[8], &len, 4);
  memcpy(&m[12], &seq, 4);
  return m;
}

class Async : public RtslibTest {
 protected:
  ExtLoop loop;
  rtslib_async_dispatch dispatch{ExtLoop::select, ExtLoop::deselect, &loop};
  Seen seen;
  samples::Store st;
  void SetUp() override {
    RtslibTest::SetUp();
    ASSERT_EQ(rtslib_set_async_context(c, __evContext{nullptr}), 0);
    ASSERT_EQ(rtslib_set_async_dispatch(c, &dispatch), 0);
    ASSERT_EQ(rtslib_set_async_mode(c, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_EXTERNAL), 0);
  }
  Msg bd(uint32_t seq, uint32_t vnid = 100) {
    rts_bd_msg m = samples::bd(st);
    m.hdr.seq = seq;
    m.vnid = vnid;
    return samples::wire(RTS_T_BRIDGE_DOMAIN, &m, true);
  }
  rtslib_async_info *ai() { return static_cast<rtslib_async_info *>(c->async); }
};

// ---- Context, mode, registrations ----------------------------------------------------------

TEST_F(Async, ContextOnceWithTheReadLimit) {
  EXPECT_EQ(c->read_limit, 10u);
  EXPECT_EQ(rtslib_set_async_context(c, __evContext{nullptr}), EINVAL);
  EXPECT_EQ(rtslib_set_async_context(nullptr, __evContext{nullptr}), EINVAL);
  EXPECT_EQ(RTSLIB_ASYNC_INFO_SIZE, 468u);
}

TEST_F(Async, ModeBitsAreCheckedAndToldToThePeer) {
  EXPECT_EQ(rtslib_set_async_mode(c, 0), 0);
  EXPECT_EQ(rtslib_set_async_mode(c, 0x400), EINVAL);         // without bit 0
  EXPECT_EQ(rtslib_set_async_mode(c, 0x21), EINVAL);          // outside the mask
  EXPECT_EQ(rtslib_set_async_mode(c, 0x40001), EINVAL);
  ASSERT_EQ(rtslib_set_async_mode(c, 0x3FF9F), 0);
  uint32_t v;
  memcpy(&v, peer.options[RTS_OPT_ASYNC_MODE].data(), 4);
  EXPECT_EQ(v, 0x3FF9Fu);
  EXPECT_EQ(c->async_mode, 0x3FF9Fu);
  peer.option_errno[RTS_OPT_ASYNC_MODE] = EPERM;
  EXPECT_EQ(rtslib_set_async_mode(c, 1), -1);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "failed to set async mode bits=0x1, error="));
  EXPECT_EQ(c->async_mode, 0x3FF9Fu);
}

TEST_F(Async, BulkModeRefusesSmallBuffers) {
  ASSERT_EQ(rtslib_set_async_mode(c, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_BULK | RTSLIB_ASYNC_EXTERNAL), 0);
  EXPECT_EQ(rtslib_set_buffers(c, 0x80000, 0x7FFFF), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Attempted to set an invalid buffer size(send size: 524288, recv size: 524287)"));
  EXPECT_EQ(peer.socket_options[SO_RCVBUF], 0x80000);  // refused before anything was set
  EXPECT_EQ(rtslib_set_buffers(c, 0x80000, 0x100000), 0);
  // Once the async path has its read buffer, it follows the receive size.
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  EXPECT_EQ(rtslib_async_event_process(c), -1);
  EXPECT_EQ(c->rbuf_size, 0x100000u);  // the socket's, as the peer reports it
  EXPECT_EQ(rtslib_set_buffers(c, 0x80000, 0x200000), 0);
  EXPECT_EQ(c->rbuf_size, 0x200000u);
}

TEST_F(Async, RegistrationsSelectOnceAndSetTheMaskOnlyForNewBits) {
  EXPECT_EQ(rtslib_bd_async_register(c, &seen, nullptr), EINVAL);
  EXPECT_EQ(rtslib_ifam_async_register(c, 0x1, &seen, on_msg), 0);
  EXPECT_EQ(loop.selects, 1);
  EXPECT_EQ(loop.fd, c->fd);
  EXPECT_EQ(loop.mask, EV_READ | EV_EXCEPT);
  EXPECT_EQ(ai()->state, RTSLIB_ASYNC_SELECTED | RTSLIB_ASYNC_EXT_LOOP);
  EXPECT_EQ(rtslib_ifam_async_register(c, 0x1, &seen, on_msg), EINVAL);  // a second time
  EXPECT_EQ(peer.option_sets[RTS_OPT_LISTEN_MASK], 1);
  // Type 47 has no listen bit: no option set; the device's is new.
  EXPECT_EQ(rtslib_ifstate_eochain_register(c, &seen, on_msg), 0);
  EXPECT_EQ(peer.option_sets[RTS_OPT_LISTEN_MASK], 1);
  EXPECT_EQ(rtslib_ifdm_async_register(c, &seen, on_msg), 0);
  EXPECT_EQ(rtslib_gencfg_async_register(c, &seen, on_msg), 0);
  EXPECT_EQ(peer.option_sets[RTS_OPT_LISTEN_MASK], 3);
  uint32_t mask[2];
  memcpy(mask, peer.options[RTS_OPT_LISTEN_MASK].data(), 8);
  EXPECT_EQ(mask[0], 0x22u);
  EXPECT_EQ(mask[1], 0x100u);
  EXPECT_EQ(loop.selects, 1);
  uint32_t any[2] = {0x20, 0};  // bits already there
  EXPECT_EQ(rtslib_async_register(c, 20, any, &seen, on_msg), 0);
  EXPECT_EQ(peer.option_sets[RTS_OPT_LISTEN_MASK], 3);
  EXPECT_EQ(rtslib_async_register(c, 111, any, &seen, on_msg), EINVAL);
}

TEST_F(Async, AddressFlagsPickTheirBits) {
  ASSERT_EQ(rtslib_ifam_async_register(c, 0x5, &seen, on_msg), 0);
  uint32_t mask[2];
  memcpy(mask, peer.options[RTS_OPT_LISTEN_MASK].data(), 8);
  EXPECT_EQ(mask[0], 0x28u);
}

TEST_F(Async, AFailedListenLeavesNoHandler) {
  peer.option_errno[RTS_OPT_LISTEN_MASK] = EPERM;
  EXPECT_EQ(rtslib_rtm_async_register(c, &seen, on_msg), -1);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "failed to set listen bit"));
  EXPECT_EQ(ai()->handlers[RTS_T_ROUTE], nullptr);
  EXPECT_EQ(ai()->listen_mask[0], 0u);
  peer.option_errno.clear();
  EXPECT_EQ(rtslib_rtm_async_register(c, &seen, on_msg), 0);
}

TEST(AsyncNoContext, EverythingIsRefused) {
  FakePeer peer;
  LogCapture log;
  rtslib_cookie *c = rtslib_open(1);
  ASSERT_NE(c, nullptr);
  Seen seen;
  EXPECT_EQ(rtslib_rtm_async_register(c, &seen, on_msg), EINVAL);
  EXPECT_EQ(rtslib_set_async_mode(c, 1), EINVAL);
  EXPECT_EQ(rtslib_async_event_process(c), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "async event callback with invalid cookie!"));
  rtslib_close(c);
}

TEST_F(Async, ExternalModeWithoutADispatchTableFails) {
  ASSERT_EQ(rtslib_set_async_dispatch(c, nullptr), 0);
  EXPECT_EQ(rtslib_rtm_async_register(c, &seen, on_msg), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ai()->handlers[RTS_T_ROUTE], nullptr);
}

TEST_F(Async, FiltersGoWithTheStoredMaskAndTheirBit) {
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  uint8_t prog[RTS_FILTER_MAX];
  const char text[] = "bd->vnid >= 200";
  ASSERT_EQ(rts_filter_compile(text, sizeof text - 1, prog, sizeof prog, nullptr), 0);
  EXPECT_EQ(rtslib_async_register_filters(c, nullptr), EINVAL);
  ASSERT_EQ(rtslib_async_register_filters(c, prog), 0);
  const Msg &rec = peer.options[RTS_OPT_FILTER];
  ASSERT_EQ(rec.size(), RTS_FILTER_RECORD);
  uint32_t w[3];
  memcpy(w, rec.data(), 12);
  EXPECT_EQ(w[0], 0u);
  EXPECT_EQ(w[1], 0x1000u | RTS_FILTER_LISTEN_BIT);
  EXPECT_EQ(w[2], 1u);
  EXPECT_EQ(memcmp(rec.data() + RTS_FILTER_PROGRAM_OFF, prog, 24 + 15), 0);
  EXPECT_EQ(ai()->listen_mask[1], 0x1000u | RTS_FILTER_LISTEN_BIT);
  prog[0] ^= 1;  // not a program
  EXPECT_EQ(rtslib_async_register_filters(c, prog), EINVAL);
  prog[0] ^= 1;
  peer.option_errno[RTS_OPT_FILTER] = EPERM;
  EXPECT_EQ(rtslib_async_register_filters(c, prog), EPERM);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "failed to set the filter"));
}

// ---- Reading and dispatching ---------------------------------------------------------------------

TEST_F(Async, EagainOnTheFirstReadIsMinusOneOnALaterReadZero) {
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  errno = 0;
  EXPECT_EQ(rtslib_async_event_process(c), -1);
  EXPECT_EQ(errno, EAGAIN);
  peer.push(bd(5));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  ASSERT_EQ(seen.types, std::vector<uint8_t>{RTS_T_BRIDGE_DOMAIN});
  EXPECT_EQ(seen.seqs[0], 5u);
  EXPECT_EQ(c->seq, 2u);  // a decoded message moves it on by one
  EXPECT_EQ(c->rbuf_size, 0x80000u);
}

TEST_F(Async, TheReaderTheLoopWasGivenProcesses) {
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  peer.push(bd(5));
  loop.reader(loop.arg);
  EXPECT_EQ(seen.calls.size(), 1u);
}

TEST_F(Async, AtMostTenReadsPerCall) {
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  for (uint32_t i = 0; i < 15; i++) peer.push(bd(i + 1));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(seen.calls.size(), 10u);
  EXPECT_EQ(peer.queue.size(), 5u);
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(seen.calls.size(), 15u);
}

TEST_F(Async, BulkWalksEveryMessageOfARead) {
  ASSERT_EQ(rtslib_set_async_mode(c, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_EXTERNAL | RTSLIB_ASYNC_BULK), 0);
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  ASSERT_EQ(rtslib_ifstate_eochain_register(c, &seen, on_msg), 0);
  c->seq = 9;
  peer.push(concat({bd(1), raw(47, 10), bd(3)}));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(seen.types, (std::vector<uint8_t>{RTS_T_BRIDGE_DOMAIN, 47, RTS_T_BRIDGE_DOMAIN}));
  EXPECT_FALSE(log.has(RTSLIB_LOG_ERROR, "seq mismatch"));
}

TEST_F(Async, WithoutBulkASecondMessageInARecordEndsTheWalk) {
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  Msg two = concat({bd(1), bd(2)});
  peer.push(two);
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(seen.calls.size(), 1u);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "Incorrect message length. " + std::to_string(two.size() / 2) + " != " +
                                            std::to_string(two.size())));
}

TEST_F(Async, AMessageClaimingMoreThanWasReadStopsTheWalk) {
  ASSERT_EQ(rtslib_set_async_mode(c, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_EXTERNAL | RTSLIB_ASYNC_BULK), 0);
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  Msg second = bd(2);
  uint32_t claim = static_cast<uint32_t>(second.size());  // 12 more than there is
  memcpy(&second[4], &claim, 4);
  peer.push(concat({bd(1), second}));
  peer.push(bd(3));
  errno = 0;
  EXPECT_EQ(rtslib_async_event_process(c), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(seen.calls.size(), 1u);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "corrupted msg_len (" + std::to_string(claim + 12) + ") (" +
                                            std::to_string(second.size()) + " bytes left)"));
  // The next call goes on with what follows.
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(seen.calls.size(), 2u);
}

TEST_F(Async, ShortRecordsAndBrokenReads) {
  ASSERT_EQ(rtslib_set_async_mode(c, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_EXTERNAL | RTSLIB_ASYNC_BULK), 0);
  ASSERT_EQ(rtslib_ifstate_eochain_register(c, &seen, on_msg), 0);
  // A raw message shorter than its header, inside a record long enough.
  Msg shorty = raw(47, 1, 30);
  uint32_t eight = 8;
  memcpy(&shorty[8], &eight, 4);
  peer.push(shorty);
  EXPECT_EQ(rtslib_async_event_process(c), -1);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "corrupted msg_len (8) (30 bytes left)"));
  EXPECT_TRUE(seen.calls.empty());
  peer.push(Msg(20, 0));
  errno = 0;
  EXPECT_EQ(rtslib_async_event_process(c), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "msg read too small for header: 20"));
  c->rbuf_size = 64;  // a record longer than the buffer
  peer.push(bd(1));
  EXPECT_EQ(rtslib_async_event_process(c), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "errno != EMSGSIZE"));
}

TEST_F(Async, RawUnknownAndUnhandledTypes) {
  ASSERT_EQ(rtslib_ifstate_eochain_register(c, &seen, on_msg), 0);
  c->async_zero_seq_ok = 1;
  peer.push(raw(110, 0));   // beyond the table
  peer.push(raw(48, 0));    // nobody listens
  Msg env = bd(1);
  uint32_t t = 110;
  memcpy(&env[8], &t, 4);
  peer.push(env);           // an envelope of an unknown type
  peer.push(raw(47, 0, 40));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_TRUE(log.has(RTSLIB_LOG_WARNING, "received async message of unknown type: 110"));
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "received async message with no handler: 48"));
  ASSERT_EQ(seen.types, std::vector<uint8_t>{47});
  // The handler's block is its own copy.
  EXPECT_NE(seen.calls[0].second, static_cast<void *>(c->rbuf));
}

TEST_F(Async, UndecodableEnvelopesAreLogged) {
  ASSERT_EQ(rtslib_ifdm_async_register(c, &seen, on_msg), 0);
  Msg m = bd(1);
  uint32_t t = RTS_T_IFDEV;  // a bridge domain's record under another type's envelope
  memcpy(&m[8], &t, 4);
  peer.push(m);
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_TRUE(seen.calls.empty());
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Failed to decode the msg: error ("));
}

struct SeqErr {
  std::vector<std::pair<uint32_t, uint32_t>> calls;
  static void fn(rtslib_cookie *, void *ctx, uint32_t expected, uint32_t got) {
    static_cast<SeqErr *>(ctx)->calls.emplace_back(expected, got);
  }
};

TEST_F(Async, RawSequenceIsCheckedAndFollowed) {
  ASSERT_EQ(rtslib_ifstate_eochain_register(c, &seen, on_msg), 0);
  SeqErr se;
  rtslib_seq_error_register(c, SeqErr::fn, &se);
  c->seq = 7;
  peer.push(raw(47, 7));
  peer.push(raw(47, 9));  // 8 expected: reported, then followed
  peer.push(raw(47, 10));
  peer.push(raw(47, 0));  // zero without async_zero_seq_ok: reported
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(se.calls, (std::vector<std::pair<uint32_t, uint32_t>>{{8, 9}, {11, 0}}));
  EXPECT_EQ(seen.calls.size(), 4u);  // a mismatch drops nothing
  c->async_zero_seq_ok = 1;
  peer.push(raw(47, 0));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(se.calls.size(), 2u);
  // Without a sequence function the log says it.
  rtslib_seq_error_register(c, nullptr, nullptr);
  peer.push(raw(47, 50));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "async message seq mismatch: (50 != 11)"));
}

// ---- Pending addresses -----------------------------------------------------------------------

struct Order {
  std::vector<std::string> what;
};
void user_ifa(rtslib_cookie *c, void *user, void *msg) {
  static_cast<Order *>(user)->what.push_back("handler");
  rtslib_msg_idl_release(c, msg);
}
void waiting(rtslib_cookie *, void *user, uint32_t ifl, uint8_t af) {
  static_cast<Order *>(user)->what.push_back("pending " + std::to_string(ifl) + "/" + std::to_string(af));
}

TEST_F(Async, PendingCallersRunAfterTheHandlerOnceForTheirAddress) {
  Order order;
  ASSERT_EQ(rtslib_ifam_async_register(c, 1, &order, user_ifa), 0);
  ASSERT_EQ(rtslib_pending_add(c, RTS_AF_INET, 70, waiting, &order), 0);
  ASSERT_EQ(rtslib_pending_add(c, RTS_AF_INET6, 70, waiting, &order), 0);
  ASSERT_EQ(rtslib_pending_add(c, RTS_AF_INET, 71, waiting, &order), 0);
  EXPECT_EQ(rtslib_pending_count(c, RTS_AF_INET, 70), 1u);
  rts_ifa_msg a = samples::ifa(st);
  a.hdr.operation = RTS_OP_DELETE;  // a deletion brings no address
  peer.push(samples::wire(RTS_T_IFADDR, &a, true));
  a.hdr.operation = RTS_OP_ADD;
  peer.push(samples::wire(RTS_T_IFADDR, &a, true));
  peer.push(samples::wire(RTS_T_IFADDR, &a, true));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(order.what, (std::vector<std::string>{"handler", "handler", "pending 70/2", "handler"}));
  EXPECT_EQ(rtslib_pending_count(c, RTS_AF_INET, 70), 0u);
  EXPECT_EQ(rtslib_pending_count(c, RTS_AF_INET6, 70), 1u);
  EXPECT_EQ(rtslib_pending_cancel(c, RTS_AF_INET6, 70, waiting, &order), 0);
  EXPECT_EQ(rtslib_pending_cancel(c, RTS_AF_INET6, 70, waiting, &order), ENOENT);
  // 71 still waits: close frees it.
}

// ---- Compressed generic configuration --------------------------------------------------------

int z_compress(uint8_t *d, unsigned long *dl, const uint8_t *s, unsigned long sl) { return compress(d, dl, s, sl); }
int z_uncompress(uint8_t *d, unsigned long *dl, const uint8_t *s, unsigned long sl) {
  return uncompress(d, dl, s, sl);
}

struct Blob {
  std::string blob;
  uint32_t flags = 0;
};
void on_gencfg(rtslib_cookie *c, void *user, void *msg) {
  auto *m = static_cast<rts_gencfg_msg *>(msg);
  static_cast<Blob *>(user)->blob.assign(reinterpret_cast<char *>(m->blob), m->blob_len);
  static_cast<Blob *>(user)->flags = m->gencfg_flags;
  rtslib_msg_idl_release(c, msg);
}

TEST_F(Async, GencfgBlobsArriveDecompressed) {
  rtslib_init_blob_compression(c, z_compress, z_uncompress);
  Blob got;
  ASSERT_EQ(rtslib_gencfg_async_register(c, &got, on_gencfg), 0);
  std::string text(5000, 'a');
  for (size_t i = 0; i < text.size(); i += 7) text[i] = static_cast<char>('b' + i % 20);
  unsigned long room = compressBound(text.size());
  std::vector<uint8_t> packed(4 + room);
  uint32_t before = static_cast<uint32_t>(text.size());
  memcpy(packed.data(), &before, 4);
  ASSERT_EQ(compress(packed.data() + 4, &room, reinterpret_cast<const uint8_t *>(text.data()), text.size()), Z_OK);
  packed.resize(4 + room);
  rts_gencfg_msg m = samples::gencfg(st);
  m.gencfg_flags |= GENCFG_FLAG_COMPRESSED;
  m.blob = packed.data();
  m.blob_len = static_cast<uint32_t>(packed.size());
  peer.push(samples::wire(RTS_T_GENCFG, &m, true));
  m.blob_len = 3;  // not a compressed blob: refused, nobody called
  peer.push(samples::wire(RTS_T_GENCFG, &m, true));
  EXPECT_EQ(rtslib_async_event_process(c), 0);
  EXPECT_EQ(got.blob, text);
  EXPECT_FALSE(got.flags & GENCFG_FLAG_COMPRESSED);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Failed to decompress blob (rc -1)"));
}

// ---- Close ----------------------------------------------------------------------------------------

TEST_F(Async, CloseDeselectsAndFreesEverything) {
  uint64_t allocs = rtslib_mem_stats[RTSLIB_MEM_ASYNC].allocs, frees = rtslib_mem_stats[RTSLIB_MEM_ASYNC].frees;
  ASSERT_EQ(rtslib_rtm_async_register(c, &seen, on_msg), 0);
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  rtslib_close(c);
  c = nullptr;
  EXPECT_EQ(loop.deselects, 1);
  EXPECT_EQ(rtslib_mem_stats[RTSLIB_MEM_ASYNC].allocs - allocs, 2u);
  EXPECT_EQ(rtslib_mem_stats[RTSLIB_MEM_ASYNC].frees - frees, 3u);  // the two handlers and the context
}

// ---- On the event library's real loop ----------------------------------------------------------

class AsyncLoop : public tt::Io {};

TEST_F(AsyncLoop, NotificationsReachTheHandlerThroughTheEventLibrary) {
  FakePeer peer;
  LogCapture log;
  __evContext ev{};
  ASSERT_EQ(__evCreate(&ev), 0);
  rtslib_cookie *c = rtslib_open(3);
  ASSERT_NE(c, nullptr);
  ASSERT_EQ(rtslib_set_async_context(c, ev), 0);
  ASSERT_EQ(rtslib_set_async_mode(c, RTSLIB_ASYNC_ON), 0);
  Seen seen;
  ASSERT_EQ(rtslib_bd_async_register(c, &seen, on_msg), 0);
  real_passes(2);
  EXPECT_TRUE(seen.calls.empty());
  samples::Store st;
  rts_bd_msg m = samples::bd(st);
  peer.reply(RTS_T_BRIDGE_DOMAIN, &m, true);
  peer.reply(RTS_T_BRIDGE_DOMAIN, &m, false);
  real_passes(2);
  EXPECT_EQ(seen.calls.size(), 2u);
  EXPECT_TRUE(peer.queue.empty());
  rtslib_close(c);
  // Closed: deselected, so a later message calls nobody.
  peer.reply(RTS_T_BRIDGE_DOMAIN, &m, true);
  real_passes(2);
  EXPECT_EQ(seen.calls.size(), 2u);
  __evDestroy(ev);
}

}  // namespace
