// Generic configuration: the request worker, blob compression, peers and dependencies.
#include <cerrno>
#include <cstring>

#include "platform/sysctl.h"
#include "rtsock/rtslib_gencfg.h"
#include "rtslib_internal.h"

using namespace rtslib;

namespace {

bool wants_reply(uint8_t op) {
  return op == RTS_OP_GET || op == RTS_OP_GETNEXT || op == RTS_OP_ADD_GET || op == RTS_OP_CHANGE_GET;
}

void *lib_alloc(void *, size_t n) { return alloc(RTSLIB_MEM_MSG, n); }
void lib_free(void *, void *p) { release(RTSLIB_MEM_MSG, p); }
int lib_send(void *, rtslib_cookie *c, const rts_gencfg_msg *m) { return send_message(c, RTS_T_GENCFG, m, nullptr); }
int lib_recv(void *, rtslib_cookie *c, const rts_msg_hdr *request, void **msg) {
  return read_answer(c, *request, msg);
}

// The request's checks, in order; 0 or an errno value.
int check(rtslib_cookie *c, const rts_gencfg_msg *req, uint8_t op, rts_gencfg_msg **result) {
  if (!req || (wants_reply(op) && !result)) return EINVAL;
  if (op < RTS_OP_ADD || op > RTS_OP_CHANGE_GET || op == RTS_OP_CLEAR || op == RTS_OP_DELETE_ALL) return EINVAL;
  if (req->gencfg_flags == 0 && op != RTS_OP_GET && op != RTS_OP_GETNEXT) return EINVAL;
  if ((req->gencfg_flags & GENCFG_FLAG_DEPEND) && (!req->gencfg_deps || !req->gencfg_dep_count)) return EINVAL;
  if (req->gencfg_peer_count && !req->gencfg_peers) return EINVAL;
  if (req->blob_len && !req->blob) return EINVAL;
  if (req->gencfg_flags & GENCFG_FLAG_KEY) {
    if (req->blob_key_len > GENCFG_KEY_MAX) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "Gencfg blob key length (%u) is greater than %u bytes", req->blob_key_len,
                 GENCFG_KEY_MAX);
      return EINVAL;
    }
  }
  return 0;
}

// The blob compressed into a new block: its length before, then the bytes.
int compress_blob(rtslib_cookie *c, const rtslib_gencfg_ops &use, const rts_gencfg_msg *req, uint8_t **out,
                  uint32_t *out_len) {
  if (!c->compress_fn || !c->decompress_fn) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Compression was not initialized for rtslib");
    return EINVAL;
  }
  // Room for what deflate may add to data that does not compress.
  unsigned long room = req->blob_len + req->blob_len / 1000 + 64;
  auto *block = static_cast<uint8_t *>(use.alloc(use.ctx, room + 4));
  if (!block) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to allocate memory for compressed blob");
    return ENOMEM;
  }
  uint32_t before = req->blob_len;
  memcpy(block, &before, 4);
  int rc = c->compress_fn(block + 4, &room, req->blob, req->blob_len);
  if (rc != 0) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to compress gencfg blob of %d bytes (rc %d)", static_cast<int>(before),
               rc);
    use.free(use.ctx, block);
    return EIO;
  }
  rtslib_log(c, RTSLIB_LOG_DEBUG, "Gencfg blob was compressed from %ld to %ld bytes (rc %d)",
             static_cast<long>(before), static_cast<long>(room + 4), rc);
  *out = block;
  *out_len = static_cast<uint32_t>(room + 4);
  return 0;
}

}  // namespace

void rtslib_init_blob_compression(rtslib_cookie *c, rtslib_compress_fn compress, rtslib_compress_fn decompress) {
  if (!c || !compress || !decompress) return;
  c->compress_fn = compress;
  c->decompress_fn = decompress;
}

int rtslib_gencfg_request(rtslib_cookie *c, rts_gencfg_msg *req, uint8_t op, rts_gencfg_msg **result,
                          const rtslib_gencfg_ops *ops) {
  if (result) *result = nullptr;
  if (!c) return EINVAL;
  if (int err = check(c, req, op, result)) return err;
  rtslib_gencfg_ops use{lib_alloc, lib_free, lib_send, lib_recv, nullptr, &c->seq};
  if (ops) {
    if (ops->alloc) use.alloc = ops->alloc;
    if (ops->free) use.free = ops->free;
    if (ops->send) use.send = ops->send;
    if (ops->recv) use.recv = ops->recv;
    use.ctx = ops->ctx;
    if (ops->seq) use.seq = ops->seq;
  }
  // The record sent is a copy: the caller's stays as it was, whatever happens.
  rts_gencfg_msg m = *req;
  uint8_t *packed = nullptr;
  if ((req->gencfg_flags & GENCFG_FLAG_COMPRESS) && (op == RTS_OP_ADD || op == RTS_OP_CHANGE) && req->blob_len) {
    uint32_t len;
    if (int err = compress_blob(c, use, req, &packed, &len)) return err;
    m.blob = packed;
    m.blob_len = len;
    m.gencfg_flags |= GENCFG_FLAG_COMPRESSED;
  }
  int err = 0;
  if (m.blob_len > GENCFG_BLOB_MAX) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Gencfg blob is too large (%d bytes)", static_cast<int>(m.blob_len));
    err = ENOSPC;
  } else if (op != RTS_OP_GETNEXT) {
    if ((m.gencfg_flags & GENCFG_FLAG_KEY) && !(m.gencfg_flags & GENCFG_FLAG_KEY_OPTIONAL) &&
        (!m.blob_key || !m.blob_key_len))
      err = EINVAL;
  } else if (!m.blob_key != !m.blob_key_len) {
    err = EINVAL;
  }
  if (!err) {
    m.hdr = rts_msg_hdr{};
    m.hdr.version = rts_type_table[RTS_T_GENCFG].version;
    m.hdr.type = RTS_T_GENCFG;
    m.hdr.operation = op;
    m.hdr.size = rts_type_table[RTS_T_GENCFG].size;
    m.hdr.length = m.hdr.size;
    m.hdr.seq = (*use.seq)++;
    m.hdr.sender = c->sender_id;
    err = use.send(use.ctx, c, &m);
  }
  // The compressed copy goes whatever happened; the caller's pointer was never changed.
  if (packed) use.free(use.ctx, packed);
  if (err || !wants_reply(op)) return err;
  void *msg = nullptr;
  if ((err = use.recv(use.ctx, c, &m.hdr, &msg)) != 0) return err;
  if ((err = rtslib_gencfg_decompress(c, &msg)) != 0) {
    rtslib_msg_idl_release(c, msg);
    return err;
  }
  auto *r = static_cast<rts_gencfg_msg *>(msg);
  rts_msg_hdr keep = req->hdr;
  *req = *r;
  req->hdr = keep;
  *result = r;
  return 0;
}

int rtslib_gencfg_add(rtslib_cookie *c, rts_gencfg_msg *req) {
  return rtslib_gencfg_request(c, req, RTS_OP_ADD, nullptr, nullptr);
}
int rtslib_gencfg_delete(rtslib_cookie *c, rts_gencfg_msg *req) {
  return rtslib_gencfg_request(c, req, RTS_OP_DELETE, nullptr, nullptr);
}
int rtslib_gencfg_get(rtslib_cookie *c, rts_gencfg_msg *req, uint8_t op, rts_gencfg_msg **result) {
  if (op != RTS_OP_GET && op != RTS_OP_GETNEXT) {
    if (result) *result = nullptr;
    return EINVAL;
  }
  return rtslib_gencfg_request(c, req, op, result, nullptr);
}

int rtslib_gencfg_decompress(rtslib_cookie *c, void **message) {
  auto *m = static_cast<rts_gencfg_msg *>(*message);
  if (!m || m->hdr.type != RTS_T_GENCFG || !(m->gencfg_flags & GENCFG_FLAG_COMPRESSED)) return 0;
  if (!c->decompress_fn || m->blob_len < 4) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to decompress blob (rc %d)", -1);
    return EINVAL;
  }
  uint32_t before;
  memcpy(&before, m->blob, 4);
  if (before > GENCFG_BLOB_MAX) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to decompress blob (rc %d)", -1);
    return EINVAL;
  }
  // One block as the decoder makes them: the record, then what it points to.
  auto up = [](size_t n) { return (n + 7) & ~size_t{7}; };
  // Each part is followed by a NUL, as the decoder leaves blobs.
  size_t size = up(sizeof *m) + up(m->blob_key_len + 1) + up(m->gencfg_peer_count * sizeof(gencfg_peerinfo_t) + 1) +
                up(m->gencfg_dep_count * sizeof(gencfg_depinfo_t) + 1) + up(before + 1);
  auto *block = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, size));
  if (!block) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to allocate memory for duplicated gencfg_msg");
    return ENOMEM;
  }
  auto *n = reinterpret_cast<rts_gencfg_msg *>(block);
  *n = *m;
  size_t used = up(sizeof *m);
  auto copy = [&](const void *src, size_t len) -> uint8_t * {
    if (!src) return nullptr;
    uint8_t *dst = block + used;
    memcpy(dst, src, len);
    dst[len] = 0;
    used += up(len + 1);
    return dst;
  };
  n->blob_key = copy(m->blob_key, m->blob_key_len);
  n->gencfg_peers = reinterpret_cast<gencfg_peerinfo_t *>(copy(m->gencfg_peers, m->gencfg_peer_count * sizeof(gencfg_peerinfo_t)));
  n->gencfg_deps = reinterpret_cast<gencfg_depinfo_t *>(copy(m->gencfg_deps, m->gencfg_dep_count * sizeof(gencfg_depinfo_t)));
  n->blob = block + used;
  unsigned long got = before;
  int rc = c->decompress_fn(n->blob, &got, m->blob + 4, m->blob_len - 4);
  if (rc != 0 || got != before) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to decompress blob (rc %d)", rc ? rc : -1);
    release(RTSLIB_MEM_MSG, block);
    return EIO;
  }
  n->blob[before] = 0;
  rtslib_log(c, RTSLIB_LOG_DEBUG, "Gencfg blob was decompressed from %ld to %ld bytes (rc %d)",
             static_cast<long>(m->blob_len), static_cast<long>(before), rc);
  n->blob_len = before;
  n->gencfg_flags &= ~uint32_t{GENCFG_FLAG_COMPRESSED};
  rtslib_msg_idl_release(c, m);
  *message = n;
  return 0;
}

// ---- Peers ------------------------------------------------------------------------------

namespace {

// The 30-bit words of the mask in use: the kernel's size, at most 8.
unsigned peer_words() {
  int bits = 0;
  size_t len = sizeof bits;
  if (sysctlbyname("kern.gencfg_cfg2_peermask", &bits, &len, nullptr, 0) != 0 || bits <= 0) bits = 240;
  unsigned w = static_cast<unsigned>(bits) / 30;
  return w > GENCFG_PEER_WORDS ? GENCFG_PEER_WORDS : w;
}

void set_bits(gencfg_peerinfo_t *p, unsigned pos, uint32_t value) {
  p->peer_mask[pos / 30] |= value << (pos % 30);
}

}  // namespace

int rtslib_gencfg_create_peerinfo(rtslib_cookie *c, rts_gencfg_msg *req, uint8_t count) {
  if (!c || !req || !count || req->gencfg_peers) return EINVAL;
  if (count > GENCFG_PEER_RECORDS_MAX) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Number of gencfg peers exceeds %d", GENCFG_PEER_RECORDS_MAX);
    return EINVAL;
  }
  auto *p = static_cast<gencfg_peerinfo_t *>(mem.alloc_array(RTSLIB_MEM_MSG, count, sizeof(gencfg_peerinfo_t)));
  if (!p) return ENOMEM;
  req->gencfg_peers = p;
  req->gencfg_peer_count = count;
  return 0;
}

int rtslib_gencfg_add_peerinfo(rtslib_cookie *c, rts_gencfg_msg *req, uint8_t slot, uint16_t peer_type, uint16_t kind,
                               uint16_t peer_index) {
  if (!c || !req || (kind != GENCFG_PEER_KIND_GROUP && kind != GENCFG_PEER_KIND_SINGLE)) return EINVAL;
  if (!req->gencfg_peers || slot >= req->gencfg_peer_count) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "buffer space too small for number of peers %d", slot + 1);
    return EINVAL;
  }
  gencfg_peerinfo_t *p = &req->gencfg_peers[slot];
  if (p->mask_kind && p->mask_kind != kind) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "%s: Peer Index choice mismatch, Existing: %d New: %d",
               "rtslib_gencfg_add_peerinfo", p->mask_kind, kind);
    return EINVAL;
  }
  unsigned slots = peer_words() * 6;  // 5-bit places in the words in use
  if (peer_index < GENCFG_PEER_RESERVED) {
    unsigned place = kind == GENCFG_PEER_KIND_SINGLE ? peer_index : peer_index / 8u;
    if (place >= slots) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "Number of peers exceeds %d",
                 static_cast<int>(kind == GENCFG_PEER_KIND_SINGLE ? slots : slots * 8));
      return EINVAL;
    }
    // A group's place holds one member; a second member of the same group
    // would read back as neither.
    if (kind == GENCFG_PEER_KIND_GROUP && ((p->peer_mask[5 * place / 30] >> (5 * place % 30)) & 0x1F)) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "%s: Peer Index choice mismatch, Existing: %d New: %d",
                 "rtslib_gencfg_add_peerinfo", p->mask_kind, kind);
      return EINVAL;
    }
    set_bits(p, 5 * place, kind == GENCFG_PEER_KIND_SINGLE ? 1u : peer_index % 8u + 1);
  }
  p->peer_type = peer_type;
  p->mask_kind = kind;
  return 0;
}

int rtslib_gencfg_get_peer_index_from_peer_mask(const gencfg_peerinfo_t *p, uint16_t *index) {
  if (!p || !index) return EINVAL;
  for (unsigned place = 0; place < GENCFG_PEER_WORDS * 6; place++) {
    uint32_t v = (p->peer_mask[5 * place / 30] >> (5 * place % 30)) & 0x1F;
    if (!v) continue;
    if (p->mask_kind == GENCFG_PEER_KIND_SINGLE) {
      *index = static_cast<uint16_t>(place);
      return 0;
    }
    if (p->mask_kind == GENCFG_PEER_KIND_GROUP && v <= 8) {
      *index = static_cast<uint16_t>(8 * place + v - 1);
      return 0;
    }
  }
  return ENOENT;
}

void rtslib_gencfg_delete_peerinfo(rtslib_cookie *, rts_gencfg_msg *req) {
  if (!req) return;
  release(RTSLIB_MEM_MSG, req->gencfg_peers);
  req->gencfg_peers = nullptr;
  req->gencfg_peer_count = 0;
}

// ---- Dependencies --------------------------------------------------------------------------

int rtslib_gencfg_create_depend(rtslib_cookie *c, rts_gencfg_msg *req, uint8_t count) {
  if (!c || !req || !count || req->gencfg_deps) return EINVAL;
  auto *d = static_cast<gencfg_depinfo_t *>(mem.alloc_array(RTSLIB_MEM_MSG, count, sizeof(gencfg_depinfo_t)));
  if (!d) return ENOMEM;
  req->gencfg_deps = d;
  req->gencfg_dep_count = count;
  req->gencfg_flags |= GENCFG_FLAG_DEPEND;
  return 0;
}

int rtslib_gencfg_add_depinfo(rtslib_cookie *c, rts_gencfg_msg *req, uint8_t slot, uint16_t major, uint16_t minor,
                              const void *key, uint32_t key_len) {
  if (!c || !req || !req->gencfg_deps || slot >= req->gencfg_dep_count) return EINVAL;
  gencfg_depinfo_t *d = &req->gencfg_deps[slot];
  if (key_len > sizeof d->dep_key || (key_len && !key)) return EINVAL;
  *d = gencfg_depinfo_t{};
  d->dep_major = major;
  d->dep_minor = minor;
  d->dep_flags = key_len;
  if (key_len) memcpy(d->dep_key, key, key_len);
  return 0;
}

void rtslib_gencfg_delete_depend(rtslib_cookie *, rts_gencfg_msg *req) {
  if (!req) return;
  release(RTSLIB_MEM_MSG, req->gencfg_deps);
  req->gencfg_deps = nullptr;
  req->gencfg_dep_count = 0;
  req->gencfg_flags &= ~uint32_t{GENCFG_FLAG_DEPEND};
}
