// The file format pinned: every offset and size of the shared records.
#include <cstddef>

#include "mmf/mmf.h"

#define AT(rec, field, off) static_assert(offsetof(rec, field) == (off), #rec "." #field)

using si = mmf_shared_info_t;
static_assert(sizeof(si) == MMF_HEADER_SIZE);
AT(si, lockerpid, 0x000);
AT(si, reserved, 0x004);
AT(si, last_mapper_pid, 0x010);
AT(si, last_unmapper_pid, 0x014);
AT(si, version, 0x018);
AT(si, header_size, 0x01c);
AT(si, magic, 0x020);
AT(si, current_bytes, 0x024);
AT(si, num_alloc_sizes, 0x02c);
AT(si, init_pid, 0x030);
AT(si, allocated_bytes, 0x034);
AT(si, alloc_count, 0x03c);
AT(si, free_count, 0x040);
AT(si, alloc_sizes, 0x044);
AT(si, allocs_by_class, 0x144);
AT(si, frees_by_class, 0x244);
AT(si, free_heads, 0x344);
AT(si, common_offset, 0x544);
AT(si, common_len, 0x54c);
AT(si, first_alloc_offset, 0x550);
AT(si, shared_flag, 0x558);
AT(si, invalid_count, 0x55c);
AT(si, map_calls, 0x560);
AT(si, ensure_calls, 0x564);
AT(si, pointer_calls, 0x568);
AT(si, mmap_calls, 0x56c);
AT(si, munmap_ok, 0x570);
AT(si, munmap_calls, 0x574);
AT(si, munmap_failures, 0x578);
AT(si, unmap_outcomes, 0x57c);
AT(si, mmap_failures, 0x590);
AT(si, init_calls, 0x594);
AT(si, grow_count, 0x598);
AT(si, grown_bytes, 0x59c);
AT(si, last_valid_iters, 0x5a4);
AT(si, lock_count, 0x5a8);
AT(si, unlock_count, 0x5b0);
AT(si, contended_count, 0x5b8);
AT(si, wait_ns, 0x5c0);
AT(si, recursive_lock_count, 0x5c8);
AT(si, deepest_recursion, 0x5cc);
AT(si, spin_histogram, 0x5d0);
AT(si, most_rounds, 0x5f8);
AT(si, dead_holder_takeovers, 0x5fc);
AT(si, lock_after_unlock_hits, 0x600);
AT(si, unlock_in_progress_hits, 0x604);
AT(si, release_misses, 0x608);
AT(si, free_while_checking, 0x60c);
AT(si, last_valid_seconds, 0x610);
AT(si, valid_timeouts, 0x614);
AT(si, timeout_iters, 0x618);
AT(si, timeout_seconds, 0x61c);
AT(si, created_flag, 0x620);

using node = mmf_node_header_t;
static_assert(sizeof(node) == mmf_node_header_bytes);
AT(node, offset, 0);
AT(node, pattern, 8);
AT(node, flags, 12);
AT(node, len, 16);
AT(node, user_offset, 20);
AT(node, prev_offset, 28);
AT(node, next_offset, 36);
static_assert(sizeof(mmf_node_trailer_t) == 8);
AT(mmf_node_trailer_t, pattern, 0);
AT(mmf_node_trailer_t, len, 4);
static_assert(mmf_node_bytes == mmf_node_header_bytes + sizeof(mmf_node_trailer_t));
