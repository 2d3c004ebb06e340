// The timer tree: set-and-carry, relink, stop, attach, spread.
#include <time.h>

#include <boost/intrusive/rbtree_algorithms.hpp>
#include <cstddef>
#include <cstring>
#include <initializer_list>

#include "htimer/htimer.h"

// Declared as glibc's assert.h does (which skips it under NDEBUG), so that
// either compiler takes the two declarations as one.
extern "C" void __assert_fail(const char *assertion, const char *file, unsigned int line,
                              const char *function) noexcept __attribute__((__noreturn__));

#define HT_ASSERT(cond) ((cond) ? (void)0 : __assert_fail(#cond, "hier_timers.cc", __LINE__, __func__))

namespace {

void monotonic_now(const htimer *, task_utime *out) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  *out = task_utime{static_cast<uint32_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec / 1000)};
}
void no_jitter(const htimer *, const task_utime *, uint32_t, task_utime *reduction) {
  *reduction = task_utime{0, 0};
}

constexpr hier_timers_link_personality kDefault = {monotonic_now, no_jitter};

inline const hier_timers_link_personality *clock_of(const htimer *root) {
  return root->ht_clock ? root->ht_clock : &kDefault;
}

// "now" on the clock of the tree that holds node.
inline task_utime now(const htimer *node) {
  const htimer *root = htimer_root(node);
  task_utime t;
  clock_of(root)->now(root, &t);
  return t;
}

// base + interval, brought forward by the jitter of node's tree.
task_utime jittered(const htimer *node, const task_utime &base, const task_utime *interval, uint32_t jitter) {
  task_utime e = task_utime_add(base, *interval);
  if (jitter) {
    const htimer *root = htimer_root(node);
    task_utime r;
    clock_of(root)->jitter(root, interval, jitter, &r);
    e = task_utime_sub(e, r);
  }
  return e;
}

// The order index: Boost.Intrusive's red-black algorithms over the ht_order
// links. Its order is the list's order: nodes go in by position (before their
// list successor), never by key, so equal expiries stay in arrival order and
// the two can never disagree.
struct order_traits {
  using node = htimer_order;
  using node_ptr = htimer_order *;
  using const_node_ptr = const htimer_order *;
  using color = uintptr_t;
  static node_ptr get_parent(const_node_ptr n) { return reinterpret_cast<node_ptr>(n->ho_parent & ~uintptr_t{1}); }
  static void set_parent(node_ptr n, node_ptr p) {
    n->ho_parent = reinterpret_cast<uintptr_t>(p) | (n->ho_parent & 1);
  }
  static node_ptr get_left(const_node_ptr n) { return n->ho_left; }
  static void set_left(node_ptr n, node_ptr l) { n->ho_left = l; }
  static node_ptr get_right(const_node_ptr n) { return n->ho_right; }
  static void set_right(node_ptr n, node_ptr r) { n->ho_right = r; }
  static color get_color(const_node_ptr n) { return n->ho_parent & 1; }
  static void set_color(node_ptr n, color c) { n->ho_parent = (n->ho_parent & ~uintptr_t{1}) | c; }
  static color black() { return 0; }
  static color red() { return 1; }
};
using order_tree = boost::intrusive::rbtree_algorithms<order_traits>;

inline htimer *of_order(const htimer_order *o) {
  return reinterpret_cast<htimer *>(reinterpret_cast<uintptr_t>(o) - offsetof(htimer, ht_order));
}
inline bool indexed(const htimer *p) { return p->ht_flags & HTIMER_INDEXED; }

// The parent keeps only the index's root. The head the algorithms work on
// (root, leftmost, rightmost) is made for each operation: the list's first
// and last children are the index's extremes, as long as the operation runs
// before the list changes. The root's parent link points at the latest head.
class index_head {
 public:
  explicit index_head(htimer *p) : p_(p) {
    head_.ho_left = &p->ht_first->ht_order;
    head_.ho_right = &p->ht_first->ht_prev->ht_order;
    head_.ho_parent = reinterpret_cast<uintptr_t>(p->ht_index_root) | order_traits::red();
    order_traits::set_parent(p->ht_index_root, &head_);
  }
  ~index_head() { p_->ht_index_root = order_traits::get_parent(&head_); }
  index_head(const index_head &) = delete;
  index_head &operator=(const index_head &) = delete;
  htimer_order *get() { return &head_; }

 private:
  htimer *p_;
  htimer_order head_;
};

// Indexes a parent's list as it stands: once, on the first long walk.
[[gnu::noinline]] void build_index(htimer *p) {
  htimer_order head;
  order_tree::init_header(&head);
  htimer *c = p->ht_first;
  do {
    order_tree::push_back(&head, &c->ht_order);
    c = c->ht_next;
  } while (c != p->ht_first);
  p->ht_index_root = order_traits::get_parent(&head);
  p->ht_flags |= HTIMER_INDEXED;
}

// Enters n into p's index before pos (null: at the end), ahead of its list link.
[[gnu::noinline]] void index_insert(htimer *p, htimer *pos, htimer *n) {
  index_head head(p);
  order_tree::insert_before(head.get(), pos ? &pos->ht_order : head.get(), &n->ht_order);
}

inline void link_only_child(htimer *p, htimer *n) {
  p->ht_first = n;
  n->ht_next = n->ht_prev = n;
  p->ht_children = 1;
}

inline void link_after(htimer *p, htimer *at, htimer *n) {
  if (indexed(p)) index_insert(p, at->ht_next == p->ht_first ? nullptr : at->ht_next, n);
  n->ht_prev = at;
  n->ht_next = at->ht_next;
  at->ht_next->ht_prev = n;
  at->ht_next = n;
  p->ht_children++;
}

inline void link_first(htimer *p, htimer *n) {
  htimer *old = p->ht_first;
  if (indexed(p)) index_insert(p, old, n);
  n->ht_prev = old->ht_prev;
  n->ht_next = old;
  old->ht_prev->ht_next = n;
  old->ht_prev = n;
  p->ht_first = n;
  p->ht_children++;
}

// Takes n out of p's index, ahead of its list unlink; a parent that shrinks
// back to a short list drops its index instead.
[[gnu::noinline]] void index_erase(htimer *p, htimer *n) {
  if (p->ht_children <= HTIMER_INDEX_DROP) {
    p->ht_flags &= ~HTIMER_INDEXED;
    p->ht_index_root = nullptr;
    return;
  }
  index_head head(p);
  order_tree::erase(head.get(), &n->ht_order);
}

// Takes a running node out of its parent's list; returns whether it was first.
inline bool unlink(htimer *n) {
  htimer *p = n->ht_parent;
  if (!p || !n->ht_next) return false;
  bool first = p->ht_first == n;
  if (indexed(p)) index_erase(p, n);
  p->ht_children--;
  if (n->ht_next == n) {
    p->ht_first = nullptr;
  } else {
    n->ht_prev->ht_next = n->ht_next;
    n->ht_next->ht_prev = n->ht_prev;
    if (first) p->ht_first = n->ht_next;
  }
  n->ht_next = n->ht_prev = nullptr;
  return first;
}

struct expiry_before_node {
  bool operator()(const task_utime &e, const htimer_order *o) const { return task_utime_lt(e, of_order(o)->ht_expiry); }
};

// place() for an e before the last child: a short walk back, or the index
// once a walk has gone far.
[[gnu::noinline]] htimer *place_before_last(htimer *p, const task_utime &e) {
  htimer *first = p->ht_first, *cur = first->ht_prev;
  if (!indexed(p)) {
    for (int steps = 0; steps < HTIMER_INDEX_WALK; steps++) {
      if (cur == first) return nullptr;
      cur = cur->ht_prev;
      if (!task_utime_lt(e, cur->ht_expiry)) return cur;
    }
    build_index(p);
  }
  index_head head(p);
  htimer_order *after = order_tree::upper_bound(head.get(), e, expiry_before_node());
  htimer *succ = of_order(after);  // never the head: e is before the last child
  return succ == first ? nullptr : succ->ht_prev;
}
// The last running child whose expiry is not later than e, or null when e
// goes first. From the back, since new expiries are usually the latest.
inline htimer *place(htimer *p, const task_utime &e) {
  htimer *last = p->ht_first->ht_prev;
  return !task_utime_lt(e, last->ht_expiry) ? last : place_before_last(p, e);
}

// Puts n at its place in its parent's list; returns whether the parent's
// first child changed.
bool relink(htimer *n, const task_utime &old, bool was_running) {
  htimer *p = n->ht_parent;
  bool was_first = false;
  if (was_running && n->ht_next) {
    if (task_utime_eq(n->ht_expiry, old)) return false;
    bool first = p->ht_first == n;
    bool must_move = !first && task_utime_lt(n->ht_expiry, n->ht_prev->ht_expiry);
    if (!must_move) {
      htimer *next = n->ht_next;
      if (next == p->ht_first || !task_utime_lt(next->ht_expiry, n->ht_expiry)) return first;
    }
    was_first = unlink(n);
  }
  if (!p->ht_first) {
    link_only_child(p, n);
    return true;
  }
  if (htimer *at = place(p, n->ht_expiry)) {
    link_after(p, at, n);
    return was_first;
  }
  link_first(p, n);
  return true;
}

// Stores a node's expiry and carries a changed minimum up the tree.
void set_and_carry(htimer *n, task_utime expiry) {
  task_utime old = n->ht_expiry;
  bool was = htimer_running(n);
  n->ht_flags |= HTIMER_RUNNING;
  n->ht_expiry = expiry;
  while (n->ht_parent) {
    if (!relink(n, old, was)) return;
    htimer *timer = n->ht_parent;
    HT_ASSERT(!htimer_is_leaf(timer) && htimer_initialized(timer));
    old = timer->ht_expiry;
    was = htimer_running(timer);
    timer->ht_flags |= HTIMER_RUNNING;
    timer->ht_expiry = timer->ht_first->ht_expiry;
    n = timer;
  }
}

// After a child left p's list: a parent left empty stops and leaves its own
// parent in turn; a new first child carries its expiry upward.
void after_unlink(htimer *p, bool was_first) {
  while (p) {
    if (p->ht_first) {
      if (was_first) set_and_carry(p, p->ht_first->ht_expiry);
      return;
    }
    htimer *up = p->ht_parent;
    was_first = unlink(p);
    p->ht_flags &= ~HTIMER_RUNNING;
    p = up;
  }
}

void stop_leaf(htimer *n) {
  bool first = unlink(n);
  n->ht_flags &= ~HTIMER_RUNNING;
  after_unlink(n->ht_parent, first);
}

void init_node(htimer *timer, htimer *parent, uint16_t user, uint8_t flags) {
  if (htimer_initialized(timer)) HT_ASSERT(!htimer_running(timer));
  if (parent) HT_ASSERT(htimer_initialized(parent) && !htimer_is_leaf(parent));
  memset(timer, 0, sizeof *timer);
  timer->ht_parent = parent;
  timer->ht_user = user;
  timer->ht_magic = HTIMER_MAGIC;
  timer->ht_flags = flags;
}

// Black height of a red-black subtree, or -1 on a broken link, a red node
// with a red child or unequal black heights.
int black_height(const htimer_order *o, const htimer_order *parent) {
  if (!o) return 1;
  if (order_traits::get_parent(o) != parent) return -1;
  bool red = order_traits::get_color(o) == order_traits::red();
  for (const htimer_order *c : {o->ho_left, o->ho_right})
    if (red && c && order_traits::get_color(c) == order_traits::red()) return -1;
  int l = black_height(o->ho_left, o), r = black_height(o->ho_right, o);
  if (l < 0 || l != r) return -1;
  return l + !red;
}

}  // namespace

extern "C" {

void htimer_set_personality(htimer *root, const hier_timers_link_personality *p) {
  HT_ASSERT(root->ht_parent == NULL);
  root->ht_clock = p;
}

const hier_timers_link_personality *htimer_personality(const htimer *node) { return clock_of(htimer_root(node)); }

void htimer_init_parent(htimer *node, htimer *parent, uint16_t user) { init_node(node, parent, user, 0); }
void htimer_init_leaf(htimer *node, htimer *parent, uint16_t user) { init_node(node, parent, user, HTIMER_LEAF); }

void htimer_set_abs(htimer *timer, const task_utime *expiry) {
  HT_ASSERT(htimer_initialized(timer));
  HT_ASSERT(htimer_is_leaf(timer));
  set_and_carry(timer, *expiry);
}

void htimer_set_rel(htimer *leaf, const task_utime *interval, uint32_t jitter) {
  task_utime e = jittered(leaf, now(leaf), interval, jitter);
  htimer_set_abs(leaf, &e);
}

void htimer_set_periodic(htimer *leaf, const task_utime *interval, uint32_t jitter) {
  task_utime base = htimer_running(leaf) ? leaf->ht_expiry : now(leaf);
  task_utime e = jittered(leaf, base, interval, jitter);
  htimer_set_abs(leaf, &e);
}

void htimer_set_latest(htimer *timer, const task_utime *interval, uint32_t jitter, const task_utime *gap,
                       bool from_latest) {
  HT_ASSERT(timer->ht_parent);
  task_utime t = now(timer);
  task_utime e = jittered(timer, t, interval, jitter);
  if (htimer *first = timer->ht_parent->ht_first) {
    const task_utime &l = first->ht_prev->ht_expiry;
    if (task_utime_lt(e, l)) {
      task_utime e0 = task_utime_add(t, *interval);
      e = !from_latest && !task_utime_lt(e0, l) ? e0 : task_utime_add(l, *gap);
    }
  }
  htimer_set_abs(timer, &e);
}

void htimer_stop(htimer *node) {
  if (!htimer_running(node)) return;
  if (htimer_is_leaf(node)) {
    stop_leaf(node);
    return;
  }
  // The leftmost deepest running node, until the parent itself has stopped.
  while (htimer_running(node)) {
    htimer *cur = node;
    while (cur->ht_first) cur = cur->ht_first;
    if (cur == node) {  // a running parent without children: only its own bit
      node->ht_flags &= ~HTIMER_RUNNING;
      after_unlink(node->ht_parent, unlink(node));
      break;
    }
    stop_leaf(cur);
  }
}

void htimer_attach(htimer *root, htimer *parent) {
  HT_ASSERT(root->ht_parent == NULL);
  HT_ASSERT(!htimer_is_leaf(parent) && htimer_initialized(parent));
  root->ht_parent = parent;
  if (!htimer_running(root)) return;
  if (relink(root, root->ht_expiry, false)) set_and_carry(parent, parent->ht_first->ht_expiry);
}

void htimer_detach(htimer *node) {
  htimer *p = node->ht_parent;
  if (!p) return;
  const hier_timers_link_personality *clock = htimer_root(p)->ht_clock;
  if (htimer_running(node)) after_unlink(p, unlink(node));
  node->ht_parent = nullptr;
  node->ht_order = htimer_order{};
  node->ht_clock = clock;
}

void htimer_spread(htimer *parent) {
  htimer *c = parent->ht_first;
  if (!c) return;
  unsigned n = 0;
  htimer *cur_timer = c;
  do {
    HT_ASSERT(htimer_is_leaf(cur_timer));
    n++;
    cur_timer = cur_timer->ht_next;
  } while (cur_timer != c);
  if (n < 3) return;
  const task_utime last = c->ht_prev->ht_expiry;
  task_utime t = now(parent);
  while (n > 1) {
    task_utime w = task_utime_div(task_utime_sub(last, t), n);
    task_utime p = task_utime_add(t, w);
    if (task_utime_lt(c->ht_expiry, p)) {
      p = c->ht_expiry;
      w = task_utime_div(task_utime_sub(last, p), n - 1);
    }
    if (task_utime_zero(&w)) break;
    // Moves only ever bring a timer earlier, so the order holds.
    while (!task_utime_lt(c->ht_expiry, p)) {
      c->ht_expiry = p;
      p = task_utime_add(p, w);
      c = c->ht_next;
      if (--n < 2) goto done;
    }
    t = c->ht_expiry;
  }
done:
  set_and_carry(parent, parent->ht_first->ht_expiry);
}

bool htimer_expired(const htimer *node) {
  return htimer_running(node) && !task_utime_lt(now(node), node->ht_expiry);
}

void htimer_time_left(const htimer *node, task_utime *left) {
  *left = htimer_running(node) ? task_utime_sub(node->ht_expiry, now(node)) : task_utime{0, 0};
}

bool htimer_verify(const htimer *p) {
  uint32_t n = 0;
  if (const htimer *first = p->ht_first) {
    const htimer *c = first;
    do {
      if (c->ht_parent != p || c->ht_next->ht_prev != c || !htimer_running(c)) return false;
      if (c->ht_next != first && task_utime_lt(c->ht_next->ht_expiry, c->ht_expiry)) return false;
      c = c->ht_next;
    } while (++n <= p->ht_children && c != first);
  }
  if (n != p->ht_children) return false;
  if (!indexed(p)) return true;
  // Only the root's link to the head is written, and that link is scratch.
  index_head head(const_cast<htimer *>(p));
  const htimer_order *root = p->ht_index_root;
  if (!root || order_traits::get_color(root) != order_traits::black() || black_height(root, head.get()) < 0)
    return false;
  const htimer_order *low = root, *high = root;  // the extremes by the tree's own links
  while (low->ho_left) low = low->ho_left;
  while (high->ho_right) high = high->ho_right;
  if (low != head.get()->ho_left || high != head.get()->ho_right) return false;
  htimer_order *o = order_tree::begin_node(head.get());
  const htimer *c = p->ht_first;
  for (uint32_t i = 0; i < n; i++, c = c->ht_next) {
    if (o == head.get() || of_order(o) != c) return false;
    o = order_tree::next_node(o);
  }
  return o == head.get();
}

htimer *htimer_next_expired(htimer *root) {
  task_utime t = now(root);
  return htimer_next_expired_at(root, &t);
}

htimer *htimer_next_expired_at(htimer *root, const task_utime *now) {
  if (!htimer_running(root) || task_utime_lt(*now, root->ht_expiry)) return nullptr;
  htimer *cur_timer = root;
  while (!htimer_is_leaf(cur_timer)) {
    cur_timer = cur_timer->ht_first;
    HT_ASSERT(cur_timer != NULL);
  }
  return cur_timer;
}

}  // extern "C"
