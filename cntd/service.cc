// cntd's requests and replies, and its admin commands.
#include "service.h"

#include <cerrno>
#include <cstring>
#include <sstream>

#include "rtsock/rts_ifstats.h"
#include "stats/libstats_wire.h"

namespace cntd {

using rtsockd::put_queues;
using rtsockd::put_tlv;

namespace {

void reply_of(std::vector<uint8_t> *out, const ls_reply &head, const std::vector<uint8_t> &tlv) {
  ls_reply r = head;
  r.tlv_len = static_cast<uint32_t>(tlv.size());
  out->assign(LS_REPLY_HEAD + tlv.size(), 0);
  ls_reply_write(out->data(), r);
  if (!tlv.empty()) memcpy(out->data() + LS_REPLY_HEAD, tlv.data(), tlv.size());
}

bool parse_errno(const std::string &s, uint32_t *out) {
  char *end;
  long v = strtol(s.c_str(), &end, 0);
  if (!s.empty() && *end == 0 && v > 0 && v < 4096) {
    *out = static_cast<uint32_t>(v);
    return true;
  }
  for (int e = 1; e < 134; e++)
    if (const char *name = strerrorname_np(e); name && s == name) {
      *out = static_cast<uint32_t>(e);
      return true;
    }
  return false;
}

const char kHelp[] =
    "stats set|bump|clear|delete|show ...  counters, as rtsockd's (iflstats index=N field=value ...)\n"
    "fault error ERRNO             every interface reply fails with ERRNO (ENOENT, 5, ...)\n"
    "fault empty                   every interface reply comes without figures\n"
    "fault drop                    requests get no answer\n"
    "fault close                   the session of the next request is closed\n"
    "fault clear                   no faults\n"
    "trace on FLAGS [FILE]         every session turns its libstats trace on\n"
    "trace off                     ... and off\n"
    "counts                        requests, replies, malformed, dropped\n"
    "help                          this list\n";

}  // namespace

std::vector<uint8_t> Service::figures(const rtsockd::StatsEntry &e, bool absolute) {
  std::vector<uint8_t> tlv;
  uint8_t fixed[LS_TLV_FIXED_LEN] = {};
  fixed[0] = e.flags;
  fixed[1] = e.media;
  memcpy(fixed + 2, &e.link_type, 2);
  for (int i = 0; i < 4; i++) ls_put64(fixed + 4 + 8 * i, e.rates[i]);
  ls_put64(fixed + 36, e.clear_time);
  put_tlv(tlv, LS_TLV_FIXED, fixed, sizeof fixed);
  put_tlv(tlv, LS_TLV_COUNTERS, e.cur, sizeof e.cur);
  bool base = e.has_base && !absolute;
  if (base) put_tlv(tlv, LS_TLV_BASELINE, e.base, sizeof e.base);
  if (!e.queues.empty()) put_queues(tlv, RTS_IFST_QUEUE, e.queues);
  if (base && !e.base_queues.empty()) put_queues(tlv, RTS_IFST_QUEUE_BASE, e.base_queues);
  if (!e.voqs.empty()) put_queues(tlv, RTS_IFST_VOQ, e.voqs);
  if (base && !e.base_voqs.empty()) put_queues(tlv, RTS_IFST_VOQ_BASE, e.base_voqs);
  if (e.has_mac) put_tlv(tlv, RTS_IFST_ETHER_MAC, &e.mac, sizeof e.mac);
  if (e.has_link) put_tlv(tlv, RTS_IFST_ETHER_LINK, &e.link, sizeof e.link);
  return tlv;
}

Outcome Service::request(uint32_t subtype, const uint8_t *payload, uint32_t len, uint64_t now,
                         std::vector<uint8_t> *reply) {
  tally.requests++;
  ls_hdr h;
  auto malformed = [&] {
    tally.malformed++;
    return Outcome::none;
  };
  if (!ls_hdr_read(payload, len, &h) || h.type != subtype) return malformed();
  const uint8_t *body = payload + LS_HDR_LEN;
  uint32_t blen = len - LS_HDR_LEN;
  ls_reply r{};
  std::vector<uint8_t> tlv;
  switch (h.type) {
    case LS_IFLSTATS_FULL_REQUEST:
    case LS_IFLSETSTATS_FULL_REQUEST: {
      ls_ifl_request q;
      if (!ls_ifl_request_read(body, blen, &q) || !(q.flags & LS_REQ_FULL)) return malformed();
      bool set = h.type == LS_IFLSETSTATS_FULL_REQUEST;
      r.type = set                       ? uint32_t{LS_IFLSETSTATS_FULL_REPLY}
               : (q.flags & LS_REQ_ASYNC) ? uint32_t{LS_IFLSTATS_FULL_ASYNC_REPLY}
                                          : uint32_t{LS_IFLSTATS_FULL_REPLY};
      r.id = q.id;
      r.flags = q.flags;
      if (set)
        r.key = q.ifl;
      else
        r.index = q.ifl;
      if (faults.error) {
        r.err = faults.error;
      } else if (!faults.empty && !set) {
        // Interface sets have no counters here: their replies are empty.
        if (q.flags & LS_REQ_CLEAR) counters.clear(RTS_T_IFLSTATS, q.ifl, now);
        if (const rtsockd::StatsEntry *e = counters.find(RTS_T_IFLSTATS, q.ifl))
          tlv = figures(*e, q.flags & LS_REQ_ABSOLUTE);
      }
      break;
    }
    case LS_CNTD_REQUEST: {
      if (blen != LS_CNTD_REQ_BODY) return malformed();
      uint32_t kind = ls_get32(body);
      if (kind > LS_CNTD_REQ_SERV_DELETE) return malformed();
      bool serv = kind >= LS_CNTD_REQ_SERV_INTERIM;
      bool del = kind == LS_CNTD_REQ_SUB_DELETE || kind == LS_CNTD_REQ_SERV_DELETE;
      r.type = serv ? LS_SERVSTATS_REPLY : LS_SUBSTATS_REPLY;
      r.id = ls_get32(body + 4);
      r.key = ls_get64(body + 8);
      r.index = serv ? (del ? 9 : 8) : (del ? 4 : 3);  // the statistics kind of the answer
      r.flags = del ? uint32_t{LS_REPLY_FINAL} : 0u;
      r.err = ENOENT;  // no subscriber sessions live in this forwarding plane
      break;
    }
    case LS_MCAST_REQUEST: {
      if (blen != LS_MCAST_REQ_BODY) return malformed();
      uint32_t kind = ls_get32(body);
      if (kind < 14 || kind > 24) return malformed();
      r.type = LS_MCAST_REPLY;
      r.id = ls_get32(body + 4);
      r.index = kind;
      r.err = ENOENT;  // no multicast state either
      break;
    }
    default:
      return malformed();
  }
  if (faults.close) {
    faults.close = false;
    tally.dropped++;
    return Outcome::close;
  }
  if (faults.drop) {
    tally.dropped++;
    return Outcome::none;
  }
  reply_of(reply, r, tlv);
  tally.replies++;
  return Outcome::reply;
}

std::string Service::admin(const std::string &line, uint64_t now, std::vector<std::vector<uint8_t>> *push) {
  std::istringstream in(line);
  std::string cmd, sub;
  in >> cmd >> sub;
  std::string rest;
  getline(in, rest);
  size_t start = rest.find_first_not_of(' ');
  rest = start == std::string::npos ? "" : rest.substr(start);
  std::string why;
  auto done = [&](bool ok) { return ok ? std::string("ok\n") : "error: " + why + "\n"; };
  if (cmd == "help") return kHelp + std::string("ok\n");
  if (cmd == "counts") {
    std::ostringstream o;
    o << "requests " << tally.requests << " replies " << tally.replies << " malformed " << tally.malformed
      << " dropped " << tally.dropped << "\nok\n";
    return o.str();
  }
  if (cmd == "stats") {
    if (sub == "set" || sub == "bump") return done(counters.set(rest, sub == "bump", &why));
    if (sub == "clear") return done(counters.clear(rest, now, &why));
    if (sub == "delete") return done(counters.erase(rest, &why));
    if (sub == "show") return counters.show() + "ok\n";
    why = "stats set|bump|clear|delete|show";
    return done(false);
  }
  if (cmd == "fault") {
    if (sub == "error") {
      uint32_t e;
      if (!parse_errno(rest, &e)) {
        why = "expected an errno (ENOENT or a number), got " + rest;
        return done(false);
      }
      faults.error = e;
      return done(true);
    }
    if (!rest.empty()) {
      why = "fault " + sub + " takes nothing more";
      return done(false);
    }
    if (sub == "empty") faults.empty = true;
    else if (sub == "drop") faults.drop = true;
    else if (sub == "close") faults.close = true;
    else if (sub == "clear") faults = Faults{};
    else {
      why = "fault error|empty|drop|close|clear";
      return done(false);
    }
    return done(true);
  }
  if (cmd == "trace") {
    std::vector<uint8_t> m;
    if (sub == "on") {
      std::istringstream r(rest);
      std::string flags, file;
      r >> flags >> file;
      char *end = nullptr;
      unsigned long f = strtoul(flags.c_str(), &end, 0);
      if (flags.empty() || *end || f > 0xFFFFFFFF || file.size() > 255) {
        why = "trace on FLAGS [FILE]";
        return done(false);
      }
      m.assign(LS_HDR_LEN + 4 + file.size() + 1, 0);
      ls_hdr_write(m.data(), static_cast<uint32_t>(m.size()), LS_TRACE_ON);
      ls_put32(m.data() + LS_HDR_LEN, static_cast<uint32_t>(f));
      memcpy(m.data() + LS_HDR_LEN + 4, file.data(), file.size());
    } else if (sub == "off" && rest.empty()) {
      m.assign(LS_HDR_LEN, 0);
      ls_hdr_write(m.data(), LS_HDR_LEN, LS_TRACE_OFF);
    } else {
      why = "trace on FLAGS [FILE] | trace off";
      return done(false);
    }
    push->push_back(std::move(m));
    return done(true);
  }
  why = "unknown command " + cmd + " (help lists them)";
  return done(false);
}

}  // namespace cntd
