// lfll_*: sorted keyed lists over Boost.Intrusive's circular list
// algorithms, one recursive mutex per list.
#include <boost/intrusive/circular_list_algorithms.hpp>
#include <cstring>
#include <mutex>

#include "containers/lfll.h"
#include "fatal.h"

namespace {

struct lfll_traits {
  using node = lfll_node;
  using node_ptr = lfll_node *;
  using const_node_ptr = const lfll_node *;
  static node_ptr get_next(const_node_ptr n) { return n->lfll_next; }
  static void set_next(node_ptr n, node_ptr next) { n->lfll_next = next; }
  static node_ptr get_previous(const_node_ptr n) { return n->lfll_prev; }
  static void set_previous(node_ptr n, node_ptr prev) { n->lfll_prev = prev; }
};

using algo = boost::intrusive::circular_list_algorithms<lfll_traits>;

// Lock held for the scope; recursive so a walk's callback may delete.
struct locked {
  lfll_list *list;
  explicit locked(lfll_list *l) : list(l) {
    CONT_ASSERT_MSG(l && l->lfll_head.lfll_next, "lfll_list_init(list)");
    pthread_mutex_lock(&l->lfll_lock);
  }
  ~locked() { pthread_mutex_unlock(&list->lfll_lock); }
  locked(const locked &) = delete;
  locked &operator=(const locked &) = delete;
};

// First node whose key is at least key, or the head.
lfll_node *lower_bound(lfll_list *list, uint64_t key) {
  lfll_node *h = &list->lfll_head;
  lfll_node *n = h->lfll_next;
  while (n != h && n->lfll_key < key) n = n->lfll_next;
  return n;
}

}  // namespace

extern "C" {

int lfll_init(void) { return 0; }

void lfll_list_init(lfll_list *list) {
  CONT_ASSERT(list);
  std::memset(list, 0, sizeof *list);
  algo::init_header(&list->lfll_head);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&list->lfll_lock, &attr);
  pthread_mutexattr_destroy(&attr);
}

void lfll_list_destroy(lfll_list *list) {
  CONT_ASSERT(list && list->lfll_count == 0);
  pthread_mutex_destroy(&list->lfll_lock);
  std::memset(list, 0, sizeof *list);
}

bool lfll_list_insert(lfll_list *list, lfll_node *node, uint64_t key) {
  locked l(list);
  CONT_ASSERT(node && !node->lfll_next);
  lfll_node *at = lower_bound(list, key);
  if (at != &list->lfll_head && at->lfll_key == key) return false;
  node->lfll_key = key;
  algo::link_before(at, node);
  list->lfll_count++;
  return true;
}

bool lfll_list_delete(lfll_list *list, lfll_node *node) {
  locked l(list);
  CONT_ASSERT(node);
  if (!node->lfll_next || lower_bound(list, node->lfll_key) != node) return false;
  algo::unlink(node);
  node->lfll_next = node->lfll_prev = nullptr;
  list->lfll_count--;
  return true;
}

lfll_node *lfll_list_lookup(lfll_list *list, uint64_t key) {
  locked l(list);
  lfll_node *n = lower_bound(list, key);
  return n != &list->lfll_head && n->lfll_key == key ? n : nullptr;
}

lfll_node *lfll_walk(lfll_list *list, lfll_match_fn match, void *arg) {
  locked l(list);
  lfll_node *h = &list->lfll_head;
  for (lfll_node *n = h->lfll_next, *next; n != h; n = next) {
    next = n->lfll_next;  // the callback may delete n
    if (match(n, arg)) return n;
  }
  return nullptr;
}

uint32_t lfll_list_count(lfll_list *list) {
  locked l(list);
  return list->lfll_count;
}

bool lfll_list_verify(lfll_list *list) {
  locked l(list);
  lfll_node *h = &list->lfll_head;
  uint32_t count = 0;
  for (lfll_node *n = h->lfll_next; n != h; n = n->lfll_next) {
    if (!n->lfll_next || n->lfll_next->lfll_prev != n) return false;
    if (n->lfll_prev != h && n->lfll_prev->lfll_key >= n->lfll_key) return false;
    if (++count > list->lfll_count) return false;
  }
  return h->lfll_prev->lfll_next == h && count == list->lfll_count;
}

}  // extern "C"
