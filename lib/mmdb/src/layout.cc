// The file formats pinned: every offset and size of the shared records.
#include <cstddef>

#include "mmdb/mmdb.h"

#define AT(rec, field, off) static_assert(offsetof(rec, field) == (off), #rec "." #field)

using ent = mmdb_registry_entry_t;
static_assert(sizeof(ent) == 0x74C);
AT(ent, id, 0x00);
AT(ent, flags, 0x04);
AT(ent, bucket_count, 0x08);
AT(ent, max_bytes, 0x0c);
AT(ent, default_bytes, 0x14);
AT(ent, grow_by_bytes, 0x1c);
AT(ent, mapped_span, 0x24);
AT(ent, max_mapped_regions, 0x2c);
AT(ent, num_alloc_sizes, 0x2e);
AT(ent, reserved, 0x30);
AT(ent, max_key, 0x32);
AT(ent, max_data, 0x34);
AT(ent, max_replicated, 0x38);
AT(ent, key_prefix_len, 0x3c);
AT(ent, key_match_len, 0x3e);
AT(ent, filter_cb, 0x40);
AT(ent, zero, 0x44);
AT(ent, name, 0x48);
AT(ent, key_prefix, 0x448);
AT(ent, alloc_sizes, 0x648);
AT(ent, extra, 0x748);

using reg = mmdb_registry_t;
static_assert(sizeof(reg) == MMDB_REGISTRY_BYTES);
AT(reg, magic, 0x00);
AT(reg, version, 0x04);
AT(reg, role, 0x08);
AT(reg, total_size, 0x0c);
AT(reg, mmdb_cnt, 0x10);
AT(reg, entry, 0x14);

static_assert(sizeof(mmdb_replicator_t) == 0x14);
AT(mmdb_replicator_t, want_msgs, 0x10);
static_assert(sizeof(mmdb_lock_stats_t) == 0x90);

using hh = mmdb_hash_header_t;
static_assert(sizeof(hh) == MMDB_HASH_HEADER_BYTES);
AT(hh, version, 0x000);
AT(hh, size, 0x004);
AT(hh, flags, 0x008);
AT(hh, lock, 0x00c);
AT(hh, reps_registered, 0x09c);
AT(hh, reps_want_msgs, 0x09e);
AT(hh, last_rep_idx, 0x0a0);
AT(hh, ack_machine_id, 0x0a4);
AT(hh, rep, 0x0a8);
AT(hh, longest_key, 0x10c);
AT(hh, longest_value, 0x110);
AT(hh, acks_enabled, 0x114);
AT(hh, scan, 0x118);
AT(hh, invalid, 0x138);
AT(hh, max_key, 0x13a);
AT(hh, max_data, 0x13c);
AT(hh, max_replicated, 0x140);
AT(hh, resets, 0x144);
AT(hh, report, 0x148);
AT(hh, record_count, 0x174);

static_assert(sizeof(mmdb_bucket_t) == 0x18);
AT(mmdb_bucket_t, pid, 0);
AT(mmdb_bucket_t, cnt, 4);
AT(mmdb_bucket_t, thread, 8);
AT(mmdb_bucket_t, head, 16);

static_assert(sizeof(mmdb_record_t) == MMDB_RECORD_BYTES);
AT(mmdb_record_t, offset, 0);
AT(mmdb_record_t, bucket, 8);
AT(mmdb_record_t, next, 12);
AT(mmdb_record_t, keylen, 20);
AT(mmdb_record_t, capacity, 24);
AT(mmdb_record_t, datalen, 28);
AT(mmdb_record_t, replen, 32);
AT(mmdb_record_t, eflag, 36);
static_assert(sizeof(mmdb_cookie) == 8 * 8);
