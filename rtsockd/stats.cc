// Counters as text and as statistics messages.
#include "stats.h"

#include <cerrno>
#include <cstring>
#include <sstream>

#include "rtsock/rts_ifstats.h"

namespace rtsockd {

namespace {

bool number(const std::string &v, uint64_t *out) {
  if (v.empty() || v[0] == '-') return false;
  errno = 0;
  char *end;
  *out = strtoull(v.c_str(), &end, 0);
  return !errno && *end == 0;
}

const char *kind_of(uint32_t type) { return type == RTS_T_IFDSTATS ? "ifdstats" : "iflstats"; }

// The 64-bit counters of a queue, of the Ethernet MAC record, by name.
struct Named {
  const char *name;
  size_t off;
};
#define Q(m) Named{#m, offsetof(rts_ifst_queue, m)}
constexpr Named kQueue[] = {Q(queued_packets),      Q(queued_bytes),         Q(tx_packets),
                            Q(tx_bytes),            Q(tail_drop_packets),    Q(red_drop_packets[0]),
                            Q(red_drop_packets[1]), Q(red_drop_packets[2]),  Q(red_drop_packets[3]),
                            Q(red_drop_bytes[0]),   Q(red_drop_bytes[1]),    Q(red_drop_bytes[2]),
                            Q(red_drop_bytes[3])};
#undef Q
#define M(m) Named{#m, offsetof(rts_ifst_ether_mac, m)}
constexpr Named kMac[] = {M(in_octets),     M(in_frames),     M(in_ucast),       M(in_mcast),
                          M(in_bcast),      M(in_crc_errors), M(in_align_errors), M(in_fragments),
                          M(in_jabbers),    M(in_oversized),  M(in_undersized),  M(in_pause),
                          M(out_octets),    M(out_frames),    M(out_ucast),      M(out_mcast),
                          M(out_bcast),     M(out_pause)};
#undef M

// "red_drop_packets.2" is written red_drop_packets[2] in the tables.
std::string table_name(std::string n) {
  size_t dot = n.find('.');
  if (dot != std::string::npos) n = n.substr(0, dot) + "[" + n.substr(dot + 1) + "]";
  return n;
}
std::string text_name(std::string n) {
  size_t b = n.find('[');
  if (b != std::string::npos) n = n.substr(0, b) + "." + n.substr(b + 1, n.size() - b - 2);
  return n;
}

template <size_t N>
uint64_t *counter_in(const Named (&table)[N], void *rec, const std::string &name) {
  std::string want = table_name(name);
  for (const Named &f : table)
    if (want == f.name) return reinterpret_cast<uint64_t *>(static_cast<uint8_t *>(rec) + f.off);
  return nullptr;
}

bool store(uint64_t *slot, uint64_t v, bool bump) {
  uint64_t was;
  memcpy(&was, slot, 8);
  v = bump ? was + v : v;
  memcpy(slot, &v, 8);
  return true;
}

// One field=value into e; false with *error.
bool set_field(StatsEntry &e, const std::string &k, const std::string &v, bool bump, std::string *error) {
  auto bad = [&](const char *why) {
    *error = std::string(why) + " " + k + "=" + v;
    return false;
  };
  if (k == "name") {
    if (bump) return bad("not a counter:");
    if (v.size() > 254) return bad("name too long:");
    e.name = v;
    return true;
  }
  if (k == "link.mac") {
    if (bump) return bad("not a counter:");
    std::string d;
    for (char ch : v)
      if (ch != ':') d += ch;
    if (d.size() != 12 || d.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
      return bad("bad MAC address:");
    for (int i = 0; i < 6; i++) e.link.mac[i] = static_cast<uint8_t>(std::stoi(d.substr(2 * i, 2), nullptr, 16));
    e.has_link = true;
    return true;
  }
  uint64_t x;
  if (!number(v, &x)) return bad("bad number:");
  auto small = [&](uint64_t max, auto *out) {
    if (bump) return bad("not a counter:");
    if (x > max) return bad("too large:");
    *out = static_cast<std::remove_pointer_t<decltype(out)>>(x);
    return true;
  };
  if (k == "flags") return small(0xFF, &e.flags);
  if (k == "media") return small(0xFF, &e.media);
  if (k == "link_type") return small(0xFFFF, &e.link_type);
  if (k == "clear_time") return small(~uint64_t{0}, &e.clear_time);
  static const char *const kRates[] = {"ibps", "ipps", "obps", "opps"};
  for (int i = 0; i < 4; i++)
    if (k == kRates[i]) return small(~uint64_t{0}, &e.rates[i]);
  if (k.rfind("link.", 0) == 0) {
    std::string f = k.substr(5);
    e.has_link = true;
    if (f == "speed") return small(~uint64_t{0}, &e.link.speed);
    if (f == "mtu") return small(0xFFFFFFFF, &e.link.mtu);
    if (f == "duplex") return small(2, &e.link.duplex);
    if (f == "autoneg") return small(2, &e.link.autoneg);
    if (f == "flow_control") return small(3, &e.link.flow_control);
    if (f == "loopback") return small(1, &e.link.loopback);
    return bad("unknown field");
  }
  if (k.rfind("mac.", 0) == 0) {
    uint64_t *c = counter_in(kMac, &e.mac, k.substr(4));
    if (!c) return bad("unknown field");
    e.has_mac = true;
    return store(c, x, bump);
  }
  bool base = k.rfind("base.", 0) == 0;
  std::string f = base ? k.substr(5) : k;
  bool voq = f.rfind("voq.", 0) == 0;
  if (voq || f.rfind("queue.", 0) == 0) {
    size_t at = voq ? 4 : 6, dot = f.find('.', at);
    uint64_t q;
    if (dot == std::string::npos || !number(f.substr(at, dot - at), &q)) return bad("unknown field");
    if (q >= Counters::kMaxQueues) return bad("queue number too large:");
    auto &qs = voq ? (base ? e.base_voqs : e.voqs) : (base ? e.base_queues : e.queues);
    rts_ifst_queue probe{};
    if (!counter_in(kQueue, &probe, f.substr(dot + 1))) return bad("unknown field");
    if (qs.size() <= q) qs.resize(q + 1);
    if (base) e.has_base = true;
    return store(counter_in(kQueue, &qs[q], f.substr(dot + 1)), x, bump);
  }
  for (unsigned i = 0; i < RTS_IFSC_COUNT; i++)
    if (f == rts_ifsm_slot_names[i]) {
      if (base) e.has_base = true;
      return store(base ? &e.base[i] : &e.cur[i], x, bump);
    }
  return bad("unknown field");
}

template <size_t N>
void print_counters(std::ostringstream &o, const Named (&table)[N], const void *rec, const std::string &prefix) {
  for (const Named &f : table) {
    uint64_t v;
    memcpy(&v, static_cast<const uint8_t *>(rec) + f.off, 8);
    if (v) o << ' ' << prefix << text_name(f.name) << '=' << v;
  }
}

}  // namespace

bool Counters::key(std::istringstream &in, uint32_t *type, uint32_t *index, std::string *error) const {
  std::string kind, word;
  in >> kind >> word;
  if (kind == "ifdstats") {
    *type = RTS_T_IFDSTATS;
  } else if (kind == "iflstats") {
    *type = RTS_T_IFLSTATS;
  } else {
    *error = "unknown kind " + kind + " (ifdstats or iflstats)";
    return false;
  }
  uint64_t x;
  if (word.rfind("index=", 0) != 0 || !number(word.substr(6), &x) || x > 0xFFFFFFFF) {
    *error = "expected index=N first, got " + word;
    return false;
  }
  *index = static_cast<uint32_t>(x);
  return true;
}

bool Counters::set(const std::string &line, bool bump, std::string *error) {
  std::istringstream in(line);
  uint32_t type, index;
  if (!key(in, &type, &index, error)) return false;
  auto it = entries_.find({type, index});
  if (it == entries_.end() && entries_.size() >= kMaxEntries) {
    *error = "statistics quota reached (" + std::to_string(kMaxEntries) + " interfaces)";
    return false;
  }
  StatsEntry e = it == entries_.end() ? StatsEntry{} : it->second;
  std::string word;
  while (in >> word) {
    size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) {
      *error = "expected field=value, got " + word;
      return false;
    }
    if (!set_field(e, word.substr(0, eq), word.substr(eq + 1), bump, error)) return false;
  }
  entries_[{type, index}] = std::move(e);
  return true;
}

bool Counters::clear(uint32_t type, uint32_t index, uint64_t now) {
  auto it = entries_.find({type, index});
  if (it == entries_.end()) return false;
  StatsEntry &e = it->second;
  memcpy(e.base, e.cur, sizeof e.base);
  e.base_queues = e.queues;
  e.base_voqs = e.voqs;
  e.has_base = true;
  e.flags |= RTS_IFSM_CLEARED;
  e.clear_time = now;
  return true;
}

bool Counters::clear(const std::string &line, uint64_t now, std::string *error) {
  std::istringstream in(line);
  uint32_t type, index;
  if (!key(in, &type, &index, error)) return false;
  if (!clear(type, index, now)) {
    *error = strerror(ENOENT);
    return false;
  }
  return true;
}

bool Counters::erase(const std::string &line, std::string *error) {
  std::istringstream in(line);
  uint32_t type, index;
  if (!key(in, &type, &index, error)) return false;
  if (!entries_.erase({type, index})) {
    *error = strerror(ENOENT);
    return false;
  }
  return true;
}

const StatsEntry *Counters::find(uint32_t type, uint32_t index) const {
  auto it = entries_.find({type, index});
  return it == entries_.end() ? nullptr : &it->second;
}

std::string Counters::show() const {
  std::ostringstream o;
  for (const auto &[k, e] : entries_) {
    o << kind_of(k.first) << " index=" << k.second;
    if (!e.name.empty()) o << " name=" << e.name;
    if (e.flags) o << " flags=" << unsigned{e.flags};
    if (e.media) o << " media=" << unsigned{e.media};
    if (e.link_type) o << " link_type=" << e.link_type;
    static const char *const kRates[] = {"ibps", "ipps", "obps", "opps"};
    for (int i = 0; i < 4; i++)
      if (e.rates[i]) o << ' ' << kRates[i] << '=' << e.rates[i];
    if (e.clear_time) o << " clear_time=" << e.clear_time;
    for (unsigned i = 0; i < RTS_IFSC_COUNT; i++)
      if (e.cur[i]) o << ' ' << rts_ifsm_slot_names[i] << '=' << e.cur[i];
    for (unsigned i = 0; i < RTS_IFSC_COUNT; i++)
      if (e.base[i]) o << " base." << rts_ifsm_slot_names[i] << '=' << e.base[i];
    for (size_t q = 0; q < e.queues.size(); q++)
      print_counters(o, kQueue, &e.queues[q], "queue." + std::to_string(q) + ".");
    for (size_t q = 0; q < e.base_queues.size(); q++)
      print_counters(o, kQueue, &e.base_queues[q], "base.queue." + std::to_string(q) + ".");
    for (size_t q = 0; q < e.voqs.size(); q++)
      print_counters(o, kQueue, &e.voqs[q], "voq." + std::to_string(q) + ".");
    for (size_t q = 0; q < e.base_voqs.size(); q++)
      print_counters(o, kQueue, &e.base_voqs[q], "base.voq." + std::to_string(q) + ".");
    if (e.has_mac) print_counters(o, kMac, &e.mac, "mac.");
    if (e.has_link) {
      o << " link.speed=" << e.link.speed << " link.mtu=" << e.link.mtu
        << " link.duplex=" << unsigned{e.link.duplex} << " link.autoneg=" << unsigned{e.link.autoneg}
        << " link.flow_control=" << unsigned{e.link.flow_control}
        << " link.loopback=" << unsigned{e.link.loopback} << " link.mac=";
      char m[18];
      snprintf(m, sizeof m, "%02x:%02x:%02x:%02x:%02x:%02x", e.link.mac[0], e.link.mac[1], e.link.mac[2],
               e.link.mac[3], e.link.mac[4], e.link.mac[5]);
      o << m;
    }
    o << '\n';
  }
  return o.str();
}

void put_tlv(std::vector<uint8_t> &tlv, uint16_t type, const void *value, size_t len) {
  size_t at = tlv.size();
  uint32_t n = rts_ifsm_tlv_encode(type, nullptr, static_cast<uint16_t>(len), nullptr, 0);
  tlv.resize(at + n);
  rts_ifsm_tlv_encode(type, value, static_cast<uint16_t>(len), tlv.data() + at, n);
}

void put_queues(std::vector<uint8_t> &tlv, uint16_t type, const std::vector<rts_ifst_queue> &qs) {
  rts_ifst_queues head{static_cast<uint32_t>(qs.size())};
  std::vector<uint8_t> v(sizeof head + qs.size() * sizeof(rts_ifst_queue));
  memcpy(v.data(), &head, sizeof head);
  if (!qs.empty()) memcpy(v.data() + sizeof head, qs.data(), qs.size() * sizeof(rts_ifst_queue));
  put_tlv(tlv, type, v.data(), v.size());
}

// The largest entry still makes a message that readers take.
static_assert(sizeof(rts_ifstats_msg) + 256 + 2 * RTS_IFSC_COUNT * 8 +
                      4 * (4 + sizeof(rts_ifst_queues) + Counters::kMaxQueues * sizeof(rts_ifst_queue)) +
                      4 + sizeof(rts_ifst_ether_mac) + 4 + sizeof(rts_ifst_ether_link) <=
                  RTS_MSG_MAX);

std::vector<uint8_t> stats_message(const rts_raw_hdr &req, uint32_t index, const StatsEntry *e,
                                   const std::string &name) {
  rts_ifstats_msg f{};
  f.hdr = req;
  f.hdr.error = 0;
  f.hdr.size = sizeof f;
  f.ifsm_index = index;
  std::vector<uint8_t> tlv;
  const uint64_t *cur = nullptr, *base = nullptr;
  uint32_t cur_n = 0, base_n = 0;
  std::string n = name;
  if (e) {
    if (!e->name.empty()) n = e->name;
    f.ifsm_flags = e->flags;
    f.ifsm_media = e->media;
    f.ifsm_link_type = e->link_type;
    f.ifsm_ibps = e->rates[0];
    f.ifsm_ipps = e->rates[1];
    f.ifsm_obps = e->rates[2];
    f.ifsm_opps = e->rates[3];
    f.ifsm_clear_time = e->clear_time;
    cur = e->cur;
    cur_n = RTS_IFSC_COUNT;
    if (e->has_base) {
      base = e->base;
      base_n = RTS_IFSC_COUNT;
    }
    if (!e->queues.empty()) put_queues(tlv, RTS_IFST_QUEUE, e->queues);
    if (e->has_base && !e->base_queues.empty()) put_queues(tlv, RTS_IFST_QUEUE_BASE, e->base_queues);
    if (!e->voqs.empty()) put_queues(tlv, RTS_IFST_VOQ, e->voqs);
    if (e->has_base && !e->base_voqs.empty()) put_queues(tlv, RTS_IFST_VOQ_BASE, e->base_voqs);
    if (e->has_mac) put_tlv(tlv, RTS_IFST_ETHER_MAC, &e->mac, sizeof e->mac);
    if (e->has_link) put_tlv(tlv, RTS_IFST_ETHER_LINK, &e->link, sizeof e->link);
  }
  const char *nm = n.size() < 255 ? n.c_str() : nullptr;
  uint32_t need = rts_ifsm_encode(&f, nm, cur, cur_n, base, base_n, tlv.data(),
                                  static_cast<uint32_t>(tlv.size()), nullptr, 0);
  if (!need) return {};
  std::vector<uint8_t> out(need);
  rts_ifsm_encode(&f, nm, cur, cur_n, base, base_n, tlv.data(), static_cast<uint32_t>(tlv.size()),
                  out.data(), need);
  return out;
}

}  // namespace rtsockd
