// Opening and closing a database, verification, reset, the resynchronisation
// mark and the figures.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <set>

#include "internal.h"
#include "mmf/crashpoint.h"
#include "mmf/meminfo.h"
#include "platform/path.h"

const char *const mmdb_crashpoints[] = {
    // Put: the node allocated but not linked, linked but not counted, the
    // value copied in place but its lengths not stored.
    "mmdb_put_allocated", "mmdb_put_linked", "mmdb_put_copied",
    // Delete: the record unlinked, its node not yet freed.
    "mmdb_delete_unlinked",
    // The replicated part moved in place.
    "mmdb_append_moved",
    // Reset: the buckets emptied, the data file not yet rebuilt.
    "mmdb_reset_heads",
};
const size_t mmdb_crashpoint_count = sizeof mmdb_crashpoints / sizeof mmdb_crashpoints[0];

namespace {

mmdb *handles[MMDB_MAX_IDS];
pthread_mutex_t handles_mu = PTHREAD_MUTEX_INITIALIZER;

const uint32_t kDefaultSizes[] = {64, 128, 256, 512, 1024, 2048, 4096};

int check_chains(mmdb *db, char *why, size_t whylen, bool fix_count);

// The machine-wide open lock, an open-file-description lock: unlike lockf it
// survives the process closing another descriptor of the same file.
int open_lock() {
  std::string path = tvx_path(MMDB_OPEN_LOCK);
  std::string dir = path.substr(0, path.rfind('/'));
  tvx_mkdirs(dir.c_str(), 0755);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  MMDB_ASSERT(fd >= 0);
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  int rc;
  while ((rc = fcntl(fd, F_OFD_SETLKW, &fl)) != 0 && errno == EINTR) {
  }
  MMDB_ASSERT(rc == 0);
  return fd;
}

void open_unlock(int fd) {
  struct flock fl = {};
  fl.l_type = F_UNLCK;
  fl.l_whence = SEEK_SET;
  fcntl(fd, F_OFD_SETLK, &fl);
  close(fd);
}

bool params_ok(const mmdb_params *p) {
  return p->name[0] && memchr(p->name, 0, sizeof p->name) && p->id >= 1 && p->id < MMDB_MAX_IDS - 0 &&
         p->id <= 22 && p->bucket_count > 0 && p->max_key > 0 && p->max_key <= MMDB_MAX_KEYLEN &&
         p->max_replicated <= p->max_data && p->max_bytes > 0 && p->key_prefix_len <= sizeof p->key_prefix &&
         p->num_alloc_sizes < 64 && p->max_mapped_regions > 0 && p->mapped_span > 0 &&
         p->mapped_span <= p->max_bytes;
}

void fresh_header(mmdb *db) {
  mmdb_hash_header_t *h = db->hdr;
  memset(h, 0, MMDB_HASH_HEADER_BYTES);
  h->flags = db->p.flags;
  h->size = MMDB_HASH_HEADER_BYTES;
  h->version = MMDB_HASH_VERSION;
  h->max_key = db->p.max_key;
  h->max_data = db->p.max_data;
  h->max_replicated = db->p.max_replicated;
  h->acks_enabled = (db->p.flags & MMDB_F_ACKS) ? 1 : 0;
}

void free_handle(mmdb *db) {
  if (db->hash) mmf_close(db->hash);
  if (db->data) mmf_close(db->data);
  if (db->log) fclose(db->log);
  delete db;
}

}  // namespace

[[noreturn]] void mmdb_assert_fail(const char *expr, const char *file, int line) {
  fprintf(stderr, "mmdb: assertion '%s' failed at %s:%d\n", expr, file, line);
  fflush(stderr);
  abort();
}

[[noreturn]] void mmdb_assert_corruption(mmdb *db, const char *what, int line) {
  if (db && db->hdr) db->hdr->invalid = 1;
  fprintf(stderr, "mmdb: %s: corrupt %s (line %d)\n", db ? db->p.name : "?", what, line);
  fflush(stderr);
  abort();
}

void mmdb_file_name(const char *name, const char *suffix, char *out, size_t len) {
  snprintf(out, len, "%s%s%s", name[0] == '/' ? "" : MMDB_DIR, name, suffix);
}

void mmdb_meminfo_update(mmdb *db) {
  mmdb_meminfo_payload_t p = {};
  memcpy(p.name, db->p.name, strnlen(db->p.name, sizeof p.name - 1));
  const mmdb_hash_header_t *h = db->hdr;
  p.id = db->id;
  p.bucket_count = db->p.bucket_count;
  p.record_count = h->record_count;
  p.resets = h->resets;
  p.data_current_bytes = db->data->shared_info->current_bytes;
  p.data_max_bytes = db->p.max_bytes;
  p.lock_count = h->lock.lock_count;
  p.contended = h->lock.contended;
  p.reps_registered = h->reps_registered;
  p.pid = static_cast<uint32_t>(getpid());
  p.invalid = h->invalid;
  p.longest_key = h->longest_key;
  p.longest_value = h->longest_value;
  meminfo_update(MEMINFO_TYPE_MMDB, p.name, &p, sizeof p, &db->meminfo_offset);
}

mmdb *mmdb_open(const mmdb_params *params, int *status) {
  int dummy;
  if (!status) status = &dummy;
  if (!params || !params_ok(params)) {
    *status = MMDB_INVALID_ARG;
    return nullptr;
  }
  int lockfd = open_lock();
  pthread_mutex_lock(&handles_mu);
  if (handles[params->id]) {
    pthread_mutex_unlock(&handles_mu);
    open_unlock(lockfd);
    *status = MMDB_INVALID_ARG;
    return nullptr;
  }
  mmdb *db = new mmdb();
  db->p = *params;
  db->id = params->id;
  if (!db->p.num_alloc_sizes) {
    db->p.num_alloc_sizes = sizeof kDefaultSizes / sizeof kDefaultSizes[0];
    memcpy(db->p.alloc_sizes, kDefaultSizes, sizeof kDefaultSizes);
  }
  if (getenv("TVX_MMF_DEBUG") && (mmf_debug() & MMDB_DEBUG_LOG))
    db->log = fopen(tvx_path(MMDB_LOG_FILE).c_str(), "ae");
  char name[1100];

  // The hash file: header and bucket slots in one common block.
  uint32_t block = MMDB_HASH_HEADER_BYTES + (db->p.bucket_count + 1) * static_cast<uint32_t>(sizeof(mmdb_bucket_t));
  int64_t page = getpagesize();
  int64_t bytes = (block + mmf_node_bytes + MMF_HEADER_SIZE + page - 1) / page * page + page;
  bytes += page;  // the header's page of its own
  mmdb_file_name(db->p.name, "_hash", name, sizeof name);
  bool hash_new = false;
  db->hash = mmf_create(name, bytes, bytes, bytes, true, 0, 1, 1, &block, 0, &hash_new);
  off_t off;
  uint32_t len = block;
  void *common = db->hash ? mmf_alloc_common(db->hash, &len, &off) : nullptr;
  if (!common || len != block) {
    free_handle(db);
    pthread_mutex_unlock(&handles_mu);
    open_unlock(lockfd);
    *status = MMDB_NOMEM;
    return nullptr;
  }
  db->hdr = static_cast<mmdb_hash_header_t *>(common);
  db->buckets = reinterpret_cast<mmdb_bucket_t *>(static_cast<char *>(common) + MMDB_HASH_HEADER_BYTES);
  if (hash_new || db->hdr->version != MMDB_HASH_VERSION || db->hdr->size != MMDB_HASH_HEADER_BYTES) {
    // A rebuilt file hands the block out with whatever bytes it held: the
    // bucket slots start empty, not with a stranger's lock words.
    hash_new = true;
    memset(db->buckets, 0, (db->p.bucket_count + 1) * sizeof(mmdb_bucket_t));
    fresh_header(db);
  }
  // The file decides whether records carry the ack cookie, so that every
  // process reads the same layout whatever flags it opened with.
  db->cookie_bytes = db->hdr->acks_enabled ? 8 : 0;

  // The data file: the caller's sizes plus the record header.
  uint32_t sizes[64];
  for (uint32_t i = 0; i < db->p.num_alloc_sizes; i++) sizes[i] = db->p.alloc_sizes[i] + MMDB_RECORD_BYTES;
  bool single = db->p.max_bytes == db->p.mapped_span;
  int64_t region = single ? 0 : static_cast<int64_t>(db->p.mapped_span / db->p.max_mapped_regions);
  mmdb_file_name(db->p.name, "_data", name, sizeof name);
  db->data = mmf_create(name, static_cast<int64_t>(db->p.max_bytes), static_cast<int64_t>(db->p.default_bytes),
                        static_cast<int64_t>(db->p.grow_by_bytes), single, region,
                        single ? 1 : db->p.max_mapped_regions, db->p.num_alloc_sizes, sizes, 0, nullptr);
  if (!db->data) {
    free_handle(db);
    pthread_mutex_unlock(&handles_mu);
    open_unlock(lockfd);
    *status = MMDB_NOMEM;
    return nullptr;
  }
  // Locks of dead holders, once the data file is there to repair their buckets in.
  mmdb_lock_clean(db, true);
  // A data file without allocations cannot hold the chains the buckets name.
  if (db->data->shared_info->allocated_bytes == 0) {
    for (uint32_t b = 0; b < db->p.bucket_count; b++) memset(&db->buckets[b].head, 0, 8);
    db->hdr->record_count = 0;
    db->hdr->scan[MMDB_SCAN_VALUE_BYTES] = 0;
  }
  if (hash_new) mmdb_reset(db);
  // Every chain is walked once at open, as the mapped files' nodes are: a
  // damaged chain (or one that some process found corrupt and marked) is
  // rebuilt empty here, rather than killing every process that walks into it.
  if (mmdb_verify(db) == MMDB_SUCCESS && check_chains(db, nullptr, 0, false) != MMDB_SUCCESS) mmdb_reset(db);
  if (mmdb_verify(db) != MMDB_SUCCESS) {
    mmf_destroy(db->hash);
    mmf_destroy(db->data);
    db->hash = db->data = nullptr;
    free_handle(db);
    pthread_mutex_unlock(&handles_mu);
    open_unlock(lockfd);
    *status = MMDB_CORRUPT;
    return nullptr;
  }
  handles[db->id] = db;
  pthread_mutex_unlock(&handles_mu);
  mmdb_clear_replicators(db);
  mmdb_log(db, nullptr, MMDB_OPER_INIT, nullptr, 0, __LINE__);
  db->meminfo_offset = -1;
  mmdb_meminfo_update(db);
  mmdb_registry_store(&db->p);
  open_unlock(lockfd);
  if (db->cookie_bytes && mmdb_ack_join() != MMDB_SUCCESS) {
    mmdb_close(db);
    *status = MMDB_NOMEM;
    return nullptr;
  }
  *status = MMDB_SUCCESS;
  return db;
}

mmdb *mmdb_open_by_id(uint32_t id, int *status) {
  mmdb_params p;
  int st = mmdb_get_create_params_by_id(id, &p);
  if (st != MMDB_SUCCESS) {
    if (status) *status = st;
    return nullptr;
  }
  return mmdb_open(&p, status);
}

void mmdb_for_each_open(void (*fn)(mmdb *db)) {
  pthread_mutex_lock(&handles_mu);
  for (mmdb *db : handles)
    if (db) fn(db);
  pthread_mutex_unlock(&handles_mu);
}

void mmdb_close(mmdb *db) {
  if (!db) return;
  db->closing_thread = pthread_self();
  db->closing = 1;
  // Wait for every bucket another thread of this process holds.
  uint32_t pid = static_cast<uint32_t>(getpid());
  for (uint32_t b = 0; b <= db->p.bucket_count; b++)
    while (__atomic_load_n(&db->buckets[b].pid, __ATOMIC_ACQUIRE) == pid &&
           db->buckets[b].thread != static_cast<uint64_t>(pthread_self()))
      mmdb_sleep_us(10000);
  if (db->iter) mmdb_iterator_delete(db->iter);
  mmdb_clear_replicators(db);
  pthread_mutex_lock(&handles_mu);
  if (handles[db->id] == db) handles[db->id] = nullptr;
  pthread_mutex_unlock(&handles_mu);
  free_handle(db);
}

void mmdb_destroy(mmdb *db) {
  if (!db) return;
  std::string name = db->p.name;
  mmdb_close(db);
  mmdb_remove(name.c_str());
}

int mmdb_remove(const char *name) {
  if (!name || !*name) return MMDB_INVALID_ARG;
  char path[1100];
  mmdb_file_name(name, "_hash", path, sizeof path);
  int a = mmf_unlink(path);
  mmdb_file_name(name, "_data", path, sizeof path);
  int b = mmf_unlink(path);
  return a == 0 || b == 0 ? MMDB_SUCCESS : MMDB_NOT_FOUND;
}

int mmdb_verify(mmdb *db) {
  if (!db) return MMDB_INVALID_ARG;
  if (!mmf_valid(db->hash, false) || !mmf_valid(db->data, false)) {
    db->invalid = 1;
    db->hdr->invalid = 1;
    return MMDB_CORRUPT;
  }
  db->invalid = 0;
  db->hdr->invalid = 0;
  return MMDB_SUCCESS;
}

int mmdb_verify_chains(mmdb *db, char *why, size_t whylen) {
  if (!db) return MMDB_INVALID_ARG;
  return check_chains(db, why, whylen, true);
}

namespace {

// The walk of every chain; fix_count puts a record count right (only while
// nobody writes: at open others may be writing, and the count is left be).
int check_chains(mmdb *db, char *why, size_t whylen, bool fix_count) {
  auto fail = [&](const char *fmt, uint32_t b, uint64_t off) {
    if (why) snprintf(why, whylen, fmt, b, off);
    return MMDB_CORRUPT;
  };
  if (mmdb_verify(db) != MMDB_SUCCESS) return fail("mapped files not valid (bucket %u, offset %" PRIu64 ")", 0, 0);
  uint64_t total = 0;
  for (uint32_t b = 0; b < db->p.bucket_count; b++) {
    mmdb_lock_bucket(db, b);
    uint64_t off = mmdb_load64(&db->buckets[b].head);
    uint64_t n = 0;
    std::set<std::string> keys;
    while (off) {
      mmdb_record_t *e = mmf_validate_user_offset(db->data, static_cast<off_t>(off), false)
                             ? mmdb_rec(db, off, MMDB_RECORD_BYTES)
                             : nullptr;
      const char *bad = nullptr;
      if (!e || e->offset != off)
        bad = "bucket %u: record at %" PRIu64 " names another offset";
      else if (e->bucket != b)
        bad = "bucket %u: record at %" PRIu64 " names another bucket";
      else if (e->keylen == 0 || e->keylen > db->p.max_key || e->replen > e->datalen || e->datalen > e->capacity ||
               mmdb_rec_len(db, e) > mmf_get_user_usable_len(db->data, static_cast<off_t>(off)))
        bad = "bucket %u: record at %" PRIu64 " has bad lengths";
      else if (mmdb_hash(e->keylen, mmdb_rec_key(mmdb_rec(db, off, MMDB_RECORD_BYTES + e->keylen))) %
                   db->p.bucket_count !=
               b)
        bad = "bucket %u: record at %" PRIu64 " hashes elsewhere";
      else if (++n > 1000000)
        bad = "bucket %u: chain too long at %" PRIu64;
      else if (!keys.emplace(reinterpret_cast<const char *>(mmdb_rec_key(mmdb_rec(db, off, MMDB_RECORD_BYTES + e->keylen))),
                             e->keylen)
                    .second)
        bad = "bucket %u: record at %" PRIu64 " repeats a key";
      if (bad) {
        mmdb_unlock_bucket(db, b);
        return fail(bad, b, off);
      }
      off = e->next;
    }
    total += n;
    mmdb_unlock_bucket(db, b);
  }
  // A writer that died between linking and counting leaves the count off by
  // one: the walk, taken while nothing changes, is the truth.
  uint32_t counted = __atomic_load_n(&db->hdr->record_count, __ATOMIC_RELAXED);
  if (fix_count && total != counted) {
    __atomic_store_n(&db->hdr->record_count, static_cast<uint32_t>(total), __ATOMIC_RELAXED);
    db->hdr->report[2]++;
    if (why) snprintf(why, whylen, "record count corrected from %u to %" PRIu64, counted, total);
  }
  return MMDB_SUCCESS;
}

}  // namespace

int mmdb_reset(mmdb *db) {
  if (!db) return MMDB_INVALID_ARG;
  mmdb_log(db, nullptr, MMDB_OPER_CLEAR, nullptr, 0, __LINE__);
  if (!mmf_valid(db->hash, false)) {
    mmf_reset(db->hash);
    off_t off;
    uint32_t block = MMDB_HASH_HEADER_BYTES + (db->p.bucket_count + 1) * static_cast<uint32_t>(sizeof(mmdb_bucket_t));
    uint32_t len = block;
    void *common = mmf_alloc_common(db->hash, &len, &off);
    MMDB_ASSERT(common && len == block);
    db->hdr = static_cast<mmdb_hash_header_t *>(common);
    db->buckets = reinterpret_cast<mmdb_bucket_t *>(static_cast<char *>(common) + MMDB_HASH_HEADER_BYTES);
    fresh_header(db);
  }
  mmdb_lock_clean(db, false);
  // Every bucket is held while the chains and the data file go: a writer or
  // reader of another process would otherwise walk into a chain torn down
  // under it, or link a record into the file being rebuilt. Taken in order,
  // and a holder holds one bucket at a time, so no one waits in a circle.
  for (uint32_t b = 0; b < db->p.bucket_count; b++) mmdb_lock_bucket(db, b);
  mmdb_hash_header_t *h = db->hdr;
  memset(&h->lock, 0, sizeof h->lock);
  memset(h->scan, 0, sizeof h->scan);
  h->longest_key = h->longest_value = 0;
  h->invalid = 0;
  for (uint32_t b = 0; b < db->p.bucket_count; b++) memset(&db->buckets[b].head, 0, 8);
  h->record_count = 0;
  TVX_CRASHPOINT("mmdb_reset_heads");
  // Replicators see the count move and start over.
  __atomic_add_fetch(&h->resets, 1u, __ATOMIC_RELEASE);
  // The rebuild writes up to the file's current end, which another process
  // may have grown past this one's mapping (no one grows it now: growth
  // needs a bucket).
  mmf_refresh(db->data);
  mmf_reset(db->data);
  for (uint32_t b = db->p.bucket_count; b-- > 0;) mmdb_unlock_bucket(db, b);
  mmdb_lock_clean(db, false);
  return mmdb_verify(db);
}

int mmdb_scan_all(mmdb *db, uint32_t *seen) {
  if (!db) return MMDB_INVALID_ARG;
  if (seen) *seen = 0;
  if (mmdb_is_invalid(db)) return MMDB_CORRUPT;
  if (db->p.flags & MMDB_F_RESET_ON_RESYNC) return mmdb_reset(db);
  mmdb_log(db, nullptr, MMDB_OPER_RESYNC_PREPARE_START, nullptr, 0, __LINE__);
  memset(db->hdr->report, 0, sizeof db->hdr->report);
  uint32_t n = 0;
  for (uint32_t b = 0; b < db->p.bucket_count; b++) {
    mmdb_lock_bucket(db, b);
    for (uint64_t off = mmdb_load64(&db->buckets[b].head); off;) {
      mmdb_record_t *e = mmdb_rec(db, off, MMDB_RECORD_BYTES);
      e = mmdb_rec(db, off, MMDB_RECORD_BYTES + e->keylen);
      bool is_prefix = db->p.key_prefix_len == e->keylen &&
                       memcmp(mmdb_rec_key(e), db->p.key_prefix, e->keylen) == 0;
      if (!is_prefix) {
        e->eflag |= MMDB_EF_RESYNC;
        mmdb_log(db, e, MMDB_OPER_RESYNC_SET, mmdb_rec_key(e), e->keylen, __LINE__);
      }
      n++;
      off = e->next;
    }
    mmdb_unlock_bucket(db, b);
  }
  if (seen) *seen = n;
  mmdb_log(db, nullptr, MMDB_OPER_RESYNC_PREPARE_DONE, nullptr, 0, __LINE__);
  return MMDB_SUCCESS;
}

void mmdb_show(mmdb *db, FILE *f) {
  if (!db) return;
  uint32_t entries = 0, with_data = 0, keys = 0, data = 0, rep = 0;
  for (uint32_t b = 0; b < db->p.bucket_count; b++) {
    mmdb_lock_bucket(db, b);
    for (uint64_t off = mmdb_load64(&db->buckets[b].head); off;) {
      mmdb_record_t *e = mmdb_rec(db, off, MMDB_RECORD_BYTES);
      entries++;
      if (e->datalen) with_data++;
      keys += e->keylen;
      data += e->datalen;
      rep += e->replen;
      off = e->next;
    }
    mmdb_unlock_bucket(db, b);
  }
  mmdb_hash_header_t *h = db->hdr;
  h->scan[MMDB_SCAN_ENTRIES] = entries;
  h->scan[MMDB_SCAN_WITH_DATA] = with_data;
  h->scan[MMDB_SCAN_KEY_BYTES] = keys;
  h->scan[MMDB_SCAN_DATA_BYTES] = data;
  h->scan[MMDB_SCAN_REP_BYTES] = rep;
  fprintf(f, "mmdb %u %s: %s\n", db->id, db->p.name, h->invalid ? "INVALID" : "valid");
  fprintf(f, "buckets %u  max key %u  max data %u  max replicated %u  flags 0x%x\n", db->p.bucket_count,
          h->max_key, h->max_data, h->max_replicated, h->flags);
  fprintf(f, "records %u  with data %u  key bytes %u  value bytes %u  replicated bytes %u\n", h->record_count,
          with_data, keys, data, rep);
  fprintf(f, "longest key %u  longest value %u  resets %u\n", h->longest_key, h->longest_value, h->resets);
  fprintf(f, "locks %" PRIu64 "  contended %" PRIu64 "  waited %" PRIu64 " ns  recursion %u  taken from dead %u\n",
          static_cast<uint64_t>(h->lock.lock_count), static_cast<uint64_t>(h->lock.contended),
          static_cast<uint64_t>(h->lock.wait_ns), h->lock.recursion, h->lock.stolen);
  fprintf(f, "data file: current %" PRIu64 "  max %" PRIu64 "  allocated %" PRIu64 "\n",
          static_cast<uint64_t>(db->data->shared_info->current_bytes), static_cast<uint64_t>(db->p.max_bytes),
          static_cast<uint64_t>(db->data->shared_info->allocated_bytes));
  for (uint32_t i = 0; i < MMDB_MAX_REPLICATORS; i++) {
    const mmdb_replicator_t &r = h->rep[i];
    if (r.pid)
      fprintf(f, "replicator %u: pid %u%s  seen %u  lost %u\n", i, r.pid, r.want_msgs ? " messages" : "", r.seen,
              r.lost);
  }
}

mmdb_hash_header_t *mmdb_header(mmdb *db) { return db->hdr; }
uint32_t mmdb_id(const mmdb *db) { return db->id; }
const mmdb_params *mmdb_get_params(const mmdb *db) { return &db->p; }
mmf *mmdb_hash_mmf(mmdb *db) { return db->hash; }
mmf *mmdb_data_mmf(mmdb *db) { return db->data; }
