// The two event queues on epoll, and signals on a signalfd in queue 0.
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <vector>

#include "internal.h"
#include "task/io.h"

namespace {

// Interest registered per (queue, descriptor): EPOLLIN and EPOLLOUT bits.
std::vector<uint8_t> interest[TASK_EVQ_N_PRIO];
constexpr uint8_t kIn = 1, kOut = 2;
int32_t signal_tag = 3;
sigset_t signal_mask;

uint8_t &slot(int q, int fd) {
  auto &v = interest[q];
  if (static_cast<size_t>(fd) >= v.size()) v.resize(fd + 64, 0);
  return v[fd];
}

uint32_t to_epoll(uint8_t m) {
  return (m & kIn ? uint32_t{EPOLLIN | EPOLLRDHUP} : 0u) | (m & kOut ? uint32_t{EPOLLOUT} : 0u);
}

// A registration failure: the task's hook decides, else anything but ENOENT ends the process.
int kevent_error(task *tp, int code, int err) {
  tp->task_kevent_errno = err;
  bool fatal = tp->task_kevent_error ? tp->task_kevent_error(tp, code, err) != 0 : err != ENOENT;
  if (fatal) {
    errno = err;
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "kevent");
    __task_quit__(err);
  }
  return err;
}

int change(task *tp, int q, uint8_t want, int code, int fd, void *udata) {
  uint8_t &have = slot(q, fd);
  if (have == want) return 0;
  epoll_event ev{};
  ev.events = to_epoll(want);
  ev.data.ptr = udata;
  int op = !have ? EPOLL_CTL_ADD : !want ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
  if (epoll_ctl(task_var_io(tp)->task_eventQ[q], op, fd, &ev) < 0) {
    int err = errno;
    if (op == EPOLL_CTL_DEL) have = 0;
    return kevent_error(tp, code, err);
  }
  have = want;
  return 0;
}

int default_wait(int level, task_kevent *out, int max, const task_utime *timeout) {
  task_io_var *io = task_var_io(nullptr);
  epoll_event evs[TASK_EVENTLIST_SIZE / 2];
  int room = max / 2 < static_cast<int>(std::size(evs)) ? max / 2 : static_cast<int>(std::size(evs));
  if (room < 1) room = 1;
  int n;
  timespec ts{}, *tsp = nullptr;
  if (timeout) {
    ts.tv_sec = timeout->ut_sec;
    ts.tv_nsec = static_cast<long>(timeout->ut_usec) * 1000;
    tsp = &ts;
  }
  n = epoll_pwait2(io->task_eventQ[level], evs, room, tsp, nullptr);
  if (n < 0 && errno == ENOSYS)
  {
    int ms = timeout ? static_cast<int>((task_utime_to_usec(*timeout) + 999) / 1000) : -1;
    n = epoll_wait(io->task_eventQ[level], evs, room, ms);
  }
  if (n < 0) return -1;
  int k = 0;
  for (int i = 0; i < n && k < max; i++) {
    void *ud = evs[i].data.ptr;
    uint32_t e = evs[i].events;
    if (!ud) {
      out[k++] = task_kevent{static_cast<uintptr_t>(io->task_eventQ[level + 1]), TASK_EVFILT_READ, 0, 0, 0, nullptr};
      continue;
    }
    if (ud == &signal_tag) {
      // One read takes every pending signal that fits; another only when it was full.
      signalfd_siginfo si[8];
      for (;;) {
        int room_left = max - k < 8 ? max - k : 8;
        if (room_left <= 0) break;
        ssize_t got = read(io->task_signal_fd, si, room_left * sizeof si[0]);
        if (got <= 0) break;
        int m = static_cast<int>(got / static_cast<ssize_t>(sizeof si[0]));
        for (int j = 0; j < m; j++) out[k++] = task_kevent{si[j].ssi_signo, TASK_EVFILT_SIGNAL, 0, 0, 1, ud};
        if (m < room_left) break;
      }
      continue;
    }
    uintptr_t fd = 0;
    if (*static_cast<int32_t *>(ud) == TASK_KEVENT_TASK) {
      task *tp = reinterpret_cast<task *>(static_cast<char *>(ud) - offsetof(task, task_kevent_udata));
      fd = static_cast<uintptr_t>(tp->task_socket);
    } else if (*static_cast<int32_t *>(ud) == TASK_KEVENT_IO_HOOK) {
      fd = static_cast<uintptr_t>(static_cast<task_io_hook *>(ud)->hook_fd);
    }
    uint16_t flags = (e & (EPOLLHUP | EPOLLRDHUP)) ? TASK_EV_EOF : 0;
    if (e & EPOLLERR) flags |= TASK_EV_ERROR;
    uint8_t have = fd < interest[level].size() ? interest[level][fd] : 0;
    bool rd = (e & (EPOLLIN | EPOLLRDHUP)) || ((e & (EPOLLHUP | EPOLLERR)) && (have & kIn));
    bool wr = (e & EPOLLOUT) || ((e & (EPOLLHUP | EPOLLERR)) && (have & kOut) && !(have & kIn));
    if (rd) out[k++] = task_kevent{fd, TASK_EVFILT_READ, flags, 0, 0, ud};
    if (wr && k < max) out[k++] = task_kevent{fd, TASK_EVFILT_WRITE, flags, 0, 0, ud};
  }
  return k;
}

}  // namespace

const task_evq_ops task_evq_default = {default_wait};
task_evq_ops task_evq = task_evq_default;

void task_evq_init(void) {
  task_io_var *io = task_var_io(nullptr);
  io->task_eventlist_size = TASK_EVENTLIST_SIZE;
  for (int &q : io->task_eventQ) {
    q = epoll_create1(EPOLL_CLOEXEC);
    if (q < 0) __task_quit__(errno);
  }
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.ptr = nullptr;
  if (epoll_ctl(io->task_eventQ[0], EPOLL_CTL_ADD, io->task_eventQ[1], &ev) < 0) __task_quit__(errno);
  sigemptyset(&signal_mask);
  io->task_signal_fd = signalfd(-1, &signal_mask, SFD_NONBLOCK | SFD_CLOEXEC);
  if (io->task_signal_fd < 0) __task_quit__(errno);
  ev.data.ptr = &signal_tag;
  if (epoll_ctl(io->task_eventQ[0], EPOLL_CTL_ADD, io->task_signal_fd, &ev) < 0) __task_quit__(errno);
}

void task_evq_close_after_fork(void) {
  task_io_var *io = task_var_io(nullptr);
  for (int &q : io->task_eventQ) {
    if (q >= 0) close(q);
    q = -1;
  }
  if (io->task_signal_fd >= 0) close(io->task_signal_fd);
  io->task_signal_fd = -1;
  for (auto &v : interest) v.clear();
}

int task_evq_set(task *tp, int16_t filter, bool enable) {
  if (!tp || tp->task_socket < 0 || (task_state & TASKS_TEST)) return 0;
  int q = filter == TASK_EVFILT_READ ? ((tp->task_flags & TASK_FLAG_LOWPRIO) ? 1 : 0) : 1;
  uint8_t bit = filter == TASK_EVFILT_READ ? kIn : kOut;
  uint8_t have = slot(q, tp->task_socket);
  uint8_t want = enable ? (have | bit) : (have & ~bit);
  return change(tp, q, want, enable ? (have ? 2 : 0) : (want ? 2 : 1), tp->task_socket, &tp->task_kevent_udata);
}

int task_evq_hook_set(task_io_hook *hp, bool enable) {
  if (!hp || hp->hook_fd < 0 || (task_state & TASKS_TEST)) return 0;
  return change(hp->hook_task, 0, enable ? kIn : 0, enable ? 0 : 1, hp->hook_fd, hp);
}

void task_evq_forget(task *tp) {
  if (!tp || tp->task_socket < 0) return;
  for (int q = 0; q < TASK_EVQ_N_PRIO; q++)
    if (slot(q, tp->task_socket)) change(tp, q, 0, 1, tp->task_socket, &tp->task_kevent_udata);
}

void task_evq_disable(int level, const task_kevent *ev) {
  if (level < 0 || level >= TASK_EVQ_N_PRIO || (task_state & TASKS_TEST)) return;
  int fd = static_cast<int>(ev->ident);
  auto *tag = static_cast<int32_t *>(ev->udata);
  if (tag && *tag == TASK_KEVENT_TASK) {
    task *tp = reinterpret_cast<task *>(reinterpret_cast<char *>(tag) - offsetof(task, task_kevent_udata));
    if (tp->task_socket == fd) {
      change(tp, level, 0, 2, fd, tag);
      return;
    }
  }
  epoll_event none{};
  epoll_ctl(task_var_io(nullptr)->task_eventQ[level], EPOLL_CTL_DEL, fd, &none);
  if (fd >= 0 && static_cast<size_t>(fd) < interest[level].size()) interest[level][fd] = 0;
}

void task_evq_signal_add(int signo) {
  sigaddset(&signal_mask, signo);
  sigprocmask(SIG_BLOCK, &signal_mask, nullptr);
  signalfd(task_var_io(nullptr)->task_signal_fd, &signal_mask, 0);
}

void task_evq_signal_remove(int signo) {
  sigdelset(&signal_mask, signo);
  signalfd(task_var_io(nullptr)->task_signal_fd, &signal_mask, 0);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signo);
  sigprocmask(SIG_UNBLOCK, &one, nullptr);
}
