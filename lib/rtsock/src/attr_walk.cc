// The attribute list of route messages: kinds by type, and the walker.
#include <array>

#include "codec_internal.h"

using namespace rts_codec;

namespace {

constexpr std::array<uint8_t, RTS_ATTR_TYPE_MAX + 1> make_kinds() {
  std::array<uint8_t, RTS_ATTR_TYPE_MAX + 1> k{};
  for (unsigned t : {1, 2, 3, 8, 14, 26, 32, 43, 47, 51, 58, 73, 91, 228, 261}) k[t] = RTS_ATTR_ARRAY;
  for (unsigned t : {4, 9, 15, 19, 20, 21, 22, 27, 33, 37, 48, 52, 60, 64, 100, 128, 200, 300, 400, 480})
    k[t] = RTS_ATTR_VALUE;
  for (unsigned t : {10, 230, 231, 355, 363, 438, 439}) k[t] = RTS_ATTR_STRUCT;
  return k;
}
constexpr auto kKinds = make_kinds();
constexpr uint32_t kAttr438Size = 588;

bool understood(uint8_t kind, unsigned type, uint32_t n) {
  switch (kind) {
    case RTS_ATTR_ARRAY: return n % 4 == 0;
    case RTS_ATTR_VALUE: return n == 1 || n == 2 || n == 4 || n == 8;
    case RTS_ATTR_STRUCT: return type == 438 ? n == kAttr438Size : n > 0;
    default: return false;
  }
}

}  // namespace

uint8_t rts_attr_kind(unsigned type) { return type <= RTS_ATTR_TYPE_MAX ? kKinds[type] : 0; }

int rts_attr_walk(rts_attr_set *set, const void *buffer, uint32_t length, rts_alloc_fn alloc,
                  void *context) {
  const auto *p = static_cast<const uint8_t *>(buffer);
  memset(set, 0, sizeof *set);
  auto keep = [&](uint32_t from, uint32_t n) {  // bytes not understood
    if (!set->ras_rest) {
      set->ras_rest = static_cast<uint8_t *>(alloc(context, length));
      if (!set->ras_rest) return false;
    }
    memcpy(set->ras_rest + set->ras_rest_len, p + from, n);
    set->ras_rest_len += n;
    return true;
  };
  uint32_t pos = 0;
  while (pos < length) {
    if (length - pos < 4) {
      if (!keep(pos, length - pos)) return RTS_DEC_NOMEM;
      break;
    }
    uint16_t type = ld16(p + pos), alen = ld16(p + pos + 2);
    if (alen == 0) break;
    if (alen < 4 || alen > length - pos) {
      if (!keep(pos, length - pos)) return RTS_DEC_NOMEM;
      break;
    }
    uint32_t n = alen - 4u, step = pad4(alen);
    if (step > length - pos) step = length - pos;
    uint8_t kind = rts_attr_kind(type);
    if (set->ras_count < RTS_ATTR_LIST_MAX && understood(kind, type, n)) {
      auto *a = static_cast<rts_attr *>(alloc(context, sizeof(rts_attr) + n));
      if (!a) return RTS_DEC_NOMEM;
      a->ra_type = type;
      a->ra_kind = kind;
      a->ra_reserved = 0;
      a->ra_len = n;
      a->ra_value = 0;
      memcpy(a->ra_data, p + pos + 4, n);
      if (kind == RTS_ATTR_VALUE) {
        switch (n) {
          case 1: a->ra_value = a->ra_data[0]; break;
          case 2: a->ra_value = ld16(a->ra_data); break;
          case 4: a->ra_value = ld32(a->ra_data); break;
          default: a->ra_value = ld64(a->ra_data); break;
        }
      }
      set->ras_list[set->ras_count++] = a;
    } else if (!keep(pos, step)) {
      return RTS_DEC_NOMEM;
    }
    pos += step;
  }
  return static_cast<int>(set->ras_count);
}
