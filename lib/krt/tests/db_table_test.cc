// db_table: change lists, clients and their words, release of deleted
// entries, the default key, removal of all entries.
#include <gtest/gtest.h>

#include <string>

#include "fixture.h"
#include "krt/db_table.h"
#include "krt/krt.h"

namespace {

struct Obj {
  db_entry entry;
  db_key key;
  int released = 0;
};

std::vector<std::pair<std::string, uint32_t>> told;  // client name, entry state
int drained, released;
void drained_hook(db_table_t *) { drained++; }
void release_hook(db_table_t *, db_entry *e) {
  reinterpret_cast<Obj *>(e)->released++;
  released++;
}
void change(db_client_t *c, db_entry *e) { told.emplace_back(c->descriptor->dcd_name, e->state); }

const db_table_desc kDesc = {"test", nullptr, offsetof(Obj, key), 0, nullptr, drained_hook, release_hook};
const db_client_desc kA = {"a", change}, kB = {"b", change};

Obj make(const std::string &k) {
  Obj o{};
  o.key.keylen = static_cast<uint16_t>(k.size());
  memcpy(o.key.key, k.data(), k.size());
  return o;
}

class Db : public tt::Kernel {
 protected:
  db_table_t *t = nullptr;
  void SetUp() override {
    tt::Kernel::SetUp();
    db_table_reset();
    told.clear();
    drained = released = 0;
    t = db_table_register(7, &kDesc);
  }
  void run() {
    for (int i = 0; i < 20 && t->notify_job; i++) tt::passes(2);
  }
};

TEST_F(Db, SixtyOneNotificationsTakeTwoBlocksAndArriveInOrder) {
  db_table_client_register(7, &kA, nullptr);
  std::vector<Obj> objs;
  objs.reserve(61);
  for (int i = 0; i < 61; i++) objs.push_back(make("k" + std::to_string(100 + i)));
  for (auto &o : objs) db_entry_add(t, &o.entry);
  EXPECT_EQ(db_table_change_blocks(t), 2u);
  EXPECT_EQ(t->entry_count, 61u);
  ASSERT_NE(t->notify_job, nullptr);
  EXPECT_STREQ(task_job_get_name(t->notify_job), "db notify");
  run();
  ASSERT_EQ(told.size(), 61u);
  EXPECT_EQ(db_table_change_blocks(t), 0u);
  EXPECT_EQ(drained, 1);
  for (auto &o : objs) EXPECT_EQ(o.entry.state & DB_ENTRY_ON_CHANGE, 0u);
  // Key order in the table.
  int n = 0;
  for (db_entry *e = db_entry_first(t); e; e = db_entry_next(t, e), n++)
    EXPECT_EQ(e, &objs[n].entry);
  EXPECT_EQ(n, 61);
}

TEST_F(Db, ADeleteAfterAnAddInOneRoundLeavesOneChange) {
  db_table_client_register(7, &kA, nullptr);
  db_table_client_register(7, &kB, nullptr);
  Obj o = make("x"), p = make("y");
  db_entry_add(t, &o.entry);
  db_entry_notify(t, &o.entry);
  db_entry_delete(t, &o.entry);
  db_entry_add(t, &p.entry);
  db_entry_change(t, &p.entry);
  EXPECT_EQ(t->change_head->count, 2u);
  run();
  // Every client once per entry, with the state it ended in.
  ASSERT_EQ(told.size(), 4u);
  EXPECT_EQ(told[0].first, "a");
  EXPECT_EQ(told[1].first, "b");
  EXPECT_TRUE(told[0].second & DB_ENTRY_DELETED);
  EXPECT_TRUE(told[2].second & DB_ENTRY_PRESENT);
  // The deleted one is released: nobody holds it.
  EXPECT_EQ(o.released, 1);
  EXPECT_EQ(p.released, 0);
  EXPECT_EQ(t->entry_count, 1u);
  EXPECT_EQ(t->deleted_count, 0u);
  EXPECT_EQ(db_entry_first(t), &p.entry);
}

TEST_F(Db, AnAddAfterADeleteRevivesTheEntry) {
  Obj o = make("x");
  db_entry_add(t, &o.entry);
  run();
  db_entry_delete(t, &o.entry);
  db_entry_add(t, &o.entry);
  run();
  EXPECT_EQ(o.released, 0);
  EXPECT_EQ(t->entry_count, 1u);
  EXPECT_EQ(o.entry.state & (DB_ENTRY_PRESENT | DB_ENTRY_DELETED), DB_ENTRY_PRESENT);
}

TEST_F(Db, ClientWordsHoldADeletedEntryUntilTheLastIsCleared) {
  db_client_t *c[6];
  for (auto &x : c) x = db_table_client_register(7, &kA, nullptr);
  for (uint32_t i = 0; i < 6; i++) EXPECT_EQ(c[i]->client_id, i);
  db_table_client_delete(c[2]);
  EXPECT_EQ(db_table_client_register(7, &kB, nullptr)->client_id, 2u);
  EXPECT_EQ(db_table_client_register(8, &kB, nullptr), nullptr);

  Obj o = make("x");
  db_entry_add(t, &o.entry);
  db_client_word_set(c[1], &o.entry, 11);
  db_client_word_set(c[5], &o.entry, 55);
  EXPECT_EQ(db_client_word_get(c[1], &o.entry), 11u);
  EXPECT_EQ(db_client_word_get(c[5], &o.entry), 55u);
  EXPECT_EQ(db_client_word_get(c[0], &o.entry), 0u);
  db_entry_delete(t, &o.entry);
  run();
  EXPECT_EQ(o.released, 0);  // two blocks still hold it
  db_client_word_clear(c[5], &o.entry);
  EXPECT_EQ(o.released, 0);
  db_client_word_clear(c[1], &o.entry);
  EXPECT_EQ(o.released, 1);
  EXPECT_EQ(o.entry.clients, nullptr);
  EXPECT_EQ(t->entry_count, 0u);
}

TEST_F(Db, DefaultKeysCompareByBytesThenLength) {
  Obj a = make("ab"), b = make("abc"), c = make("b"), dup = make("ab");
  db_entry_add(t, &c.entry);
  db_entry_add(t, &b.entry);
  db_entry_add(t, &a.entry);
  EXPECT_EQ(db_entry_first(t), &a.entry);
  EXPECT_EQ(db_entry_next(t, &a.entry), &b.entry);
  EXPECT_EQ(db_entry_next(t, &b.entry), &c.entry);
  EXPECT_EQ(db_entry_lookup(t, &dup.entry), &a.entry);
  EXPECT_EQ(db_entry_getnext(t, &dup.entry), &b.entry);
  Obj longest{};
  longest.key.keylen = 255;
  db_entry_add(t, &longest.entry);
  EXPECT_EQ(t->entry_count, 4u);
  EXPECT_DEATH(db_entry_add(t, &dup.entry), "hbt_insert");
  Obj too_long{};
  too_long.key.keylen = 256;
  EXPECT_DEATH(db_entry_add(t, &too_long.entry), "keylen < DB_KEYMAX_DEFAULT");
}

TEST_F(Db, RegisteringATableTwiceAndNotifyingDuringAWalkAreFaults) {
  EXPECT_DEATH(db_table_register(7, &kDesc), "hbt_insert");
  static db_table_t *tt_;
  tt_ = t;
  static const db_client_desc bad = {"bad", [](db_client_t *, db_entry *e) { db_entry_notify(tt_, e); }};
  db_table_client_register(7, &bad, nullptr);
  Obj o = make("x");
  db_entry_add(t, &o.entry);
  EXPECT_DEATH(run(), "DB_ENTRY_WALKING");
}

TEST_F(Db, RemoveAllDeletesEveryEntryASliceAtATime) {
  db_table_client_register(7, &kA, nullptr);
  std::vector<Obj> objs;
  objs.reserve(30);
  for (int i = 0; i < 30; i++) objs.push_back(make("k" + std::to_string(10 + i)));
  for (auto &o : objs) db_entry_add(t, &o.entry);
  run();
  told.clear();
  db_table_remove_all(t);
  for (int i = 0; i < 40 && released < 30; i++) tt::passes(2);
  EXPECT_EQ(released, 30);
  EXPECT_EQ(told.size(), 30u);
  EXPECT_EQ(t->entry_count, 0u);
}

TEST_F(Db, ModulesKeepTheirComparison) {
  auto cmp = [](const hbt_node *, const hbt_node *) { return 0; };
  db_module_register(3, cmp);
  EXPECT_EQ(db_module_compare(3), static_cast<hbt_compare_fn>(cmp));
  EXPECT_EQ(db_module_compare(7), nullptr);
  EXPECT_DEATH(db_module_register(3, cmp), "hbt_insert\\(&db_modules\\[i\\], &mdi->dmi_hnode, db_modinfo_cmp\\)");
}

}  // namespace
