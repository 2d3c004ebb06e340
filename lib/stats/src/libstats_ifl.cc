// libstats' interface path: requests of an interface's full statistics,
// cntd's reply turned into the parts of a statistics message, the merge with
// the kernel's figures, and the synchronous form of rtslib_iflsm_get_by_index.
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ipc/ipcconn.h"
#include "libstats_int.h"
#include "platform/pvidb.h"
#include "rtsock/rts_ifstats.h"

namespace {

// Calls fn(type, value, len) for each TLV; false when one runs past the end.
template <typename F>
bool walk(const uint8_t *p, uint32_t len, F fn) {
  uint32_t off = 0;
  while (p && off + 4 <= len) {
    uint16_t type, vlen;
    memcpy(&type, p + off, 2);
    memcpy(&vlen, p + off + 2, 2);
    if (vlen == 0) break;
    if (vlen > len - off - 4) return false;
    if (!fn(type, p + off + 4, vlen)) return false;
    off += 4 + ((vlen + 3u) & ~3u);
  }
  return true;
}

int set_of(uint16_t type) {
  switch (type) {
    case RTS_IFST_QUEUE: return 0;
    case RTS_IFST_QUEUE_BASE: return 1;
    case RTS_IFST_VOQ: return 2;
    case RTS_IFST_VOQ_BASE: return 3;
    default: return -1;
  }
}

// The TLVs both forms share: queues and Ethernet details.
bool common_tlv(libstats_ifl_figures *f, uint16_t type, const uint8_t *v, uint16_t len) {
  int set = set_of(type);
  if (set >= 0) {
    if (len < 4) return false;
    uint32_t n = ls_get32(v);
    if (n > LS_MAX_QUEUES || len < 4 + n * sizeof(rts_ifst_queue)) return false;
    memcpy(f->queues[set], v + 4, n * sizeof(rts_ifst_queue));
    f->n_queues[set] = n;
    return true;
  }
  if (type == RTS_IFST_ETHER_MAC) {
    if (len < sizeof f->mac) return false;
    memcpy(&f->mac, v, sizeof f->mac);
    f->has_mac = 1;
  } else if (type == RTS_IFST_ETHER_LINK) {
    if (len < sizeof f->link) return false;
    memcpy(&f->link, v, sizeof f->link);
    f->has_link = 1;
  }
  return true;
}

void add64(uint64_t *a, const uint64_t *b, unsigned from, unsigned to) {
  for (unsigned i = from; i < to; i++) a[i] += b[i];
}

void add_queue(rts_ifst_queue *a, const rts_ifst_queue *b) {
  uint64_t x[13], y[13];
  static_assert(sizeof x == sizeof(rts_ifst_queue));
  memcpy(x, a, sizeof x);
  memcpy(y, b, sizeof y);
  for (int i = 0; i < 13; i++) x[i] += y[i];
  memcpy(a, x, sizeof x);
}

// Everything but the queues, which count only up to n_queues.
void clear(libstats_ifl_figures *f) { memset(f, 0, offsetof(libstats_ifl_figures, queues)); }

bool merge_wanted(int how) {
  if (how == LIBSTATS_MERGE_ALWAYS) return true;
  if (how != LIBSTATS_MERGE_BY_PLATFORM) return false;
  uint64_t v = 0;
  return pvidb_get("global.retrieve_ifl_stats_from_cntd", &v) == 0 && v;
}

}  // namespace

int libstats_iflstats_full_convert_from_tlvs_to_iflsm(const uint8_t *tlv, uint32_t len, libstats_ifl_figures *f) {
  clear(f);
  bool ok = walk(tlv, len, [&](uint16_t type, const uint8_t *v, uint16_t vlen) {
    if (type == LS_TLV_FIXED) {
      if (vlen < LS_TLV_FIXED_LEN) return false;
      f->flags = v[0];
      f->media = v[1];
      memcpy(&f->link_type, v + 2, 2);
      for (int i = 0; i < 4; i++) f->rates[i] = ls_get64(v + 4 + 8 * i);
      f->clear_time = ls_get64(v + 36);
      f->has_fixed = 1;
      return true;
    }
    if (type == LS_TLV_COUNTERS || type == LS_TLV_BASELINE) {
      if (vlen % 8) return false;
      libstats_ifl_figures one{};
      uint64_t *dst = type == LS_TLV_COUNTERS ? one.cur : one.base;
      for (uint32_t i = 0; i < vlen / 8 && i < RTS_IFSC_COUNT; i++) dst[i] = ls_get64(v + 8 * i);
      if (type == LS_TLV_COUNTERS) {
        add64(f->cur, one.cur, 0, RTS_IFSC_COUNT);
        f->has_cur = 1;
        f->members++;
      } else {
        add64(f->base, one.base, 0, RTS_IFSC_COUNT);
        f->has_base = 1;
      }
      return true;
    }
    return common_tlv(f, type, v, vlen);
  });
  return ok ? 0 : EINVAL;
}

int libstats_figures_from_iflsm(const void *msg, uint32_t len, libstats_ifl_figures *f) {
  clear(f);
  rts_ifsm_parts parts;
  if (!rts_ifsm_parts_of(msg, len, &parts)) return EINVAL;
  rts_ifstats_msg fixed;
  memcpy(&fixed, msg, sizeof fixed);
  f->has_fixed = 1;
  f->flags = fixed.ifsm_flags;
  f->media = fixed.ifsm_media;
  f->link_type = fixed.ifsm_link_type;
  f->rates[0] = fixed.ifsm_ibps;
  f->rates[1] = fixed.ifsm_ipps;
  f->rates[2] = fixed.ifsm_obps;
  f->rates[3] = fixed.ifsm_opps;
  f->clear_time = fixed.ifsm_clear_time;
  for (unsigned i = 0; i < RTS_IFSC_COUNT; i++) {
    f->cur[i] = rts_ifsm_counter(parts.cur, parts.cur_count, i);
    f->base[i] = rts_ifsm_counter(parts.base, parts.base_count, i);
  }
  f->has_cur = parts.cur != nullptr;
  f->has_base = parts.base != nullptr;
  return walk(parts.tlv, parts.tlv_len, [&](uint16_t t, const uint8_t *v, uint16_t n) { return common_tlv(f, t, v, n); })
             ? 0
             : EINVAL;
}

void libstats_rtslib_encode_generic_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b) {
  add64(a->cur, b->cur, RTS_IFSC_IBYTES, RTS_IFSC_IERRORS);
  add64(a->base, b->base, RTS_IFSC_IBYTES, RTS_IFSC_IERRORS);
  for (int i = 0; i < 4; i++) a->rates[i] += b->rates[i];
  a->has_cur |= b->has_cur;
  a->has_base |= b->has_base;
}

void libstats_rtslib_encode_generic_q_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b) {
  for (int set = 0; set < 4; set++) {
    for (uint32_t q = 0; q < b->n_queues[set]; q++) {
      if (q >= a->n_queues[set]) memset(&a->queues[set][q], 0, sizeof(rts_ifst_queue));
      add_queue(&a->queues[set][q], &b->queues[set][q]);
    }
    if (b->n_queues[set] > a->n_queues[set]) a->n_queues[set] = b->n_queues[set];
  }
}

void libstats_rtslib_encode_aggr_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b) {
  add64(a->cur, b->cur, RTS_IFSC_IERRORS, RTS_IFSC_COUNT);
  add64(a->base, b->base, RTS_IFSC_IERRORS, RTS_IFSC_COUNT);
  a->has_cur |= b->has_cur;
  a->has_base |= b->has_base;
}

void libstats_rtslib_encode_aggr_deux_stats(libstats_ifl_figures *a, const libstats_ifl_figures *b) {
  libstats_rtslib_encode_generic_stats(a, b);
  libstats_rtslib_encode_generic_q_stats(a, b);
  libstats_rtslib_encode_aggr_stats(a, b);
  if (b->has_mac) {
    uint64_t x[18], y[18];
    static_assert(sizeof x == sizeof(rts_ifst_ether_mac));
    memcpy(x, &a->mac, sizeof x);
    memcpy(y, &b->mac, sizeof y);
    for (int i = 0; i < 18; i++) x[i] = (a->has_mac ? x[i] : 0) + y[i];
    memcpy(&a->mac, x, sizeof x);
    a->has_mac = 1;
  }
  if (!a->has_link && b->has_link) {
    a->link = b->link;
    a->has_link = 1;
  }
  a->members += b->members;
}

uint32_t libstats_rtslib_pack_iflstats_msg(const rts_ifstats_msg *fixed, const char *name,
                                           const libstats_ifl_figures *f, void *buf, uint32_t room) {
  rts_ifstats_msg fx;
  memcpy(&fx, fixed, sizeof fx);
  if (f->has_fixed) {
    fx.ifsm_flags = f->flags;
    fx.ifsm_media = f->media;
    fx.ifsm_link_type = f->link_type;
    fx.ifsm_ibps = f->rates[0];
    fx.ifsm_ipps = f->rates[1];
    fx.ifsm_obps = f->rates[2];
    fx.ifsm_opps = f->rates[3];
    fx.ifsm_clear_time = f->clear_time;
  }
  // The TLVs in place: every queue set full, the MAC and link records, their headers.
  uint8_t tlv[4 * (8 + LS_MAX_QUEUES * sizeof(rts_ifst_queue)) + 4 + sizeof f->mac + 4 + sizeof f->link];
  uint32_t at = 0;
  static const uint16_t kSets[4] = {RTS_IFST_QUEUE, RTS_IFST_QUEUE_BASE, RTS_IFST_VOQ, RTS_IFST_VOQ_BASE};
  for (int set = 0; set < 4; set++) {
    uint32_t n = f->n_queues[set];
    if (!n) continue;
    uint16_t vlen = static_cast<uint16_t>(4 + n * sizeof(rts_ifst_queue));
    memcpy(tlv + at, &kSets[set], 2);
    memcpy(tlv + at + 2, &vlen, 2);
    ls_put32(tlv + at + 4, n);
    memcpy(tlv + at + 8, f->queues[set], n * sizeof(rts_ifst_queue));
    at += 4 + vlen;  // a multiple of 4
  }
  if (f->has_mac) at += rts_ifsm_tlv_encode(RTS_IFST_ETHER_MAC, &f->mac, sizeof f->mac, tlv + at, sizeof tlv - at);
  if (f->has_link) at += rts_ifsm_tlv_encode(RTS_IFST_ETHER_LINK, &f->link, sizeof f->link, tlv + at, sizeof tlv - at);
  const uint64_t *cur = f->has_cur ? f->cur : nullptr, *base = f->has_base ? f->base : nullptr;
  uint32_t nc = cur ? RTS_IFSC_COUNT : 0, nb = base ? RTS_IFSC_COUNT : 0;
  uint32_t need = rts_ifsm_encode(&fx, name, cur, nc, base, nb, tlv, at, nullptr, 0);
  if (!need || need > room) {
    ls_log(true, "pid:%d: libstats_rtslib_iflsmput() exceeded buffer of len: %u with %u bytes!\n", getpid(), room,
           need);
    return 0;
  }
  return rts_ifsm_encode(&fx, name, cur, nc, base, nb, tlv, at, buf, room);
}

namespace {

// The statistics message of f in a malloc'ed block of its size, or null.
rts_ifstats_msg *packed(const rts_ifstats_msg *fixed, const char *name, const libstats_ifl_figures &f) {
  uint8_t room[RTS_MSG_MAX];
  uint32_t n = libstats_rtslib_pack_iflstats_msg(fixed, name, &f, room, sizeof room);
  auto *out = n ? static_cast<rts_ifstats_msg *>(malloc(n)) : nullptr;
  if (out) memcpy(out, room, n);
  return out;
}

// The kernel's message with cntd's figures added, using fig for the kernel's:
// a malloc'ed message, or null on no memory or a malformed kernel message.
rts_ifstats_msg *merged_into(libstats_ifl_figures *fig, const rts_ifstats_msg *kernel,
                             const libstats_ifl_figures &cntd) {
  rts_ifsm_parts parts;
  auto *ku = reinterpret_cast<const uint8_t *>(kernel);
  if (!rts_ifsm_parts_of(ku, kernel->hdr.length, &parts) || libstats_figures_from_iflsm(ku, kernel->hdr.length, fig))
    return nullptr;
  libstats_rtslib_encode_aggr_deux_stats(fig, &cntd);
  return packed(kernel, parts.name_len ? parts.name : nullptr, *fig);
}

rts_ifstats_msg *merged(const rts_ifstats_msg *kernel, const libstats_ifl_figures &cntd) {
  auto *fig = static_cast<libstats_ifl_figures *>(malloc(sizeof(libstats_ifl_figures)));
  rts_ifstats_msg *out = fig ? merged_into(fig, kernel, cntd) : nullptr;
  free(fig);
  return out;
}

// The session's two figures records: cntd's, and the kernel's for a merge.
libstats_ifl_figures *scratch(libstats_session *s) {
  if (!s->scratch) s->scratch = malloc(2 * sizeof(libstats_ifl_figures));
  return static_cast<libstats_ifl_figures *>(s->scratch);
}

rts_ifstats_msg *copy_of(const rts_ifstats_msg *m) {
  auto *out = static_cast<rts_ifstats_msg *>(malloc(m->hdr.length));
  if (out) memcpy(out, m, m->hdr.length);
  return out;
}

libstats_pending *pending_add(libstats_session *s, uint32_t id, uint32_t index, uint32_t flags, rtslib_cookie *rl,
                              void *ctx) {
  for (auto &p : s->pending)
    if (!p.used) {
      p = libstats_pending{id, index, flags, rl, ctx, 1};
      s->n_pending++;
      return &p;
    }
  return nullptr;
}

libstats_pending *pending_find(libstats_session *s, uint32_t id) {
  uint32_t seen = 0;
  for (uint32_t i = 0; i < LIBSTATS_MAX_PENDING && seen < s->n_pending; i++) {
    libstats_pending &p = s->pending[i];
    if (!p.used) continue;
    if (p.id == id) return &p;
    seen++;
  }
  return nullptr;
}

void pending_drop(libstats_session *s, libstats_pending *p) {
  p->used = 0;
  s->n_pending--;
}

void fill_request(uint8_t *msg, uint32_t type, const ls_ifl_request &r) {
  ls_hdr_write(msg, LS_REQ_MSG_LEN, type);
  ls_ifl_request_write(msg + LS_HDR_LEN, r);
}

// Looks the interface up and fills the request; a status.
int compose(rtslib_cookie *rl, uint32_t ifl, libstats_session *s, uint32_t flags, uint32_t subtype,
            const uint8_t *filter, uint32_t id, ls_ifl_request *r) {
  rts_ifl_msg *m = nullptr;
  int err = rtslib_iflm_get_by_index(rl, ifl, RTS_OP_GET, &m, 0);
  if (err || !m)
    return ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_KERNEL, LIBSTATS_INVALID_ARG,
                   "failed to get iflm for ifl:%d, err:%d", ifl, err);
  int st = LIBSTATS_SUCCESS;
  if (m->iflm_flags & (LS_IFL_PRIVATE | LS_IFL_CHASSIS_LOCAL))
    st = ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_VALIDATION, LIBSTATS_INVALID_ARG,
                 "failed for ifl:%d, private or chassis local ifl", ifl);
  else if (m->iflm_name && strncmp(m->iflm_name, "lo", 2) == 0)
    st = ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_VALIDATION, LIBSTATS_INVALID_ARG,
                 "failed for ifl:%d, not supported", ifl);
  if (st == LIBSTATS_SUCCESS) {
    memset(r, 0, sizeof *r);
    r->ifl = ifl;
    r->flags = flags | LS_REQ_FULL;
    r->id = id ? id : ls_next_id(s);
    r->subtype = subtype;
    r->ifd = m->iflm_ifd_index;
    if (m->iflm_name) snprintf(r->name, sizeof r->name, "%s.%u", m->iflm_name, m->iflm_unit);
    if (filter) {
      r->has_filter = 1;
      memcpy(r->filter, filter, LS_FILTER_LEN);
    }
  }
  rtslib_msg_idl_release(rl, m);
  return st;
}

int async_request(const char *fn, libstats_session *s, rtslib_cookie *rl, uint32_t ifl, uint32_t flags,
                  uint32_t subtype, void *ctx) {
  if (!s) {
    ls_log(true, "%s failed, session is NULL", fn);
    return LIBSTATS_NULL_SESSION;
  }
  if (!rl) return ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_VALIDATION, LIBSTATS_INVALID_ARG,
                          "%s failed, cookie is NULL", fn);
  ls_ifl_request r;
  if (int st = compose(rl, ifl, s, flags, subtype, nullptr, 0, &r)) return st;
  libstats_pending *p = pending_add(s, r.id, ifl, r.flags, rl, ctx);
  if (!p)
    return ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_MEMORY, LIBSTATS_MEMORY_ALLOC_FAILURE,
                   "%s failed for ifl:%d, %d requests await their reply", fn, ifl, LIBSTATS_MAX_PENDING);
  uint8_t msg[LS_REQ_MSG_LEN];
  fill_request(msg, LS_IFLSTATS_FULL_REQUEST, r);
  int st = libstats_send_msg_to_cntd(s, msg, sizeof msg);
  if (st) pending_drop(s, p);
  return st;
}

}  // namespace

int libstats_compose_and_send_iflstats_full_request(rtslib_cookie *rl, uint32_t ifl, libstats_session *s,
                                                    uint32_t flags, uint32_t subtype, const uint8_t *filter,
                                                    uint32_t id, uint32_t *id_out) {
  if (!s) return LIBSTATS_NULL_SESSION;
  if (!rl) return LIBSTATS_INVALID_ARG;
  ls_ifl_request r;
  if (int st = compose(rl, ifl, s, flags, subtype, filter, id, &r)) return st;
  if (id_out) *id_out = r.id;
  uint8_t msg[LS_REQ_MSG_LEN];
  fill_request(msg, LS_IFLSTATS_FULL_REQUEST, r);
  return libstats_send_msg_to_cntd(s, msg, sizeof msg);
}

int libstats_send_iflstats_full_request(libstats_session *s, const uint8_t *request, uint32_t msg_type) {
  if (!s) return LIBSTATS_NULL_SESSION;
  if (!request) return LIBSTATS_INVALID_ARG;
  ls_ifl_request r;
  ls_ifl_request_read(request, LS_REQ_LEN, &r);
  libstats_pending *p = pending_find(s, r.id);
  if (!p) p = pending_add(s, r.id, r.ifl, r.flags, nullptr, nullptr);
  if (!p)
    return ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_MEMORY, LIBSTATS_MEMORY_ALLOC_FAILURE,
                   "ifl:%u: %d requests await their reply", r.ifl, LIBSTATS_MAX_PENDING);
  uint8_t msg[LS_REQ_MSG_LEN];
  ls_hdr_write(msg, LS_REQ_MSG_LEN, msg_type);
  memcpy(msg + LS_HDR_LEN, request, LS_REQ_LEN);
  int st = libstats_send_msg_to_cntd(s, msg, sizeof msg);
  if (st) pending_drop(s, p);
  return st;
}

int libstats_rtslib_async_iflsm_get_by_index(libstats_session *s, rtslib_cookie *rl, uint32_t ifl, void *ctx) {
  return async_request(__func__, s, rl, ifl, LS_REQ_ASYNC, 0, ctx);
}
int libstats_rtslib_async_iflsm_get_by_index_subtype(libstats_session *s, rtslib_cookie *rl, uint32_t ifl,
                                                     uint32_t subtype, void *ctx) {
  return async_request(__func__, s, rl, ifl, LS_REQ_ASYNC, subtype, ctx);
}
int libstats_rtslib_async_iflsm_clear_by_index(libstats_session *s, rtslib_cookie *rl, uint32_t ifl, void *ctx) {
  return async_request(__func__, s, rl, ifl, LS_REQ_ASYNC | LS_REQ_CLEAR, 0, ctx);
}
int libstats_rtslib_async_iflsm_get_by_name(libstats_session *s, rtslib_cookie *rl, const char *device,
                                            uint32_t unit, void *ctx) {
  if (!s || !rl) return async_request(__func__, s, rl, 0, 0, 0, ctx);
  rts_ifl_msg *m = nullptr;
  int err = device ? rtslib_iflm_get_by_name(rl, device, unit, RTS_OP_GET, &m, 0) : EINVAL;
  if (err || !m)
    return ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_KERNEL, LIBSTATS_INVALID_ARG,
                   "%s failed, get iflidx by name %s failed", __func__, device ? device : "(null)");
  uint32_t ifl = m->iflm_index;
  rtslib_msg_idl_release(rl, m);
  return async_request(__func__, s, rl, ifl, LS_REQ_ASYNC, 0, ctx);
}

int libstats_iflset_get_by_index(libstats_session *s, uint32_t iflset, void *ctx) {
  if (!s) return LIBSTATS_NULL_SESSION;
  ls_ifl_request r{};
  r.ifl = iflset;
  r.flags = LS_REQ_FULL;
  r.id = ls_next_id(s);
  libstats_pending *p = pending_add(s, r.id, iflset, r.flags, nullptr, ctx);
  if (!p)
    return ls_fail(s, LIBSTATS_KIND_IFLSET_FULL, LIBSTATS_ERR_MEMORY, LIBSTATS_MEMORY_ALLOC_FAILURE,
                   "iflset:%u: %d requests await their reply", iflset, LIBSTATS_MAX_PENDING);
  uint8_t msg[LS_REQ_MSG_LEN];
  fill_request(msg, LS_IFLSETSTATS_FULL_REQUEST, r);
  int st = libstats_send_msg_to_cntd(s, msg, sizeof msg);
  if (st) pending_drop(s, p);
  return st;
}

void libstats_iflsm_free(rts_ifstats_msg *msg) { free(msg); }

bool ls_handle_ifl_reply(libstats_session *s, const ls_reply &r, uint8_t *) {
  bool set = r.type == LS_IFLSETSTATS_FULL_REPLY;
  int kind = set ? LIBSTATS_KIND_IFLSET_FULL : LIBSTATS_KIND_FULL;
  uint32_t index = set ? static_cast<uint32_t>(r.key) : r.index;
  libstats_pending *p = pending_find(s, r.id);
  if (!p) {
    ls_trace(s, LIBSTATS_TRACE_NORMAL, "reply of type %u id:%u matches no request", r.type, r.id);
    s->counters.dropped++;
    return false;
  }
  libstats_pending req = *p;
  pending_drop(s, p);
  libstats_ifl_fn cb = set ? s->cb.iflsetstats : s->cb.iflstats;
  libstats_ifl_figures *fig = scratch(s);
  if (fig) clear(fig);
  if (!fig) {
    ls_fail(s, kind, LIBSTATS_ERR_MEMORY, LIBSTATS_MEMORY_ALLOC_FAILURE, "no memory for the reply of %u", index);
    if (cb) cb(s, LIBSTATS_MEMORY_ALLOC_FAILURE, index, r.id, nullptr, req.ctx);
    return false;
  }
  bool usable = true;
  if (r.err) {
    s->counters.failed_replies++;
    ls_fail(s, kind, LIBSTATS_ERR_PFE, LIBSTATS_INTERIM_NOT_FOUND,
            "failed for iflindex:%d id:%d flags:0x%x err:%d, patch it to kernel", index, r.id, r.flags, r.err);
    usable = false;
  } else if (r.tlv_len == 0) {
    s->counters.empty_replies++;
    ls_log(false, "%s: ifl-index:%d, empty response received from CNTD", __func__, index);
    usable = false;
  } else if (libstats_iflstats_full_convert_from_tlvs_to_iflsm(r.tlv, r.tlv_len, fig) != 0) {
    ls_fail(s, kind, LIBSTATS_ERR_VALIDATION, LIBSTATS_INTERIM_NOT_FOUND,
            "malformed reply for iflindex:%d id:%d, patch it to kernel", index, r.id);
    clear(fig);
    usable = false;
  }
  rts_ifstats_msg *out = nullptr;
  int status = LIBSTATS_SUCCESS;
  if (set || !req.rtslib) {
    // Interface sets live in the forwarding plane alone, and a request sent
    // as a bare record has no route socket to merge with: cntd's figures alone.
    if (usable) {
      rts_ifstats_msg fixed{};
      fixed.hdr.type = RTS_T_IFLSTATS;
      fixed.ifsm_index = index;
      out = packed(&fixed, nullptr, *fig);
      if (!out) status = LIBSTATS_MEMORY_ALLOC_FAILURE;
    } else {
      status = LIBSTATS_INTERIM_NOT_FOUND;
    }
  } else {
    rts_ifstats_msg *kernel = nullptr;
    int err = req.rtslib ? rtslib_iflsm_get_by_index(req.rtslib, index, &kernel) : EINVAL;
    if (err) {
      status = ls_fail(s, kind, LIBSTATS_ERR_KERNEL, LIBSTATS_UNKNOWN_ERROR,
                       "no kernel statistics for ifl:%d, err:%d", index, err);
    } else {
      out = usable ? merged_into(fig + 1, kernel, *fig) : copy_of(kernel);
      if (!out) status = LIBSTATS_MEMORY_ALLOC_FAILURE;
      rtslib_msg_idl_release(req.rtslib, kernel);
    }
  }
  ls_trace(s, LIBSTATS_TRACE_DETAIL, "reply type %u for %u id:%u status %d", r.type, index, r.id, status);
  if (cb) cb(s, status, index, r.id, out, req.ctx);
  free(out);
  return false;
}

// ---- The synchronous path ---------------------------------------------------------------
namespace {

// Asks cntd for ifl over a synchronous client: a status, with the reply in *reply.
int ask_cntd(uint32_t ifl, const char *name, std::vector<uint8_t> *reply) {
  ipcconn_client_params p{};
  p.peer_path = libstats_cntd_path();
  p.app_id = libstats_app_index(program_invocation_short_name);
  p.pid = static_cast<uint32_t>(getpid());
  p.max_retries = 0;
  p.rcv_timeout = 2;  // a cntd that never answers must not hold the caller
  ipcconn_client *c = ipcconn_uds_client_connect_sync(&p);
  if (!c) return LIBSTATS_SOCKET_CONNECT_FAILURE;
  ls_ifl_request r{};
  r.ifl = ifl;
  r.flags = LS_REQ_FULL;
  r.id = 1;
  snprintf(r.name, sizeof r.name, "%s", name ? name : "");
  uint8_t msg[LS_REQ_MSG_LEN];
  fill_request(msg, LS_IFLSTATS_FULL_REQUEST, r);
  int status = LIBSTATS_SOCKET_IPC_FAILURE;
  if (ipcconn_client_send_sync(c, LS_IFLSTATS_FULL_REQUEST, msg, sizeof msg) == 0) {
    for (;;) {
      ipc_msg *m = nullptr;
      int n = ipcconn_client_recv_sync(c, &m);
      if (n < 0) {
        status = n == IPCCONN_ERR_CLOSED ? LIBSTATS_SOCKET_CLOSED : LIBSTATS_SOCKET_IPC_FAILURE;
        break;
      }
      ls_reply rep;
      const uint8_t *pl = ipc_msg_payload(m);
      if (ls_reply_read(pl, static_cast<uint32_t>(n), &rep) && rep.type == LS_IFLSTATS_FULL_REPLY && rep.id == 1) {
        reply->assign(pl, pl + n);
        status = LIBSTATS_SUCCESS;
        break;
      }
    }
  }
  ipcconn_client_close(c);
  return status;
}

}  // namespace

int libstats_rtslib_iflsm_get_by_index_internal(rtslib_cookie *rl, uint32_t ifl, int how, rts_ifstats_msg **result,
                                                int *cntd_status) {
  if (cntd_status) *cntd_status = -1;
  if (!result) return EINVAL;
  *result = nullptr;
  rts_ifstats_msg *kernel = nullptr;
  if (int err = rtslib_iflsm_get_by_index(rl, ifl, &kernel)) return err;
  rts_ifstats_msg *out = nullptr;
  if (merge_wanted(how)) {
    rts_ifsm_parts parts{};
    rts_ifsm_parts_of(kernel, kernel->hdr.length, &parts);
    std::vector<uint8_t> reply;
    int st = ask_cntd(ifl, parts.name_len ? parts.name : nullptr, &reply);
    ls_reply r{};
    if (st == LIBSTATS_SUCCESS && ls_reply_read(reply.data(), static_cast<uint32_t>(reply.size()), &r)) {
      auto *fig = static_cast<libstats_ifl_figures *>(malloc(sizeof(libstats_ifl_figures)));
      if (r.err) {
        ls_log(true, "failed for iflindex:%d id:%d flags:0x%x err:%d, patch it to kernel", ifl, r.id, r.flags, r.err);
        st = LIBSTATS_INTERIM_NOT_FOUND;
      } else if (r.tlv_len == 0) {
        ls_log(false, "%s: ifl-index:%d, empty response received from CNTD", __func__, ifl);
        st = LIBSTATS_INTERIM_NOT_FOUND;
      } else if (!fig || libstats_iflstats_full_convert_from_tlvs_to_iflsm(r.tlv, r.tlv_len, fig) != 0) {
        ls_log(true, "malformed reply for iflindex:%d, patch it to kernel", ifl);
        st = fig ? LIBSTATS_INTERIM_NOT_FOUND : LIBSTATS_MEMORY_ALLOC_FAILURE;
      } else {
        out = merged(kernel, *fig);
      }
      free(fig);
    } else if (st != LIBSTATS_SUCCESS) {
      ls_log(true, "cntd at %s: %s, the kernel's figures stand for ifl:%d", libstats_cntd_path(),
             libstats_status_str(st), ifl);
    }
    if (cntd_status) *cntd_status = st;
  }
  if (!out) out = copy_of(kernel);
  rtslib_msg_idl_release(rl, kernel);
  if (!out) return ENOMEM;
  *result = out;
  return 0;
}
