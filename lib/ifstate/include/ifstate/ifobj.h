// Interface objects: a daemon's mirror of the kernel's interfaces in four
// levels, device (if_device, "ifd"), logical interface (if_link, "ifl"),
// address family on a logical interface (if_family, "iff") and address
// (if_address, "ifa"). It is filled by the interface scans (if_scan_list) and
// kept by the messages ifdev (5), iflogical (6), iffamily (7) and ifaddr (8);
// each change is broadcast (ifstate/ifchange.h) and a deleted object is
// freed only after its broadcast, which sees it with IF_STATE_DELETED in its
// state and IF_CHANGE_DELETE in its change word.
//
//   ifd_slots_declare(1); ifl_slots_declare(2);   // before if_init
//   if_init();                                    // pools and trees
//   if_rtsock_install(handlers);                  // types 5 to 8 of krt
//   cfg.scans = if_scan_list(); cfg.scan_count = IF_SCAN_COUNT;
//
// Handlers return 1 when a message was applied or safely ignored (an
// unknown parent is traced and ignored: the kernel's order may differ, and a
// later scan catches up), 0 when it is refused: a wrong version, a name that
// another index holds, or a device changing its port type. A logical
// interface is named "<device>.<unit>", the device's name cut to 48 bytes. Deleting a device first deletes, and announces,
// its addresses, then its families, then its logical interfaces.
//
// Objects come from the blocks "if_device", "if_link", "if_family",
// "if_address", "if_link_vtep_data_t". Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "containers/hbt.h"
#include "containers/patricia.h"
#include "rtsock/rts_msg.h"
#include "task/task.h"

struct krt_scan;

extern "C" {

enum : uint32_t {
  IF_NAME_SIZE = 60,           // names with their NUL, "%s.%d" of a logical interface too
  IF_ADDR_BYTES = 16,
  IF_BW_WEIGHT_DEFAULT = 32768,
};

// Change bits (the change word of every level) and the state bit of an
// object on its way out.
enum : uint32_t { IF_CHANGE_NEW = 0x2, IF_CHANGE_DELETE = 0x4, IF_CHANGE_CHANGED = 0x8000 };
enum : uint32_t { IF_STATE_DELETED = 0x2000 };

// Families of the mirror, by their own numbers; route-socket numbers map to
// them with if_family_map. Addresses are kept for inet and inet6 only.
enum : uint8_t { IF_FAM_NONE = 0, IF_FAM_INET = 1, IF_FAM_INET6 = 2, IF_FAM_BRIDGE = 3 };
uint8_t if_family_map(uint8_t rts_af);     // IF_FAM_NONE for a family not kept
uint8_t if_family_rts_af(uint8_t family);  // back to the route-socket number
const char *if_family_name(uint8_t family);  // "inet", "inet6", "bridge"

struct if_fw_binding {
  uint32_t ifb_index;  // filter index
  uint8_t ifb_type;    // RTS_FW_BIND_INPUT, RTS_FW_BIND_OUTPUT
};

struct if_device {
  hbt_node ifd_hnode;          // ifd_list, by index
  patricia_node ifd_pnode;     // ifd_name_tree, by name
  uint16_t ifd_index;
  char ifd_name[IF_NAME_SIZE];
  uint16_t ifd_porttype;       // fixed when the device is made
  uint32_t ifd_flags;          // RTS_IFF_*
  uint32_t ifd_devflags;
  uint32_t ifd_state;          // down causes (RTS_IFD_STATE_*), IF_STATE_DELETED
  uint32_t ifd_change;
  uint32_t ifd_snmp_index;
  uint32_t ifd_mtu;
  uint64_t ifd_speed;
  uint8_t ifd_mac[6];
  uint8_t ifd_duplex, ifd_autoneg;
  hbt_root ifd_if_list;        // its logical interfaces, by unit
  uint32_t ifd_ifl_count;
  if_device *ifd_sibs;         // next member of the same aggregate
  if_device *ifd_members;      // an aggregate's first member
  if_device *ifd_agg_parent;   // the aggregate this member is linked into
  uint16_t ifdm_agg_parentidx;  // aggregate parent; never with the next
  uint16_t ifdm_ifh_parentidx;  // interface-hierarchy parent
  rts_ifd_mcae ifd_mcae;
  rts_ifd_ep ifd_ep;
  if_fw_binding ifd_fw[2];
  uint8_t ifd_fw_count;
  uintptr_t ifd_slots[];       // extension slots (ifd_slots_declare)
};

struct if_link_vtep_data_t {
  uint32_t vtep_flags;
  uint16_t vtep_udp_port;
  uint8_t vtep_src[IF_ADDR_BYTES];
};

// A daemon's MAC filters on a logical interface, IFL_MAC_FILTER_BLOCK to a
// block from the block "ifl_mac_filter_block", blocks in a list.
enum : uint32_t { IFL_MAC_FILTER_BLOCK = 8 };
struct ifl_mac_filter_block {
  ifl_mac_filter_block *mfb_next;
  uint32_t mfb_count;
  uint8_t mfb_mac[IFL_MAC_FILTER_BLOCK][6];
};

struct if_link {
  hbt_node ifl_hnode;          // if_link_list, by index
  hbt_node ifl_dnode;          // its device's ifd_if_list, by unit
  patricia_node ifl_pnode;     // ifl_name_tree, by "device.unit"
  uint32_t ifl_index;
  if_device *ifl_ifd;
  uint32_t ifl_unit;
  char ifl_name[IF_NAME_SIZE];
  uint32_t ifl_flags;
  uint32_t ifl_state;          // IF_STATE_DELETED
  uint32_t ifl_change;
  uint16_t ifl_instance;       // routing-table index
  uint32_t ifl_snmp_index;
  uint16_t ifl_encaps, ifl_vlan;
  uint64_t ifl_bandwidth;
  uint32_t ifl_agg_index;
  uint8_t ifl_df_role;
  uint16_t ifl_bw_weight;      // IF_BW_WEIGHT_DEFAULT unless told
  hbt_root ifl_aflist;         // its families
  uint32_t ifl_family_count;
  if_link_vtep_data_t *ifl_vtep;  // null when it is no VTEP
  ifl_mac_filter_block *ifl_mac_filters;  // MAC addresses the daemon filters on it
  uintptr_t ifl_slots[];
};

struct if_family {
  hbt_node iff_hnode;          // its logical interface's ifl_aflist, by family
  uint8_t iff_family;          // IF_FAM_*
  if_link *iff_ifl;
  uint32_t iff_flags;
  uint32_t iff_state;
  uint32_t iff_change;
  uint32_t iff_mtu;            // configured
  uint32_t iff_max_mtu;        // what the device allows
  uint16_t iff_mtu16;          // derived: the smaller non-zero of the two, at most 65535
  uint64_t iff_features;
  hbt_root iff_addr_list;
  uint32_t iff_addr_count;
};

struct if_address {
  hbt_node ifa_hnode;          // its family's iff_addr_list, by local prefix
  uint8_t ifa_family;          // route-socket number, 2 or 28
  if_family *ifa_iff;
  uint32_t ifa_flags;
  uint32_t ifa_state;
  uint32_t ifa_change;
  uint16_t ifa_local_bits;
  uint8_t ifa_local[IF_ADDR_BYTES];
  uint16_t ifa_dest_bits;
  uint8_t ifa_dest[IF_ADDR_BYTES];
  uint16_t ifa_bcast_bits;
  uint8_t ifa_bcast[IF_ADDR_BYTES];
};

// What task_ifl_agg_change tells: a logical interface joined, left or moved
// between aggregates.
struct if_agg_member {
  if_link *iam_ifl;
  uint32_t iam_old_agg_index;
  uint32_t iam_new_agg_index;
};

// ---- Set-up -----------------------------------------------------------------------------
void ifd_slots_declare(uint32_t count);  // before if_init; later calls are ignored
void ifl_slots_declare(uint32_t count);
void if_init(void);                      // pools and trees, once
// Frees every object without broadcasts (tests, shutdown).
void if_reset(void);
uintptr_t ifd_slot_get(const if_device *ifd, uint32_t slot);  // 0 past the count
void ifd_slot_set(if_device *ifd, uint32_t slot, uintptr_t word);
uintptr_t ifl_slot_get(const if_link *ifl, uint32_t slot);
void ifl_slot_set(if_link *ifl, uint32_t slot, uintptr_t word);

// ---- Lookups and walks (null at the end) -----------------------------------------------------
if_device *ifd_find_by_index(uint16_t index);
if_device *ifd_find_by_name(const char *name);
if_device *ifd_first(void);
if_device *ifd_next(const if_device *ifd);
uint32_t ifd_count(void);
if_link *ifl_find_by_index(uint32_t index);
if_link *ifl_find_by_name(const char *name);  // "device.unit"
if_link *ifl_first(void);
if_link *ifl_next(const if_link *ifl);
if_link *ifl_find_next(uint32_t index);  // the first with a larger index
if_link *ifl_first_of(const if_device *ifd);  // by unit
if_link *ifl_next_of(const if_link *ifl);
uint32_t ifl_count(void);
if_family *iff_find(const if_link *ifl, uint8_t family);
if_family *iff_first(const if_link *ifl);
if_family *iff_next(const if_family *iff);
if_address *ifa_find(const if_family *iff, const uint8_t *local, uint16_t bits);
if_address *ifa_first(const if_family *iff);
if_address *ifa_next(const if_address *ifa);

// ---- Locate and create ------------------------------------------------------------------------
// The device of this index, made (with this name and port type) when absent.
if_device *ifd_locate(uint16_t index, const char *name, uint16_t porttype);
if_device *ifd_create_internal(uint16_t index, const char *name, uint16_t porttype);
if_link *ifl_create_internal(if_device *ifd, uint32_t index, uint32_t unit);
if_family *if_family_add(if_link *ifl, uint8_t family);
if_address *if_addr_add(if_family *iff, const rts_ifa_msg *message);
// True when the name belongs to another index, or the index to another name.
bool ifd_name_conflict(uint16_t index, const char *name);
bool ifl_name_conflict(uint32_t index, const char *name);
// Free one object and what it holds, without broadcasts.
void ifa_free(if_address *ifa);
void iff_free(if_family *iff);
void ifl_free(if_link *ifl);
void ifd_free(if_device *ifd);
// Deletes a device the way a delete message does: addresses, families and
// logical interfaces each announced and freed, then the device.
void ifd_delete(if_device *ifd);

// ---- Messages -------------------------------------------------------------------------------
// 1 handled or ignored, 0 refused (see above).
int if_rtsock_decode_ifdev(void *message, uint32_t length);
int if_rtsock_decode_iflogical(void *message, uint32_t length);
int if_rtsock_decode_iffamily(void *message, uint32_t length);
int if_rtsock_decode_ifam(void *message, uint32_t length);
// The version byte of a record against the one expected (106, 107, 102,
// 101); a mismatch traces "<name> msg: version mismatch" and gives 0.
int if_rtsock_msg_sanity(const void *message, uint32_t type, uint8_t version);
int if_rtsock_ifdev_sanity(const void *message);
int if_rtsock_iflogical_sanity(const void *message);
int if_rtsock_iffamily_sanity(const void *message);
int if_rtsock_ifam_sanity(const void *message);
// A daemon's filter: true takes the message as handled, untouched.
typedef bool (*if_rtsock_filter_fn)(const void *message);
void if_rtsock_ifdev_filter_set(if_rtsock_filter_fn fn);
void if_rtsock_iflogical_filter_set(if_rtsock_filter_fn fn);
void if_rtsock_iffamily_filter_set(if_rtsock_filter_fn fn);
// Hooks of a family's derived MTU and feature word changes, and of a
// logical interface that lost its last family.
void if_family_mtu_hook_set(void (*fn)(if_family *iff, uint16_t old_mtu16));
void if_family_features_hook_set(void (*fn)(if_family *iff, uint64_t old_features));
void if_link_no_family_hook_set(void (*fn)(if_link *ifl));
// Sets the handlers of types 5 to 8 in a krt handler table.
void if_rtsock_install(void (**handlers)(task *, void *, uint32_t));

// ---- MAC filters -------------------------------------------------------------------------------
// Add is idempotent (false when the MAC was there); delete keeps the blocks
// packed and frees an emptied one. They go with the logical interface.
bool ifl_mac_filter_add(if_link *ifl, const uint8_t mac[6]);
bool ifl_mac_filter_delete(if_link *ifl, const uint8_t mac[6]);
bool ifl_mac_filter_has(const if_link *ifl, const uint8_t mac[6]);
uint32_t ifl_mac_filter_count(const if_link *ifl);

// ---- Replay ----------------------------------------------------------------------------------
// The whole mirror again, devices first, as broadcasts marked replay (only
// tasks with task_ifreplay_wanted hear them) with task_io_in_change()
// IF_IN_REPLAY; each object's change word is 0 during its replay.
void if_replay(void);
// The same to one task, whatever its task_ifreplay_wanted.
void if_replay_task(task *tp);
// task_io_in_change() of the broadcasts: a change, or a replay.
enum : int { IF_IN_CHANGE = 1, IF_IN_REPLAY = 2 };

// ---- Scans ------------------------------------------------------------------------------------
// ifdev, iflogical, iffamily, then ifaddr over both families.
enum : uint32_t { IF_SCAN_COUNT = 4 };
const krt_scan *if_scan_list(void);
// The address scan's move: from (ifl_index, af) to the next family of that
// logical interface that the mirror has, else the first family of the next
// one. False when none is left.
struct krt_cursor_ifa;
bool krt_next_ifl_with_af(krt_cursor_ifa *cursor);

// Words for traces: "Broadcast PointToPoint ..." of a flags word.
const char *if_flags_text(uint32_t flags, char *buf, size_t size);

}  // extern "C"
