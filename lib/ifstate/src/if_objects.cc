// Interface objects: pools, trees, lookups, creation and freeing.
#include <cstdio>
#include <cstring>

#include "ifstate/ifobj.h"
#include "ifstate_internal.h"
#include "mem/block.h"

namespace {

struct Pools {
  task_block *ifd, *ifl, *iff, *ifa, *vtep, *mac;
  uint32_t ifd_slots, ifl_slots;
  bool ready;
};
Pools pools;

hbt_root ifd_list, if_link_list;
patricia_root ifd_name_tree, ifl_name_tree;
uint32_t n_ifd, n_ifl;

int ifd_cmp(const hbt_node *a, const hbt_node *b) {
  return int(HBT_ENTRY(a, if_device, ifd_hnode)->ifd_index) - int(HBT_ENTRY(b, if_device, ifd_hnode)->ifd_index);
}
int ifl_cmp(const hbt_node *a, const hbt_node *b) {
  uint32_t x = HBT_ENTRY(a, if_link, ifl_hnode)->ifl_index, y = HBT_ENTRY(b, if_link, ifl_hnode)->ifl_index;
  return x < y ? -1 : x > y;
}
int ifl_unit_cmp(const hbt_node *a, const hbt_node *b) {
  uint32_t x = HBT_ENTRY(a, if_link, ifl_dnode)->ifl_unit, y = HBT_ENTRY(b, if_link, ifl_dnode)->ifl_unit;
  return x < y ? -1 : x > y;
}
int if_family_cmp(const hbt_node *a, const hbt_node *b) {
  return int(HBT_ENTRY(a, if_family, iff_hnode)->iff_family) - int(HBT_ENTRY(b, if_family, iff_hnode)->iff_family);
}
int if_addr_cmp(const hbt_node *a, const hbt_node *b) {
  const if_address *x = HBT_ENTRY(a, if_address, ifa_hnode), *y = HBT_ENTRY(b, if_address, ifa_hnode);
  if (int c = memcmp(x->ifa_local, y->ifa_local, IF_ADDR_BYTES)) return c;
  return int(x->ifa_local_bits) - int(y->ifa_local_bits);
}

// The record of a tree node, null for none.
#define ENTRY(node, type, member) entry_of<type, offsetof(type, member)>(node)
template <class T, size_t Off>
T *entry_of(hbt_node *n) {
  return n ? reinterpret_cast<T *>(reinterpret_cast<char *>(n) - Off) : nullptr;
}

uint16_t name_key_len(const char *name) { return static_cast<uint16_t>(strnlen(name, IF_NAME_SIZE - 1) + 1); }

void copy_name(char *dst, const char *src) {
  snprintf(dst, IF_NAME_SIZE, "%s", src ? src : "");
}

}  // namespace

// ---- Set-up -----------------------------------------------------------------------------------
void ifd_slots_declare(uint32_t count) {
  if (!pools.ready) pools.ifd_slots = count;
}
void ifl_slots_declare(uint32_t count) {
  if (!pools.ready) pools.ifl_slots = count;
}

void if_init(void) {
  if (pools.ready) return;
  pools.ifd = task_block_init(sizeof(if_device) + pools.ifd_slots * sizeof(uintptr_t), "if_device");
  pools.ifl = task_block_init(sizeof(if_link) + pools.ifl_slots * sizeof(uintptr_t), "if_link");
  pools.iff = task_block_init(sizeof(if_family), "if_family");
  pools.ifa = task_block_init(sizeof(if_address), "if_address");
  pools.vtep = task_block_init(sizeof(if_link_vtep_data_t), "if_link_vtep_data_t");
  pools.mac = task_block_init(sizeof(ifl_mac_filter_block), "ifl_mac_filter_block");
  patricia_root_init(&ifd_name_tree, false, 0, PATRICIA_KEY_OFFSET(if_device, ifd_pnode, ifd_name));
  patricia_root_init(&ifl_name_tree, false, 0, PATRICIA_KEY_OFFSET(if_link, ifl_pnode, ifl_name));
  pools.ready = true;
}

void if_reset(void) {
  while (if_device *ifd = ifd_first()) ifd_free(ifd);
}

uintptr_t ifd_slot_get(const if_device *ifd, uint32_t slot) {
  return slot < pools.ifd_slots ? ifd->ifd_slots[slot] : 0;
}
void ifd_slot_set(if_device *ifd, uint32_t slot, uintptr_t word) {
  if (slot < pools.ifd_slots) ifd->ifd_slots[slot] = word;
}
uintptr_t ifl_slot_get(const if_link *ifl, uint32_t slot) {
  return slot < pools.ifl_slots ? ifl->ifl_slots[slot] : 0;
}
void ifl_slot_set(if_link *ifl, uint32_t slot, uintptr_t word) {
  if (slot < pools.ifl_slots) ifl->ifl_slots[slot] = word;
}

// ---- Families -----------------------------------------------------------------------------------
uint8_t if_family_map(uint8_t af) {
  switch (af) {
    case RTS_AF_INET: return IF_FAM_INET;
    case RTS_AF_INET6: return IF_FAM_INET6;
    case RTS_AF_BRIDGE: return IF_FAM_BRIDGE;
    default: return IF_FAM_NONE;
  }
}
uint8_t if_family_rts_af(uint8_t family) {
  static const uint8_t af[] = {0, RTS_AF_INET, RTS_AF_INET6, RTS_AF_BRIDGE};
  return family < sizeof af ? af[family] : 0;
}
const char *if_family_name(uint8_t family) {
  static const char *const names[] = {"none", "inet", "inet6", "bridge"};
  return family < 4 ? names[family] : "none";
}

// ---- Lookups ------------------------------------------------------------------------------------
if_device *ifd_find_by_index(uint16_t index) {
  if_device probe;
  probe.ifd_index = index;
  return ENTRY(hbt_lookup(&ifd_list, &probe.ifd_hnode, ifd_cmp), if_device, ifd_hnode);
}
if_device *ifd_find_by_name(const char *name) {
  if (!pools.ready || !name) return nullptr;
  patricia_node *n = patricia_get(&ifd_name_tree, name_key_len(name), name);
  return n ? PATRICIA_ENTRY(n, if_device, ifd_pnode) : nullptr;
}
if_device *ifd_first(void) {
  return ENTRY(hbt_iterate_next(&ifd_list, nullptr), if_device, ifd_hnode);
}
if_device *ifd_next(const if_device *ifd) {
  return ENTRY(hbt_iterate_next(&ifd_list, &ifd->ifd_hnode), if_device, ifd_hnode);
}
uint32_t ifd_count(void) { return n_ifd; }

if_link *ifl_find_by_index(uint32_t index) {
  if_link probe;
  probe.ifl_index = index;
  return ENTRY(hbt_lookup(&if_link_list, &probe.ifl_hnode, ifl_cmp), if_link, ifl_hnode);
}
if_link *ifl_find_by_name(const char *name) {
  if (!pools.ready || !name) return nullptr;
  patricia_node *n = patricia_get(&ifl_name_tree, name_key_len(name), name);
  return n ? PATRICIA_ENTRY(n, if_link, ifl_pnode) : nullptr;
}
if_link *ifl_first(void) {
  return ENTRY(hbt_iterate_next(&if_link_list, nullptr), if_link, ifl_hnode);
}
if_link *ifl_next(const if_link *ifl) {
  return ENTRY(hbt_iterate_next(&if_link_list, &ifl->ifl_hnode), if_link, ifl_hnode);
}
if_link *ifl_first_of(const if_device *ifd) {
  return ENTRY(hbt_iterate_next(&ifd->ifd_if_list, nullptr), if_link, ifl_dnode);
}
if_link *ifl_next_of(const if_link *ifl) {
  return ENTRY(hbt_iterate_next(&ifl->ifl_ifd->ifd_if_list, &ifl->ifl_dnode), if_link, ifl_dnode);
}
uint32_t ifl_count(void) { return n_ifl; }

if_family *iff_find(const if_link *ifl, uint8_t family) {
  if_family probe;
  probe.iff_family = family;
  return ENTRY(hbt_lookup(&ifl->ifl_aflist, &probe.iff_hnode, if_family_cmp), if_family, iff_hnode);
}
if_family *iff_first(const if_link *ifl) {
  return ENTRY(hbt_iterate_next(&ifl->ifl_aflist, nullptr), if_family, iff_hnode);
}
if_family *iff_next(const if_family *iff) {
  return ENTRY(hbt_iterate_next(&iff->iff_ifl->ifl_aflist, &iff->iff_hnode), if_family, iff_hnode);
}
if_address *ifa_find(const if_family *iff, const uint8_t *local, uint16_t bits) {
  if_address probe;
  memset(probe.ifa_local, 0, IF_ADDR_BYTES);
  if (local) memcpy(probe.ifa_local, local, ifs::prefix_bytes(bits));
  probe.ifa_local_bits = bits;
  return ENTRY(hbt_lookup(&iff->iff_addr_list, &probe.ifa_hnode, if_addr_cmp), if_address, ifa_hnode);
}
if_address *ifa_first(const if_family *iff) {
  return ENTRY(hbt_iterate_next(&iff->iff_addr_list, nullptr), if_address, ifa_hnode);
}
if_address *ifa_next(const if_address *ifa) {
  return ENTRY(hbt_iterate_next(&ifa->ifa_iff->iff_addr_list, &ifa->ifa_hnode), if_address, ifa_hnode);
}

// ---- Creation -------------------------------------------------------------------------------------
bool ifd_name_conflict(uint16_t index, const char *name) {
  if_device *by_name = ifd_find_by_name(name), *by_index = ifd_find_by_index(index);
  return (by_name && by_name->ifd_index != index) ||
         (by_index && strncmp(by_index->ifd_name, name, IF_NAME_SIZE) != 0);
}
bool ifl_name_conflict(uint32_t index, const char *name) {
  if_link *by_name = ifl_find_by_name(name), *by_index = ifl_find_by_index(index);
  return (by_name && by_name->ifl_index != index) ||
         (by_index && strncmp(by_index->ifl_name, name, IF_NAME_SIZE) != 0);
}

if_device *ifd_create_internal(uint16_t index, const char *name, uint16_t porttype) {
  if_init();
  auto *ifd = static_cast<if_device *>(task_block_alloc(pools.ifd));
  ifd->ifd_index = index;
  copy_name(ifd->ifd_name, name);
  ifd->ifd_porttype = porttype;
  task_assert(hbt_insert(&ifd_list, &ifd->ifd_hnode, ifd_cmp));
  patricia_node_init_length(&ifd->ifd_pnode, name_key_len(ifd->ifd_name));
  task_assert(patricia_add(&ifd_name_tree, &ifd->ifd_pnode));
  n_ifd++;
  return ifd;
}

if_device *ifd_locate(uint16_t index, const char *name, uint16_t porttype) {
  if (if_device *ifd = ifd_find_by_index(index)) return ifd;
  return ifd_create_internal(index, name, porttype);
}

if_link *ifl_create_internal(if_device *ifd, uint32_t index, uint32_t unit) {
  if_init();
  auto *ifl = static_cast<if_link *>(task_block_alloc(pools.ifl));
  ifl->ifl_index = index;
  ifl->ifl_ifd = ifd;
  ifl->ifl_unit = unit;
  ifl->ifl_bw_weight = IF_BW_WEIGHT_DEFAULT;
  ifs::link_name(ifl->ifl_name, ifd->ifd_name, unit);
  task_assert(hbt_insert(&if_link_list, &ifl->ifl_hnode, ifl_cmp));
  task_assert(hbt_insert(&ifd->ifd_if_list, &ifl->ifl_dnode, ifl_unit_cmp));
  patricia_node_init_length(&ifl->ifl_pnode, name_key_len(ifl->ifl_name));
  task_assert(patricia_add(&ifl_name_tree, &ifl->ifl_pnode));
  ifd->ifd_ifl_count++;
  n_ifl++;
  return ifl;
}

if_family *if_family_add(if_link *ifl, uint8_t family) {
  if_init();
  auto *iff = static_cast<if_family *>(task_block_alloc(pools.iff));
  iff->iff_family = family;
  iff->iff_ifl = ifl;
  task_assert(hbt_insert(&ifl->ifl_aflist, &iff->iff_hnode, if_family_cmp));
  ifl->ifl_family_count++;
  return iff;
}

if_address *if_addr_add(if_family *iff, const rts_ifa_msg *m) {
  if_init();
  auto *ifa = static_cast<if_address *>(task_block_alloc(pools.ifa));
  ifa->ifa_iff = iff;
  ifa->ifa_family = m->ifam_af;
  ifs::addr_fill(ifa, m);
  task_assert(hbt_insert(&iff->iff_addr_list, &ifa->ifa_hnode, if_addr_cmp));
  iff->iff_addr_count++;
  return ifa;
}

if_link_vtep_data_t *ifs::vtep_alloc(void) {
  return static_cast<if_link_vtep_data_t *>(task_block_alloc(pools.vtep));
}
void ifs::vtep_free(if_link_vtep_data_t *v) { task_block_free(pools.vtep, v); }

// ---- Freeing ---------------------------------------------------------------------------------------
void ifa_free(if_address *ifa) {
  hbt_delete(&ifa->ifa_iff->iff_addr_list, &ifa->ifa_hnode);
  ifa->ifa_iff->iff_addr_count--;
  task_block_free(pools.ifa, ifa);
}

void iff_free(if_family *iff) {
  while (if_address *ifa = ifa_first(iff)) ifa_free(ifa);
  hbt_delete(&iff->iff_ifl->ifl_aflist, &iff->iff_hnode);
  iff->iff_ifl->ifl_family_count--;
  task_block_free(pools.iff, iff);
}

void ifl_free(if_link *ifl) {
  while (if_family *iff = iff_first(ifl)) iff_free(iff);
  hbt_delete(&if_link_list, &ifl->ifl_hnode);
  hbt_delete(&ifl->ifl_ifd->ifd_if_list, &ifl->ifl_dnode);
  patricia_delete(&ifl_name_tree, &ifl->ifl_pnode);
  ifl->ifl_ifd->ifd_ifl_count--;
  if (ifl->ifl_vtep) ifs::vtep_free(ifl->ifl_vtep);
  while (ifl_mac_filter_block *b = ifl->ifl_mac_filters) {
    ifl->ifl_mac_filters = b->mfb_next;
    task_block_free(pools.mac, b);
  }
  n_ifl--;
  task_block_free(pools.ifl, ifl);
}

void ifd_free(if_device *ifd) {
  while (if_link *ifl = ifl_first_of(ifd)) ifl_free(ifl);
  ifs::agg_unlink(ifd);
  ifs::agg_forget_parent(ifd);
  hbt_delete(&ifd_list, &ifd->ifd_hnode);
  patricia_delete(&ifd_name_tree, &ifd->ifd_pnode);
  n_ifd--;
  task_block_free(pools.ifd, ifd);
}

// ---- Traces ------------------------------------------------------------------------------------------
const char *if_flags_text(uint32_t flags, char *buf, size_t size) {
  static const char *const names[] = {"Broadcast", "PointToPoint", "Simplex", "Absent", "AbsentDown",
                                      "NoAge",     "Localup",      "OamDown", "Refresh"};
  size_t n = 0;
  if (size) buf[0] = '\0';
  for (unsigned i = 0; i < sizeof names / sizeof names[0]; i++)
    if (flags & (1u << i)) {
      int w = snprintf(buf + n, n < size ? size - n : 0, "%s%s", n ? " " : "", names[i]);
      if (w > 0) n += static_cast<size_t>(w);
      if (n >= size) break;
    }
  if (flags & RTS_IFF_UP) {
    int w = snprintf(buf + (n < size ? n : size), n < size ? size - n : 0, "%sUp", n ? " " : "");
    (void)w;
  }
  return buf;
}

if_link *ifl_find_next(uint32_t index) {
  if_link probe;
  probe.ifl_index = index;
  return ENTRY(hbt_getnext(&if_link_list, &probe.ifl_hnode, ifl_cmp), if_link, ifl_hnode);
}

// ---- MAC filters -------------------------------------------------------------------------------------
namespace {
// The slot holding mac, or null; *block gets its block.
uint8_t *mac_slot(const if_link *ifl, const uint8_t mac[6], ifl_mac_filter_block **block) {
  for (ifl_mac_filter_block *b = ifl->ifl_mac_filters; b; b = b->mfb_next)
    for (uint32_t i = 0; i < b->mfb_count; i++)
      if (!memcmp(b->mfb_mac[i], mac, 6)) {
        *block = b;
        return b->mfb_mac[i];
      }
  return nullptr;
}
}  // namespace

bool ifl_mac_filter_has(const if_link *ifl, const uint8_t mac[6]) {
  ifl_mac_filter_block *b;
  return mac_slot(ifl, mac, &b) != nullptr;
}

bool ifl_mac_filter_add(if_link *ifl, const uint8_t mac[6]) {
  if (ifl_mac_filter_has(ifl, mac)) return false;
  ifl_mac_filter_block *b = ifl->ifl_mac_filters;
  if (!b || b->mfb_count == IFL_MAC_FILTER_BLOCK) {
    b = static_cast<ifl_mac_filter_block *>(task_block_alloc(pools.mac));
    b->mfb_next = ifl->ifl_mac_filters;
    ifl->ifl_mac_filters = b;
  }
  memcpy(b->mfb_mac[b->mfb_count++], mac, 6);
  return true;
}

bool ifl_mac_filter_delete(if_link *ifl, const uint8_t mac[6]) {
  ifl_mac_filter_block *b;
  uint8_t *slot = mac_slot(ifl, mac, &b);
  if (!slot) return false;
  // The head block is the only one not full: its last MAC fills the hole.
  ifl_mac_filter_block *head = ifl->ifl_mac_filters;
  memcpy(slot, head->mfb_mac[--head->mfb_count], 6);
  if (!head->mfb_count) {
    ifl->ifl_mac_filters = head->mfb_next;
    task_block_free(pools.mac, head);
  }
  return true;
}

uint32_t ifl_mac_filter_count(const if_link *ifl) {
  uint32_t n = 0;
  for (const ifl_mac_filter_block *b = ifl->ifl_mac_filters; b; b = b->mfb_next) n += b->mfb_count;
  return n;
}
