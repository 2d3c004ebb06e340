#include "containers/patricia.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

struct name_rec {
  patricia_node pnode;
  char name[8];
};

struct ptr_rec {
  patricia_node pnode;
  const void *ptr;  // the key: the pointer value itself
};

struct indirect_rec {
  patricia_node pnode;
  const char *key;  // the key lies behind this pointer
};

std::string key_string(const patricia_root *root, const patricia_node *n) {
  return std::string(reinterpret_cast<const char *>(patricia_key(root, n)), n->patricia_length);
}

// Names with their terminator as keys, so "ab" and "ab\0..." both appear and
// a key that is a prefix of another orders first, exactly as std::string.
TEST(Patricia, NamesMatchMapModel) {
  std::mt19937 rng(77);
  patricia_root root;
  patricia_root_init(&root, false, 0, PATRICIA_KEY_OFFSET(name_rec, pnode, name));
  std::vector<name_rec> recs(400);
  for (auto &r : recs) {
    size_t len = 1 + rng() % 3;
    for (size_t i = 0; i < len; i++) r.name[i] = "ab0"[rng() % 3];
    r.name[len] = 0;
    // Length + 1 for the terminator, as the name trees use.
    patricia_node_init_length(&r.pnode, static_cast<uint16_t>(len + 1));
  }
  std::map<std::string, name_rec *> model;
  for (int step = 0; step < 8000; step++) {
    name_rec &r = recs[rng() % recs.size()];
    std::string key(r.name, std::strlen(r.name) + 1);
    bool mine = model.count(key) && model[key] == &r;
    if (rng() % 3) {
      if (mine) continue;
      bool fresh = !model.count(key);
      ASSERT_EQ(patricia_add(&root, &r.pnode), fresh) << step;
      if (fresh) model[key] = &r;
    } else {
      ASSERT_EQ(patricia_delete(&root, &r.pnode), mine) << step;
      if (mine) model.erase(key);
    }
    ASSERT_TRUE(patricia_verify(&root)) << step;
    patricia_node *got = patricia_get(&root, static_cast<uint16_t>(key.size()), key.data());
    ASSERT_EQ(got != nullptr, model.count(key) == 1);
    if (got) {
      ASSERT_EQ(got, &model[key]->pnode);
    }
    // Successor of a key that may be absent, strict and not.
    auto up = model.upper_bound(key);
    patricia_node *nx = patricia_getnext(&root, static_cast<uint16_t>(key.size()), key.data(), false);
    ASSERT_EQ(nx, up == model.end() ? nullptr : &up->second->pnode);
    auto lo = model.lower_bound(key);
    nx = patricia_getnext(&root, static_cast<uint16_t>(key.size()), key.data(), true);
    ASSERT_EQ(nx, lo == model.end() ? nullptr : &lo->second->pnode);
  }
  std::vector<std::string> walked;
  for (patricia_node *n = patricia_find_next(&root, nullptr); n; n = patricia_find_next(&root, n))
    walked.push_back(key_string(&root, n));
  std::vector<std::string> expect;
  for (auto &kv : model) expect.push_back(kv.first);
  EXPECT_EQ(walked, expect);
  EXPECT_EQ(root.patricia_count, model.size());
}

// Fixed-length keys: the leak detector's pointer tree, emptied the way its
// shutdown does it (first node until none).
TEST(Patricia, FixedPointerKeysAndTeardown) {
  patricia_root root;
  patricia_root_init(&root, false, sizeof(void *), PATRICIA_KEY_OFFSET(ptr_rec, pnode, ptr));
  std::vector<ptr_rec> recs(64);
  std::vector<int> targets(64);
  for (size_t i = 0; i < recs.size(); i++) {
    recs[i].ptr = &targets[i];
    ASSERT_TRUE(patricia_add(&root, &recs[i].pnode));
    EXPECT_EQ(recs[i].pnode.patricia_length, sizeof(void *));
  }
  ptr_rec dup{};
  dup.ptr = &targets[5];
  EXPECT_FALSE(patricia_add(&root, &dup.pnode));
  for (size_t i = 0; i < recs.size(); i++) {
    const void *key = &targets[i];
    EXPECT_EQ(patricia_get(&root, 0, &key), &recs[i].pnode);
  }
  ASSERT_TRUE(patricia_verify(&root));
  size_t removed = 0;
  while (patricia_node *n = patricia_find_next(&root, nullptr)) {
    ASSERT_TRUE(patricia_delete(&root, n));
    removed++;
  }
  EXPECT_EQ(removed, recs.size());
  EXPECT_TRUE(patricia_isempty(&root));
  patricia_root_delete(&root);
}

TEST(Patricia, KeyThroughPointer) {
  patricia_root root;
  patricia_root_init(&root, true, 3, PATRICIA_KEY_OFFSET(indirect_rec, pnode, key));
  indirect_rec a{{}, "abc"}, b{{}, "abd"};
  ASSERT_TRUE(patricia_add(&root, &b.pnode));
  ASSERT_TRUE(patricia_add(&root, &a.pnode));
  EXPECT_EQ(patricia_get(&root, 3, "abd"), &b.pnode);
  EXPECT_EQ(patricia_find_next(&root, nullptr), &a.pnode);
  EXPECT_EQ(patricia_find_next(&root, &a.pnode), &b.pnode);
  EXPECT_EQ(patricia_get(&root, 3, "abe"), nullptr);
}

TEST(PatriciaDeathTest, DeletingRootWithNodes) {
  patricia_root root;
  patricia_root_init(&root, false, 3, PATRICIA_KEY_OFFSET(name_rec, pnode, name));
  name_rec r{{}, "xy"};
  ASSERT_TRUE(patricia_add(&root, &r.pnode));
  EXPECT_DEATH(patricia_root_delete(&root), "Assertion failed: \\(root && root->patricia_count == 0\\)");
}

}  // namespace
