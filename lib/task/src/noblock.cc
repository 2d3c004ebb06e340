// Non-blocking stdio over fopencookie: the cookie's write function queues,
// the task's write readiness drains, line input is cut out of the cookie's
// own input buffer.
#include <stdio_ext.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "io_internal.h"
#include "mem/block.h"
#include "platform/sys.h"
#include "task/noblock.h"

namespace {

task_block *noblock_cookie_blk;
task_block *noblock_buffer_blk;
size_t noblock_buffer_size;  // the whole block: links, pointers, data

constexpr int kFlushRetries = 10;
// Buffers (pages) handed to one send.
constexpr int kGatherBuffers = 64;

noblock_buffer *head(noblock_cookie *c) {
  return c->co_queue.nl_forw == &c->co_queue ? nullptr : reinterpret_cast<noblock_buffer *>(c->co_queue.nl_forw);
}
noblock_buffer *tail(noblock_cookie *c) {
  return c->co_queue.nl_back == &c->co_queue ? nullptr : reinterpret_cast<noblock_buffer *>(c->co_queue.nl_back);
}
uint8_t *data_end(noblock_buffer *b) { return reinterpret_cast<uint8_t *>(b) + noblock_buffer_size; }

void unlink_buffer(noblock_cookie *c, noblock_buffer *b) {
  b->nb_link.nl_back->nl_forw = b->nb_link.nl_forw;
  b->nb_link.nl_forw->nl_back = b->nb_link.nl_back;
  c->co_outstanding -= static_cast<size_t>(b->nb_end - b->nb_start);
  task_block_free(noblock_buffer_blk, b);
}

noblock_buffer *new_buffer(noblock_cookie *c) {
  auto *b = static_cast<noblock_buffer *>(task_block_alloc(noblock_buffer_blk));
  b->nb_start = b->nb_end = b->nb_data;
  b->nb_link.nl_forw = &c->co_queue;
  b->nb_link.nl_back = c->co_queue.nl_back;
  c->co_queue.nl_back->nl_forw = &b->nb_link;
  c->co_queue.nl_back = &b->nb_link;
  return b;
}

void purge(noblock_cookie *c) {
  while (noblock_buffer *b = head(c)) unlink_buffer(c, b);
}

int sock(const noblock_cookie *c) { return c->co_task ? c->co_task->task_socket : -1; }
int task_socket(const task *tp) { return tp ? tp->task_socket : -1; }

void noblock_cookie_free(noblock_cookie *c) {
  task_assert(noblock_cookie_blk != ((void *)0));
  TASK_TRACE(c->co_task, TR_TASK, "noblock_cookie_free: co_flags 0x%x, co_state %d", c->co_flags,
             static_cast<int>(c->co_state));
  purge(c);
  if (c->co_genclose && (c->co_flags & NOBLOCK_F_GENERATOR)) c->co_genclose(c->co_task, c->co_gendata);
  free(c->co_name);
  free(c->co_inbuf);
  task_block_free(noblock_cookie_blk, c);
}

void noblock_schedule_write(noblock_cookie *cookie) {
  task_assert(cookie->co_wrtrdy != ((void *)0));
  task *tp = cookie->co_task;
  if (!(cookie->co_flags & NOBLOCK_F_SCHEDULED)) {
    cookie->co_rdyfunc = tp->task_write;
    cookie->co_flags |= NOBLOCK_F_SCHEDULED;
    TASK_TRACE(tp, TR_TASK, "noblock_schedule_write: setting task write routine for %s, tp %p", cookie->co_name,
               static_cast<void *>(tp));
  }
  tp->task_write = cookie->co_wrtrdy;
  task_write_enable(tp);
}

void noblock_deschedule_write(noblock_cookie *c) {
  if (!(c->co_flags & NOBLOCK_F_SCHEDULED)) return;
  task *tp = c->co_task;
  TASK_TRACE(tp, TR_TASK, "noblock_deschedule_write: removing task write routine from %s, tp %p", c->co_name,
             static_cast<void *>(tp));
  c->co_flags &= ~NOBLOCK_F_SCHEDULED;
  if (tp->task_socket < 0) return;
  tp->task_write = c->co_rdyfunc;
  c->co_rdyfunc = nullptr;
  if (!tp->task_write) task_write_disable(tp);
}

void set_error(noblock_cookie *c, int err) {
  c->co_flags |= NOBLOCK_F_ERROR;
  c->co_errno = err;
}

// Closing with an empty queue: the socket goes, and with it the task's methods.
int close_now(noblock_cookie *c) {
  noblock_deschedule_write(c);
  c->co_state = NOBLOCK_S_CLOSED;
  if (c->co_task && c->co_task->task_socket >= 0) {
    int err = task_close(c->co_task);
    if (err) {
      set_error(c, err);
      return 0;
    }
  }
  return 1;
}

constexpr size_t kDirectWrite = 16384;
ssize_t send_queued(noblock_cookie *c, size_t *len, const char *extra = nullptr, size_t extra_len = 0);
void consume(noblock_cookie *c, size_t n);

// Sends the queue and then buf in one call; returns how much of buf went.
size_t send_with_queue(noblock_cookie *c, const char *buf, size_t size) {
  size_t queued;
  ssize_t n;
  do n = send_queued(c, &queued, buf, size);
  while (n < 0 && errno == EINTR);
  if (n < 0) {
    if (errno != EAGAIN) set_error(c, errno);
    return 0;
  }
  size_t from_queue = static_cast<size_t>(n) < c->co_outstanding ? static_cast<size_t>(n) : c->co_outstanding;
  consume(c, from_queue);
  return static_cast<size_t>(n) - from_queue;
}

// ---- the stream's functions ----

ssize_t nb_read(void *cookie, char *buf, size_t size) {
  auto *c = static_cast<noblock_cookie *>(cookie);
  if (c->co_state != NOBLOCK_S_OPEN) return -1;
  return tvx_sys.sys_read(sock(c), buf, size);
}

ssize_t nb_write(void *arg, const char *buf, size_t size) {
  auto *cookie = static_cast<noblock_cookie *>(arg);
  if (getpid() != cookie->co_pid) return 0;  // a forked child must not write into our connection
  if (cookie->co_flags & NOBLOCK_F_ABORTED) return 0;
  if (cookie->co_state != NOBLOCK_S_OPEN || (cookie->co_flags & NOBLOCK_F_ERROR)) {
    errno = cookie->co_errno ? cookie->co_errno : EPIPE;
    return -1;
  }
  task_assert(task_socket(cookie->co_task) != -1);
  // A large write goes out with what is queued, straight from the caller's
  // bytes: only what the socket does not take is copied.
  size_t direct = 0;
  if (size >= kDirectWrite) {
    direct = send_with_queue(cookie, buf, size);
    if (cookie->co_flags & NOBLOCK_F_ERROR) return static_cast<ssize_t>(size);
    buf += direct;
    size -= direct;
    if (!size) return static_cast<ssize_t>(direct);
  }
  size_t taken = 0;
  // stdio does not retry a short count: everything is taken, or the call fails.
  if (noblock_buffer *b = tail(cookie)) {
    size_t room = static_cast<size_t>(data_end(b) - b->nb_end), n = room < size ? room : size;
    memcpy(b->nb_end, buf, n);
    b->nb_end += n;
    taken = n;
  }
  while (taken < size) {
    noblock_buffer *b = new_buffer(cookie);
    size_t room = static_cast<size_t>(data_end(b) - b->nb_end), n = room < size - taken ? room : size - taken;
    memcpy(b->nb_end, buf + taken, n);
    b->nb_end += n;
    taken += n;
  }
  cookie->co_outstanding += taken;
  // A generator's output goes out in one send when it returns.
  if (cookie->co_flags & NOBLOCK_F_BUSY) return static_cast<ssize_t>(direct + taken);
  if (noblock_write_flush(cookie) && cookie->co_outstanding && !(cookie->co_flags & NOBLOCK_F_ABORTED))
    noblock_schedule_write(cookie);
  if (taken == 0 && size > 0) return -1;
  return static_cast<ssize_t>(direct + taken);
}

int nb_close(void *cookie) {
  auto *c = static_cast<noblock_cookie *>(cookie);
  TASK_TRACE(c->co_task, TR_TASK, "noblock_sclose: co_flags 0x%x, co_state %d", c->co_flags,
             static_cast<int>(c->co_state));
  c->co_file = nullptr;  // stdio forgets the stream now, whatever happens to the cookie
  if (getpid() != c->co_pid) return 0;
  // Inside the generator the write-ready step still holds the cookie: it frees it.
  bool busy = c->co_flags & NOBLOCK_F_BUSY;
  if (c->co_flags & NOBLOCK_F_ERROR) {
    noblock_deschedule_write(c);
    if (!(c->co_flags & NOBLOCK_F_ABORTED) && !busy) noblock_cookie_free(c);
    return -1;
  }
  if (c->co_flags & NOBLOCK_F_ABORTED) purge(c);
  c->co_state = NOBLOCK_S_CLOSING;
  if (c->co_flags & NOBLOCK_F_GENERATOR) noblock_clear_generator(c);
  noblock_write_flush(c);
  if (c->co_state == NOBLOCK_S_CLOSED || (c->co_flags & NOBLOCK_F_ERROR)) {
    bool failed = c->co_flags & NOBLOCK_F_ERROR;
    noblock_deschedule_write(c);
    if (!busy) noblock_cookie_free(c);
    return failed ? -1 : 0;
  }
  return 0;  // the queue drains later; write readiness finishes the close
}

}  // namespace

size_t noblock_buffer_data_size(void) { return noblock_buffer_size - offsetof(noblock_buffer, nb_data); }

noblock_cookie *noblock_fdopen(task *tp, const char *name, task_method write_ready) {
  if (!noblock_cookie_blk) {
    noblock_cookie_blk = task_block_init(sizeof(noblock_cookie), "noblock_cookie_blk");
    noblock_buffer_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    task_assert(noblock_buffer_size != 0);
    noblock_buffer_blk = task_block_init(noblock_buffer_size, "noblock_buffer_blk");
  }
  if (!tp || tp->task_socket < 0) {
    errno = EBADF;
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "noblock_fdopen");
    return nullptr;
  }
  auto *c = static_cast<noblock_cookie *>(task_block_alloc(noblock_cookie_blk));
  c->co_queue.nl_forw = c->co_queue.nl_back = &c->co_queue;
  c->co_task = tp;
  c->co_wrtrdy = write_ready;
  c->co_name = strdup(name ? name : "");
  c->co_pid = getpid();
  socklen_t l = sizeof c->co_sndbuf;
  if (getsockopt(tp->task_socket, SOL_SOCKET, SO_SNDBUF, &c->co_sndbuf, &l) < 0) c->co_sndbuf = 0;
  cookie_io_functions_t fns{nb_read, nb_write, nullptr, nb_close};
  // Write-only for stdio: input goes through noblock_fgets, so that stdio's
  // switch from reading to writing can never drop buffered input.
  c->co_file = fopencookie(c, "w", fns);
  if (!c->co_file) {
    logging_event(LOG_ERR, "ZTASK_NONBLOCKING_FILEOP", "ZTASK_NONBLOCKING_FILEOP: %s for task %s socket %d: %m",
                  "funopen", task_name(tp), tp->task_socket);
    free(c->co_name);
    task_block_free(noblock_cookie_blk, c);
    return nullptr;
  }
  TASK_TRACE(tp, TR_TASK, "funopen: task %s socket %d", task_name(tp), tp->task_socket);
  return c;
}

FILE *noblock_stream(noblock_cookie *cookie) { return cookie ? cookie->co_file : nullptr; }

int noblock_fgets(char *buffer, int size, noblock_cookie *c) {
  if (size <= 0) return -1;
  buffer[0] = '\0';
  if (c->co_state != NOBLOCK_S_OPEN || sock(c) < 0) return -1;
  for (;;) {
    auto *nl = c->co_inlen ? static_cast<uint8_t *>(memchr(c->co_inbuf, '\n', c->co_inlen)) : nullptr;
    size_t want = nl ? static_cast<size_t>(nl - c->co_inbuf) + 1 : 0;
    if (!want && (c->co_inlen >= static_cast<size_t>(size - 1) || (c->co_ineof && c->co_inlen))) want = c->co_inlen;
    if (want) {
      if (want > static_cast<size_t>(size - 1)) want = static_cast<size_t>(size - 1);
      memcpy(buffer, c->co_inbuf, want);
      buffer[want] = '\0';
      c->co_inlen -= static_cast<uint32_t>(want);
      memmove(c->co_inbuf, c->co_inbuf + want, c->co_inlen);
      return 0;
    }
    if (c->co_ineof) {
      TASK_TRACE(c->co_task, TR_TASK, "noblock_recv: %s: received unexpected EOF", c->co_name);
      return -1;
    }
    if (c->co_incap - c->co_inlen < 1024) {
      uint32_t cap = c->co_incap ? c->co_incap * 2 : 4096;
      auto *nb = static_cast<uint8_t *>(realloc(c->co_inbuf, cap));
      task_assert(nb);
      c->co_inbuf = nb;
      c->co_incap = cap;
    }
    ssize_t n = tvx_sys.sys_read(sock(c), c->co_inbuf + c->co_inlen, c->co_incap - c->co_inlen);
    if (n > 0) {
      c->co_inlen += static_cast<uint32_t>(n);
      continue;
    }
    if (n == 0) {
      c->co_ineof = 1;
      continue;
    }
    int err = errno;
    if (err == EINTR || err == EAGAIN) return 0;
    if (err == EPIPE || err == ENETUNREACH || err == EHOSTUNREACH || err == ECONNRESET) {
      TASK_TRACE(c->co_task, TR_TASK, "noblock_fgets: %s: %m", c->co_name);
    } else {
      logging_event(LOG_ERR, "ZTASK_NONBLOCKING_FILEOP", "ZTASK_NONBLOCKING_FILEOP: %s for task %s socket %d: %m",
                    "read", task_name(c->co_task), sock(c));
    }
    errno = err;
    return -1;
  }
}

void noblock_assign_generator(noblock_cookie *cookie, noblock_generator_fn generator, noblock_genclose_fn close_fn,
                              void *data) {
  task_assert(cookie->co_genfunc == ((void *)0));
  cookie->co_flags |= NOBLOCK_F_GENERATOR;
  cookie->co_genfunc = generator;
  cookie->co_genclose = close_fn;
  cookie->co_gendata = data;
  noblock_schedule_write(cookie);
}

void *noblock_clear_generator(noblock_cookie *cookie) {
  noblock_cookie *c = cookie;
  task_assert(cookie->co_genfunc);
  c->co_flags &= ~NOBLOCK_F_GENERATOR;
  c->co_genfunc = nullptr;
  c->co_genclose = nullptr;
  void *d = c->co_gendata;
  c->co_gendata = nullptr;
  return d;
}

bool noblock_generator_registered(const noblock_cookie *c) { return c && (c->co_flags & NOBLOCK_F_GENERATOR); }

size_t noblock_outstanding(const noblock_cookie *stream) {
  task_assert(stream != ((void *)0));
  return stream->co_outstanding;
}

void noblock_fpurge(noblock_cookie *c) {
  TASK_TRACE(c->co_task, TR_TASK, "noblock_fpurge: task %p, co_flags 0x%x", static_cast<void *>(c->co_task),
             c->co_flags);
  if (c->co_file) __fpurge(c->co_file);
  purge(c);
}

void noblock_abort(noblock_cookie *c) {
  TASK_TRACE(c->co_task, TR_TASK, "noblock_abort : task %p, flags 0x%x", static_cast<void *>(c->co_task),
             c->co_flags);
  c->co_flags |= NOBLOCK_F_ABORTED;
  noblock_deschedule_write(c);
  purge(c);
  if (c->co_flags & NOBLOCK_F_ERROR) {
    // The close function leaves an aborted cookie in error to us.
    FILE *f = c->co_file;
    if (f && fclose(f) != 0 && errno != c->co_errno)
      logging_event(LOG_ERR, "ZTASK_NONBLOCKING_FILEOP", "ZTASK_NONBLOCKING_FILEOP: %s for task %s socket %d: %m",
                    "fclose", task_name(c->co_task), sock(c));
    noblock_cookie_free(c);
    return;
  }
  if (c->co_file && fclose(c->co_file) != 0)
    logging_event(LOG_ERR, "ZTASK_NONBLOCKING_FILEOP", "ZTASK_NONBLOCKING_FILEOP: %s for task %s socket %d: %m",
                  "fclose", task_name(c->co_task), sock(c));
}

void noblock_set_snd_buf_sz(noblock_cookie *c, int size) {
  if (setsockopt(sock(c), SOL_SOCKET, SO_SNDBUF, &size, sizeof size) < 0)
    logging_event(LOG_WARNING, "ZTASK_NONBLOCKING_SOCKET_OPT_CONF",
                  "ZTASK_NONBLOCKING_SOCKET_OPT_CONF: setting send buf size to %d failed for %s, error = %m", size,
                  c->co_name);
  socklen_t l = sizeof c->co_sndbuf;
  if (getsockopt(sock(c), SOL_SOCKET, SO_SNDBUF, &c->co_sndbuf, &l) < 0) c->co_sndbuf = 0;
}

namespace {

// Sends what is queued, several buffers per call: one wakeup of the reader
// for a long answer instead of one per page.
ssize_t send_queued(noblock_cookie *c, size_t *len, const char *extra, size_t extra_len) {
  iovec iov[kGatherBuffers + 1];
  int n = 0;
  *len = 0;
  for (noblock_link *l = c->co_queue.nl_forw; l != &c->co_queue && n < kGatherBuffers; l = l->nl_forw, n++) {
    auto *b = reinterpret_cast<noblock_buffer *>(l);
    iov[n] = {b->nb_start, static_cast<size_t>(b->nb_end - b->nb_start)};
    *len += iov[n].iov_len;
  }
  if (extra) {
    if (*len != c->co_outstanding) {  // more queued than one send takes: the caller's bytes wait
      errno = EAGAIN;
      return -1;
    }
    iov[n++] = {const_cast<char *>(extra), extra_len};
  }
  if (n == 1) return tvx_sys.sys_sendto(sock(c), iov[0].iov_base, iov[0].iov_len, MSG_NOSIGNAL | MSG_DONTWAIT, nullptr, 0);
  msghdr m{};
  m.msg_iov = iov;
  m.msg_iovlen = static_cast<size_t>(n);
  return tvx_sys.sys_sendmsg(sock(c), &m, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// Drops n sent bytes from the front of the queue.
void consume(noblock_cookie *c, size_t n) {
  while (n) {
    noblock_buffer *b = head(c);
    size_t len = static_cast<size_t>(b->nb_end - b->nb_start);
    if (n >= len) {
      unlink_buffer(c, b);
      n -= len;
      continue;
    }
    b->nb_start += n;
    c->co_outstanding -= n;
    n = 0;
  }
}

}  // namespace

int noblock_write_flush(noblock_cookie *c) {
  int retries = kFlushRetries;
  while (head(c)) {
    size_t len;
    ssize_t n = send_queued(c, &len);
    if (n > 0) {
      consume(c, static_cast<size_t>(n));
      continue;
    }
    if (n == 0) {
      logging_event(LOG_WARNING, "ZTASK_NONBLOCKING_CONNECTION_CLOSED",
                    "ZTASK_NONBLOCKING_CONNECTION_CLOSED: sending %d (sent %d) bytes to %s: connection closed",
                    static_cast<int>(len), 0, c->co_name);
      set_error(c, ECONNRESET);
      return 0;
    }
    int err = errno;
    if (err == EAGAIN) return 1;
    if (err == EINTR || err == ENETUNREACH || err == EHOSTUNREACH) {
      if (err != EINTR) TASK_TRACE(c->co_task, TR_TASK, "noblock_write_flush: retrying write to %s: %m", c->co_name);
      if (--retries > 0) continue;
      set_error(c, err);
      errno = err;
      TASK_TRACE(c->co_task, TR_TASK, "noblock_write_flush: sending to %s (sent %d) looping: %m", c->co_name, 0);
      return 0;
    }
    if (err != EPIPE) {
      errno = err;
      logging_event(LOG_WARNING, "ZTASK_NONBLOCKING_SOCKET_IO",
                    "ZTASK_NONBLOCKING_SOCKET_IO: sending %d (sent %d) bytes to %s failed: %m", static_cast<int>(len),
                    0, c->co_name);
    }
    set_error(c, err);
    return 0;
  }
  if (c->co_state == NOBLOCK_S_CLOSING) return close_now(c);
  return 1;
}

void noblock_write_ready(noblock_cookie *c) {
  if (c->co_flags & NOBLOCK_F_ABORTED) return;
  if (!head(c) && (c->co_flags & NOBLOCK_F_GENERATOR) && c->co_state == NOBLOCK_S_OPEN) {
    c->co_flags |= NOBLOCK_F_BUSY;
    c->co_genfunc(c->co_task, c->co_gendata);
    if (c->co_file) fflush(c->co_file);
    c->co_flags &= ~NOBLOCK_F_BUSY;
  }
  int ok = c->co_state == NOBLOCK_S_CLOSED ? 1 : noblock_write_flush(c);
  if (c->co_state != NOBLOCK_S_OPEN && (c->co_state == NOBLOCK_S_CLOSED || !ok)) {
    // The stream was closed by stdio already: the cookie was waiting for this.
    noblock_deschedule_write(c);
    noblock_cookie_free(c);
    return;
  }
  if (ok && (head(c) || (c->co_flags & NOBLOCK_F_GENERATOR)))
    noblock_schedule_write(c);
  else
    noblock_deschedule_write(c);
}
