// Routing-table ids of ingress interfaces over rtnetlink, cached until the
// next link notification.
#include "task/vrf.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "internal.h"
#include "task/io.h"

namespace {

struct watcher {
  task *tp;
  mnl_socket *nl;  // subscribed to link notifications
  task_io_hook *hook;
};

struct vrf_state {
  std::unordered_map<int32_t, uint32_t> tables;
  std::vector<watcher> watchers;
  mnl_socket *query = nullptr;  // requests and their answers
  uint32_t seq = 0;
  task_vrf_fetch_fn fetch = nullptr;
  task_vrf_stats stats{};
};

vrf_state &state() {
  static vrf_state *s = new vrf_state;  // lives as long as the process: no exit-order surprises
  return *s;
}

void log_system(const char *what) {
  logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", what);
}

// ---- Parsing ------------------------------------------------------------------------

struct nest_walk {
  const nlattr *tb[64];
  int max;
};

int keep_attr(const nlattr *a, void *data) {
  auto *w = static_cast<nest_walk *>(data);
  int type = mnl_attr_get_type(a);
  if (type <= w->max && type < 64) w->tb[type] = a;
  return MNL_CB_OK;
}

bool walk_nested(const nlattr *nest, nest_walk *w, int max) {
  memset(w->tb, 0, sizeof w->tb);
  w->max = max;
  return mnl_attr_parse_nested(nest, keep_attr, w) >= MNL_CB_OK;
}

bool get_u32(const nlattr *a, uint32_t *v) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_U32) < 0) return false;
  *v = mnl_attr_get_u32(a);
  return true;
}

bool is_kind(const nlattr *a, const char *kind) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_STRING) < 0) return false;
  size_t n = mnl_attr_get_payload_len(a);
  const char *s = mnl_attr_get_str(a);
  size_t k = strlen(kind);
  // The kernel counts the terminating zero; hand-built messages may not.
  return (n == k || (n == k + 1 && s[k] == '\0')) && memcmp(s, kind, k) == 0;
}

void parse_linkinfo(const nlattr *info, task_vrf_link *out) {
  nest_walk w;
  if (!walk_nested(info, &w, IFLA_INFO_SLAVE_DATA)) return;
  const nlattr *kind = w.tb[IFLA_INFO_KIND], *data = w.tb[IFLA_INFO_DATA];
  const nlattr *skind = w.tb[IFLA_INFO_SLAVE_KIND], *sdata = w.tb[IFLA_INFO_SLAVE_DATA];
  nest_walk d;
  if (is_kind(kind, "vrf")) {
    out->tvl_is_vrf = 1;
    if (data && mnl_attr_validate(data, MNL_TYPE_NESTED) >= 0 && walk_nested(data, &d, IFLA_VRF_TABLE))
      get_u32(d.tb[IFLA_VRF_TABLE], &out->tvl_table);
  }
  if (is_kind(skind, "vrf")) {
    out->tvl_vrf_port = 1;
    if (sdata && mnl_attr_validate(sdata, MNL_TYPE_NESTED) >= 0 && walk_nested(sdata, &d, IFLA_VRF_PORT_TABLE))
      get_u32(d.tb[IFLA_VRF_PORT_TABLE], &out->tvl_port_table);
  }
}

// ---- Asking the kernel ------------------------------------------------------------------

struct answer {
  task_vrf_link *link;
  int err;
};

int on_answer(const nlmsghdr *nlh, void *data) {
  auto *a = static_cast<answer *>(data);
  if (nlh->nlmsg_type != RTM_NEWLINK) return MNL_CB_OK;
  a->err = task_vrf_parse_link(nlh, nlh->nlmsg_len, a->link);
  return MNL_CB_STOP;
}

int rtnetlink_fetch(int ifindex, task_vrf_link *out) {
  vrf_state &s = state();
  if (!s.query) {
    s.query = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (!s.query || mnl_socket_bind(s.query, 0, MNL_SOCKET_AUTOPID) < 0) {
      int err = errno;
      log_system("rtnetlink");
      if (s.query) mnl_socket_close(s.query);
      s.query = nullptr;
      return err;
    }
    // The kernel answers at once; a lost answer must not hang the loop.
    timeval limit{1, 0};
    setsockopt(mnl_socket_get_fd(s.query), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  alignas(nlmsghdr) char buf[MNL_SOCKET_BUFFER_SIZE];
  nlmsghdr *nlh = mnl_nlmsg_put_header(buf);
  nlh->nlmsg_type = RTM_GETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST;
  nlh->nlmsg_seq = ++s.seq;
  auto *ifi = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifi->ifi_family = AF_UNSPEC;
  ifi->ifi_index = ifindex;
  if (mnl_socket_sendto(s.query, nlh, nlh->nlmsg_len) < 0) return errno;
  unsigned portid = mnl_socket_get_portid(s.query);
  answer a{out, ENODATA};
  for (;;) {
    ssize_t n = mnl_socket_recvfrom(s.query, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    int rc = mnl_cb_run(buf, static_cast<size_t>(n), s.seq, portid, on_answer, &a);
    if (rc == MNL_CB_ERROR) {
      // An answer to an earlier request that timed out: skip it.
      if (errno == EPROTO || errno == ESRCH) continue;
      return errno;
    }
    return a.err;
  }
}

void flush(vrf_state &s) {
  if (s.tables.empty()) return;
  s.tables.clear();
  s.stats.tvs_flushes++;
}

// A link changed somewhere: everything cached may be stale.
void on_link_change(task *tp, void *arg) {
  auto *nl = static_cast<mnl_socket *>(arg);
  char buf[MNL_SOCKET_BUFFER_SIZE];
  bool any = false;
  for (;;) {
    ssize_t n = recv(mnl_socket_get_fd(nl), buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0 || (n < 0 && errno == ENOBUFS)) {  // an overrun lost changes: flush as well
      any = true;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    break;
  }
  if (!any) return;
  TASK_TRACE(tp, TR_TASK, "%s: link change, %u table ids forgotten", "task_vrf",
             static_cast<unsigned>(state().tables.size()));
  flush(state());
}

}  // namespace

int task_vrf_parse_link(const void *msg, size_t len, task_vrf_link *out) {
  memset(out, 0, sizeof *out);
  auto *nlh = static_cast<const nlmsghdr *>(msg);
  if (!msg || len < sizeof(nlmsghdr) || !mnl_nlmsg_ok(nlh, static_cast<int>(len)) ||
      nlh->nlmsg_type != RTM_NEWLINK || mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg))
    return EINVAL;
  auto *ifi = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(nlh));
  out->tvl_ifindex = ifi->ifi_index;
  nest_walk w;
  memset(w.tb, 0, sizeof w.tb);
  w.max = IFLA_MAX < 64 ? IFLA_MAX : 63;
  mnl_attr_parse(nlh, sizeof(ifinfomsg), keep_attr, &w);
  uint32_t master = 0;
  if (get_u32(w.tb[IFLA_MASTER], &master)) out->tvl_master = static_cast<int32_t>(master);
  if (w.tb[IFLA_LINKINFO] && mnl_attr_validate(w.tb[IFLA_LINKINFO], MNL_TYPE_NESTED) >= 0)
    parse_linkinfo(w.tb[IFLA_LINKINFO], out);
  return 0;
}

uint32_t task_vrf_table(int ifindex) {
  vrf_state &s = state();
  s.stats.tvs_lookups++;
  if (ifindex <= 0) return 0;
  auto it = s.tables.find(ifindex);
  if (it != s.tables.end()) return it->second;
  task_vrf_fetch_fn fetch = s.fetch ? s.fetch : rtnetlink_fetch;
  task_vrf_link l;
  s.stats.tvs_fetches++;
  if (fetch(ifindex, &l) != 0) return 0;
  uint32_t table = 0;
  if (l.tvl_is_vrf) {
    table = l.tvl_table;
  } else if (l.tvl_vrf_port && l.tvl_port_table) {
    table = l.tvl_port_table;
  } else if (l.tvl_master > 0) {
    // Older kernels describe the port without its table: ask the master.
    task_vrf_link m;
    s.stats.tvs_fetches++;
    if (fetch(l.tvl_master, &m) != 0) return 0;
    if (m.tvl_is_vrf) table = m.tvl_table;
  }
  s.tables.emplace(ifindex, table);
  TASK_TRACE(nullptr, TR_TASK, "%s: interface %d in table %u", "task_vrf", ifindex, table);
  return table;
}

uint32_t task_vrf_n_watching;

bool task_vrf_watching(const task *tp) {
  for (const watcher &w : state().watchers)
    if (w.tp == tp) return true;
  return false;
}

int task_vrf_watch(task *tp, bool on) {
  if (!tp) return EINVAL;
  vrf_state &s = state();
  auto it = s.watchers.begin();
  while (it != s.watchers.end() && it->tp != tp) ++it;
  if (!on) {
    if (it == s.watchers.end()) return 0;
    // The hook may already be gone with the task's others; its record stays
    // until the collection job, so the flag is still readable.
    if (it->hook && !it->hook->hook_deleted) task_io_hook_remove(it->hook);
    mnl_socket_close(it->nl);
    s.watchers.erase(it);
    task_vrf_n_watching = static_cast<uint32_t>(s.watchers.size());
    return 0;
  }
  if (it != s.watchers.end()) return 0;
  mnl_socket *nl = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (!nl || mnl_socket_bind(nl, RTMGRP_LINK, MNL_SOCKET_AUTOPID) < 0) {
    int err = errno;
    log_system("rtnetlink");
    if (nl) mnl_socket_close(nl);
    return err;
  }
  task_io_hook *hook = nullptr;
  if (!(task_state & TASKS_TEST)) {
    hook = task_io_hook_add(mnl_socket_get_fd(nl), tp, nl, on_link_change, "link changes");
    if (!hook) {
      mnl_socket_close(nl);
      return EINVAL;
    }
  }
  s.watchers.push_back({tp, nl, hook});
  task_vrf_n_watching = static_cast<uint32_t>(s.watchers.size());
  // What was cached before nobody listened may be stale.
  flush(s);
  return 0;
}

void task_vrf_set_fetch(task_vrf_fetch_fn fn) {
  state().fetch = fn;
  flush(state());
}

task_vrf_stats task_vrf_get_stats(void) { return state().stats; }

void task_vrf_flush(void) { flush(state()); }
