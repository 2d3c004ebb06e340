// Kernel scans: walking one kernel table with get and getnext requests, one
// request per step, inside a job, so that a long table does not stall the
// daemon. A scan list is an array of descriptors run in order; each has a
// state with a private area (the cursor) that its request builder reads and
// its reply handler moves.
//
//   background  "krt scan", a job of priority 4 that yields at the slice
//   foreground  "krt foreground scan", a foreground job
//   current     "krt current scan", run to its end inside the start
//
// End of a table: the kernel's ENOENT (after a first get that missed, the scan
// goes on by getnext), or EOPNOTSUPP/ENOPROTOOPT/EAFNOSUPPORT for a table it
// does not serve; on_end may move the state and go on, else the next table.
// A false reply handler ends the table, not the scan. Records that arrive
// before the reply (notifications) are dispatched, not taken for it.
#pragma once

#include <cstdint>

#include "krt/krt.h"

extern "C" {

struct krt_scan_state;

struct krt_scan {
  uint32_t table;       // shown in traces
  uint8_t idl;          // requests and replies through the codec; 0: raw records
  uint32_t state_size;  // bytes of the private area
  int32_t first_get;    // the first request is a get
  int (*skip)(const krt_scan *descriptor);
  void (*init)(krt_scan_state *state);
  int (*on_end)(krt_scan_state *state);
  // Builds the next request: with idl a record (zeroed, KRT_SCAN_REQUEST_MAX
  // bytes) whose header names its type; raw, the bytes and *length.
  void (*request)(void *message, uint32_t *length, krt_scan_state *state);
  int (*reply)(void *message, uint32_t length, krt_scan_state *state);
  void (*done)(void);
};

enum : uint32_t { KRT_SCAN_REQUEST_MAX = 4096 };

struct krt_scan_state {
  uint32_t index;
  uint32_t reserved;
  uint8_t first_request;
  const krt_scan *descriptor;
  uint32_t count;
  alignas(8) uint8_t priv[];
};

void krt_scan_current(task *tp);
void krt_scan_foreground(task *tp);
void krt_scan_background(task *tp);
void krt_scan_stop(task *tp);
void krt_scan_job(task_job *jp);
// The descriptor's done, the state freed, the next descriptor's state made
// and attached to the job: false when the list is over.
bool krt_scan_advance(task_job *jp, krt_scan_state **state);
// Runs the done hooks held back by a foreground start (see the header note of
// krt_start_foreground): once, when pending.
void krt_complete_scan_done(void);
void krt_scan_set_complete_pending(bool on);
// The jobs while they run (null otherwise).
task_job *krt_scan_bg_job(void);
task_job *krt_scan_fg_job(void);

// ---- Request builders ---------------------------------------------------------------
// Each zeroes the record, fills version, type, size and krt_seq(), operation
// get (4) on the first request and getnext (5) after, and the cursor of the
// state's private area:
struct krt_cursor_rtb { uint16_t index; };                // rttable
struct krt_cursor_ifd { uint16_t index; };                // ifdev
struct krt_cursor_ifl { uint32_t index; };                // iflogical
struct krt_cursor_iff { uint32_t ifl_index; uint8_t af; };  // iffamily
struct krt_cursor_ifa {                                   // ifaddr
  uint32_t ifl_index;
  uint8_t af;
  uint16_t local_bits;
  uint8_t local[16];
};
struct krt_cursor_bd { uint16_t index; };                 // bridge domain

void krt_scan_req_rttable_inet(void *message, uint32_t *length, krt_scan_state *state);
void krt_scan_req_rttable_inet6(void *message, uint32_t *length, krt_scan_state *state);
void krt_scan_req_ifdev(void *message, uint32_t *length, krt_scan_state *state);
void krt_scan_req_iflogical(void *message, uint32_t *length, krt_scan_state *state);
void krt_scan_req_iffamily(void *message, uint32_t *length, krt_scan_state *state);
void krt_scan_req_ifaddr(void *message, uint32_t *length, krt_scan_state *state);
void krt_scan_req_bridge_domain(void *message, uint32_t *length, krt_scan_state *state);
// The version test of scan replies: version 98 and a record size of at
// least 200.
bool krt_scan_version_ok(const void *record);

}  // extern "C"
