// Records: the hash, lookup along a bucket's chain, put, get, delete, the
// replicated part, and the cookie form that works on the value in place.
#include <cstdlib>

#include "internal.h"
#include "mmf/crashpoint.h"

uint32_t mmdb_hash(uint32_t keylen, const void *key) {
  MMDB_ASSERT(keylen < 0x400);
  const uint8_t *k = static_cast<const uint8_t *>(key);
  uint32_t h = 0;
  if (keylen % 4 == 0) {
    for (uint32_t i = 0; i < keylen; i += 4) {
      uint32_t w;
      memcpy(&w, k + i, 4);
      h += w;
    }
  } else if (keylen % 2 == 0) {
    for (uint32_t i = 0; i < keylen; i += 2) {
      uint16_t w;
      memcpy(&w, k + i, 2);
      h += w;
    }
  } else {
    h = k[0];
    uint32_t shift = 1;
    for (uint32_t i = 1; i < keylen; i++) {
      h += static_cast<uint32_t>(k[i]) << shift;
      shift = shift == 8 ? 0 : shift + 1;
    }
  }
  return h;
}

namespace {

inline uint32_t bucket_of(mmdb *db, uint32_t keylen, const void *key) {
  return mmdb_hash(keylen, key) % db->p.bucket_count;
}

void set_head(mmdb *db, uint32_t b, uint64_t off) { memcpy(&db->buckets[b].head, &off, 8); }

void note_lengths(mmdb *db, uint32_t keylen, uint32_t datalen) {
  if (keylen > db->hdr->longest_key) db->hdr->longest_key = keylen;
  if (datalen > db->hdr->longest_value) db->hdr->longest_value = datalen;
}

// A new record at the head of locked bucket b; 0 when the file is full.
uint64_t insert(mmdb *db, uint32_t b, const void *key, uint32_t keylen, const void *data, uint32_t datalen,
                uint32_t capacity, uint32_t replen) {
  off_t off = 0;
  uint32_t need = MMDB_RECORD_BYTES + keylen + db->cookie_bytes + capacity;
  if (!mmf_alloc(db->data, need, &off) || !off) return 0;
  TVX_CRASHPOINT("mmdb_put_allocated");
  uint32_t usable = mmf_get_user_usable_len(db->data, off);
  mmdb_record_t *e = mmdb_rec(db, static_cast<uint64_t>(off), usable);
  mmdb_record_t r = {};
  r.offset = static_cast<uint64_t>(off);
  r.bucket = b;
  r.next = mmdb_load64(&db->buckets[b].head);
  r.keylen = static_cast<uint16_t>(keylen);
  r.capacity = usable - MMDB_RECORD_BYTES - keylen - db->cookie_bytes;
  r.datalen = datalen;
  r.replen = replen;
  memcpy(e, &r, sizeof r);
  memcpy(mmdb_rec_key(e), key, keylen);
  if (db->cookie_bytes) memset(mmdb_rec_key(e) + keylen, 0, db->cookie_bytes);
  memcpy(mmdb_rec_value(db, e), data, datalen);
  // One store makes the record visible; a death before it leaks the node only.
  set_head(db, b, r.offset);
  TVX_CRASHPOINT("mmdb_put_linked");
  __atomic_add_fetch(&db->hdr->record_count, 1u, __ATOMIC_RELAXED);
  __atomic_add_fetch(&db->hdr->scan[MMDB_SCAN_VALUE_BYTES], datalen, __ATOMIC_RELAXED);
  note_lengths(db, keylen, datalen);
  return r.offset;
}

bool bad_key(mmdb *db, const void *key, uint32_t keylen) {
  return !key || keylen == 0 || keylen > db->p.max_key;
}

// What every call on a key checks first.
int precheck(mmdb *db, const void *key, uint32_t keylen) {
  if (mmdb_is_invalid(db)) return MMDB_CORRUPT;
  return bad_key(db, key, keylen) ? MMDB_INVALID_ARG : MMDB_SUCCESS;
}

}  // namespace

uint64_t mmdb_find(mmdb *db, const void *key, uint32_t keylen, uint32_t *bucket, uint64_t *prev) {
  uint32_t b = bucket_of(db, keylen, key);
  *bucket = b;
  *prev = 0;
  mmdb_lock_bucket(db, b);
  uint64_t p = 0, off = mmdb_load64(&db->buckets[b].head);
  uint32_t n = 0;
  while (off) {
    mmdb_record_t *e = mmdb_rec(db, off, MMDB_RECORD_BYTES + keylen);
    if (!e || e->offset != off || e->next == off || ++n > 1000000) {
      mmdb_unlock_bucket(db, b);
      mmdb_assert_corruption(db, "chain", __LINE__);
    }
    if (e->keylen == keylen && memcmp(mmdb_rec_key(e), key, keylen) == 0) {
      *prev = p;
      return off;
    }
    p = off;
    off = e->next;
  }
  mmdb_unlock_bucket(db, b);
  return 0;
}

mmdb_record_t *mmdb_find_record(mmdb *db, const void *key, uint32_t keylen, uint32_t *bucket, uint64_t *prev,
                                uint64_t *off) {
  *off = mmdb_find(db, key, keylen, bucket, prev);
  if (!*off) return nullptr;
  mmdb_record_t *e = mmdb_rec(db, *off, MMDB_RECORD_BYTES + keylen);
  return mmdb_rec(db, *off, mmdb_rec_len(db, e));
}

void mmdb_unlink(mmdb *db, uint32_t b, uint64_t off, uint64_t prev) {
  mmdb_record_t *e = mmdb_rec(db, off, MMDB_RECORD_BYTES);
  uint64_t next = e->next;
  uint32_t datalen = e->datalen;
  if (prev) {
    mmdb_record_t *pe = mmdb_rec(db, prev, MMDB_RECORD_BYTES);
    pe->next = next;
  } else {
    set_head(db, b, next);
  }
  TVX_CRASHPOINT("mmdb_delete_unlinked");
  __atomic_sub_fetch(&db->hdr->record_count, 1u, __ATOMIC_RELAXED);
  __atomic_sub_fetch(&db->hdr->scan[MMDB_SCAN_VALUE_BYTES], datalen, __ATOMIC_RELAXED);
  mmf_free_offset(db->data, static_cast<off_t>(off));
}

int mmdb_put(mmdb *db, const void *key, uint32_t keylen, const void *data, uint32_t datalen, uint32_t capacity,
             uint32_t replen, bool must_be_new) {
  if (!db) return MMDB_INVALID_ARG;
  if (mmdb_is_invalid(db)) return MMDB_CORRUPT;
  if (bad_key(db, key, keylen) || datalen > db->p.max_data || replen > db->p.max_replicated ||
      (datalen && !data))
    return MMDB_INVALID_ARG;
  MMDB_ASSERT(capacity >= datalen);
  MMDB_ASSERT(datalen >= replen);
  // The bucket is held across the lookup and the insert: a miss must not let
  // another writer add the same key in between.
  uint32_t b = bucket_of(db, keylen, key);
  mmdb_lock_bucket(db, b);
  uint64_t prev;
  uint64_t off = mmdb_find(db, key, keylen, &b, &prev);
  if (off) mmdb_unlock_bucket(db, b);  // the lookup's own hold
  if (off) {
    if (must_be_new) {
      mmdb_log(db, nullptr, MMDB_OPER_NOADD, key, keylen, __LINE__);
      mmdb_unlock_bucket(db, b);
      return MMDB_EXISTS;
    }
    mmdb_record_t *e = mmdb_rec(db, off, MMDB_RECORD_BYTES + keylen);
    uint32_t room = e->capacity;
    if (room >= datalen) {
      e = mmdb_rec(db, off, mmdb_rec_len(db, e));
      // In place: a writer that dies inside the value leaves the mark, and the
      // record is dropped by whoever takes the bucket over.
      uint32_t old = e->datalen;
      e->eflag |= MMDB_EF_WRITING;
      memcpy(mmdb_rec_value(db, e), data, datalen);
      TVX_CRASHPOINT("mmdb_put_copied");
      e->datalen = datalen;
      e->replen = replen;
      __atomic_thread_fence(__ATOMIC_RELEASE);
      e->eflag &= ~MMDB_EF_WRITING;
      __atomic_add_fetch(&db->hdr->scan[MMDB_SCAN_VALUE_BYTES], datalen - old, __ATOMIC_RELAXED);
      note_lengths(db, keylen, datalen);
      mmdb_log(db, e, MMDB_OPER_ADD, key, keylen, __LINE__);
      mmdb_send_change(db, key, keylen, false);
      mmdb_unlock_bucket(db, b);
      return MMDB_SUCCESS;
    }
    mmdb_unlink(db, b, off, prev);
  }
  uint64_t made = insert(db, b, key, keylen, data, datalen, capacity, replen);
  if (!made) {
    // The old record went already: its replicators must hear so.
    if (off) mmdb_send_change(db, key, keylen, true);
    mmdb_unlock_bucket(db, b);
    return MMDB_NOMEM;
  }
  mmdb_log(db, mmdb_rec(db, made, MMDB_RECORD_BYTES), datalen ? MMDB_OPER_ADD : MMDB_OPER_ADD_NODATA, key, keylen,
           __LINE__);
  mmdb_send_change(db, key, keylen, false);
  mmdb_unlock_bucket(db, b);
  return MMDB_SUCCESS;
}

int mmdb_get(mmdb *db, const void *key, uint32_t keylen, void *buf, uint32_t *len, uint32_t *replen) {
  if (!db || !len) return MMDB_INVALID_ARG;
  if (int st = precheck(db, key, keylen)) return st;
  uint32_t b;
  uint64_t prev, off;
  mmdb_record_t *e = mmdb_find_record(db, key, keylen, &b, &prev, &off);
  if (!e) return MMDB_NOT_FOUND;
  int st = MMDB_SUCCESS;
  if (*len < e->datalen || (e->datalen && !buf))
    st = MMDB_BUFFER_TOO_SMALL;
  else
    memcpy(buf, mmdb_rec_value(db, e), e->datalen);
  *len = e->datalen;
  if (replen) *replen = e->replen;
  mmdb_unlock_bucket(db, b);
  return st;
}

int mmdb_delete(mmdb *db, const void *key, uint32_t keylen) {
  if (!db) return MMDB_INVALID_ARG;
  if (int st = precheck(db, key, keylen)) return st;
  uint32_t b;
  uint64_t prev;
  uint64_t off = mmdb_find(db, key, keylen, &b, &prev);
  if (!off) return MMDB_NOT_FOUND;
  mmdb_log(db, mmdb_rec(db, off, MMDB_RECORD_BYTES), MMDB_OPER_REMOVE, key, keylen, __LINE__);
  mmdb_unlink(db, b, off, prev);
  mmdb_send_change(db, key, keylen, true);
  mmdb_unlock_bucket(db, b);
  return MMDB_SUCCESS;
}

int mmdb_append_replicated(mmdb *db, uint32_t keylen, const void *key, uint32_t len, const void *data) {
  if (!db) return MMDB_INVALID_ARG;
  if (mmdb_is_invalid(db)) return MMDB_CORRUPT;
  if (bad_key(db, key, keylen) || len > db->p.max_replicated || (len && !data)) return MMDB_INVALID_ARG;
  uint32_t b;
  uint64_t prev, off;
  mmdb_record_t *e = mmdb_find_record(db, key, keylen, &b, &prev, &off);
  if (!e) return MMDB_NOT_FOUND;
  uint32_t tail = e->datalen - e->replen, total = len + tail;
  if (total > db->p.max_data) {
    mmdb_unlock_bucket(db, b);
    return MMDB_INVALID_ARG;
  }
  if (total <= e->capacity) {
    uint8_t *v = mmdb_rec_value(db, e);
    e->eflag |= MMDB_EF_WRITING;
    memmove(v + len, v + e->replen, tail);
    memcpy(v, data, len);
    TVX_CRASHPOINT("mmdb_append_moved");
    __atomic_add_fetch(&db->hdr->scan[MMDB_SCAN_VALUE_BYTES], total - e->datalen, __ATOMIC_RELAXED);
    e->datalen = total;
    e->replen = len;
    __atomic_thread_fence(__ATOMIC_RELEASE);
    e->eflag &= ~MMDB_EF_WRITING;
    note_lengths(db, keylen, total);
  } else {
    uint8_t *nv = static_cast<uint8_t *>(malloc(total ? total : 1));
    if (!nv) {
      mmdb_unlock_bucket(db, b);
      return MMDB_NOMEM;
    }
    memcpy(nv, data, len);
    memcpy(nv + len, mmdb_rec_value(db, e) + e->replen, tail);
    mmdb_unlink(db, b, off, prev);
    uint64_t made = insert(db, b, key, keylen, nv, total, total, len);
    free(nv);
    if (!made) {
      mmdb_send_change(db, key, keylen, true);
      mmdb_unlock_bucket(db, b);
      return MMDB_NOMEM;
    }
  }
  mmdb_log(db, nullptr, MMDB_OPER_ADD, key, keylen, __LINE__);
  mmdb_send_change(db, key, keylen, false);
  mmdb_unlock_bucket(db, b);
  return MMDB_SUCCESS;
}

int mmdb_get_dataptr(mmdb *db, const void *key, uint32_t keylen, void **data, mmdb_cookie *cookie) {
  if (!db || !data || !cookie) return MMDB_INVALID_ARG;
  if (int st = precheck(db, key, keylen)) return st;
  uint32_t b;
  uint64_t prev, off;
  mmdb_record_t *e = mmdb_find_record(db, key, keylen, &b, &prev, &off);
  if (!e) return MMDB_NOT_FOUND;
  *cookie = {b, off, e->keylen, e->replen, e->datalen, e->capacity, mmdb_rec_len(db, e), mmdb_hash(keylen, key)};
  *data = mmdb_rec_value(db, e);
  // The holder may write in place: should it die holding the reference, the
  // record is dropped rather than read half-written.
  e->eflag |= MMDB_EF_WRITING;
  mmdb_log(db, e, MMDB_OPER_GET_DATAPTR, key, keylen, __LINE__);
  return MMDB_SUCCESS;  // the bucket stays locked
}

namespace {

// The record a cookie names, checked against it.
mmdb_record_t *cookie_record(mmdb *db, const mmdb_cookie *cookie) {
  MMDB_ASSERT(cookie->bucket < db->p.bucket_count);
  mmdb_record_t *e = mmdb_rec(db, cookie->offset, MMDB_RECORD_BYTES);
  MMDB_ASSERT(e && e->offset == cookie->offset);
  MMDB_ASSERT(cookie->keylen == e->keylen);
  e = mmdb_rec(db, cookie->offset, mmdb_rec_len(db, e));
  uint32_t hashv = mmdb_hash(e->keylen, mmdb_rec_key(e));
  MMDB_ASSERT(cookie->hashval == hashv);
  return e;
}

}  // namespace

int mmdb_update_dataptr(mmdb *db, mmdb_cookie *cookie, uint32_t len) {
  if (!db || !cookie) return MMDB_INVALID_ARG;
  mmdb_record_t *e = cookie_record(db, cookie);
  uint32_t b = static_cast<uint32_t>(cookie->bucket);
  if (len > e->capacity || len > db->p.max_data || cookie->replen > len || cookie->replen > db->p.max_replicated) {
    e->eflag &= ~MMDB_EF_WRITING;
    mmdb_unlock_bucket(db, b);
    return MMDB_INVALID_ARG;
  }
  mmdb_log(db, e, MMDB_OPER_UPDATE_DATAPTR_COOKIE_ENTRY, mmdb_rec_key(e), e->keylen, __LINE__);
  __atomic_add_fetch(&db->hdr->scan[MMDB_SCAN_VALUE_BYTES], len - e->datalen, __ATOMIC_RELAXED);
  e->datalen = len;
  e->replen = static_cast<uint32_t>(cookie->replen);
  cookie->datalen = len;
  __atomic_thread_fence(__ATOMIC_RELEASE);
  e->eflag &= ~MMDB_EF_WRITING;
  note_lengths(db, e->keylen, len);
  // The key is copied out: the send may map, and in region mode move the record.
  uint8_t key[MMDB_MAX_KEYLEN];
  uint32_t keylen = e->keylen;
  memcpy(key, mmdb_rec_key(e), keylen);
  mmdb_send_change(db, key, keylen, false);
  mmdb_log(db, nullptr, MMDB_OPER_UPDATE_DATAPTR_EXIT, key, keylen, __LINE__);
  mmdb_unlock_bucket(db, b);
  return MMDB_SUCCESS;
}

int mmdb_release_dataptr_ack(mmdb *db, mmdb_cookie *cookie) {
  if (!db || !cookie) return MMDB_INVALID_ARG;
  mmdb_record_t *e = cookie_record(db, cookie);
  e->eflag &= ~MMDB_EF_WRITING;
  mmdb_log(db, e, MMDB_OPER_RELEASE_DATAPTR, mmdb_rec_key(e), e->keylen, __LINE__);
  mmdb_unlock_bucket(db, static_cast<uint32_t>(cookie->bucket));
  return MMDB_SUCCESS;
}
