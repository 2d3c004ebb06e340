// The get functions: a request built in a zeroed block, written, and for get
// and getnext one reply read and decoded.
#include <cerrno>
#include <cstring>

#include "platform/compat.h"
#include "rtslib_internal.h"

using namespace rtslib;

namespace {

// A request record at the head of its 16 KB block; prefixes and names behind
// it. The block reads as zero-filled wherever the encoder looks (the record,
// each prefix's padding); the rest is never read, and zeroing it all cost
// more than half a microsecond a get.
template <class R>
struct Request {
  uint8_t *block = nullptr;
  size_t used = (sizeof(R) + 7) & ~size_t{7};
  R *rec() { return reinterpret_cast<R *>(block); }

  // (bits + 7) / 8 bytes of the caller's, then zeros to the padded length.
  void prefix(const void *src, uint16_t bits, uint8_t **ptr, uint16_t *bits_out, uint16_t *plen_out) {
    uint16_t plen = static_cast<uint16_t>(((bits + 31u) / 8) & ~3u);
    if (!src || !plen || used + plen > kRequestBlock) return;
    *ptr = block + used;
    memset(*ptr, 0, plen);
    memcpy(*ptr, src, (bits + 7u) / 8);
    *bits_out = bits;
    *plen_out = plen;
    used += (plen + 7u) & ~7u;
  }
  // At most 60 bytes with the terminator; an empty name is one NUL byte.
  void name(const char *src, char **ptr, uint32_t *len) {
    *ptr = reinterpret_cast<char *>(block + used);
    strlcpy(*ptr, src ? src : "", RTS_IFNAME_MAX);
    *len = static_cast<uint32_t>(strlen(*ptr) + 1);
    used += (RTS_IFNAME_MAX + 7u) & ~7u;
  }
};

void fill_header(rtslib_cookie *c, rts_msg_hdr &h, uint8_t type, uint8_t op) {
  h.version = rts_type_table[type].version;
  h.type = type;
  h.operation = op;
  h.size = rts_type_table[type].size;
  h.length = rts_type_table[type].size;
  h.seq = c->seq++;
  h.sender = c->sender_id;
}

bool wants_reply(uint8_t op) { return op == RTS_OP_GET || op == RTS_OP_GETNEXT; }

// The next record of a get's wait. A record thrown away for being broken
// (too short, no block for it) may hide the answer behind it: its error is
// kept in *bad and the wait goes on (*err 0, *buf null). The wait ends with
// *err set; EAGAIN after a broken record gives that record's error.
bool next_record(rtslib_cookie *c, uint8_t **buf, uint32_t *len, int *bad, int *err) {
  *err = take_record(c, buf, len);
  if (*err == EIO || *err == ENOMEM) {
    if (!*bad) *bad = *err;
    *err = 0;
    *buf = nullptr;
    return true;
  }
  if (*err == EAGAIN && *bad) *err = *bad;
  return *err == 0;
}

}  // namespace

// Reads until the answer to `request` comes: records that answer something
// else are dropped (see answers()). A record that does not decode may have
// been anything; its error is the result only when no answer follows.
int rtslib::read_answer(rtslib_cookie *c, const rts_msg_hdr &request, void **answer) {
  *answer = nullptr;
  int bad = 0;
  for (;;) {
    uint8_t *buf;
    uint32_t len;
    int err;
    if (!next_record(c, &buf, &len, &bad, &err)) return err;
    if (!buf) continue;
    void *msg = nullptr;
    err = rtslib_msg_decode(c, buf, len, &msg);
    release(RTSLIB_MEM_MSG, buf);
    if (err) {
      if (!bad) bad = err;
      continue;
    }
    if (answers(msg, &request)) {
      *answer = msg;
      return 0;
    }
    auto *h = static_cast<const rts_msg_hdr *>(msg);
    rtslib_log(c, RTSLIB_LOG_DEBUG, "dropped type %u seq %u op %u while waiting for type %u seq %u op %u",
               h->type, h->seq, h->operation, request.type, request.seq, request.operation);
    rtslib_msg_idl_release(c, msg);
  }
}

namespace {

// Sends the record and, for get and getnext, reads its answer into *result.
template <class R>
int exchange(rtslib_cookie *c, uint8_t type, uint8_t op, const R *rec, R **result) {
  int err = send_message(c, type, rec, nullptr);
  if (err || !wants_reply(op)) return err;
  rts_msg_hdr request = rec->hdr;
  request.type = type;  // as the envelope names it
  void *msg;
  err = read_answer(c, request, &msg);
  if (!err) *result = static_cast<R *>(msg);
  return err;
}

template <class R, class Fill>
int get(rtslib_cookie *c, uint8_t type, uint8_t op, R **result, Fill fill) {
  if (result) *result = nullptr;
  if (!c || (wants_reply(op) && !result)) return EINVAL;
  Request<R> req;
  req.block = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, kRequestBlock));
  if (!req.block) return ENOMEM;
  memset(req.block, 0, req.used);
  fill_header(c, req.rec()->hdr, type, op);
  fill(req, *req.rec());
  int err = exchange(c, type, op, req.rec(), result);
  release(RTSLIB_MEM_MSG, req.block);
  return err;
}

int raw_stats(rtslib_cookie *c, uint8_t type, uint32_t index, rts_ifstats_msg **result) {
  if (result) *result = nullptr;
  if (!c || !result) return EINVAL;
  rts_ifstats_msg req{};
  req.hdr.version = rts_type_table[type].version;
  req.hdr.type = type;
  req.hdr.operation = RTS_OP_GET;
  req.hdr.length = sizeof req;
  req.hdr.size = sizeof req;
  req.hdr.seq = c->seq++;
  req.hdr.sender = c->sender_id;
  req.ifsm_index = index;
  rtslib_msglen = sizeof req;
  if (edge().lo_write(edge().lo_ctx, c->fd, &req, sizeof req) < 0) return errno;
  // Raw replies are dropped when they answer an earlier request (an older
  // number) or are of another type; any other number is a mismatch.
  int bad = 0;
  for (;;) {
    uint8_t *buf;
    uint32_t len;
    int err;
    if (!next_record(c, &buf, &len, &bad, &err)) return err;
    if (!buf) continue;
    rts_raw_hdr h{};
    if (len >= sizeof(rts_ifstats_msg)) memcpy(&h, buf, sizeof h);
    if (len >= sizeof(rts_ifstats_msg) && h.word0 == 0 && h.type == type) {
      if (h.seq == req.hdr.seq) {
        *result = reinterpret_cast<rts_ifstats_msg *>(buf);
        return 0;
      }
      if (static_cast<int32_t>(req.hdr.seq - h.seq) < 0 && !raw_seq_ok(c, h.seq)) {
        release(RTSLIB_MEM_MSG, buf);
        return -2;
      }
    }
    rtslib_log(c, RTSLIB_LOG_DEBUG, "dropped a record of %u bytes while waiting for type %u seq %u", len,
               type, req.hdr.seq);
    release(RTSLIB_MEM_MSG, buf);
  }
}

}  // namespace

int rtslib_rtm_get(rtslib_cookie *c, uint16_t table, uint8_t af, const void *prefix,
                   uint16_t prefix_bits, uint8_t route_type, uint32_t flags, uint32_t nh_index,
                   uint8_t route_proto, uint8_t op, rts_rt_msg **result, int) {
  return get(c, RTS_T_ROUTE, op, result, [&](Request<rts_rt_msg> &q, rts_rt_msg &m) {
    m.rtm_table = table;
    m.rtm_af = af;
    m.rtm_type = route_type;
    m.rtm_flags = flags;
    m.rtm_nh_index = nh_index;
    m.rtm_proto = route_proto;
    q.prefix(prefix, prefix_bits, &m.rtm_prefix, &m.rtm_prefix_bits, &m.rtm_prefix_plen);
  });
}

int rtslib_rtm_get_with_msg(rtslib_cookie *c, rts_rt_msg *message, uint8_t op, rts_rt_msg **result,
                            int) {
  if (result) *result = nullptr;
  if (!c || !message || (wants_reply(op) && !result)) return EINVAL;
  message->hdr.operation = op;
  message->hdr.seq = c->seq++;
  return exchange(c, RTS_T_ROUTE, op, message, result);
}

int rtslib_rtmatch_by_prefix(rtslib_cookie *c, uint16_t table, uint8_t af, uint8_t op,
                             const void *prefix, uint16_t prefix_bits, rts_rtmatch_msg **result, int) {
  return get(c, RTS_T_RTMATCH, op, result, [&](Request<rts_rtmatch_msg> &q, rts_rtmatch_msg &m) {
    m.rtmm_table = table;
    m.rtmm_af = af;
    q.prefix(prefix, prefix_bits, &m.rtmm_prefix, &m.rtmm_prefix_bits, &m.rtmm_prefix_plen);
  });
}

int rtslib_rtbm_get_by_index(rtslib_cookie *c, uint8_t af, uint16_t index, uint8_t op,
                             rts_rtb_msg **result, int) {
  return get(c, RTS_T_RTTABLE, op, result, [&](Request<rts_rtb_msg> &, rts_rtb_msg &m) {
    m.rtbm_af = af;
    m.rtbm_index = index;
  });
}

int rtslib_rtbm_get_by_name(rtslib_cookie *c, uint8_t af, const char *name, rts_rtb_msg **result,
                            int) {
  return get(c, RTS_T_RTTABLE, RTS_OP_GET, result, [&](Request<rts_rtb_msg> &q, rts_rtb_msg &m) {
    m.rtbm_af = af;
    m.rtbm_index = RTS_RTB_INDEX_BY_NAME;
    q.name(name, &m.rtbm_name, &m.rtbm_name_len);
  });
}

int rtslib_ifdm_get_by_index(rtslib_cookie *c, uint16_t index, uint8_t op, rts_ifd_msg **result,
                             int) {
  return get(c, RTS_T_IFDEV, op, result,
             [&](Request<rts_ifd_msg> &, rts_ifd_msg &m) { m.ifdm_index = index; });
}

int rtslib_ifdm_get_by_name(rtslib_cookie *c, const char *name, uint8_t op, rts_ifd_msg **result,
                            int) {
  return get(c, RTS_T_IFDEV, op, result, [&](Request<rts_ifd_msg> &q, rts_ifd_msg &m) {
    q.name(name, &m.ifdm_name, &m.ifdm_name_len);
  });
}

int rtslib_ifdm_get_by_snmp_index(rtslib_cookie *c, uint32_t snmp_index, uint8_t op,
                                  rts_ifd_msg **result, int) {
  if (op != RTS_OP_GET) {
    if (result) *result = nullptr;
    return EINVAL;
  }
  return get(c, RTS_T_IFDEV, op, result,
             [&](Request<rts_ifd_msg> &, rts_ifd_msg &m) { m.ifdm_snmp_index = snmp_index; });
}

int rtslib_iflm_get_by_index(rtslib_cookie *c, uint32_t index, uint8_t op, rts_ifl_msg **result,
                             int) {
  return get(c, RTS_T_IFLOGICAL, op, result,
             [&](Request<rts_ifl_msg> &, rts_ifl_msg &m) { m.iflm_index = index; });
}

int rtslib_iflm_get_by_name(rtslib_cookie *c, const char *device_name, uint32_t unit, uint8_t op,
                            rts_ifl_msg **result, int) {
  return get(c, RTS_T_IFLOGICAL, op, result, [&](Request<rts_ifl_msg> &q, rts_ifl_msg &m) {
    q.name(device_name, &m.iflm_name, &m.iflm_name_len);
    m.iflm_unit = unit;
  });
}

int rtslib_iflm_get_by_snmp_index(rtslib_cookie *c, uint32_t snmp_index, uint8_t op,
                                  rts_ifl_msg **result, int) {
  return get(c, RTS_T_IFLOGICAL, op, result,
             [&](Request<rts_ifl_msg> &, rts_ifl_msg &m) { m.iflm_snmp_index = snmp_index; });
}

int rtslib_iffm_get_by_index(rtslib_cookie *c, uint32_t ifl_index, uint8_t af, uint8_t op,
                             rts_iff_msg **result, int) {
  return get(c, RTS_T_IFFAMILY, op, result, [&](Request<rts_iff_msg> &, rts_iff_msg &m) {
    m.iffm_ifl_index = ifl_index;
    m.iffm_af = af;
  });
}

int rtslib_iffm_get_by_dev_name(rtslib_cookie *c, const char *name, uint8_t af, uint8_t op,
                                rts_iff_msg **result, int) {
  return get(c, RTS_T_IFFAMILY, op, result, [&](Request<rts_iff_msg> &q, rts_iff_msg &m) {
    q.name(name, &m.iffm_name, &m.iffm_name_len);
    m.iffm_af = af;
  });
}

int rtslib_ifam_get_by_local_dest(rtslib_cookie *c, uint32_t ifl_index, uint8_t af, const void *dest,
                                  uint16_t dest_bits, const void *local, uint16_t local_bits,
                                  uint8_t op, rts_ifa_msg **result, int) {
  return get(c, RTS_T_IFADDR, op, result, [&](Request<rts_ifa_msg> &q, rts_ifa_msg &m) {
    m.ifam_ifl_index = ifl_index;
    m.ifam_af = af;
    q.prefix(local, local_bits, &m.ifam_local, &m.ifam_local_bits, &m.ifam_local_plen);
    q.prefix(dest, dest_bits, &m.ifam_dest, &m.ifam_dest_bits, &m.ifam_dest_plen);
  });
}

int rtslib_ifam_get_by_index(rtslib_cookie *c, uint32_t ifl_index, uint8_t af, uint8_t op,
                             rts_ifa_msg **result, int ctx) {
  return rtslib_ifam_get_by_local_dest(c, ifl_index, af, nullptr, 0, nullptr, 0, op, result, ctx);
}

int rtslib_ifam_get_by_local(rtslib_cookie *c, uint32_t ifl_index, uint8_t af, const void *local,
                             uint16_t local_bits, uint8_t op, rts_ifa_msg **result, int ctx) {
  return rtslib_ifam_get_by_local_dest(c, ifl_index, af, nullptr, 0, local, local_bits, op, result, ctx);
}

int rtslib_ifam_get_by_dest(rtslib_cookie *c, uint32_t ifl_index, uint8_t af, const void *dest,
                            uint16_t dest_bits, uint8_t op, rts_ifa_msg **result, int ctx) {
  return rtslib_ifam_get_by_local_dest(c, ifl_index, af, dest, dest_bits, nullptr, 0, op, result, ctx);
}

int rtslib_rnhm_get_by_index(rtslib_cookie *c, uint32_t index, uint8_t op, rts_nh_msg **result, int) {
  return get(c, RTS_T_NEXTHOP, op, result,
             [&](Request<rts_nh_msg> &, rts_nh_msg &m) { m.nhm_index = index; });
}

int rtslib_ifdsm_get_by_index(rtslib_cookie *c, uint32_t index, rts_ifstats_msg **result) {
  return raw_stats(c, RTS_T_IFDSTATS, index, result);
}

int rtslib_iflsm_get_by_index(rtslib_cookie *c, uint32_t index, rts_ifstats_msg **result) {
  return raw_stats(c, RTS_T_IFLSTATS, index, result);
}
