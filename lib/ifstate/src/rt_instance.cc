// Routing instances: the two trees, the rttable handler and its scans.
#include "ifstate/rt_instance.h"

#include <cstdio>
#include <cstring>

#include "ifstate_internal.h"
#include "krt/krt_scan.h"
#include "mem/block.h"

namespace {

task_block *rti_block;
uint32_t rti_slots;
hbt_root rt_instance_list;
patricia_root rt_instance_name_tree;
uint32_t rti_count;
bool (*rti_filter)(const void *);

int rt_instance_cmp(const hbt_node *a, const hbt_node *b) {
  const rt_instance *x = HBT_ENTRY(a, rt_instance, rti_hnode), *y = HBT_ENTRY(b, rt_instance, rti_hnode);
  if (x->rti_af != y->rti_af) return int(x->rti_af) - int(y->rti_af);
  return int(x->rti_id) - int(y->rti_id);
}

// A direct-mapped cache of lookups in front of the tree: a daemon asks for
// the same few tables again and again, and a hit costs one compare instead
// of a walk of the tree. An entry never points at a freed instance.
constexpr uint32_t kCacheSize = 4096;
rt_instance *cache[kCacheSize];
uint32_t cache_slot(uint8_t af, uint16_t id) { return (id * 2654435761u + af * 40503u) >> 20 & (kCacheSize - 1); }

rt_instance *entry(hbt_node *n) { return n ? HBT_ENTRY(n, rt_instance, rti_hnode) : nullptr; }

rt_instance *create(uint8_t af, uint16_t id, const char *name) {
  rt_instance_init();
  auto *rti = static_cast<rt_instance *>(task_block_alloc(rti_block));
  rti->rti_af = af;
  rti->rti_id = id;
  snprintf(rti->rti_name, sizeof rti->rti_name, "%s&AF=%d", name ? name : "", int(af));
  task_assert(hbt_insert(&rt_instance_list, &rti->rti_hnode, rt_instance_cmp));
  patricia_node_init_length(&rti->rti_pnode, static_cast<uint16_t>(strlen(rti->rti_name) + 1));
  task_assert(patricia_add(&rt_instance_name_tree, &rti->rti_pnode));
  rti_count++;
  return rti;
}

}  // namespace

void rt_instance_slots_declare(uint32_t count) {
  if (!rti_block) rti_slots = count;
}

void rt_instance_init(void) {
  if (rti_block) return;
  rti_block = task_block_init(sizeof(rt_instance) + rti_slots * sizeof(uintptr_t), "rt_instance");
  patricia_root_init(&rt_instance_name_tree, false, 0, PATRICIA_KEY_OFFSET(rt_instance, rti_pnode, rti_name));
}

void rt_instance_reset(void) {
  while (rt_instance *rti = rt_instance_first()) rt_instance_delete(rti);
}

rt_instance *rt_instance_first(void) { return entry(hbt_iterate_next(&rt_instance_list, nullptr)); }
rt_instance *rt_instance_next(const rt_instance *rti) {
  return entry(hbt_iterate_next(&rt_instance_list, &rti->rti_hnode));
}
uint32_t rt_instance_count(void) { return rti_count; }

rt_instance *rt_instance_find(uint8_t af, uint16_t id) {
  rt_instance *&c = cache[cache_slot(af, id)];
  if (c && c->rti_af == af && c->rti_id == id) return c;
  rt_instance probe;
  probe.rti_af = af;
  probe.rti_id = id;
  rt_instance *r = entry(hbt_lookup(&rt_instance_list, &probe.rti_hnode, rt_instance_cmp));
  if (r) c = r;
  return r;
}

rt_instance *rt_instance_find_by_id(uint16_t id) {
  // From (family, id), the next key is either this id or a later family.
  rt_instance probe;
  probe.rti_af = 0;
  probe.rti_id = id;
  for (;;) {
    rt_instance *r = entry(hbt_lookup(&rt_instance_list, &probe.rti_hnode, rt_instance_cmp));
    if (!r) r = entry(hbt_getnext(&rt_instance_list, &probe.rti_hnode, rt_instance_cmp));
    if (!r) return nullptr;
    if (r->rti_id == id) return r;
    if (r->rti_af == probe.rti_af) {
      if (probe.rti_af == 0xff) return nullptr;
      probe.rti_af++;
    } else {
      probe.rti_af = r->rti_af;
    }
  }
}

rt_instance *rt_instance_find_by_name(const char *name) {
  if (!rti_block || !name) return nullptr;
  size_t n = strlen(name) + 1;
  if (n > RT_INSTANCE_NAME_SIZE) return nullptr;
  patricia_node *p = patricia_get(&rt_instance_name_tree, static_cast<uint16_t>(n), name);
  return p ? PATRICIA_ENTRY(p, rt_instance, rti_pnode) : nullptr;
}

uintptr_t rt_instance_slot_get(const rt_instance *rti, uint32_t slot) {
  return slot < rti_slots ? rti->rti_slots[slot] : 0;
}
void rt_instance_slot_set(rt_instance *rti, uint32_t slot, uintptr_t word) {
  if (slot < rti_slots) rti->rti_slots[slot] = word;
}

void rt_instance_filter_set(bool (*fn)(const void *)) { rti_filter = fn; }

void rt_instance_delete(rt_instance *rti) {
  rt_instance *&c = cache[cache_slot(rti->rti_af, rti->rti_id)];
  if (c == rti) c = nullptr;
  hbt_delete(&rt_instance_list, &rti->rti_hnode);
  patricia_delete(&rt_instance_name_tree, &rti->rti_pnode);
  rti_count--;
  task_block_free(rti_block, rti);
}

int rt_instance_rtsock_handler(void *message, uint32_t) {
  auto *m = static_cast<rts_rtb_msg *>(message);
  if (rti_filter && rti_filter(m)) return 1;
  rt_instance *rti = rt_instance_find(m->rtbm_af, m->rtbm_index);
  if (rti) rti->rti_flags = 0;
  if (m->hdr.operation == RTS_OP_DELETE) {
    if (!rti) return 1;
    rti->rti_flags |= RTI_DELETE;
  } else if (!rti) {
    // Another table of the family under this name: the kernel never says so,
    // a peer's admin can; ignored rather than a fault of the daemon.
    char name[RT_INSTANCE_NAME_SIZE];
    snprintf(name, sizeof name, "%s&AF=%d", m->rtbm_name ? m->rtbm_name : "", int(m->rtbm_af));
    if (rt_instance *other = rt_instance_find_by_name(name)) {
      IF_TRACE("rttable msg: %s is held by table %d, table %d ignored", name, int(other->rti_id), int(m->rtbm_index));
      return 1;
    }
    rti = create(m->rtbm_af, m->rtbm_index, m->rtbm_name);
    rti->rti_flags = RTI_NEW;
    rti->rti_attr = m->rtbm_attr;
  }
  if (rti->rti_attr != m->rtbm_attr && !(rti->rti_flags & RTI_DELETE)) {
    rti->rti_attr = m->rtbm_attr;
    rti->rti_flags |= RTI_CHANGED;
  }
  IF_TRACE("rttable msg: %s for %s flags: %x", rts_op_name(m->hdr.operation), rti->rti_name, rti->rti_flags);
  task_rttchange(rti);
  if (rti->rti_flags & RTI_DELETE) rt_instance_delete(rti);
  return 1;
}

void rt_instance_krt_handler(task *, void *message, uint32_t length) {
  rt_instance_rtsock_handler(message, length);
}

// ---- Scans -------------------------------------------------------------------------------------
namespace {

// The builder's cursor, and whether a reply moved it yet (the first get asks
// for index 0 itself).
struct RttCursor {
  krt_cursor_rtb rtb;
  uint8_t seen;
};

template <uint8_t AF>
int rtt_reply(void *m, uint32_t len, krt_scan_state *st) {
  auto *r = static_cast<rts_rtb_msg *>(m);
  if (r->hdr.type != RTS_T_RTTABLE || !krt_scan_version_ok(r) || r->rtbm_af != AF) return 0;
  auto *c = reinterpret_cast<RttCursor *>(st->priv);
  if (c->seen && r->rtbm_index <= c->rtb.index) return 0;
  c->rtb.index = r->rtbm_index;
  c->seen = 1;
  rt_instance_rtsock_handler(r, len);
  return c->rtb.index != RTS_RTB_INDEX_BY_NAME;
}

const krt_scan kScans[RT_INSTANCE_SCAN_COUNT] = {
    {RTS_T_RTTABLE, 1, sizeof(RttCursor), 1, nullptr, nullptr, nullptr, krt_scan_req_rttable_inet,
     rtt_reply<RTS_AF_INET>, nullptr},
    {RTS_T_RTTABLE, 1, sizeof(RttCursor), 1, nullptr, nullptr, nullptr, krt_scan_req_rttable_inet6,
     rtt_reply<RTS_AF_INET6>, nullptr},
};

}  // namespace

const krt_scan *rt_instance_scan_list(void) { return kScans; }
