// db_table: a generic table of keyed entries with clients and deferred change
// notification, on which a daemon keeps its objects that are mirrored in the
// kernel. Entries embed a db_entry at their front and are kept in key order.
// Adds, deletes and changes put the entry (once) on the table's change list,
// blocks of 60 slots, and the job "db notify" tells every client later, in
// order, yielding at the slice; a deleted entry is released when nobody
// still refers to it (no pending change, no client word).
//
//   static const db_table_desc desc = {"bd", nullptr, offsetof(my_bd, key), 0, ...};
//   db_table_t *t = db_table_register(7, &desc);
//   db_client_t *c = db_table_client_register(7, &client_desc, cookie);
//   db_entry_add(t, &bd->entry);
//
// Default keys are a 16-bit length followed by the bytes, compared byte by byte
// over the shorter length and then by length; a key of 255 bytes is the
// longest accepted. Everything runs on the scheduler's thread.
#pragma once

#include <cstdint>

#include "containers/bit_vector.h"
#include "containers/hbt.h"
#include "task/job.h"

extern "C" {

struct db_table_t;
struct db_entry;
struct db_client_t;
struct db_mls;
struct db_chng_list;

enum : uint32_t {
  DB_ENTRY_ON_CHANGE = 0x1,
  DB_ENTRY_PRESENT = 0x2,
  DB_ENTRY_DELETED = 0x4,
  DB_ENTRY_CHANGED = 0x8,
  DB_ENTRY_WALKING = 0x10,
  DB_ENTRY_PURGE = 0x20,
  DB_ENTRY_CHUNK_END = 0x200,
};
enum : uint32_t { DB_TABLE_DELETING = 0x1, DB_TABLE_NEEDS_TASK = 0x2 };
enum : uint32_t { DB_CHNG_SLOTS = 60, DB_MLS_SLOTS = 4, DB_KEYMAX_DEFAULT = 256 };

struct db_key {
  uint16_t keylen;
  uint8_t key[DB_KEYMAX_DEFAULT - 1];
};

struct db_entry {
  hbt_node de_node;
  uint32_t state;
  db_mls *clients;
  db_entry **change_slot;
};

struct db_table_desc {
  const char *dtd_name;
  hbt_compare_fn dtd_compare;  // null: the default key at dtd_key_off of the entry
  uint32_t dtd_key_off;
  uint8_t dtd_foreground;      // "db notify" as a foreground job (else priority 4)
  void (*dtd_chunk)(db_table_t *table, db_entry *entry);
  void (*dtd_drained)(db_table_t *table);
  void (*dtd_release)(db_table_t *table, db_entry *entry);  // a deleted entry nobody holds
};

struct db_client_desc {
  const char *dcd_name;
  void (*dcd_change)(db_client_t *client, db_entry *entry);
};

struct db_table_t {
  hbt_node dt_node;
  uint32_t id;
  const db_table_desc *descriptor;
  uint32_t flags;
  hbt_root entries;
  hbt_root clients;
  db_chng_list *change_head;
  db_chng_list *change_tail;
  bit_vector *client_ids;
  task_job *notify_job;
  uint32_t entry_count;
  uint32_t deleted_count;
};

struct db_client_t {
  hbt_node dc_node;
  db_table_t *table;
  uint32_t client_id;
  const db_client_desc *descriptor;
  void *cookie;
};

struct db_chng_list {
  db_chng_list *next_block, *prev_block;
  uint32_t count;
  uint32_t next;
  db_entry *slots[DB_CHNG_SLOTS];
};

struct db_mls {
  uint32_t mask;
  db_mls *next;
  uint32_t base;  // the first client id of the block
  uintptr_t words[DB_MLS_SLOTS];
};

// A module number's comparison, for tables keyed by module.
struct db_modinfo_t {
  hbt_node dmi_hnode;
  uint32_t dmi_module;
  hbt_compare_fn dmi_compare;
};
enum { DB_MODULE_LISTS = 4 };
extern hbt_root db_modules[DB_MODULE_LISTS];
void db_module_register(uint32_t module, hbt_compare_fn compare);
hbt_compare_fn db_module_compare(uint32_t module);

db_table_t *db_table_register(uint32_t id, const db_table_desc *descriptor);
db_table_t *db_table_get(uint32_t id);
// Marks the table deleted: it goes once its entries are gone.
void db_table_delete(db_table_t *table);
db_client_t *db_table_client_register(uint32_t id, const db_client_desc *descriptor, void *cookie);
void db_table_client_delete(db_client_t *client);

void db_entry_add(db_table_t *table, db_entry *entry);
void db_entry_delete(db_table_t *table, db_entry *entry);
void db_entry_notify(db_table_t *table, db_entry *entry);
void db_entry_change(db_table_t *table, db_entry *entry);
void db_entry_remove(db_table_t *table, db_entry *entry, bool notify);

// Walks: first and next in key order, lookup and getnext by a probe entry.
db_entry *db_entry_first(db_table_t *table);
db_entry *db_entry_next(db_table_t *table, db_entry *entry);
db_entry *db_entry_lookup(db_table_t *table, db_entry *probe);
db_entry *db_entry_getnext(db_table_t *table, db_entry *probe);

// A client's word on an entry (0 when none).
void db_client_word_set(db_client_t *client, db_entry *entry, uintptr_t word);
uintptr_t db_client_word_get(db_client_t *client, db_entry *entry);
void db_client_word_clear(db_client_t *client, db_entry *entry);

// Deletes every entry by a job ("db remove all"), a slice at a time; tables
// with the default key only.
void db_table_remove_all(db_table_t *table);
// Change-list blocks of a table (tests, diagnostics).
uint32_t db_table_change_blocks(const db_table_t *table);

// Forgets every table (tests).
void db_table_reset(void);

}  // extern "C"
