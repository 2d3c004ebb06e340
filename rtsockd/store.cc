// The stores and their lookups: exact gets, getnext in key order, and the
// other ways a get can name an object (names, SNMP indexes, addresses).
#include <cerrno>
#include <cstring>

#include "peer.h"

namespace rtsockd {

namespace {

// Big-endian pieces, so that byte order is number order.
void be(std::string &k, uint64_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; i--) k += static_cast<char>(v >> (8 * i));
}

void prefix_key(std::string &k, const uint8_t *p, uint16_t bits) {
  for (unsigned i = 0; i < (bits + 7u) / 8; i++) k += static_cast<char>(p ? p[i] : 0);
  be(k, bits, 2);
}

bool name_is(const char *name, uint32_t len, const char *want) {
  return name && len && strcmp(name, want) == 0;
}

bool prefix_equal(const uint8_t *a, uint16_t abits, const uint8_t *b, uint16_t bbits) {
  return abits == bbits && (abits == 0 || (a && b && memcmp(a, b, (abits + 7u) / 8) == 0));
}

// Whether addr (bits long) lies in prefix/plen.
bool covers(const uint8_t *prefix, uint16_t plen, const uint8_t *addr, uint16_t bits) {
  if (plen > bits) return false;
  unsigned full = plen / 8, rest = plen % 8;
  if (full && memcmp(prefix, addr, full)) return false;
  if (rest) {
    uint8_t m = static_cast<uint8_t>(0xff << (8 - rest));
    if ((prefix[full] & m) != (addr[full] & m)) return false;
  }
  return true;
}

const std::map<std::string, std::unique_ptr<Object>> kEmpty;

}  // namespace

std::unique_ptr<Object> clone(uint32_t type, const void *record) {
  rts_msg_pair pair{type, const_cast<void *>(record)};
  int n = rts_idr_encode(&pair, nullptr, 0);
  if (n <= 0) return nullptr;
  std::vector<uint8_t> bytes(static_cast<size_t>(n));
  rts_idr_encode(&pair, bytes.data(), static_cast<uint32_t>(n));
  // Decoded, a record is its fixed part plus a little more than its encoding:
  // decode once into room to spare to learn the size, then into a block of
  // exactly that size, so that an object costs what it is.
  std::vector<uint8_t> scratch;
  size_t need = 0;
  for (size_t room = 2 * bytes.size() + 4096; !need; room *= 2) {
    scratch.assign(room, 0);
    Bump b{scratch.data(), room, 0};
    rts_msg_pair out{};
    int r = rts_idr_decode(&out, bytes.data(), static_cast<uint32_t>(bytes.size()), Bump::alloc, &b);
    if (r == RTS_DEC_NOMEM) continue;
    // The record must be the block's first allocation.
    if (r <= 0 || out.record != scratch.data()) return nullptr;
    need = b.used;
  }
  auto obj = std::make_unique<Object>();
  obj->type = type;
  obj->block.assign(need, 0);
  Bump b{obj->block.data(), need, 0};
  rts_msg_pair out{};
  int r = rts_idr_decode(&out, bytes.data(), static_cast<uint32_t>(bytes.size()), Bump::alloc, &b);
  if (r <= 0 || out.record != obj->block.data()) return nullptr;
  return obj;
}

size_t Store::cost(const std::string &key, const Object &obj) {
  return obj.block.size() + key.size() + kObjectOverhead;
}

std::string Store::quota_text() {
  return "object quota reached (" + std::to_string(kMaxObjects) + " objects, " +
         std::to_string(kMaxObjectBytes >> 20) + " MiB)";
}

bool Store::serves(uint32_t type) {
  switch (type) {
    case RTS_T_RTTABLE: case RTS_T_ROUTE: case RTS_T_IFDEV: case RTS_T_IFLOGICAL:
    case RTS_T_IFFAMILY: case RTS_T_IFADDR: case RTS_T_BRIDGE_DOMAIN: case RTS_T_RTMATCH:
    case RTS_T_NEXTHOP: case RTS_T_GENCFG:
      return true;
    default:
      return false;
  }
}

std::string Store::key_of(uint32_t type, const void *r) {
  std::string k;
  switch (type) {
    case RTS_T_RTTABLE: {
      auto *m = static_cast<const rts_rtb_msg *>(r);
      be(k, m->rtbm_af, 1);
      be(k, m->rtbm_index, 2);
      break;
    }
    case RTS_T_ROUTE: {
      auto *m = static_cast<const rts_rt_msg *>(r);
      be(k, m->rtm_table, 2);
      be(k, m->rtm_af, 1);
      prefix_key(k, m->rtm_prefix, m->rtm_prefix_bits);
      break;
    }
    case RTS_T_IFDEV: be(k, static_cast<const rts_ifd_msg *>(r)->ifdm_index, 2); break;
    case RTS_T_IFLOGICAL: be(k, static_cast<const rts_ifl_msg *>(r)->iflm_index, 4); break;
    case RTS_T_IFFAMILY: {
      auto *m = static_cast<const rts_iff_msg *>(r);
      be(k, m->iffm_ifl_index, 4);
      be(k, m->iffm_af, 1);
      break;
    }
    case RTS_T_IFADDR: {
      auto *m = static_cast<const rts_ifa_msg *>(r);
      be(k, m->ifam_ifl_index, 4);
      be(k, m->ifam_af, 1);
      prefix_key(k, m->ifam_local, m->ifam_local_bits);
      break;
    }
    case RTS_T_BRIDGE_DOMAIN: be(k, static_cast<const rts_bd_msg *>(r)->bdm_index, 2); break;
    case RTS_T_NEXTHOP: be(k, static_cast<const rts_nh_msg *>(r)->nhm_index, 4); break;
    case RTS_T_GENCFG: {
      // Blobs in the order of their id, then of their key's bytes.
      auto *m = static_cast<const rts_gencfg_msg *>(r);
      be(k, m->major, 2);
      be(k, m->minor, 2);
      if (m->blob_key) k.append(reinterpret_cast<const char *>(m->blob_key), m->blob_key_len);
      break;
    }
    default: break;
  }
  return k;
}

int Store::apply(uint8_t op, uint32_t type, const void *record) { return apply(op, type, record, nullptr); }

int Store::apply(uint8_t op, std::unique_ptr<Object> obj) {
  const void *record = obj->rec();
  return apply(op, obj->type, record, &obj);
}

int Store::apply(uint8_t op, uint32_t type, const void *record, std::unique_ptr<Object> *own) {
  if (!serves(type) || type == RTS_T_RTMATCH) return EOPNOTSUPP;
  std::string key = key_of(type, record);
  auto &t = tables_[type];
  auto it = t.find(key);
  switch (op) {
    case RTS_OP_ADD:
    case RTS_OP_CHANGE: {
      if (op == RTS_OP_ADD && it != t.end()) return EEXIST;
      if (op == RTS_OP_CHANGE && it == t.end()) return ENOENT;
      auto obj = own ? std::move(*own) : clone(type, record);
      if (!obj) return EINVAL;
      size_t old = it == t.end() ? 0 : cost(key, *it->second);
      size_t bytes = bytes_ - old + cost(key, *obj);
      if ((it == t.end() && count_ >= kMaxObjects) || bytes > kMaxObjectBytes) return ENOSPC;
      if (it == t.end()) count_++;
      bytes_ = bytes;
      t[key] = std::move(obj);
      return 0;
    }
    case RTS_OP_DELETE:
      if (it == t.end()) return ENOENT;
      bytes_ -= cost(key, *it->second);
      count_--;
      t.erase(it);
      return 0;
    default:
      return EINVAL;
  }
}

const Object *Store::find_exact(uint32_t type, const std::string &key) const {
  auto t = tables_.find(type);
  if (t == tables_.end()) return nullptr;
  auto it = t->second.find(key);
  return it == t->second.end() ? nullptr : it->second.get();
}

const Object *Store::find_next(uint32_t type, const std::string &key) const {
  auto t = tables_.find(type);
  if (t == tables_.end()) return nullptr;
  auto it = t->second.upper_bound(key);
  return it == t->second.end() ? nullptr : it->second.get();
}

const std::map<std::string, std::unique_ptr<Object>> &Store::table(uint32_t type) const {
  auto t = tables_.find(type);
  return t == tables_.end() ? kEmpty : t->second;
}

size_t Store::size() const { return count_; }

// Gets that name an object otherwise than by its key.
const Object *Store::match(uint32_t type, const void *request) const {
  if (type == RTS_T_RTMATCH) {
    auto *q = static_cast<const rts_rtmatch_msg *>(request);
    const Object *best = nullptr;
    uint16_t best_bits = 0;
    for (auto &[key, obj] : table(RTS_T_ROUTE)) {
      auto *m = static_cast<const rts_rt_msg *>(obj->rec());
      if (m->rtm_table != q->rtmm_table || m->rtm_af != q->rtmm_af || !q->rtmm_prefix) continue;
      if ((!best || m->rtm_prefix_bits >= best_bits) &&
          (m->rtm_prefix_bits == 0 ||
           (m->rtm_prefix && covers(m->rtm_prefix, m->rtm_prefix_bits, q->rtmm_prefix, q->rtmm_prefix_bits)))) {
        best = obj.get();
        best_bits = m->rtm_prefix_bits;
      }
    }
    return best;
  }
  for (auto &[key, obj] : table(type)) {
    const void *o = obj->rec();
    switch (type) {
      case RTS_T_RTTABLE: {
        auto *q = static_cast<const rts_rtb_msg *>(request);
        auto *m = static_cast<const rts_rtb_msg *>(o);
        if (m->rtbm_af == q->rtbm_af && name_is(q->rtbm_name, q->rtbm_name_len, m->rtbm_name ? m->rtbm_name : ""))
          return obj.get();
        break;
      }
      case RTS_T_IFDEV: {
        auto *q = static_cast<const rts_ifd_msg *>(request);
        auto *m = static_cast<const rts_ifd_msg *>(o);
        if (q->ifdm_name_len ? name_is(q->ifdm_name, q->ifdm_name_len, m->ifdm_name ? m->ifdm_name : "")
                             : q->ifdm_snmp_index && q->ifdm_snmp_index == m->ifdm_snmp_index)
          return obj.get();
        break;
      }
      case RTS_T_IFLOGICAL: {
        auto *q = static_cast<const rts_ifl_msg *>(request);
        auto *m = static_cast<const rts_ifl_msg *>(o);
        if (q->iflm_name_len ? name_is(q->iflm_name, q->iflm_name_len, m->iflm_name ? m->iflm_name : "") &&
                                   q->iflm_unit == m->iflm_unit
                             : q->iflm_snmp_index && q->iflm_snmp_index == m->iflm_snmp_index)
          return obj.get();
        break;
      }
      case RTS_T_IFFAMILY: {
        auto *q = static_cast<const rts_iff_msg *>(request);
        auto *m = static_cast<const rts_iff_msg *>(o);
        if (m->iffm_af == q->iffm_af && name_is(q->iffm_name, q->iffm_name_len, m->iffm_name ? m->iffm_name : ""))
          return obj.get();
        break;
      }
      case RTS_T_IFADDR: {
        auto *q = static_cast<const rts_ifa_msg *>(request);
        auto *m = static_cast<const rts_ifa_msg *>(o);
        if (m->ifam_ifl_index != q->ifam_ifl_index || m->ifam_af != q->ifam_af) break;
        if (q->ifam_local_bits &&
            !prefix_equal(q->ifam_local, q->ifam_local_bits, m->ifam_local, m->ifam_local_bits))
          break;
        // A destination asked for matches the address's destination, or lies
        // in the subnet of the local address.
        if (q->ifam_dest_bits &&
            !prefix_equal(q->ifam_dest, q->ifam_dest_bits, m->ifam_dest, m->ifam_dest_bits) &&
            !(m->ifam_dest && covers(m->ifam_dest, m->ifam_dest_bits, q->ifam_dest, q->ifam_dest_bits)))
          break;
        return obj.get();
      }
      default: break;
    }
  }
  return nullptr;
}

constexpr uint8_t kAfBridge = 63;

const Object *Store::lookup(uint8_t op, uint32_t type, const void *request) const {
  if (op == RTS_OP_GETNEXT) return find_next(type, key_of(type, request));
  if (op != RTS_OP_GET) return nullptr;
  switch (type) {
    case RTS_T_RTTABLE:
      if (static_cast<const rts_rtb_msg *>(request)->rtbm_index == RTS_RTB_INDEX_BY_NAME)
        return match(type, request);
      break;
    case RTS_T_IFDEV:
      if (!static_cast<const rts_ifd_msg *>(request)->ifdm_index) return match(type, request);
      break;
    case RTS_T_IFLOGICAL:
      if (!static_cast<const rts_ifl_msg *>(request)->iflm_index) return match(type, request);
      break;
    case RTS_T_IFFAMILY:
      if (static_cast<const rts_iff_msg *>(request)->iffm_name_len) return match(type, request);
      break;
    case RTS_T_IFADDR:
    case RTS_T_RTMATCH:
      return match(type, request);
    case RTS_T_ROUTE: {
      // A bridge MAC route asked for in table 0 is resolved as the kernel
      // does: in the table of the bridge domain that the key's first two
      // bytes name.
      auto *q = static_cast<const rts_rt_msg *>(request);
      if (q->rtm_table != 0 || q->rtm_af != kAfBridge || !q->rtm_prefix || q->rtm_prefix_bits < 16) break;
      const uint16_t bd = static_cast<uint16_t>(q->rtm_prefix[0] << 8 | q->rtm_prefix[1]);
      for (auto &[key, obj] : table(RTS_T_BRIDGE_DOMAIN)) {
        auto *m = static_cast<const rts_bd_msg *>(obj->rec());
        if (m->bdm_index != bd) continue;
        rts_rt_msg in_table = *q;
        in_table.rtm_table = m->rtb_id;
        return find_exact(type, key_of(type, &in_table));
      }
      break;
    }
    default:
      break;
  }
  return find_exact(type, key_of(type, request));
}

}  // namespace rtsockd
