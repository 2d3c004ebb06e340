// What the sources of the database library share.
#pragma once

#include <pthread.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "mmdb/mmdb.h"

[[noreturn]] void mmdb_assert_fail(const char *expr, const char *file, int line);
#define MMDB_ASSERT(e) ((e) ? (void)0 : mmdb_assert_fail(#e, __FILE__, __LINE__))
// A chain that cannot be trusted: the database is marked invalid and the
// process ends, as for any broken invariant.
[[noreturn]] void mmdb_assert_corruption(mmdb *db, const char *what, int line);

struct mmdb {
  mmdb_params p;
  uint32_t id;
  mmf *hash, *data;
  mmdb_hash_header_t *hdr;
  mmdb_bucket_t *buckets;        // bucket_count + 1 slots; the last is the database-wide lock
  uint8_t invalid;
  uint32_t cookie_bytes;         // 8 where acknowledgements are on
  volatile uint8_t closing;
  pthread_t closing_thread;
  mmdb_iterator *iter;           // the process's one iterator of this database
  uint64_t locks;                // process-local count, for the memory report
  int64_t meminfo_offset;        // this database's record in the report, -1 none yet
  FILE *log;
};

// Writes the database's record in the memory report.
void mmdb_meminfo_update(mmdb *db);

// Invalid for this handle, or marked so in the file by any process (a
// corrupt chain found by another): calls then answer 2 instead of walking
// into the damage, until a reset.
inline bool mmdb_is_invalid(const mmdb *db) {
  return db->invalid || __atomic_load_n(&db->hdr->invalid, __ATOMIC_ACQUIRE);
}

// A record's fields through memcpy-free access: records are packed to 4.
// In single mapping a record inside this process's mapping is reached
// directly: its own offset, checked by every chain walk, is what proves it;
// anything else (region mode, a file grown by another process, an offset out
// of bounds) goes through mmf_user_ptr and its node checks.
// An offset that names no node (outside the heap, misaligned, no node
// header) is damage: null, never a pointer to fault on.
inline mmdb_record_t *mmdb_rec(mmdb *db, uint64_t off, size_t len) {
  mmf *m = db->data;
  if (off % 4) return nullptr;
  if (m->single_mapping && off >= mmf_node_header_bytes && off + len <= static_cast<uint64_t>(m->mapped_bytes))
    return reinterpret_cast<mmdb_record_t *>(reinterpret_cast<char *>(m->shared_info) + off);
  if (off < static_cast<uint64_t>(mmf_first_alloc_offset(m)) + mmf_node_header_bytes ||
      off + len > m->shared_info->current_bytes || !mmf_validate_user_offset(m, static_cast<off_t>(off), false))
    return nullptr;
  return static_cast<mmdb_record_t *>(mmf_ensure_mapped(m, static_cast<off_t>(off), len));
}
inline uint8_t *mmdb_rec_key(mmdb_record_t *e) { return reinterpret_cast<uint8_t *>(e + 1); }
inline uint8_t *mmdb_rec_value(mmdb *db, mmdb_record_t *e) {
  return mmdb_rec_key(e) + e->keylen + db->cookie_bytes;
}
inline size_t mmdb_rec_len(mmdb *db, const mmdb_record_t *e) {
  return MMDB_RECORD_BYTES + e->keylen + db->cookie_bytes + e->capacity;
}
inline uint64_t mmdb_load64(const uint64_t *p) {
  uint64_t v;
  memcpy(&v, p, 8);
  return v;
}

// Bucket locks (lock.cc). Recursive per thread; the database-wide slot first
// when the database asks for it.
void mmdb_lock_bucket(mmdb *db, uint32_t b);
void mmdb_unlock_bucket(mmdb *db, uint32_t b);
// Clears the slots of dead holders, repairing their buckets (at open also
// slots naming this process: stale, since it held no handle of the id).
void mmdb_lock_clean(mmdb *db, bool at_open);
// Drops the records a dead writer left half-written in bucket b (locked).
void mmdb_repair_bucket(mmdb *db, uint32_t b);

// Lookup (record.cc): the record's offset with its bucket locked and its
// predecessor's offset (0: the bucket head), or 0 with the bucket unlocked.
uint64_t mmdb_find(mmdb *db, const void *key, uint32_t keylen, uint32_t *bucket, uint64_t *prev);
// mmdb_find, the whole record mapped; null (bucket unlocked) on a miss.
mmdb_record_t *mmdb_find_record(mmdb *db, const void *key, uint32_t keylen, uint32_t *bucket, uint64_t *prev,
                                uint64_t *off);
// Unlinks and frees a record of a locked bucket.
void mmdb_unlink(mmdb *db, uint32_t b, uint64_t off, uint64_t prev);

// Change messages (replicate.cc): to every replicator that wants them. A
// message that cannot be queued marks the replicator's slot so that it
// rescans. Called with the record's bucket locked, so that the messages of
// one key are queued in the order of its changes.
void mmdb_send_change(mmdb *db, const void *key, uint32_t keylen, bool del);
// Every replicator that wants messages rescans (a dead writer's bucket).
void mmdb_mark_lost(mmdb *db);
// Dead slots, and message slots of processes that are not the replicator.
void mmdb_clear_replicators(mmdb *db);
uint32_t mmdb_queue_number(uint32_t id, uint32_t slot);
uint32_t mmdb_queue_receive(uint32_t queue, void *buf, uint32_t room);
// The change queue over mmcq (change_queue.cc), the one in place unless a
// test plugs in another.
bool mmdb_mmcq_send(int queue, const void *msg, uint32_t len, void *ctx);
uint32_t mmdb_mmcq_receive(int queue, void *buf, uint32_t room, void *ctx);
// Acknowledgements (ack.cc). Joins the ack registry and opens this
// process's ack queue: 0, or 3 when every entry is held by a live process.
int mmdb_ack_join(void);
// The replicator's mark in the registry, and its start count.
void mmdb_ack_rep_running(bool running);
// Stamps a fresh cookie in the record of key and marks it; its bucket is
// held by the caller.
void mmdb_ack_stamp(mmdb *db, const void *key, uint32_t keylen);
// A record's cookie (0 in a database without acks).
uint64_t mmdb_record_cookie(mmdb *db, mmdb_record_t *e);
mmdb *mmdb_iterator_db(mmdb_iterator *it);
// Every open handle of this process, under the table's lock.
void mmdb_for_each_open(void (*fn)(mmdb *db));

// The log (log.cc), a line per operation while MMDB_DEBUG_LOG is on.
void mmdb_log(mmdb *db, const mmdb_record_t *e, uint32_t oper, const void *key, uint32_t keylen, int line);

// The registry (registry.cc).
void mmdb_registry_store(const mmdb_params *p);
// A machine-wide block of `bytes` in a small mapped file of its own (the
// registries): the block of *file, reopened when the root changed since
// *root; made when create, else null when the file does not exist. The block
// is an allocated node, not the slack behind the header that a no-allocation
// file would use: the heap behind it stays walkable, so the file passes
// validation at the next open instead of being rebuilt empty. *created says
// whether the file was new.
void *mmdb_block_file(const char *name, uint32_t bytes, bool create, mmf **file, std::string *root, bool *created);

// Seconds of the cross-process waits, scaled as mmf's are.
inline double mmdb_scaled(double s) { return s * mmf_time_scale(); }
void mmdb_sleep_us(int64_t us);
double mmdb_now(void);
