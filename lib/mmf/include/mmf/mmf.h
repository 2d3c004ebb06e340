// Mapped files: a heap inside a shared file that unrelated processes use at the
// same time. Every byte of its state (lock word, statistics, free lists, the
// nodes) lives in the file and is named by 64-bit file offsets, so processes
// that map it at different addresses agree on it, and it outlives any process
// that dies while using it. The file is a plain file under the root's
// "/mfs/var/..." (see platform/path.h), grown with posix_fallocate so that a
// full file system is a failed allocation, never SIGBUS.
//
//   bool made;
//   uint32_t sizes[] = {64, 256, 1024};
//   mmf *m = mmf_create("/mfs/var/app/db", 1 << 24, 1 << 20, 1 << 20, true, 0, 1,
//                       3, sizes, 0, &made);
//   off_t off;
//   void *p = mmf_alloc(m, 100, &off);       // off names the block in every process
//   p = mmf_user_ptr(m, off, 100);           // re-derive after anything that maps
//   mmf_free_offset(m, off);
//   mmf_close(m);
//
// User bytes follow a 44-byte node header, so they sit 4 bytes past an 8-byte
// boundary: store 64-bit values in them with memcpy.
//
// Errors: constructors return null, other calls null or false; the reason of an
// open that failed is in mmf_open_errno. Broken invariants of a caller (a bad
// argument, an offset that names no allocated node) end the process with a
// line on stderr naming the check. A file found damaged at open is rebuilt,
// never asserted on: one bad file must not kill every process that opens it.
//
// In single mapping the whole file is mapped at once, inside a reservation of
// max_bytes, and a pointer stays good while the handle is open (unless another
// process grows the file past this handle's max_bytes, which maps it anew). In region mode only max_mapped_regions regions
// are mapped at a time: a pointer is good only until the next call that maps
// (any call taking an offset), so hold the lock and re-derive pointers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <pthread.h>
#include <sys/types.h>

// ---- File format ----------------------------------------------------------
// All integers in host order. Records are packed to 4, as the file lays them
// out: 64-bit fields sit on 4-byte boundaries, so read them through these
// records, never through a uint64_t pointer of one's own.

#define MMF_VERSION 4u
#define MMF_HEADER_SIZE 0x624u
#define MMF_MAGIC_INIT 0xABCD0000u   // a process is initialising
#define MMF_MAGIC_READY 0xABCD1234u  // ready
#define MMF_MAX_CLASSES 64
#define MMF_RESERVED_MAX 50u         // a reserved word above this marks damage

#pragma pack(push, 4)
struct mmf_shared_info_t {
  uint32_t lockerpid;            // 0 free, else the holder's pid
  uint32_t reserved[3];
  uint32_t last_mapper_pid;
  uint32_t last_unmapper_pid;
  uint32_t version;              // MMF_VERSION
  uint32_t header_size;          // MMF_HEADER_SIZE
  uint32_t magic;                // 0, MMF_MAGIC_INIT or MMF_MAGIC_READY
  uint64_t current_bytes;        // bytes under heap management
  uint8_t num_alloc_sizes;       // classes, the top class included
  uint8_t pad0[3];
  uint32_t init_pid;             // who wrote MMF_MAGIC_INIT
  uint64_t allocated_bytes;      // sum of len of allocated nodes
  uint32_t alloc_count;
  uint32_t free_count;
  uint32_t alloc_sizes[MMF_MAX_CLASSES];   // lower bounds, node overhead included
  uint32_t allocs_by_class[MMF_MAX_CLASSES];
  uint32_t frees_by_class[MMF_MAX_CLASSES];
  uint64_t free_heads[MMF_MAX_CLASSES];    // first free node of each class, 0 empty
  uint64_t common_offset;        // the common block, 0 when none
  uint32_t common_len;
  uint64_t first_alloc_offset;   // header size rounded to the page
  uint8_t shared_flag;
  uint8_t pad1[3];
  uint32_t invalid_count;        // times the header was found invalid
  uint32_t map_calls;
  uint32_t ensure_calls;
  uint32_t pointer_calls;
  uint32_t mmap_calls;
  uint32_t munmap_ok;
  uint32_t munmap_calls;
  uint32_t munmap_failures;
  uint32_t unmap_outcomes[5];
  uint32_t mmap_failures;
  uint32_t init_calls;
  uint32_t grow_count;
  uint64_t grown_bytes;
  uint32_t last_valid_iters;
  uint64_t lock_count;
  uint64_t unlock_count;
  uint64_t contended_count;
  uint64_t wait_ns;
  uint32_t recursive_lock_count;
  uint32_t deepest_recursion;
  uint32_t spin_histogram[10];   // waits by rounds, 9 and above in the last
  uint32_t most_rounds;
  uint32_t dead_holder_takeovers;
  uint32_t lock_after_unlock_hits;
  uint32_t unlock_in_progress_hits;
  uint32_t release_misses;
  uint32_t free_while_checking;
  uint32_t last_valid_seconds;
  uint32_t valid_timeouts;
  uint32_t timeout_iters;
  uint32_t timeout_seconds;
  uint8_t created_flag;          // 1 once an mmf_create made the object
  uint8_t pad2[3];
};

#define MMF_HEADER_PATTERN 0x11112222u
#define MMF_TRAILER_PATTERN 0x77778888u
#define MMF_FLAG_FREE 1u
#define MMF_FLAG_DATA_OTHER_MMF 2u
#define MMF_FLAG_ALL 3u
#define MMF_MAX_NODE_LEN 0xFFFFFFF0u

// A heap node: this header, the user bytes, a trailer.
struct mmf_node_header_t {
  uint64_t offset;               // the node's own file offset
  uint32_t pattern;              // MMF_HEADER_PATTERN
  uint32_t flags;                // MMF_FLAG_*
  uint32_t len;                  // whole node, header and trailer included
  uint64_t user_offset;          // offset + 44 (or the data file's, see mmf_alloc2)
  uint64_t prev_offset;          // free list links, 0 at the ends and when allocated
  uint64_t next_offset;
};

struct mmf_node_trailer_t {
  uint32_t pattern;              // MMF_TRAILER_PATTERN
  uint32_t len;                  // copy of the header's
};
#pragma pack(pop)

constexpr uint32_t mmf_node_header_bytes = 44;
constexpr uint32_t mmf_node_bytes = 52;

// ---- The handle -----------------------------------------------------------

#define MMF_FLAG_READ_ONLY 0x1u     // data mapped PROT_READ (the header stays writable)
#define MMF_FLAG_SHARED 0x2u        // copied to the header at initialisation
#define MMF_FLAG_COMMON_RESIZE 0x4u // the common block may be resized at open
#define MMF_NO_ALLOC_MASK 0x3Au     // any of these bits forbids allocation
// The bytes from the first allocation offset to the end belong to the caller
// (a ring, say), not to the heap: no nodes are written there, at
// initialisation or growth, and the open does not walk them. Only the common
// block, the lock word and growth are of use on such a file.
#define MMF_FLAG_RAW_DATA 0x40u

// Debug switches (TVX_MMF_DEBUG, a number).
#define MMF_DEBUG_VALIDATE_ALLOC 0x1u
#define MMF_DEBUG_VALIDATE_FREE 0x2u
#define MMF_DEBUG_CHECK_FIRST_NODE 0x8u

// One mapping of region mode, on the list in order of mapping.
struct mmf_map_entry {
  char *mapping;
  int64_t bytes;
  uint64_t start;                  // file offset of the mapping
  uint64_t slot;                   // region it starts in
  mmf_map_entry *prev, *next;
};

// One region's slot: the mapping that covers it (the tail of a double
// mapping from the slot below holds a pointer to this region's start).
struct mmf_region_slot {
  char *ptr;                       // where the mapping's first byte (or this region's) lies
  int64_t bytes;
  mmf_map_entry *entry;
};

// Per process, never shared. Fields in the order the platform keeps them;
// the region fields stay zero in single mapping.
struct mmf {
  mmf_shared_info_t *shared_info;  // the mapping (in single mapping, of the whole file)
  uint32_t page_size;
  int fd;
  int mmap_flags;                  // MAP_SHARED
  uint32_t flags;                  // the caller's
  char *name;                      // the logical path
  uint8_t single_mapping;
  uint8_t read_only;
  uint8_t shared_flag;
  uint8_t spare;
  uint64_t regions;
  int64_t max_bytes;
  int64_t region_map_bytes;
  uint32_t region_shift;
  uint32_t max_mapped_regions;
  int64_t default_bytes;
  int64_t grow_by_bytes;
  int64_t mapped_bytes;
  uint64_t local_allocs;
  uint64_t local_frees;
  uint8_t fatal;                   // validation failures assert while set
  volatile uint8_t closing;
  pthread_t locker_thread;          // written by the holding thread only
  uint32_t locker_cnt;             // likewise; other threads of the process read both
  pthread_t closing_thread;
  mmf_region_slot *region_table;   // region mode: one slot per region
  mmf_map_entry *entries;          // max_mapped_regions of them
  mmf_map_entry *mapped_list, *mapped_list_tail, *mapped_list_free;
  // Per-process copies of the header's statistics.
  uint64_t lock_count;
  uint64_t contended_count;
  uint64_t wait_ns;
  uint32_t last_valid_iters;
  uint32_t last_valid_seconds;
  int64_t meminfo_offset;          // this file's record in the memory report; -1 never reported
  bool allocs_allowed;
  int64_t reserved_bytes;          // address space kept for the file to grow into in place
};

// ---- Opening and closing --------------------------------------------------

// Opens or makes the file `name` (a logical path) and returns a private
// handle, or null (see mmf_open_errno). Sizes are bytes; alloc_sizes are
// num_alloc_sizes user sizes, the free-list classes. *created, if given, is set
// true when this call made the object.
mmf *mmf_create(const char *name, int64_t max_bytes, int64_t default_bytes,
                int64_t grow_by_bytes, bool single_mapping, int64_t region_map_bytes,
                uint32_t max_mapped_regions, uint32_t num_alloc_sizes,
                const uint32_t *alloc_sizes, uint32_t flags, bool *created);
// Attaches to an existing file as it stands, for tools: no initialisation,
// no validation, no rebuild, whatever the file holds; damage met on the way
// is reported (null, false), not asserted. Null (errno set) when
// the file is missing or its header is not of this format (EINVAL).
mmf *mmf_open_existing(const char *name);
// Drops the mapping, closes, frees the handle; the file stays.
void mmf_close(mmf *m);
// mmf_close, then removes the file.
void mmf_destroy(mmf *m);
// Removes the file of a logical name. 0 or an errno value.
int mmf_unlink(const char *name);
// errno of the last open that failed, before (shm_open) and during creation.
extern int mmf_open_errno;
extern int mmf_create_errno;

// Removes the machine's creation semaphore (of the root in force), for test
// teardown; it is made again at the next creation.
void mmf_sem_remove(void);

// ---- The heap -------------------------------------------------------------

// Pointer to `bytes` mapped user bytes, their user offset in *out_offset; null
// and 0 when nothing fits and the file cannot grow.
void *mmf_alloc(mmf *m, uint32_t bytes, off_t *out_offset);
// A control node (of the smallest class) in `control` naming `bytes` of data
// in `data`: returns the data's pointer and stores the control node's user
// offset. The control file's lock is taken first, always.
void *mmf_alloc2(mmf *control, mmf *data, uint32_t bytes, off_t *out_offset);
// Frees both nodes of a control offset, the control node first.
void mmf_free_offset2(mmf *control, mmf *data, off_t user_offset);
// Pointer to len bytes of the data a control offset names.
void *mmf_ensure_mapped2(mmf *control, mmf *data, off_t user_offset, size_t len);
// Frees the node of a user offset, merging it with free neighbours.
void mmf_free_offset(mmf *m, off_t user_offset);
// The named block of the file. *len in and out; 0 asks for what exists.
void *mmf_alloc_common(mmf *m, uint32_t *len, off_t *out_offset);
// Grows by the next step; false when nothing was added.
bool mmf_grow(mmf *m);
// mmf_grow only when current_bytes + grow_by_bytes fits max_bytes.
bool mmf_try_grow(mmf *m);
off_t mmf_first_alloc_offset(const mmf *m);
// Forgets every allocation: the heap becomes one free space again.
void mmf_free_all(mmf *m);
// Rebuilds the file from nothing with its current classes.
void mmf_reset(mmf *m);
// The caller's class sizes (up to *count); *count is set to how many there are.
void mmf_get_allocation_info(mmf *m, uint32_t *count, uint32_t *sizes);
// Prints the free lists to stdout (mmf_show_to: to f).
void mmf_show(const char *title, mmf *m);
void mmf_show_to(FILE *f, const char *title, mmf *m);

// ---- Mapping, locks, validation -------------------------------------------

// Pointer to len bytes at a file offset, in this process.
void *mmf_ensure_mapped(mmf *m, off_t offset, size_t len);
// Maps what another process grew the file to (single mapping; region mode
// maps on demand anyway). False when the file could not be mapped further.
bool mmf_refresh(mmf *m);
// mmf_ensure_mapped of a user offset after checking that it names a node.
void *mmf_user_ptr(mmf *m, off_t user_offset, size_t len);
// The file's lock: recursive for the thread that holds it, taken over from a
// holder that died.
void mmf_lock(mmf *m);
void mmf_unlock(mmf *m);
// Walks every node. With assert_on_fail false a damaged file reports false.
bool mmf_valid(mmf *m, bool assert_on_fail);
bool mmf_validate_user_offset(mmf *m, off_t user_offset, bool assert_on_fail);
uint32_t mmf_get_user_usable_len(mmf *m, off_t user_offset);
// The node behind every access by offset; null when it fails a check (and
// the fatal byte is clear) or cannot be mapped.
mmf_node_header_t *mmf_node_validate(mmf *m, off_t offset);

// ---- Process-wide settings ------------------------------------------------

// Multiplier of the cross-process waits (the dead-holder check every 2 s,
// the stuck holder at 60 s, the initialiser's 60 s), from TVX_MM_TIME_SCALE.
double mmf_time_scale(void);
void mmf_set_time_scale(double scale);
// Rounds below spin_limit / 1000 busy-wait a microsecond instead of sleeping
// (machines of more than one CPU only). 0, the default, never spins.
extern uint32_t mmf_spin_limit;
// The debug switches in force (TVX_MMF_DEBUG at first use, or set here).
uint32_t mmf_debug(void);
void mmf_set_debug(uint32_t mask);
// A holder stuck past the limit: the first waiter to claim it (a marker
// "/var/tmp/NAME_lock_holder.pidPID.lock") dumps its core and its own with
// `gcore -o /var/tmp/NAME_lock_holder.core PID`, then sends SIGTERM and,
// 11 polls later, SIGKILL. Called for its own pid, dumps itself and exits.
void mmf_kill_holder(const char *name, pid_t pid);
// Records the line in mmf_fatal_line and ends the process.
[[noreturn]] void mmf_detected_fatal_problem(int line);
extern int mmf_fatal_line;
// Runs /bin/sh -c LINE with an empty signal mask and waits for it: its exit
// status, or -1.
int mmf_run_shell(const char *line);
// Whether a process is alive by /proc (a zombie is dead).
bool mmf_pid_alive(pid_t pid);
// Whether pid is alive and has this file mapped, as every holder of its lock
// word and its initialiser do. A word naming any other process (a dead
// holder's pid reused, or damage) is taken over instead of waited on.
bool mmf_holder_alive(const mmf *m, pid_t pid);
