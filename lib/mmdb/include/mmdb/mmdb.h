// Mapped databases: a key-value store in two mapped files (lib/mmf) that
// unrelated processes use at the same time, with a change stream to up to five
// replicators per database. A database is a chained hash table: the bucket
// table in "NAME_hash", the records in "NAME_data". Keys are byte strings (at
// most 1023 bytes, the database's own limit lower); a value has two sections,
// its leading `replen` bytes (what leaves the machine) and the rest. There is
// no journal: a file found invalid at open is rebuilt empty.
//
//   mmdb_params p = {};
//   strcpy(p.name, "routes");              // "/mfs/var/mmdb/routes_hash" and "_data"
//   p.id = 3; p.bucket_count = 1024; p.max_bytes = p.mapped_span = 64 << 20;
//   p.default_bytes = p.grow_by_bytes = 1 << 20; p.max_mapped_regions = 1;
//   p.max_key = 64; p.max_data = 4096; p.max_replicated = 4096;
//   int st;
//   mmdb *db = mmdb_open(&p, &st);
//   mmdb_put(db, "k", 1, "value", 5, 5, 5, false);
//   char buf[64]; uint32_t len = sizeof buf;
//   mmdb_get(db, "k", 1, buf, &len, nullptr);
//   mmdb_close(db);
//
// Every call returns one of the MMDB_* status codes. Broken invariants of a
// caller (a capacity below the data, a corrupt chain) end the process with a
// line on stderr naming the check. Up to 23 database ids exist on a machine;
// the first opener of an id writes its parameters to the registry, so that
// tools open a database by its id alone. How replication is kept lossless is
// in docs/mmdb.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "mmcq/mmcq.h"
#include "mmf/mmf.h"

// ---- Status codes ---------------------------------------------------------

#define MMDB_SUCCESS 0
#define MMDB_INVALID_ARG 1
#define MMDB_CORRUPT 2
#define MMDB_NOMEM 3
#define MMDB_NOT_FOUND 4
#define MMDB_NO_MORE 5
#define MMDB_BUFFER_TOO_SMALL 6
#define MMDB_EXISTS 7            // prints as "mmdb: status unknown"

const char *mmdb_status_str(int status);

// Operation codes of the log, printed after "oper:".
enum mmdb_oper {
  MMDB_OPER_NONE, MMDB_OPER_INIT, MMDB_OPER_ADD, MMDB_OPER_NOADD, MMDB_OPER_ADD_NODATA, MMDB_OPER_REMOVE,
  MMDB_OPER_REMOVE_ACK, MMDB_OPER_REMOVE_INTERNAL, MMDB_OPER_RESYNC_PREPARE_START, MMDB_OPER_RESYNC_PREPARE_DONE,
  MMDB_OPER_RESYNC_DONE_START, MMDB_OPER_RESYNC_DONE_DONE, MMDB_OPER_RESYNC_SET, MMDB_OPER_RESYNC_REMOVE,
  MMDB_OPER_CLEAR, MMDB_OPER_CLEAR_QUEUE, MMDB_OPER_UNKNOWN, MMDB_OPER_GET_DATAPTR,
  MMDB_OPER_UPDATE_DATAPTR_ARG_ENTRY, MMDB_OPER_UPDATE_DATAPTR_COOKIE_ENTRY, MMDB_OPER_UPDATE_DATAPTR_E_ENTRY,
  MMDB_OPER_UPDATE_DATAPTR_COOKIE_EXIT, MMDB_OPER_UPDATE_DATAPTR_EXIT, MMDB_OPER_RELEASE_DATAPTR,
  MMDB_OPER_IN_ITER_CHECK, MMDB_OPER_IN_ITER_SET, MMDB_OPER_IN_ITER_CLEAR, MMDB_OPER_REP_ADD,
  MMDB_OPER_REP_NOADD, MMDB_OPER_REP_ADD_FAIL,
};
// "NONE" .. "REP_ADD_FAIL"; "unknown" beyond the table.
const char *mmdb_oper_str(uint32_t oper);

// ---- Limits and names -----------------------------------------------------

#define MMDB_MAX_IDS 23          // ids 1 to 22 are usable; 0 is never opened
#define MMDB_MAX_KEYLEN 1023
#define MMDB_MAX_REPLICATORS 5
#define MMDB_MAX_HANDLES 256
#define MMDB_HANDLE_BYTES 0x8E9Cu  // the platform's handle, kept as a constant
#define MMDB_DIR "/mfs/var/mmdb/"
#define MMDB_OPEN_LOCK "/var/db/eg_mmdb_open"
#define MMDB_LOG_FILE "/var/tmp/mmdb_file_log.log"
#define MMDB_QUEUE_NAME "mmdb_mmcq_%d"

// Open flags.
#define MMDB_F_REPLICATE 0x1u    // replication wanted
#define MMDB_F_ACKS 0x2u         // acknowledgements: kept by the file when it is made (see mmdb_process_ack_from_rep)
#define MMDB_F_DB_LOCK 0x4u      // every call takes the database-wide slot first
#define MMDB_F_RESET_ON_RESYNC 0x8u  // mmdb_scan_all resets instead of marking

// Record flags (eflag).
#define MMDB_EF_ACK_PENDING 0x2u // changed since the replicator last acknowledged the record
#define MMDB_EF_RESYNC 0x10u     // marked by mmdb_scan_all
#define MMDB_EF_WRITING 0x40u    // a writer is inside the value; dropped if it dies there

// Debug switch of the log, in the TVX_MMF_DEBUG mask.
#define MMDB_DEBUG_LOG 0x10u

// ---- File format ----------------------------------------------------------
#define MMDB_OPEN_PARAM_MAGIC 0x12344321u
#define MMDB_OPEN_PARAM_VERSION 2u
#define MMDB_REGISTRY_BYTES 0xA7E8u
#define MMDB_REGISTRY_FMT "%smmdb_open_params_v%d"
#define MMDB_HASH_VERSION 4u
#define MMDB_HASH_HEADER_BYTES 0x178u
#define MMDB_RECORD_BYTES 0x28u

#pragma pack(push, 4)
struct mmdb_registry_entry_t {
  uint32_t id;                   // 0 when the slot was never opened
  uint32_t flags;
  uint32_t bucket_count;
  uint64_t max_bytes;
  uint64_t default_bytes;
  uint64_t grow_by_bytes;
  uint64_t mapped_span;
  uint16_t max_mapped_regions;
  uint8_t num_alloc_sizes;
  uint8_t pad;
  uint16_t reserved;             // from the caller
  uint16_t max_key;
  uint32_t max_data;
  uint32_t max_replicated;
  uint16_t key_prefix_len;
  uint16_t key_match_len;
  uint32_t filter_cb;            // meaningful inside one process image only
  uint32_t zero;
  char name[1024];
  uint8_t key_prefix[512];
  uint32_t alloc_sizes[64];
  uint32_t extra;
};

struct mmdb_registry_t {
  uint32_t magic;                // MMDB_OPEN_PARAM_MAGIC
  uint32_t version;              // 2
  uint32_t role;                 // 1 client side, 2 server side
  uint32_t total_size;           // MMDB_REGISTRY_BYTES
  uint32_t mmdb_cnt;             // MMDB_MAX_IDS
  mmdb_registry_entry_t entry[MMDB_MAX_IDS];
};

struct mmdb_replicator_t {
  uint32_t pid;                  // 0 free
  uint32_t seen;                 // changes handed to it
  uint32_t lost;                 // changes whose message could not be queued (see docs/mmdb.md)
  uint32_t reserved;
  uint8_t want_msgs;
  uint8_t pad[3];
};

struct mmdb_lock_stats_t {       // 0x90 bytes
  uint64_t lock_count;
  uint64_t contended;
  uint64_t wait_ns;
  uint32_t recursion;
  uint32_t deepest;
  uint32_t stolen;               // taken from dead holders
  uint32_t most_rounds;
  uint32_t histogram[20];
  uint32_t spare[6];
};

struct mmdb_hash_header_t {
  uint32_t version;              // MMDB_HASH_VERSION
  uint32_t size;                 // MMDB_HASH_HEADER_BYTES
  uint32_t flags;
  mmdb_lock_stats_t lock;
  uint16_t reps_registered;
  uint16_t reps_want_msgs;
  uint16_t last_rep_idx;
  uint16_t pad0;
  uint32_t ack_machine_id;
  mmdb_replicator_t rep[MMDB_MAX_REPLICATORS];
  uint32_t longest_key;
  uint32_t longest_value;
  uint8_t acks_enabled;
  uint8_t pad1[3];
  uint32_t scan[8];              // [0] running total of value bytes; the rest filled by mmdb_show
  uint8_t invalid;
  uint8_t pad2;
  uint16_t max_key;
  uint32_t max_data;
  uint32_t max_replicated;
  uint32_t resets;
  uint32_t report[11];           // local report counters (see mmdb_scan_all)
  uint32_t record_count;
};

struct mmdb_bucket_t {
  uint32_t pid;                  // lock holder, 0 free
  uint32_t cnt;                  // recursion
  uint64_t thread;
  uint64_t head;                 // user offset of the first record, 0 empty
};

struct mmdb_record_t {
  uint64_t offset;               // own user offset
  uint32_t bucket;
  uint64_t next;
  uint16_t keylen;
  uint16_t pad;
  uint32_t capacity;             // room for value bytes in this node
  uint32_t datalen;
  uint32_t replen;               // leading part replicated, <= datalen
  uint32_t eflag;
  // key, [u64 ack cookie], value
};
#pragma pack(pop)

// A database's record in the memory report (mmf/meminfo.h, type 3): written
// at open and every 1,000,000 bucket locks of a handle.
#pragma pack(push, 4)
struct mmdb_meminfo_payload_t {
  char name[96];
  uint32_t id;
  uint32_t bucket_count;
  uint32_t record_count;
  uint32_t resets;
  uint64_t data_current_bytes;
  uint64_t data_max_bytes;
  uint64_t lock_count;
  uint64_t contended;
  uint8_t flags;                 // MEMINFO_REC_*, at 144 as in every record
  uint8_t invalid;
  uint8_t pad[2];
  uint32_t reps_registered;
  uint32_t pid;                  // the last writer
  uint32_t longest_key;
  uint32_t longest_value;
  uint32_t spare[3];
};
#pragma pack(pop)
static_assert(sizeof(mmdb_meminfo_payload_t) == 176);
static_assert(offsetof(mmdb_meminfo_payload_t, flags) == 144);

// Slots of the scan block (mmdb_hash_header_t::scan).
enum { MMDB_SCAN_VALUE_BYTES, MMDB_SCAN_ENTRIES, MMDB_SCAN_WITH_DATA, MMDB_SCAN_KEY_BYTES, MMDB_SCAN_DATA_BYTES,
       MMDB_SCAN_REP_BYTES };

// ---- Open parameters ------------------------------------------------------

struct mmdb;
typedef void (*mmdb_transform_cb)(const void *in, uint32_t inlen, void *out, uint32_t *outlen);

struct mmdb_params {
  // A name with no '/' lives in "/mfs/var/mmdb/"; one starting with '/' is a
  // logical path of its own. "_hash" and "_data" are appended.
  char name[1024];
  uint32_t id;                   // 1 to 22
  uint32_t flags;                // MMDB_F_*
  uint32_t bucket_count;
  uint64_t max_bytes, default_bytes, grow_by_bytes;  // of the data file
  uint64_t mapped_span;          // == max_bytes: single mapping; else region mode
  uint16_t max_mapped_regions;
  uint8_t num_alloc_sizes;       // 0: a default set of classes
  uint32_t alloc_sizes[64];      // value-room sizes; key and record header are added
  uint16_t reserved;
  uint16_t max_key;              // 1 to 1023
  uint32_t max_data, max_replicated;
  uint16_t key_prefix_len;
  uint8_t key_prefix[512];
  uint16_t key_match_len;
  uint32_t extra;                // kept for the caller
  mmdb_transform_cb transform;   // replicated bytes through this on the way out
};

// ---- Registry -------------------------------------------------------------

// The registry's entry of an id as parameters. 1 for an id of 23 or more, 4
// when the id was never opened.
int mmdb_get_create_params_by_id(uint32_t id, mmdb_params *params);
// The database's name of an id ("" when unknown or out of range).
const char *mmdb_get_path_by_id(uint32_t id);
// The registry as it stands, mapped for reading (null when it does not exist).
const mmdb_registry_t *mmdb_registry_peek(void);
// Drops the process's handle of the registry (tests, after changing root).
void mmdb_registry_close(void);

// ---- Opening and closing --------------------------------------------------

// The handle, or null with *status 1 (bad parameters, id open already in this
// process), 3 (files could not be made) or 2 (files invalid after open: they
// are removed).
mmdb *mmdb_open(const mmdb_params *params, int *status);
mmdb *mmdb_open_by_id(uint32_t id, int *status);
// Releases the handle; the files stay.
void mmdb_close(mmdb *db);
// Closes and removes both files.
void mmdb_destroy(mmdb *db);
// Removes both files of a name, without a handle.
int mmdb_remove(const char *name);

// ---- Records --------------------------------------------------------------

// Sets or creates a record. capacity (>= datalen) is the value room to keep;
// replen (<= datalen) the replicated part. 1 for bad lengths, 7 when the key
// exists and must_be_new is set, 3 when the file is full, 2 when invalid.
int mmdb_put(mmdb *db, const void *key, uint32_t keylen, const void *data, uint32_t datalen, uint32_t capacity,
             uint32_t replen, bool must_be_new);
// Copies the value into buf; *len in: room, out: the value's length (6 when
// the room was short). *replen, if given, gets the replicated length.
int mmdb_get(mmdb *db, const void *key, uint32_t keylen, void *buf, uint32_t *len, uint32_t *replen);
int mmdb_delete(mmdb *db, const void *key, uint32_t keylen);
// Replaces the replicated part with len bytes of data and keeps the rest.
int mmdb_append_replicated(mmdb *db, uint32_t keylen, const void *key, uint32_t len, const void *data);

// The cookie form: a pointer to the value in place, the bucket still locked
// until mmdb_update_dataptr or mmdb_release_dataptr_ack on the same thread.
// In region mode the pointer is good until this process's next call.
struct mmdb_cookie {
  uint64_t bucket, offset, keylen, replen, datalen, capacity, total, hashval;
};
int mmdb_get_dataptr(mmdb *db, const void *key, uint32_t keylen, void **data, mmdb_cookie *cookie);
// Ends a reference after writing in place: the value is now len bytes with
// cookie->replen replicated (the caller may change it, up to len), and the
// change is sent to the replicators.
int mmdb_update_dataptr(mmdb *db, mmdb_cookie *cookie, uint32_t len);
// Ends a reference without a change.
int mmdb_release_dataptr_ack(mmdb *db, mmdb_cookie *cookie);

// ---- Iterators and replicators --------------------------------------------

enum mmdb_iter_kind { MMDB_ITER_ALL, MMDB_ITER_PREFIX, MMDB_ITER_REP };
struct mmdb_iterator;

// Registers a replicator slot (waiting 10 x 20 ms when all five are taken,
// then asserting). want_msgs asks for change messages. Prefixes only for
// MMDB_ITER_PREFIX. One iterator per process per database.
mmdb_iterator *mmdb_iterator_create_common(mmdb *db, mmdb_iter_kind kind, uint32_t nprefix,
                                           const void *const *prefixes, const uint32_t *prefix_lens,
                                           bool want_msgs);
mmdb_iterator *mmdb_iterator_create_all(mmdb *db);
mmdb_iterator *mmdb_iterator_create_prefix(mmdb *db, uint32_t nprefix, const void *const *prefixes,
                                           const uint32_t *prefix_lens);
mmdb_iterator *mmdb_iterator_create_rep(mmdb *db);
// The next record: key into key (*keylen in room, out length), value into data
// (likewise), *replen its replicated length. 5 at the end.
int mmdb_iterator_get_next(mmdb_iterator *it, void *key, uint32_t *keylen, void *data, uint32_t *datalen,
                           uint32_t *replen);
void mmdb_iterator_delete(mmdb_iterator *it);
// The replicator slot an iterator holds.
int mmdb_iterator_slot(const mmdb_iterator *it);

// Replication records, as mmdb_rep_get_next writes them into buf: this
// header, the key, then the replicated bytes.
#define MMDB_REP_UPDATE 0
#define MMDB_REP_DELETE 1
#define MMDB_REP_RESYNC_START 2  // a full scan starts: what follows up to the end is the whole database
#define MMDB_REP_RESYNC_DONE 3   // the scan ended: records not seen since its start are gone
struct mmdb_rep_header {
  uint16_t db_id;
  uint16_t op;
  uint16_t keylen;
  uint16_t pad;
  uint32_t replen;
};
static_assert(sizeof(mmdb_rep_header) == 12);

// Scan side only: the next record of the running scan (or 5 when no scan
// runs, or it ended). *len in: room, out: bytes written.
int mmdb_rep_iterator_get_next(mmdb_iterator *it, uint32_t *len, void *buf);
// The whole stream: the scan while one runs, then queued changes. 4 when
// nothing is waiting, 6 (and *len 0) for a buffer under 12 bytes, 6 with
// *len the bytes needed for a record that does not fit, 2 when invalid.
int mmdb_rep_get_next(mmdb_iterator *it, uint32_t *len, void *buf);

// The change queue, plugged in by the queue library. A change message is
// u16 keylen, u8 delete flag, u8 database id, key. Without queue operations
// every change counts as lost, and the replicator rescans.
struct mmdb_change_queue_ops {
  // True when the message of a change is queued for replicator `slot`.
  bool (*send)(int slot, const void *msg, uint32_t len, void *ctx);
  // The next queued message for `slot` into buf; its length, 0 when none.
  uint32_t (*receive)(int slot, void *buf, uint32_t room, void *ctx);
  void *ctx;
};
// The queue in place from the start is mmcq (below); null plugs in none.
void mmdb_set_change_queue(const mmdb_change_queue_ops *ops);

// The change stream over mmcq: the queue of replicator slot `slot` of
// database `id` is "mmdb_mmcq_%d" with n = id x 5 + slot, of
// mmdb_queue_max_msg_bytes messages, starting at mmdb_queue_default_bytes and
// growing by as much up to mmdb_queue_max_bytes (TVX_MMDB_QUEUE_BYTES=D,M
// overrides the two sizes; every process must agree on them). A writer's
// message that cannot be queued counts as lost and the replicator rescans.
extern uint32_t mmdb_queue_max_msg_bytes;
extern int64_t mmdb_queue_default_bytes, mmdb_queue_max_bytes;
// Makes this process the replicator: every replicator iterator it holds
// starts over with a full scan. Call it once the iterators exist.
int mmdb_rep_start(void);
// The receiver of an iterator's change queue, made on first use (later calls
// return it and ignore the arguments). With ctx and cb, writers wake the
// replicator through ctx; without, the replicator polls mmdb_rep_get_next.
mmcq *mmdb_rep_mmcq(mmdb_iterator *it, mm_ctx *ctx, mmcq_receive_cb cb, void *cookie);
// Gives up every change queue this process receives (the slots stay with
// their iterators until mmdb_iterator_delete).
void mmdb_rep_stop(void);
// Drops this process's sender handles (tests that change root).
void mmdb_change_queue_close(void);
// The id of the database an iterator reads.
uint32_t mmdb_iterator_db_id(const mmdb_iterator *it);

// ---- Acknowledgements ---------------------------------------------------
//
// A database made with MMDB_F_ACKS keeps an 8-byte ack cookie in every record
// (the file decides, so every process agrees on the layout): each change
// that is not a delete stamps it (the writer's pid in the high word, a
// per-process count in the low) and marks the record MMDB_EF_ACK_PENDING.
// The replicator, once it has stored a record it got from the stream, calls
// mmdb_process_ack_from_rep with the cookie the stream gave it: when the
// record still carries that cookie (no later change), the mark is cleared
// and an ack goes to the writer's queue "mmdb_ackq_NAME_iINSTANCE". A writer
// reads its acks with mmdb_ack_get_next, in the order they came (through an
// aack ledger). Every process that opens a database with acks joins the ack
// registry "/mfs/var/mmdb/mmdb_ack_registry" (20 entries; status 3 at open
// when all are held by live processes).
#define MMDB_ACK_REGISTRY_FMT "%smmdb_ack_registry"
#define MMDB_ACK_QUEUE_FMT "mmdb_ackq_%s_i%d"
#define MMDB_ACK_REGISTRY_BYTES 0x55Cu
#define MMDB_ACK_ENTRIES 20
#pragma pack(push, 4)
struct mmdb_ack_entry_t {
  uint32_t pid;                  // 0 free
  char name[60];                 // program name
  uint32_t instance;
};
struct mmdb_ack_registry_t {
  uint32_t rep_pid;              // the replicator
  uint8_t running;               // between mmdb_rep_start and mmdb_rep_stop
  uint8_t pad[3];
  uint32_t start_count;          // mmdb_rep_start calls
  mmdb_ack_entry_t entry[MMDB_ACK_ENTRIES];
};
#pragma pack(pop)
static_assert(sizeof(mmdb_ack_entry_t) == 0x44);
static_assert(sizeof(mmdb_ack_registry_t) == MMDB_ACK_REGISTRY_BYTES);

// The name and instance under which this process joins the registry (its
// program name and 0 unless set before the first open with acks).
void mmdb_ack_set_identity(const char *name, uint32_t instance);
// The registry as it stands (null when it does not exist yet).
const mmdb_ack_registry_t *mmdb_ack_registry_peek(void);
// The cookie of the record mmdb_rep_get_next handed out last (0: none, a
// delete, or a database without acks).
uint64_t mmdb_rep_cookie(const mmdb_iterator *it);
// The replicator has stored the record of key at the version `cookie`:
// clears the record's mark and queues the ack to its writer when the record
// still carries that cookie. 0 done (or nothing to do: a later change, a
// deleted record, a writer gone; counted), 1 bad arguments, 2 invalid.
int mmdb_process_ack_from_rep(mmdb_iterator *it, const void *key, uint32_t keylen, uint64_t cookie);
// The next ack for this process: database id, key and cookie of the change
// acknowledged. 0, or 4 when none is waiting; 6 when key's room is short.
int mmdb_ack_get_next(uint32_t *db_id, void *key, uint32_t *keylen, uint64_t *cookie);
// Whether the record of key waits for its ack (4 when it does not exist).
int mmdb_ack_pending(mmdb *db, const void *key, uint32_t keylen, bool *pending);
// This process's ack figures, one line each.
void mmdb_ack_report(FILE *f);
// Leaves the registry and closes the ack queues (tests that change root).
void mmdb_ack_close(void);

// ---- Maintenance ----------------------------------------------------------

// 0 when both files are valid, else 2 (and the database is marked invalid).
int mmdb_verify(mmdb *db);
// Deeper than mmdb_verify: every chain (own offsets, buckets, hashes, loops).
// 0 or 2; the first problem into why when given. A record count that differs
// from the chains (a writer died between linking and counting) is set to
// what the walk found, and said so in why; call it while no one writes.
int mmdb_verify_chains(mmdb *db, char *why, size_t whylen);
// Empties the database and rebuilds both files.
int mmdb_reset(mmdb *db);
// Marks every record for resynchronisation (or resets, MMDB_F_RESET_ON_RESYNC);
// *seen, if given, gets the number of records.
int mmdb_scan_all(mmdb *db, uint32_t *seen);
// Scans into the header's scan block and prints the figures.
void mmdb_show(mmdb *db, FILE *f);

// ---- Inspection -----------------------------------------------------------

mmdb_hash_header_t *mmdb_header(mmdb *db);
uint32_t mmdb_id(const mmdb *db);
const mmdb_params *mmdb_get_params(const mmdb *db);
uint32_t mmdb_hash(uint32_t keylen, const void *key);
mmf *mmdb_hash_mmf(mmdb *db);
mmf *mmdb_data_mmf(mmdb *db);
// Logical path of a database file: name + suffix ("_hash" or "_data").
void mmdb_file_name(const char *name, const char *suffix, char *out, size_t len);

// Crash points of the database, for tests that visit them all.
extern const char *const mmdb_crashpoints[];
extern const size_t mmdb_crashpoint_count;
// Cross-process waits of the bucket lock, in seconds before scaling.
extern double mmdb_lock_check_seconds, mmdb_lock_giveup_seconds, mmdb_unlock_giveup_seconds;
extern uint32_t mmdb_lock_spin_limit;
