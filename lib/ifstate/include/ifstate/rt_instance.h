// Routing instances: the mirror of the kernel's routing tables, one
// rt_instance per table and address family, kept by the rttable message
// (type 1, version 98) and its two scans (inet, then inet6). Each is found by
// (family, table id) in rt_instance_list and by "<table name>&AF=<family>" in
// a Patricia tree; every change is told to the tasks through task_rttchange
// (ifstate/ifchange.h), with rti_flags saying new, changed or deleted; a
// deleted instance is freed after that.
//
//   rt_instance_slots_declare(1);              // before rt_instance_init
//   rt_instance_init();
//   handlers[RTS_T_RTTABLE] = rt_instance_krt_handler;
//   rt_instance *rti = rt_instance_find_by_name("default.inet&AF=2");
//
// Names are cut to 127 bytes and a NUL: the key is the cut text. Objects
// come from the block "rt_instance". Scheduler thread only.
#pragma once

#include <cstdint>

#include "containers/hbt.h"
#include "containers/patricia.h"
#include "task/task.h"

struct krt_scan;

extern "C" {

enum : uint32_t { RT_INSTANCE_NAME_SIZE = 128 };
enum : uint32_t { RTI_CHANGED = 0x1, RTI_DELETE = 0x2, RTI_NEW = 0x4 };

struct rt_instance {
  hbt_node rti_hnode;        // rt_instance_list: family, then id
  uint8_t rti_af;            // route-socket family number
  uint16_t rti_id;           // table index
  patricia_node rti_pnode;   // rt_instance_name_tree; key length: name length + 1
  char rti_name[RT_INSTANCE_NAME_SIZE];
  uint32_t rti_flags;        // RTI_*, of the last message
  uint16_t rti_attr;         // the message's rtbm_attr; its change sets RTI_CHANGED
  uintptr_t rti_slots[];     // extension slots
};

void rt_instance_slots_declare(uint32_t count);  // before rt_instance_init; ignored after
void rt_instance_init(void);
void rt_instance_reset(void);  // frees all, no broadcasts (tests)
rt_instance *rt_instance_first(void);
rt_instance *rt_instance_next(const rt_instance *rti);
rt_instance *rt_instance_find(uint8_t af, uint16_t id);
// The first instance of this id in any family, families in order.
rt_instance *rt_instance_find_by_id(uint16_t id);
rt_instance *rt_instance_find_by_name(const char *name);  // with its "&AF=" suffix
uint32_t rt_instance_count(void);
uintptr_t rt_instance_slot_get(const rt_instance *rti, uint32_t slot);  // 0 past the count
void rt_instance_slot_set(rt_instance *rti, uint32_t slot, uintptr_t word);
// True takes a message as handled, untouched.
void rt_instance_filter_set(bool (*fn)(const void *message));
// 1: applied or ignored. message: a decoded rts_rtb_msg.
int rt_instance_rtsock_handler(void *message, uint32_t length);
void rt_instance_krt_handler(task *tp, void *message, uint32_t length);
void rt_instance_delete(rt_instance *rti);
// The rttable scans, family 2 then family 28.
enum : uint32_t { RT_INSTANCE_SCAN_COUNT = 2 };
const krt_scan *rt_instance_scan_list(void);

}  // extern "C"
