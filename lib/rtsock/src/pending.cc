// Pending route additions: the tables by family and logical interface, and the
// route-add acknowledgement socket.
#include <cerrno>
#include <cstring>

#include "containers/sparse_table.h"
#include "rtsock/rtslib_gencfg.h"
#include "rtslib_internal.h"

using namespace rtslib;

struct rtslib_pending {
  sparse_table32 *by_af[3];  // families 2, 28, the others
};

namespace {

struct Waiter {
  Waiter *next;
  rtslib_pending_fn fn;
  void *user;
};

void *t_alloc(void *, size_t n) { return mem.alloc_array(RTSLIB_MEM_MSG, 1, n); }
void t_free(void *, void *p) { release(RTSLIB_MEM_MSG, p); }

unsigned family_slot(uint8_t af) { return af == RTS_AF_INET ? 0 : af == RTS_AF_INET6 ? 1 : 2; }

sparse_table32 *table(rtslib_cookie *c, uint8_t af, bool make) {
  if (!c->pending) {
    if (!make) return nullptr;
    c->pending = static_cast<rtslib_pending *>(zalloc(RTSLIB_MEM_MSG, sizeof(rtslib_pending)));
    if (!c->pending) return nullptr;
  }
  sparse_table32 *&t = c->pending->by_af[family_slot(af)];
  if (!t && make) t = sparse_table32_create(t_alloc, t_free, nullptr);
  return t;
}

// A route addition that waits for its interface's address.
struct Held {
  uint8_t *bytes;  // the route, IDR-encoded
  uint32_t len;
  rtslib_route_done_fn done;
  void *user;
};

void send_held(rtslib_cookie *c, void *user, uint32_t, uint8_t) {
  auto *h = static_cast<Held *>(user);
  int verdict = ENOMEM;
  rtslib_cookie *ack = rtslib_route_ack_socket(c);
  void *msg = nullptr;
  if (!ack) verdict = ENOTCONN;
  else if ((verdict = rtslib_msg_decode(c, h->bytes, h->len, &msg)) == 0)
    verdict = rtslib_rtm_get_with_msg(ack, static_cast<rts_rt_msg *>(msg), RTS_OP_ADD, nullptr, 0);
  rtslib_msg_idl_release(c, msg);
  if (h->done) h->done(c, h->user, verdict);
  release(RTSLIB_MEM_MSG, h->bytes);
  release(RTSLIB_MEM_MSG, h);
}

}  // namespace

int rtslib_pending_add(rtslib_cookie *c, uint8_t af, uint32_t ifl_index, rtslib_pending_fn fn, void *user) {
  if (!c || !fn) return EINVAL;
  sparse_table32 *t = table(c, af, true);
  auto *w = static_cast<Waiter *>(zalloc(RTSLIB_MEM_MSG, sizeof(Waiter)));
  if (!t || !w) {
    release(RTSLIB_MEM_MSG, w);
    return ENOMEM;
  }
  w->fn = fn;
  w->user = user;
  auto *head = static_cast<Waiter *>(sparse_table32_lookup(t, &ifl_index));
  if (!head) {
    if (sparse_table32_insert(t, w, &ifl_index) != 0) {
      release(RTSLIB_MEM_MSG, w);
      return ENOMEM;
    }
    return 0;
  }
  while (head->next) head = head->next;  // callers run in the order they came
  head->next = w;
  return 0;
}

int rtslib_pending_cancel(rtslib_cookie *c, uint8_t af, uint32_t ifl_index, rtslib_pending_fn fn, void *user) {
  sparse_table32 *t = c ? table(c, af, false) : nullptr;
  auto *head = t ? static_cast<Waiter *>(sparse_table32_lookup(t, &ifl_index)) : nullptr;
  for (Waiter *prev = nullptr, *w = head; w; prev = w, w = w->next) {
    if (w->fn != fn || w->user != user) continue;
    if (prev) {
      prev->next = w->next;
    } else if (w->next) {
      sparse_table32_delete(t, &ifl_index);
      sparse_table32_insert(t, w->next, &ifl_index);
    } else {
      sparse_table32_delete(t, &ifl_index);
    }
    release(RTSLIB_MEM_MSG, w);
    return 0;
  }
  return ENOENT;
}

uint32_t rtslib_pending_count(rtslib_cookie *c, uint8_t af, uint32_t ifl_index) {
  sparse_table32 *t = c ? table(c, af, false) : nullptr;
  uint32_t n = 0;
  for (auto *w = t ? static_cast<Waiter *>(sparse_table32_lookup(t, &ifl_index)) : nullptr; w; w = w->next) n++;
  return n;
}

bool rtslib_pending_key_of(const void *msg, rtslib_pending_key *key) {
  auto *m = static_cast<const rts_ifa_msg *>(msg);
  if (!m || m->hdr.type != RTS_T_IFADDR) return false;
  key->ifl_index = m->ifam_ifl_index;
  key->af = m->ifam_af;
  key->op = m->hdr.operation;
  return true;
}

void rtslib_pending_ifaddr(rtslib_cookie *c, const rtslib_pending_key *key) {
  if (key->op != RTS_OP_ADD && key->op != RTS_OP_CHANGE) return;
  sparse_table32 *t = table(c, key->af, false);
  if (!t) return;
  uint32_t ifl = key->ifl_index;
  auto *w = static_cast<Waiter *>(sparse_table32_lookup(t, &ifl));
  if (!w) return;
  // Taken out first: a caller may wait anew for the same interface.
  sparse_table32_delete(t, &ifl);
  while (w) {
    Waiter *next = w->next;
    w->fn(c, w->user, ifl, key->af);
    release(RTSLIB_MEM_MSG, w);
    w = next;
  }
}

void rtslib::pending_release(rtslib_cookie *c) {
  if (c->ack) {
    rtslib_close(c->ack);
    c->ack = nullptr;
  }
  if (!c->pending) return;
  for (sparse_table32 *t : c->pending->by_af) {
    if (!t) continue;
    uint32_t at = 0, key;
    const uint32_t *prev = nullptr;
    while (void *v = sparse_table32_next(t, prev, &key)) {
      for (auto *w = static_cast<Waiter *>(v); w;) {
        Waiter *n = w->next;
        // A held route's record goes with its waiter; its caller is not told.
        if (w->fn == send_held) {
          release(RTSLIB_MEM_MSG, static_cast<Held *>(w->user)->bytes);
          release(RTSLIB_MEM_MSG, w->user);
        }
        release(RTSLIB_MEM_MSG, w);
        w = n;
      }
      at = key;
      prev = &at;
    }
    sparse_table32_destroy(t);
  }
  release(RTSLIB_MEM_MSG, c->pending);
  c->pending = nullptr;
}

rtslib_cookie *rtslib_route_ack_socket(rtslib_cookie *c) {
  if (!c) return nullptr;
  if (!c->ack) {
    c->ack = rtslib_open(c->sender_id);
    if (!c->ack) rtslib_log(c, RTSLIB_LOG_ERROR, "failed to get route add ack index");
  }
  return c->ack;
}

int rtslib_route_add_acked(rtslib_cookie *c, const rts_rt_msg *route, rtslib_route_done_fn done, void *user) {
  if (!c || !route) return EINVAL;
  rtslib_cookie *ack = rtslib_route_ack_socket(c);
  if (!ack) return ENOTCONN;
  if (route->rtm_ifl_index) {
    rts_ifa_msg *addr = nullptr;
    int err = rtslib_ifam_get_by_index(ack, route->rtm_ifl_index, route->rtm_af, RTS_OP_GET, &addr, 0);
    rtslib_msg_idl_release(ack, addr);
    if (err == ENOENT) {
      rts_msg_pair pair{RTS_T_ROUTE, const_cast<rts_rt_msg *>(route)};
      int need = rts_idr_encode(&pair, nullptr, 0);
      auto *h = static_cast<Held *>(zalloc(RTSLIB_MEM_MSG, sizeof(Held)));
      uint8_t *bytes = h ? static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, static_cast<size_t>(need))) : nullptr;
      if (!bytes) {
        release(RTSLIB_MEM_MSG, h);
        return ENOMEM;
      }
      rts_idr_encode(&pair, bytes, static_cast<uint32_t>(need));
      *h = Held{bytes, static_cast<uint32_t>(need), done, user};
      if ((err = rtslib_pending_add(c, route->rtm_af, route->rtm_ifl_index, send_held, h)) != 0) {
        release(RTSLIB_MEM_MSG, bytes);
        release(RTSLIB_MEM_MSG, h);
        return err;
      }
      return EINPROGRESS;
    }
    if (err) return err;
  }
  rts_rt_msg m = *route;
  return rtslib_rtm_get_with_msg(ack, &m, RTS_OP_ADD, nullptr, 0);
}
