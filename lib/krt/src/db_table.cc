// db_table: tables, clients, change lists and the "db notify" job, client
// words, and the remove-all job.
#include "krt/db_table.h"

#include <cstdlib>
#include <cstring>

#include "krt/krt.h"
#include "task/task.h"

hbt_root db_modules[DB_MODULE_LISTS];

namespace {

hbt_root tables;
task *db_task;
uint32_t key_off;  // the default comparison's key place, set around each tree call

int table_cmp(const hbt_node *a, const hbt_node *b) {
  uint32_t x = HBT_ENTRY(a, db_table_t, dt_node)->id, y = HBT_ENTRY(b, db_table_t, dt_node)->id;
  return x < y ? -1 : x > y;
}
int client_cmp(const hbt_node *a, const hbt_node *b) {
  uint32_t x = HBT_ENTRY(a, db_client_t, dc_node)->client_id, y = HBT_ENTRY(b, db_client_t, dc_node)->client_id;
  return x < y ? -1 : x > y;
}
int db_modinfo_cmp(const hbt_node *a, const hbt_node *b) {
  uint32_t x = HBT_ENTRY(a, db_modinfo_t, dmi_hnode)->dmi_module, y = HBT_ENTRY(b, db_modinfo_t, dmi_hnode)->dmi_module;
  return x < y ? -1 : x > y;
}

const db_key *key_of(const db_entry *e) {
  return reinterpret_cast<const db_key *>(reinterpret_cast<const uint8_t *>(e) + key_off);
}
int key_cmp(const hbt_node *a, const hbt_node *b) {
  const db_key *x = key_of(HBT_ENTRY(a, db_entry, de_node)), *y = key_of(HBT_ENTRY(b, db_entry, de_node));
  uint32_t n = x->keylen < y->keylen ? x->keylen : y->keylen;
  if (int c = memcmp(x->key, y->key, n)) return c;
  return x->keylen < y->keylen ? -1 : x->keylen > y->keylen;
}

hbt_compare_fn cmp_of(const db_table_t *t) {
  key_off = t->descriptor->dtd_key_off;
  return t->descriptor->dtd_compare ? t->descriptor->dtd_compare : key_cmp;
}

void check_key(const db_table_t *t, const db_entry *e) {
  if (t->descriptor->dtd_compare) return;
  key_off = t->descriptor->dtd_key_off;
  uint32_t keylen = key_of(e)->keylen;
  task_assert(keylen < DB_KEYMAX_DEFAULT);
}

void notify_job(task_job *jp);

void destroy(db_table_t *t) {
  hbt_delete(&tables, &t->dt_node);
  for (hbt_node *n = hbt_iterate_next(&t->clients, nullptr), *next; n; n = next) {
    next = hbt_iterate_next(&t->clients, n);
    db_client_t *c = HBT_ENTRY(n, db_client_t, dc_node);
    hbt_delete(&t->clients, n);
    free(c);
  }
  bit_vector_free(t->client_ids);
  if (t->notify_job) task_job_delete(t->notify_job);
  free(t);
  if (hbt_empty(&tables) && db_task && (task_state & TASKS_TERMINATE)) {
    task *tp = db_task;
    db_task = nullptr;
    task_delete(tp);
  }
}

// A deleted entry that nobody holds any more leaves the table.
void maybe_release(db_table_t *t, db_entry *e) {
  if (!(e->state & DB_ENTRY_DELETED) || (e->state & DB_ENTRY_ON_CHANGE) || e->clients) return;
  if (hbt_node_linked(&e->de_node)) {
    cmp_of(t);
    hbt_delete(&t->entries, &e->de_node);
    t->entry_count--;
    t->deleted_count--;
  }
  e->state = 0;
  if (t->descriptor->dtd_release) t->descriptor->dtd_release(t, e);
  if ((t->flags & DB_TABLE_DELETING) && t->entry_count == 0) destroy(t);
}

bool any_client(const db_table_t *t) { return !hbt_empty(&t->clients); }

void tell_clients(db_table_t *t, db_entry *e) {
  e->state |= DB_ENTRY_WALKING;
  for (hbt_node *n = hbt_iterate_next(&t->clients, nullptr); n; n = hbt_iterate_next(&t->clients, n)) {
    db_client_t *c = HBT_ENTRY(n, db_client_t, dc_node);
    if (c->descriptor && c->descriptor->dcd_change) c->descriptor->dcd_change(c, e);
  }
  e->state &= ~DB_ENTRY_WALKING;
}

void notify_job(task_job *jp) {
  auto *t = static_cast<db_table_t *>(task_job_get_data(jp));
  krt_slice_start();
  while (db_chng_list *b = t->change_head) {
    while (b->next < b->count) {
      db_entry *e = b->slots[b->next];
      b->slots[b->next] = nullptr;
      b->next++;
      if (!e) continue;  // cleared: skipped
      e->change_slot = nullptr;
      e->state &= ~(DB_ENTRY_ON_CHANGE | DB_ENTRY_CHANGED);
      if (any_client(t)) tell_clients(t, e);
      if (e->state & DB_ENTRY_CHUNK_END && t->descriptor->dtd_chunk) t->descriptor->dtd_chunk(t, e);
      maybe_release(t, e);
      if (!db_table_get(t->id)) return;  // destroyed under us (its job too)
      if (krt_slice_over(jp)) return;
    }
    t->change_head = b->next_block;
    if (t->change_head) t->change_head->prev_block = nullptr;
    else t->change_tail = nullptr;
    free(b);
  }
  t->notify_job = nullptr;
  task_job_delete(jp);
  if (t->descriptor->dtd_drained) t->descriptor->dtd_drained(t);
}

task *manager() {
  if (!db_task) {
    db_task = task_alloc("DB manager", 0, nullptr);
    task_create(db_task);
  }
  return db_task;
}

// ---- Remove all ---------------------------------------------------------------------

struct remove_state {
  db_table_t *table;
  db_key next;  // the key to go on from; keylen 0xffff before the first
};

void remove_job(task_job *jp) {
  auto *rs = static_cast<remove_state *>(task_job_get_data(jp));
  db_table_t *t = rs->table;
  krt_slice_start();
  // A probe entry with the key at the table's offset.
  size_t probe_size = t->descriptor->dtd_key_off + sizeof(db_key);
  auto *probe_mem = static_cast<uint8_t *>(calloc(1, probe_size < sizeof(db_entry) ? sizeof(db_entry) : probe_size));
  task_assert(probe_mem);
  auto *probe = reinterpret_cast<db_entry *>(probe_mem);
  for (;;) {
    db_entry *e;
    if (rs->next.keylen == 0xffff) {
      e = db_entry_first(t);
    } else {
      memcpy(probe_mem + t->descriptor->dtd_key_off, &rs->next, sizeof rs->next);
      e = db_entry_getnext(t, probe);
    }
    while (e && (e->state & DB_ENTRY_DELETED)) e = db_entry_next(t, e);
    if (!e) break;
    key_off = t->descriptor->dtd_key_off;
    memcpy(&rs->next, key_of(e), sizeof rs->next);
    db_entry_delete(t, e);
    if (krt_slice_over(jp)) {
      free(probe_mem);
      return;
    }
  }
  free(probe_mem);
  free(rs);
  task_job_delete(jp);
}

}  // namespace

void db_module_register(uint32_t module, hbt_compare_fn compare) {
  auto *mdi = static_cast<db_modinfo_t *>(calloc(1, sizeof(db_modinfo_t)));
  task_assert(mdi);
  mdi->dmi_module = module;
  mdi->dmi_compare = compare;
  uint32_t i = module % DB_MODULE_LISTS;
  task_assert(hbt_insert(&db_modules[i], &mdi->dmi_hnode, db_modinfo_cmp));
}

hbt_compare_fn db_module_compare(uint32_t module) {
  db_modinfo_t probe{};
  probe.dmi_module = module;
  hbt_node *n = hbt_lookup(&db_modules[module % DB_MODULE_LISTS], &probe.dmi_hnode, db_modinfo_cmp);
  return n ? HBT_ENTRY(n, db_modinfo_t, dmi_hnode)->dmi_compare : nullptr;
}

db_table_t *db_table_register(uint32_t id, const db_table_desc *descriptor) {
  auto *t = static_cast<db_table_t *>(calloc(1, sizeof(db_table_t)));
  task_assert(t);
  t->id = id;
  t->descriptor = descriptor;
  task_assert(hbt_insert(&tables, &t->dt_node, table_cmp));
  return t;
}

db_table_t *db_table_get(uint32_t id) {
  db_table_t probe{};
  probe.id = id;
  hbt_node *n = hbt_lookup(&tables, &probe.dt_node, table_cmp);
  return n ? HBT_ENTRY(n, db_table_t, dt_node) : nullptr;
}

void db_table_delete(db_table_t *t) {
  t->flags |= DB_TABLE_DELETING;
  if (t->entry_count == 0 && !t->change_head) destroy(t);
}

db_client_t *db_table_client_register(uint32_t id, const db_client_desc *descriptor, void *cookie) {
  db_table_t *t = db_table_get(id);
  if (!t) return nullptr;
  auto *c = static_cast<db_client_t *>(calloc(1, sizeof(db_client_t)));
  task_assert(c);
  c->table = t;
  c->client_id = bit_vector_first_clear(t->client_ids);
  c->descriptor = descriptor;
  c->cookie = cookie;
  bit_vector_set(&t->client_ids, c->client_id);
  task_assert(hbt_insert(&t->clients, &c->dc_node, client_cmp));
  return c;
}

void db_table_client_delete(db_client_t *c) {
  db_table_t *t = c->table;
  bit_vector_clear_bit(&t->client_ids, c->client_id);
  hbt_delete(&t->clients, &c->dc_node);
  free(c);
}

void db_entry_notify(db_table_t *t, db_entry *e) {
  if (e->state & DB_ENTRY_ON_CHANGE) return;
  task_assert(!(e->state & DB_ENTRY_WALKING));
  db_chng_list *b = t->change_tail;
  if (!b || b->count == DB_CHNG_SLOTS) {
    auto *nb = static_cast<db_chng_list *>(calloc(1, sizeof(db_chng_list)));
    task_assert(nb);
    nb->prev_block = b;
    (b ? b->next_block : t->change_head) = nb;
    t->change_tail = b = nb;
  }
  b->slots[b->count] = e;
  e->change_slot = &b->slots[b->count];
  b->count++;
  e->state |= DB_ENTRY_ON_CHANGE;
  if (!t->notify_job) {
    task *tp = manager();
    t->notify_job = t->descriptor->dtd_foreground ? task_job_create_foreground(tp, "db notify", notify_job, t)
                                                  : task_job_create_background(tp, 4, "db notify", notify_job, t);
  }
}

void db_entry_add(db_table_t *t, db_entry *e) {
  if (e->state & DB_ENTRY_DELETED) {
    e->state &= ~DB_ENTRY_DELETED;
    t->deleted_count--;
  } else {
    check_key(t, e);
    hbt_compare_fn cmp = cmp_of(t);
    task_assert(hbt_insert(&t->entries, &e->de_node, cmp));
    t->entry_count++;
  }
  e->state |= DB_ENTRY_PRESENT;
  db_entry_notify(t, e);
}

void db_entry_delete(db_table_t *t, db_entry *e) {
  if (e->state & DB_ENTRY_DELETED) return;
  e->state &= ~DB_ENTRY_PRESENT;
  t->deleted_count++;
  e->state |= DB_ENTRY_DELETED;
  db_entry_notify(t, e);
}

void db_entry_change(db_table_t *t, db_entry *e) {
  e->state |= DB_ENTRY_CHANGED;
  db_entry_notify(t, e);
}

void db_entry_remove(db_table_t *t, db_entry *e, bool notify) {
  if (e->change_slot) {
    *e->change_slot = nullptr;
    e->change_slot = nullptr;
  }
  e->state &= ~DB_ENTRY_ON_CHANGE;
  if (!(e->state & DB_ENTRY_DELETED)) {
    e->state |= DB_ENTRY_DELETED;
    t->deleted_count++;
  }
  e->state &= ~DB_ENTRY_PRESENT;
  if (notify) {
    e->state |= DB_ENTRY_PURGE;
    tell_clients(t, e);  // a client may let go of its word
  }
  // Out of the table now, whatever the clients still hold.
  for (db_mls *m = e->clients, *next; m; m = next) {
    next = m->next;
    free(m);
  }
  e->clients = nullptr;
  maybe_release(t, e);
}

db_entry *db_entry_first(db_table_t *t) {
  hbt_node *n = hbt_iterate_next(&t->entries, nullptr);
  return n ? HBT_ENTRY(n, db_entry, de_node) : nullptr;
}
db_entry *db_entry_next(db_table_t *t, db_entry *e) {
  hbt_node *n = hbt_iterate_next(&t->entries, &e->de_node);
  return n ? HBT_ENTRY(n, db_entry, de_node) : nullptr;
}
db_entry *db_entry_lookup(db_table_t *t, db_entry *probe) {
  hbt_node *n = hbt_lookup(&t->entries, &probe->de_node, cmp_of(t));
  return n ? HBT_ENTRY(n, db_entry, de_node) : nullptr;
}
db_entry *db_entry_getnext(db_table_t *t, db_entry *probe) {
  hbt_node *n = hbt_getnext(&t->entries, &probe->de_node, cmp_of(t));
  return n ? HBT_ENTRY(n, db_entry, de_node) : nullptr;
}

// ---- Client words --------------------------------------------------------------------

void db_client_word_set(db_client_t *c, db_entry *e, uintptr_t word) {
  uint32_t base = c->client_id / DB_MLS_SLOTS * DB_MLS_SLOTS, slot = c->client_id % DB_MLS_SLOTS;
  db_mls *m = e->clients;
  while (m && m->base != base) m = m->next;
  if (!m) {
    m = static_cast<db_mls *>(calloc(1, sizeof(db_mls)));
    task_assert(m);
    m->base = base;
    m->next = e->clients;
    e->clients = m;
  }
  m->mask |= 1u << slot;
  m->words[slot] = word;
}

uintptr_t db_client_word_get(db_client_t *c, db_entry *e) {
  uint32_t base = c->client_id / DB_MLS_SLOTS * DB_MLS_SLOTS, slot = c->client_id % DB_MLS_SLOTS;
  for (db_mls *m = e->clients; m; m = m->next)
    if (m->base == base) return (m->mask >> slot & 1) ? m->words[slot] : 0;
  return 0;
}

void db_client_word_clear(db_client_t *c, db_entry *e) {
  uint32_t base = c->client_id / DB_MLS_SLOTS * DB_MLS_SLOTS, slot = c->client_id % DB_MLS_SLOTS;
  for (db_mls **pp = &e->clients; *pp; pp = &(*pp)->next) {
    db_mls *m = *pp;
    if (m->base != base) continue;
    m->mask &= ~(1u << slot);
    m->words[slot] = 0;
    if (!m->mask) {
      *pp = m->next;
      free(m);
      maybe_release(c->table, e);
    }
    return;
  }
}

void db_table_remove_all(db_table_t *t) {
  task_assert(!t->descriptor->dtd_compare);
  auto *rs = static_cast<remove_state *>(calloc(1, sizeof(remove_state)));
  task_assert(rs);
  rs->table = t;
  rs->next.keylen = 0xffff;
  task_job_create_background(manager(), 4, "db remove all", remove_job, rs);
}

uint32_t db_table_change_blocks(const db_table_t *t) {
  uint32_t n = 0;
  for (db_chng_list *b = t->change_head; b; b = b->next_block) n++;
  return n;
}

void db_table_reset(void) {
  tables = hbt_root{};
  db_task = nullptr;
  for (auto &m : db_modules) m = hbt_root{};
}
