// The message decoders on any bytes: every message type through the
// table-driven IDR and TLV codecs and through rtslib's decode into one block.
// A decode either fails or yields a record of its envelope's type that
// releases without a leak and encodes to bytes that decode to the same
// encoding again.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rtslib.h"

namespace {

// Real allocations, so that a release that misses a part shows as a leak;
// bounded, so that no decode is allowed more than it could need.
struct Budget {
  size_t left;
  static void *alloc(void *ctx, size_t n) {
    auto *b = static_cast<Budget *>(ctx);
    if (n > b->left) return nullptr;
    b->left -= n;
    return calloc(1, n ? n : 1);
  }
  static void free(void *, void *p) { ::free(p); }
};

void fail(const char *what, uint32_t type) {
  fprintf(stderr, "%s (type %u)\n", what, type);
  abort();
}

std::vector<uint8_t> encode(const rts_msg_pair &pair, bool tlv, const uint8_t *mask) {
  int n = tlv ? rts_tlv_encode(&pair, mask, nullptr, 0) : rts_idr_encode(&pair, nullptr, 0);
  if (n < static_cast<int>(RTS_ENVELOPE_SIZE)) fail("encoder reports less than an envelope", pair.type);
  std::vector<uint8_t> out(static_cast<size_t>(n));
  int m = tlv ? rts_tlv_encode(&pair, mask, out.data(), static_cast<uint32_t>(n))
              : rts_idr_encode(&pair, out.data(), static_cast<uint32_t>(n));
  if (m != n) fail("encoder needs another length the second time", pair.type);
  return out;
}

// Decodes in one encoding; the record (and mask) are the caller's to release.
int decode(const uint8_t *data, uint32_t size, bool tlv, rts_msg_pair *pair, uint8_t **mask, Budget *b) {
  return tlv ? rts_tlv_decode(pair, mask, data, size, Budget::alloc, b)
             : rts_idr_decode(pair, data, size, Budget::alloc, b);
}

void check_record(const rts_msg_pair &pair) {
  auto *h = static_cast<const rts_msg_hdr *>(pair.record);
  if (h->type != pair.type) fail("record's header names another type", pair.type);
}

void one_codec(const uint8_t *data, size_t size, bool tlv) {
  Budget b{size * 8 + 65536};
  rts_msg_pair pair{};
  uint8_t *mask = nullptr;
  int r = decode(data, static_cast<uint32_t>(size), tlv, &pair, tlv ? &mask : nullptr, &b);
  if (r > 0 && static_cast<size_t>(r) > size) fail("decoder consumed more than it was given", pair.type);
  if (r > 0 && pair.record) {
    check_record(pair);
    // The record encodes; its encoding decodes and encodes to the same bytes.
    std::vector<uint8_t> first = encode(pair, tlv, mask);
    Budget b2{first.size() * 8 + 65536};
    rts_msg_pair again{};
    uint8_t *mask2 = nullptr;
    int r2 = decode(first.data(), static_cast<uint32_t>(first.size()), tlv, &again, tlv ? &mask2 : nullptr, &b2);
    if (r2 != static_cast<int>(first.size()) || !again.record) fail("own encoding does not decode", pair.type);
    check_record(again);
    if (encode(again, tlv, mask2) != first) fail("encoding is not stable", pair.type);
    rts_release(&again, mask2, Budget::free, nullptr);
  }
  rts_release(&pair, mask, Budget::free, nullptr);
}

void noop_log(rtslib_cookie *, void *, int, const char *) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  rtslib_set_default_log(noop_log, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > (1u << 20)) return 0;
  one_codec(data, size, false);
  one_codec(data, size, true);
  // The library's own path: one block, grown as the decode asks.
  void *msg = nullptr;
  if (rtslib_msg_decode(nullptr, data, static_cast<uint32_t>(size), &msg) == 0) {
    if (!msg) fail("decode succeeded without a record", 0);
    auto *h = static_cast<const rts_msg_hdr *>(msg);
    uint32_t env;
    memcpy(&env, data + 8, 4);
    if (h->type != env) fail("block's record names another type than its envelope", env);
    if (h->length != size) fail("record's length is not the bytes received", env);
    rtslib_msg_idl_release(nullptr, msg);
  } else if (msg) {
    fail("failed decode left a record", 0);
  }
  return 0;
}
