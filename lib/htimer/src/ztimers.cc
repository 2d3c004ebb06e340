// The stand-alone timer set: records, auto parents and the dispatcher.
#include "htimer/ztimers.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "platform/grand.h"

// This library's own assertion, independent of the task kernel's.
extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file, unsigned int line,
                                           const char *function) noexcept;
#define ZT_ASSERT_TEXT(cond, text) ((cond) ? (void)0 : __assert_fail((text), "ztimers.cc", __LINE__, __func__))
#define ZT_ASSERT(cond) ZT_ASSERT_TEXT(cond, #cond)

namespace {

// The set's tree runs on the set's clock: the personality finds the set
// from the root it is given.
inline ztimer_set *set_of(const htimer *root) {
  return reinterpret_cast<ztimer_set *>(reinterpret_cast<uintptr_t>(root) - offsetof(ztimer_set, zs_root));
}
void set_now(const htimer *root, task_utime *out) {
  ztimer_set *set = set_of(root);
  set->zs_clock(set->zs_clock_arg, out);
}

// Jitter in percent of the interval, at most 50, drawn in microseconds.
void set_jitter(const htimer *, const task_utime *interval, uint32_t jitter, task_utime *r) {
  uint64_t span = task_utime_to_usec(*interval) * (jitter > 50 ? 50 : jitter) / 100;
  *r = task_utime_from_usec(span ? grand(span > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(span)) : 0);
}

constexpr hier_timers_link_personality kSetPersonality = {set_now, set_jitter};

void make_key(uint8_t key[12], const task_utime *interval, uint8_t jitter) {
  uint32_t words[3] = {interval->ut_sec, interval->ut_usec, jitter};
  memcpy(key, words, sizeof words);
}

void release_autoparent(ztimer *t) {
  ztimer_auto_parent *ap = t->zt_auto;
  if (!ap) return;
  ZT_ASSERT_TEXT(ap->zap_count > 0, "refcount is zero");
  t->zt_auto = nullptr;
  if (--ap->zap_count) return;
  htimer_stop(&ap->zap_node);
  patricia_delete(&t->zt_set->zs_autoparents, &ap->zap_pnode);
  free(ap);
}

void free_timer(ztimer *t) {
  htimer_stop(&t->zt_node);
  release_autoparent(t);
  t->zt_node.ht_magic = 0;
  free(t);
}

}  // namespace

extern "C" {

ztimer_set *ztimer_set_create(ztimer_clock clock, void *clock_arg) {
  ZT_ASSERT(clock != nullptr);
  auto *set = static_cast<ztimer_set *>(calloc(1, sizeof(ztimer_set)));
  ZT_ASSERT(set != nullptr);
  htimer_init_parent(&set->zs_root, nullptr, 0);
  htimer_set_personality(&set->zs_root, &kSetPersonality);
  patricia_root_init(&set->zs_autoparents, false, sizeof(ztimer_auto_parent::zap_key),
                     PATRICIA_KEY_OFFSET(ztimer_auto_parent, zap_pnode, zap_key));
  set->zs_clock = clock;
  set->zs_clock_arg = clock_arg;
  return set;
}

void ztimer_set_destroy(ztimer_set *set) {
  ZT_ASSERT(!htimer_running(&set->zs_root));
  ZT_ASSERT(patricia_isempty(&set->zs_autoparents));
  patricia_root_delete(&set->zs_autoparents);
  free(set);
}

ztimer *ztimer_create(ztimer_set *set, ztimer *parent, bool is_leaf, ztimer_method method, void *data) {
  if (parent) ZT_ASSERT(parent->zt_set == set && !htimer_is_leaf(&parent->zt_node));
  auto *t = static_cast<ztimer *>(calloc(1, sizeof(ztimer)));
  ZT_ASSERT(t != nullptr);
  htimer *p = parent ? &parent->zt_node : &set->zs_root;
  if (is_leaf)
    htimer_init_leaf(&t->zt_node, p, 0);
  else
    htimer_init_parent(&t->zt_node, p, 0);
  t->zt_set = set;
  t->zt_method = method;
  t->zt_data = data;
  t->zt_flags = ZTIMER_STOPPED;
  return t;
}

void ztimer_delete(ztimer *t) {
  if (t->zt_flags & ZTIMER_RUNNING) {
    t->zt_flags |= ZTIMER_DELETE;
    return;
  }
  free_timer(t);
}

void ztimer_start(ztimer *t, const task_utime *interval, uint8_t jitter, bool repeat) {
  t->zt_interval = *interval;
  t->zt_jitter = jitter;
  t->zt_flags = static_cast<uint8_t>((t->zt_flags & ~(ZTIMER_STOPPED | ZTIMER_REPEAT)) | (repeat ? ZTIMER_REPEAT : 0));
  htimer_set_rel(&t->zt_node, interval, jitter);
}

void ztimer_stop(ztimer *t) {
  htimer_stop(&t->zt_node);
  t->zt_flags |= ZTIMER_STOPPED;
}

void ztimer_autoparent(ztimer *t, const task_utime *interval, uint8_t jitter, bool repeat) {
  ZT_ASSERT_TEXT(htimer_is_leaf(&t->zt_node), "autoparenting non-leaf timer");
  ztimer_set *set = t->zt_set;
  uint8_t key[12];
  make_key(key, interval, jitter);
  ztimer_auto_parent *ap = nullptr;
  if (patricia_node *n = patricia_get(&set->zs_autoparents, 0, key))
    ap = PATRICIA_ENTRY(n, ztimer_auto_parent, zap_pnode);
  if (!ap) {
    ap = static_cast<ztimer_auto_parent *>(calloc(1, sizeof(ztimer_auto_parent)));
    ZT_ASSERT(ap != nullptr);
    htimer_init_parent(&ap->zap_node, &set->zs_root, 0);
    memcpy(ap->zap_key, key, sizeof key);
    patricia_add(&set->zs_autoparents, &ap->zap_pnode);
  }
  if (t->zt_auto != ap) {
    // A timer moves by stop and re-initialise under its new parent.
    htimer_stop(&t->zt_node);
    release_autoparent(t);
    htimer_init_leaf(&t->zt_node, &ap->zap_node, 0);
    t->zt_auto = ap;
    ap->zap_count++;
  }
  t->zt_interval = *interval;
  t->zt_jitter = jitter;
  t->zt_flags = static_cast<uint8_t>((t->zt_flags & ~(ZTIMER_STOPPED | ZTIMER_REPEAT)) | (repeat ? ZTIMER_REPEAT : 0));
  static constexpr task_utime kGap = {0, 1};
  // Like timers keep their set order: each queues behind those already set.
  htimer_set_latest(&t->zt_node, interval, jitter, &kGap, false);
}

int ztimer_dispatch(ztimer_set *set) {
  int ran = 0;
  while (ran < ZTIMERS_BATCH) {
    htimer *n = htimer_next_expired(&set->zs_root);
    if (!n) break;
    auto *t = reinterpret_cast<ztimer *>(n);
    const task_utime before = n->ht_expiry;
    t->zt_flags |= ZTIMER_RUNNING;
    if (t->zt_method) t->zt_method(t, t->zt_data);
    t->zt_flags &= ~ZTIMER_RUNNING;
    ran++;
    if (t->zt_flags & ZTIMER_DELETE) {
      free_timer(t);
      continue;
    }
    // A method that stopped or re-set its timer has the last word.
    if ((t->zt_flags & ZTIMER_STOPPED) || !htimer_running(n) || !task_utime_eq(n->ht_expiry, before)) continue;
    if (t->zt_flags & ZTIMER_REPEAT) {
      // From its own expiry, so the phase holds; one that fell behind skips
      // the missed firings by division rather than firing for each.
      task_utime now;
      set->zs_clock(set->zs_clock_arg, &now);
      uint64_t iv = task_utime_to_usec(t->zt_interval), at = task_utime_to_usec(before), nw = task_utime_to_usec(now);
      if (iv && nw >= at + iv) {
        uint64_t skip = (nw - at) / iv;
        task_utime base = task_utime_from_usec(at + skip * iv);
        htimer_set_abs(n, &base);
      }
      htimer_set_periodic(n, &t->zt_interval, t->zt_jitter);
    } else {
      htimer_stop(n);
      t->zt_flags |= ZTIMER_STOPPED;
    }
  }
  return ran;
}

bool ztimer_next(ztimer_set *set, task_utime *left) {
  if (!htimer_running(&set->zs_root)) {
    *left = task_utime{0, 0};
    return false;
  }
  htimer_time_left(&set->zs_root, left);
  return true;
}

}  // extern "C"
