// Asynchronous events: the context, registrations, and the read-and-dispatch step.
#include "rtsock/rtslib_async.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "evlog/evlog.h"
#include "rtsock/rts_filter.h"
#include "rtsock/rtslib_gencfg.h"
#include "../rtslib_internal.h"

using namespace rtslib;

int rtslib_async_debug;

namespace {

constexpr const char *kProcess = "rtslib_async_event_process";

rtslib_async_info *info(rtslib_cookie *c) { return static_cast<rtslib_async_info *>(c->async); }

uint32_t word(const uint8_t *p, int i) {
  uint32_t v;
  memcpy(&v, p + 4 * i, 4);
  return v;
}

void on_readable(__evContext, void *uap, int, int) {
  rtslib_async_event_process(static_cast<rtslib_cookie *>(uap));
}
void on_readable_ext(void *arg) { rtslib_async_event_process(static_cast<rtslib_cookie *>(arg)); }

// rtslib_close's part: out of the event library, handlers and record freed.
void release_async(rtslib_cookie *c) {
  rtslib_async_info *ai = info(c);
  if (!ai) return;
  if (ai->state & RTSLIB_ASYNC_SELECTED) {
    if (ai->state & RTSLIB_ASYNC_EXT_LOOP)
      ai->ev_dispatch->deselect(ai->ev_dispatch->loop, ai->ext_id);
    else
      __evDeselectFD(ai->ev_context, ai->select_id);
  }
  for (rtslib_async_handler *&h : ai->handlers) {
    release(RTSLIB_MEM_ASYNC, h);
    h = nullptr;
  }
  release(RTSLIB_MEM_ASYNC, ai);
  c->async = nullptr;
  c->async_release = nullptr;
}

int select_socket(rtslib_cookie *c, rtslib_async_info *ai) {
  if (ai->state & RTSLIB_ASYNC_SELECTED) return 0;
  if (ai->mode & RTSLIB_ASYNC_EXTERNAL) {
    const rtslib_async_dispatch *d = ai->ev_dispatch;
    if (!d || !d->select || !d->deselect) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "external async mode without a dispatch table");
      errno = EINVAL;
      return -1;
    }
    if (d->select(d->loop, c->fd, EV_READ | EV_EXCEPT, on_readable_ext, c, &ai->ext_id) != 0) return -1;
    ai->state |= RTSLIB_ASYNC_SELECTED | RTSLIB_ASYNC_EXT_LOOP;
    return 0;
  }
  if (__evSelectFD(ai->ev_context, c->fd, EV_READ, on_readable, c, &ai->select_id) != 0) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "failed to select the route socket: %s", strerror(errno));
    return -1;
  }
  ai->state |= RTSLIB_ASYNC_SELECTED;
  return 0;
}

int set_listen(rtslib_cookie *c, rtslib_async_info *ai, const uint32_t want[2]) {
  if (want[0] == ai->listen_mask[0] && want[1] == ai->listen_mask[1]) return 0;
  const rts_lower_ops &e = edge();
  if (e.lo_setopt(e.lo_ctx, c->fd, RTS_SOL, RTS_OPT_LISTEN_MASK, want, 8) < 0) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "failed to set listen bit %s", strerror(errno));
    return -1;
  }
  ai->listen_mask[0] = want[0];
  ai->listen_mask[1] = want[1];
  return 0;
}

int register_type(rtslib_cookie *c, uint32_t type, uint32_t w0, uint32_t w1, void *user, rtslib_async_fn fn) {
  if (!c || !c->async || !fn || type >= RTS_TYPE_COUNT) return EINVAL;
  rtslib_async_info *ai = info(c);
  if (ai->handlers[type]) return EINVAL;
  // The record first: a failure leaves the selection and the mask as they were.
  auto *h = static_cast<rtslib_async_handler *>(alloc(RTSLIB_MEM_ASYNC, sizeof(rtslib_async_handler)));
  if (!h) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "async registration allocation failed %s", strerror(ENOMEM));
    errno = ENOMEM;
    return -1;
  }
  uint32_t want[2] = {ai->listen_mask[0] | w0, ai->listen_mask[1] | w1};
  if (select_socket(c, ai) != 0 || set_listen(c, ai, want) != 0) {
    int err = errno;
    release(RTSLIB_MEM_ASYNC, h);
    errno = err;
    return -1;
  }
  h->user = user;
  h->fn = fn;
  ai->handlers[type] = h;
  return 0;
}

int register_listening(rtslib_cookie *c, uint32_t type, void *user, rtslib_async_fn fn) {
  uint32_t w = 0, bit = 0;
  if (!rts_listen_bit(type, &w, &bit)) bit = 0;
  return register_type(c, type, w == 0 ? bit : 0, w == 1 ? bit : 0, user, fn);
}

// Hands one message to its handler; 0 or an errno value.
int dispatch(rtslib_cookie *c, const uint8_t *p, uint32_t len) {
  rtslib_async_info *ai = info(c);
  uint32_t magic = word(p, 0);
  bool raw = magic == 0;
  uint32_t type = raw ? p[5] : word(p, 2);
  if (!raw && magic != RTS_MAGIC_TLV && magic != RTS_MAGIC_IDR) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to decode the msg: error (%d)", EOPNOTSUPP);
    return EOPNOTSUPP;
  }
  if (type > RTS_TYPE_LAST) {
    rtslib_log(c, RTSLIB_LOG_WARNING, "received async message of unknown type: %d", static_cast<int>(type));
    return EOPNOTSUPP;
  }
  rtslib_async_handler *h = ai->handlers[type];
  if (!h) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "received async message with no handler: %d", static_cast<int>(type));
    return ENOENT;
  }
  void *msg = nullptr;
  if (raw) {
    // The read buffer is the handle's: the handler gets a block of its own.
    msg = alloc(RTSLIB_MEM_MSG, len);
    if (!msg) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "Allocation Failure for (%d) bytes", static_cast<int>(len));
      return ENOMEM;
    }
    memcpy(msg, p, len);
    h->fn(c, h->user, msg);
    return 0;
  }
  int err = rtslib_msg_decode(c, p, len, &msg);
  if (err) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to decode the msg: error (%d)", err);
    return err;
  }
  c->seq++;
  if (type == RTS_T_GENCFG && (err = rtslib_gencfg_decompress(c, &msg)) != 0) {
    rtslib_msg_idl_release(c, msg);
    return err;
  }
  // The address's pending callers run after the user's handler, which owns
  // the message: what they need is taken first.
  rtslib_pending_key key{};
  bool pending = type == RTS_T_IFADDR && c->pending && rtslib_pending_key_of(msg, &key);
  h->fn(c, h->user, msg);
  if (pending) rtslib_pending_ifaddr(c, &key);
  return 0;
}

// The sequence check of a raw message on an async handle; the message goes
// on either way.
void check_raw_seq(rtslib_cookie *c, uint32_t seq) {
  if (!(c->async_zero_seq_ok && seq == 0) && seq != c->seq) {
    if (c->seq_err_fn) c->seq_err_fn(c, c->seq_err_ctx, c->seq, seq);
    else rtslib_log(c, RTSLIB_LOG_ERROR, "%s seq mismatch: (%u != %u)", "async message", seq, c->seq);
  }
  if (seq != 0) c->seq = seq + 1;
}

}  // namespace

int rtslib_set_async_context(rtslib_cookie *c, __evContext ev_context) {
  if (!c || c->async) return EINVAL;
  void *ai = zalloc(RTSLIB_MEM_ASYNC, sizeof(rtslib_async_info));
  if (!ai) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "async info allocation failed %s", strerror(ENOMEM));
    return ENOMEM;
  }
  static_cast<rtslib_async_info *>(ai)->ev_context = ev_context;
  c->async = ai;
  c->async_release = release_async;
  c->read_limit = RTSLIB_ASYNC_READ_LIMIT;
  return 0;
}

int rtslib_set_async_mode(rtslib_cookie *c, uint32_t bits) {
  if (!c || !c->async) return EINVAL;
  if (bits != 0 && (!(bits & RTSLIB_ASYNC_ON) || (bits & ~RTSLIB_ASYNC_MODE_MASK))) return EINVAL;
  const rts_lower_ops &e = edge();
  if (e.lo_setopt(e.lo_ctx, c->fd, RTS_SOL, RTS_OPT_ASYNC_MODE, &bits, sizeof bits) < 0) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "failed to set async mode bits=0x%x, error=%s", bits, strerror(errno));
    return -1;
  }
  info(c)->mode = bits;
  c->async_mode = bits;
  return 0;
}

int rtslib_set_async_dispatch(rtslib_cookie *c, const rtslib_async_dispatch *dispatch) {
  if (!c || !c->async) return EINVAL;
  info(c)->ev_dispatch = dispatch;
  return 0;
}

int rtslib_async_register(rtslib_cookie *c, uint32_t type, const uint32_t listen[2], void *user,
                          rtslib_async_fn fn) {
  return register_type(c, type, listen ? listen[0] : 0, listen ? listen[1] : 0, user, fn);
}

int rtslib_ifam_async_register(rtslib_cookie *c, uint32_t flags, void *user, rtslib_async_fn fn) {
  uint32_t bits = (flags & 0x1 ? 0x20u : 0u) | (flags & 0x4 ? 0x08u : 0u);
  return register_type(c, RTS_T_IFADDR, bits, 0, user, fn);
}
int rtslib_ifdm_async_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_listening(c, RTS_T_IFDEV, user, fn);
}
int rtslib_iffm_async_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_listening(c, RTS_T_IFFAMILY, user, fn);
}
int rtslib_iflm_async_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_listening(c, RTS_T_IFLOGICAL, user, fn);
}
int rtslib_rtbm_async_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_listening(c, RTS_T_RTTABLE, user, fn);
}
int rtslib_rtm_async_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_listening(c, RTS_T_ROUTE, user, fn);
}
int rtslib_gencfg_async_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_listening(c, RTS_T_GENCFG, user, fn);
}
int rtslib_bd_async_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_listening(c, RTS_T_BRIDGE_DOMAIN, user, fn);
}
int rtslib_ifstate_eochain_register(rtslib_cookie *c, void *user, rtslib_async_fn fn) {
  return register_type(c, 47, 0, 0, user, fn);
}

int rtslib_async_event_process(rtslib_cookie *c) {
  if (!c || !c->async) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "async event callback with invalid cookie!");
    return EINVAL;
  }
  const rts_lower_ops &e = edge();
  if (!c->rbuf) {
    int size = 0;
    socklen_t l = sizeof size;
    if (e.lo_getopt(e.lo_ctx, c->fd, SOL_SOCKET, SO_RCVBUF, &size, &l) < 0 || size <= 0) {
      int err = errno ? errno : EINVAL;
      rtslib_log(c, RTSLIB_LOG_ERROR, "%s: Failed to get SO_RCVBUF %s", kProcess, strerror(err));
      errno = err;
      return -1;
    }
    c->rbuf = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, static_cast<size_t>(size)));
    if (!c->rbuf) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "rtslib_size_alloc failed!");
      errno = ENOMEM;
      return -1;
    }
    c->rbuf_size = static_cast<size_t>(size);
    c->rbuf_pos = c->rbuf_last = c->rbuf;
  }
  bool bulk = c->async_mode & RTSLIB_ASYNC_BULK;
  int reads = 0, msgs = 0;
  for (;;) {
    ssize_t n = e.lo_read(e.lo_ctx, c->fd, c->rbuf, c->rbuf_size);
    if (n < 0) {
      int err = errno;
      if (err == EAGAIN) {
        if (reads) return 0;
        errno = EAGAIN;
        return -1;
      }
      if (err == EMSGSIZE) rtslib_log(c, RTSLIB_LOG_FATAL, "%s", "errno != EMSGSIZE");
      else rtslib_log(c, RTSLIB_LOG_FATAL, "read failed: (%d) %s", err, strerror(err));
      errno = err;
      return -1;
    }
    if (n == 0) {
      errno = ECONNRESET;
      return -1;
    }
    reads++;
    if (static_cast<size_t>(n) < kPeek) {
      rtslib_log(c, RTSLIB_LOG_FATAL, "msg read too small for header: %d", static_cast<int>(n));
      errno = EIO;
      return -1;
    }
    if (rtslib_async_debug)
      event_send_syslog(LOG_DEBUG, nullptr, "%s, %s read %d bytes", kProcess, bulk ? "bulk" : "single",
                        static_cast<int>(n));
    const uint8_t *p = c->rbuf;
    size_t left = static_cast<size_t>(n);
    while (left) {
      uint32_t magic = left >= 12 ? word(p, 0) : 0;
      uint64_t len = left < 12 ? 0
                     : magic == RTS_MAGIC_TLV || magic == RTS_MAGIC_IDR ? uint64_t{word(p, 1)} + 12
                                                                        : word(p, 2);
      // A raw message is at least its header: its type and sequence are read from it.
      if (len < 1 || len > left || (magic == 0 && len < kPeek)) {
        rtslib_log(c, RTSLIB_LOG_FATAL, "corrupted msg_len (%d) (%d bytes left)", static_cast<int>(len),
                   static_cast<int>(left));
        errno = EINVAL;
        return -1;
      }
      if (magic == 0) check_raw_seq(c, word(p, 3));
      if (dispatch(c, p, static_cast<uint32_t>(len)) == 0) msgs++;
      if (!bulk && len != static_cast<size_t>(n)) {
        rtslib_log(c, RTSLIB_LOG_FATAL, "Incorrect message length. %d != %d", static_cast<int>(len),
                   static_cast<int>(n));
        break;
      }
      p += len;
      left -= len;
    }
    if (static_cast<uint32_t>(reads) >= c->read_limit) {
      if (rtslib_async_debug)
        event_send_syslog(LOG_DEBUG, nullptr, "%s, %s read %d msgs with %d read calls before return to select",
                          kProcess, bulk ? "bulk" : "single", msgs, reads);
      return 0;
    }
  }
}

int rtslib_async_register_filters(rtslib_cookie *c, const void *filter) {
  if (!c || !c->async || !filter) return EINVAL;
  uint8_t rec[RTS_FILTER_RECORD];
  uint32_t mask[2] = {info(c)->listen_mask[0], info(c)->listen_mask[1]};
  if (!rts_filter_record(filter, mask, rec)) return EINVAL;
  const rts_lower_ops &e = edge();
  if (e.lo_setopt(e.lo_ctx, c->fd, RTS_SOL, RTS_OPT_FILTER, rec, sizeof rec) < 0) {
    int err = errno;
    rtslib_log(c, RTSLIB_LOG_ERROR, "failed to set the filter: %s", strerror(err));
    return err;
  }
  info(c)->listen_mask[1] = mask[1];
  return 0;
}
