#include "containers/radix.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <random>
#include <tuple>
#include <vector>

namespace {

// 16-bit keys keep the tree dense: lengths 0 to 16 collide and nest often.
struct rec16 {
  rnode rn;
  uint8_t key[2];
};

struct mkey {
  uint16_t k;
  uint32_t len;
  uint32_t inst;
};

uint16_t mask16(uint32_t len) { return len ? static_cast<uint16_t>(0xffff << (16 - len)) : 0; }

// Walk order: byte-wise on the common bits, a prefix before its extensions,
// then instance.
struct walk_less {
  bool operator()(const mkey &a, const mkey &b) const {
    uint16_t m = mask16(std::min(a.len, b.len));
    if ((a.k & m) != (b.k & m)) return (a.k & m) < (b.k & m);
    return std::tie(a.len, a.inst) < std::tie(b.len, b.inst);
  }
};

bool covers(const mkey &p, uint16_t k, uint32_t len) {
  return p.len <= len && (k & mask16(p.len)) == p.k;
}

class Model {
 public:
  std::map<mkey, rec16 *, walk_less> m;

  rec16 *at(std::map<mkey, rec16 *, walk_less>::const_iterator it) const {
    return it == m.end() ? nullptr : it->second;
  }
  // Head of the longest prefix covering k (full 16 bits).
  rec16 *lpm(uint16_t k) const {
    const mkey *best = nullptr;
    rec16 *r = nullptr;
    for (auto &[mk, v] : m)
      if (covers(mk, k, 16) && (!best || mk.len > best->len || (mk.len == best->len && mk.inst < best->inst)))
        best = &mk, r = v;
    return r;
  }
  rec16 *first_after_prefix(uint16_t k, uint32_t len) const {
    return at(m.upper_bound(mkey{k, len, UINT32_MAX}));
  }
  rec16 *next(const mkey &x) const { return at(m.upper_bound(x)); }
  rec16 *prev(const mkey &x) const {
    auto it = m.lower_bound(x);
    return it == m.begin() ? nullptr : std::prev(it)->second;
  }
  rec16 *next_instance(const mkey &x, uint32_t inst) const {
    for (auto it = m.upper_bound(x); it != m.end(); ++it)
      if (it->first.inst == inst) return it->second;
    return nullptr;
  }
  rec16 *prev_instance(const mkey &x, uint32_t inst) const {
    for (auto it = m.lower_bound(x); it != m.begin();) {
      --it;
      if (it->first.inst == inst) return it->second;
    }
    return nullptr;
  }
  // Longest strictly shorter covering prefix, by instance or (any) its head.
  rec16 *parent(const mkey &x, const uint32_t *inst) const {
    const mkey *best = nullptr;
    rec16 *r = nullptr;
    for (auto &[mk, v] : m) {
      if (mk.len >= x.len || !covers(mk, x.k, x.len)) continue;
      if (inst && mk.inst != *inst) continue;
      if (!best || mk.len > best->len || (mk.len == best->len && mk.inst < best->inst))
        best = &mk, r = v;
    }
    return r;
  }
  // First entry strictly longer than len inside (k, len).
  rec16 *subtree_match(uint16_t k, uint32_t len) const {
    // The more specific entries follow the prefix's own ones without a gap.
    auto it = m.upper_bound(mkey{static_cast<uint16_t>(k & mask16(len)), len, UINT32_MAX});
    if (it == m.end() || it->first.len <= len) return nullptr;
    return (it->first.k & mask16(len)) == (k & mask16(len)) ? it->second : nullptr;
  }
  bool inside(const mkey &e, uint16_t k, uint32_t len) const {
    return e.len >= len && (e.k & mask16(len)) == (k & mask16(len));
  }
};

mkey key_of(const rec16 *r) {
  return mkey{static_cast<uint16_t>(r->key[0] << 8 | r->key[1]), r->rn.prefix_len, r->rn.instance};
}

rec16 *owner(rnode *rn) { return rn ? reinterpret_cast<rec16 *>(rn) : nullptr; }

// Random adds and deletes of 16-bit prefixes of every length (0 included)
// with up to four instances a key, checked after every step against an
// ordered model: sanity, longest match, every walk and subtree call.
TEST(Radix, MatchesModel) {
  std::mt19937 rng(2024);
  task_radix root;
  task_radix_init(&root, 0, 0);
  std::vector<rec16> recs(500);
  std::vector<rec16 *> free_recs, in_tree;
  for (auto &r : recs) free_recs.push_back(&r);
  Model model;
  auto rand_key = [&](uint32_t len) { return static_cast<uint16_t>(rng() & mask16(len)); };
  auto rand_len = [&] {
    // Mostly long keys, some short ones, length 0 now and then.
    uint32_t r = rng() % 20;
    return r < 17 ? r : 16 - rng() % 4;
  };

  for (int step = 0; step < 12000; step++) {
    bool grow = (step / 1500) % 2 == 0;
    if (!free_recs.empty() && (in_tree.empty() || rng() % 100 < (grow ? 70u : 35u))) {
      size_t i = rng() % free_recs.size();
      rec16 *r = free_recs[i];
      uint32_t len = rand_len();
      uint16_t k = rand_key(len);
      r->key[0] = k >> 8;
      r->key[1] = k & 0xff;
      task_radix32_node_init(&r->rn, len, rng() % 4);
      bool fresh = !model.m.count(key_of(r));
      ASSERT_EQ(task_radix32_add(&root, &r->rn), fresh) << step;
      if (fresh) {
        model.m[key_of(r)] = r;
        in_tree.push_back(r);
        free_recs[i] = free_recs.back();
        free_recs.pop_back();
      }
    } else {
      size_t i = rng() % in_tree.size();
      rec16 *r = in_tree[i];
      task_radix32_delete(&root, &r->rn);
      EXPECT_EQ(r->rn.next, nullptr);
      EXPECT_EQ(r->rn.parent, nullptr);
      model.m.erase(key_of(r));
      in_tree[i] = in_tree.back();
      in_tree.pop_back();
      free_recs.push_back(r);
    }
    task_radix32_sanity(&root);
    ASSERT_EQ(root.external_nodes, model.m.size());

    uint16_t probe = static_cast<uint16_t>(rng());
    uint8_t pk[2] = {static_cast<uint8_t>(probe >> 8), static_cast<uint8_t>(probe)};
    ASSERT_EQ(owner(task_radix_lookup(&root, pk)), model.lpm(probe)) << step;
    uint32_t plen = rand_len();
    uint16_t pm = probe & mask16(plen);
    uint8_t pmk[2] = {static_cast<uint8_t>(pm >> 8), static_cast<uint8_t>(pm)};
    ASSERT_EQ(owner(task_radix32_find_next(&root, plen, pmk)), model.first_after_prefix(pm, plen)) << step;
    ASSERT_EQ(owner(task_radix32_subtree_match(&root, plen, pmk)), model.subtree_match(pm, plen)) << step;

    if (in_tree.empty()) continue;
    rec16 *r = in_tree[rng() % in_tree.size()];
    mkey x = key_of(r);
    uint32_t inst = rng() % 4;
    ASSERT_EQ(owner(task_radix32_getnext(&root, &r->rn)), model.next(x)) << step;
    ASSERT_EQ(owner(task_radix_find_prev(&root, &r->rn)), model.prev(x)) << step;
    ASSERT_EQ(owner(task_radix32_getnext_instance(&root, &r->rn, inst)), model.next_instance(x, inst)) << step;
    ASSERT_EQ(owner(task_radix_find_prev_instance(&root, &r->rn, inst)), model.prev_instance(x, inst)) << step;
    ASSERT_EQ(owner(task_radix_find_parent(&root, &r->rn)), model.parent(x, nullptr)) << step;
    rec16 *same = inst >= x.inst ? model.at(model.m.find(mkey{x.k, x.len, inst})) : nullptr;
    ASSERT_EQ(owner(task_radix32_find_parent_instance(&root, &r->rn, inst)),
              same ? same : model.parent(x, &inst)) << step;
    ASSERT_EQ(owner(task_radix_subtree_first(&root, &r->rn)), model.subtree_match(x.k, x.len)) << step;
    uint32_t sub = x.len ? rng() % (x.len + 1) : 0;
    rec16 *nx = model.next(x);
    ASSERT_EQ(owner(task_radix32_subtree_next(&root, &r->rn, sub)),
              nx && model.inside(key_of(nx), x.k, sub) ? nx : nullptr) << step;
    // After rn's subtree: past every entry rn covers, its other instances too.
    rec16 *pr = model.at(model.m.upper_bound(mkey{x.k, x.len, UINT32_MAX}));
    while (pr && covers(mkey{x.k, x.len, 0}, key_of(pr).k, key_of(pr).len)) pr = model.next(key_of(pr));
    ASSERT_EQ(owner(task_radix32_subtree_prune(&root, &r->rn, sub)),
              pr && model.inside(key_of(pr), x.k, sub) ? pr : nullptr) << step;
  }

  // Whole walks, both ways.
  std::vector<rec16 *> fwd, back, expect;
  for (rnode *n = task_radix32_getnext(&root, nullptr); n; n = task_radix32_getnext(&root, n))
    fwd.push_back(owner(n));
  for (rnode *n = task_radix_find_prev(&root, nullptr); n; n = task_radix_find_prev(&root, n))
    back.insert(back.begin(), owner(n));
  for (auto &kv : model.m) expect.push_back(kv.second);
  EXPECT_EQ(fwd, expect);
  EXPECT_EQ(back, expect);

  for (rec16 *r : in_tree) task_radix32_delete(&root, &r->rn);
  task_radix32_sanity(&root);
  EXPECT_EQ(root.root.rnode, nullptr);
  EXPECT_EQ(root.internal_nodes, 0u);
  task_radix_delete_root(&root);
}

struct rec32 {
  rnode rn;
  uint8_t key[4];
};

rec32 prefix(const char *addr, uint32_t len, uint32_t instance = 0) {
  rec32 r;
  inet_pton(AF_INET, addr, r.key);
  task_radix32_node_init(&r.rn, len, instance);
  return r;
}

uint8_t *addr(const char *a) {
  static uint8_t buf[4];
  inet_pton(AF_INET, a, buf);
  return buf;
}

// The documented tree shapes, and the longest match through them.
TEST(Radix, ShapesAndLongestMatch) {
  task_radix root;
  task_radix_init(&root, 0, 0);
  EXPECT_EQ(task_radix_lookup(&root, addr("10.1.2.3")), nullptr);
  EXPECT_EQ(task_radix32_getnext(&root, nullptr), nullptr);
  EXPECT_EQ(task_radix_find_prev(&root, nullptr), nullptr);
  EXPECT_EQ(task_radix32_find_next(&root, 8, addr("10.0.0.0")), nullptr);
  EXPECT_EQ(task_radix32_subtree_match(&root, 0, addr("0.0.0.0")), nullptr);

  rec32 a = prefix("10.0.0.0", 8), b = prefix("10.1.0.0", 16);
  ASSERT_TRUE(task_radix32_add(&root, &a.rn));
  EXPECT_EQ(root.internal_nodes, 0u);
  EXPECT_EQ(root.root.rnode, &a.rn);
  ASSERT_TRUE(task_radix32_add(&root, &b.rn));
  // 10/8 attached at bit 8; 10.1/16 on the left (bit 8 clear), the attached
  // chain shown on the right.
  ASSERT_EQ(root.internal_nodes, 1u);
  EXPECT_EQ(root.root.inode->bit, 8u);
  EXPECT_EQ(root.root.inode->flags, 0x13u);
  EXPECT_EQ(root.root.inode->rattached, &a.rn);
  EXPECT_EQ(task_radix_lookup(&root, addr("10.1.9.9")), &b.rn);
  EXPECT_EQ(task_radix_lookup(&root, addr("10.200.0.1")), &a.rn);
  EXPECT_EQ(task_radix_lookup(&root, addr("11.0.0.1")), nullptr);

  // A default route matches everything else, as the chain of an inode at bit 0.
  rec32 dflt = prefix("0.0.0.0", 0);
  ASSERT_TRUE(task_radix32_add(&root, &dflt.rn));
  EXPECT_EQ(root.root.inode->bit, 0u);
  EXPECT_EQ(task_radix_lookup(&root, addr("11.0.0.1")), &dflt.rn);
  EXPECT_EQ(task_radix_lookup(&root, addr("200.0.0.1")), &dflt.rn);
  task_radix32_sanity(&root);

  // Same key and instance again: refused, nothing changes.
  rec32 dup = prefix("10.1.0.0", 16);
  uint32_t ext = root.external_nodes, in = root.internal_nodes;
  EXPECT_FALSE(task_radix32_add(&root, &dup.rn));
  EXPECT_EQ(root.external_nodes, ext);
  EXPECT_EQ(root.internal_nodes, in);

  // Instances: the chain head answers; deleting the head keeps lookups.
  rec32 b5 = prefix("10.1.0.0", 16, 5), b2 = prefix("10.1.0.0", 16, 2);
  ASSERT_TRUE(task_radix32_add(&root, &b5.rn));
  ASSERT_TRUE(task_radix32_add(&root, &b2.rn));
  EXPECT_EQ(task_radix_lookup(&root, addr("10.1.0.7")), &b.rn);
  task_radix32_delete(&root, &b.rn);
  task_radix32_sanity(&root);
  EXPECT_EQ(task_radix_lookup(&root, addr("10.1.0.7")), &b2.rn);
  EXPECT_EQ(task_radix32_getnext_instance(&root, nullptr, 5), &b5.rn);
  EXPECT_EQ(task_radix32_find_parent_instance(&root, &b2.rn, 5), &b5.rn);
  EXPECT_EQ(task_radix32_find_parent_instance(&root, &b5.rn, 0), &a.rn);

  // A sole default route as the root rnode matches everything.
  task_radix other;
  task_radix_init(&other, 0, 0);
  rec32 d2 = prefix("0.0.0.0", 0);
  ASSERT_TRUE(task_radix32_add(&other, &d2.rn));
  EXPECT_EQ(task_radix_lookup(&other, addr("1.2.3.4")), &d2.rn);
  task_radix32_delete(&other, &d2.rn);
  task_radix_delete_root(&other);

  for (rec32 *r : {&a, &b2, &b5, &dflt}) task_radix32_delete(&root, &r->rn);
  task_radix32_sanity(&root);
  task_radix_delete_root(&root);
}

// Key behind a pointer at an offset, and inodes from the root's allocators.
struct keyed_obj {
  uint32_t pad;
  uint8_t key[4];
};
struct ptr_rec {
  rnode rn;
  keyed_obj *obj;
};

int live_inodes;
inode *count_alloc(radix_root_struct *root, int kind) {
  live_inodes++;
  EXPECT_EQ(root->user, &live_inodes);
  return static_cast<inode *>(calloc(1, kind ? sizeof(inode) : offsetof(inode, rattached)));
}
void count_free(radix_root_struct *, inode *node, int) {
  live_inodes--;
  free(node);
}

TEST(Radix, KeyPointerAndOwnAllocators) {
  task_radix root;
  task_radix_init(&root, offsetof(keyed_obj, key), RADIX_KEY_PTR);
  task_radix_root_extended_init(&root, count_alloc, count_free, &live_inodes);
  std::mt19937 rng(5);
  std::vector<keyed_obj> objs(300);
  std::vector<ptr_rec> recs(300);
  std::vector<ptr_rec *> added;
  for (size_t i = 0; i < recs.size(); i++) {
    uint32_t len = 8 + rng() % 25;
    uint32_t v = static_cast<uint32_t>(rng()) & (len == 32 ? ~0u : ~(~0u >> len));
    v = htonl(v);
    std::memcpy(objs[i].key, &v, 4);
    recs[i].obj = &objs[i];
    task_radix32_node_init(&recs[i].rn, len, 0);
    if (task_radix32_add(&root, &recs[i].rn)) added.push_back(&recs[i]);
  }
  task_radix32_sanity(&root);
  EXPECT_EQ(static_cast<uint32_t>(live_inodes), root.internal_nodes);
  // Each added prefix, or a longer one, is the match at its first address.
  for (ptr_rec *r : added) EXPECT_GE(task_radix_lookup(&root, r->obj->key)->prefix_len, r->rn.prefix_len);
  for (ptr_rec *r : added) task_radix32_delete(&root, &r->rn);
  EXPECT_EQ(live_inodes, 0);
  task_radix_delete_root(&root);
}

TEST(RadixDeathTest, Misuse) {
  task_radix root;
  task_radix_init(&root, 0, 0);
  rec32 a = prefix("10.0.0.0", 8);
  EXPECT_DEATH(task_radix_lookup(nullptr, addr("1.1.1.1")), "Assertion failed: \\(root && v_key\\)");
  EXPECT_DEATH(task_radix32_add(&root, nullptr), "Assertion failed: \\(root && new\\)");
  EXPECT_DEATH(task_radix32_node_init(nullptr, 0, 0), "Assertion failed: \\(rn\\)");
  ASSERT_TRUE(task_radix32_add(&root, &a.rn));
  EXPECT_DEATH(task_radix_delete_root(&root), "Assertion failed: \\(root->root.rnode == NULL\\)");
}

// The sanity check is not a formality: a chain out of instance order, or a
// miscounted tree, is caught.
TEST(RadixDeathTest, SanityCatchesDamage) {
  task_radix root;
  task_radix_init(&root, 0, 0);
  rec32 a = prefix("10.0.0.0", 8, 1), b = prefix("10.0.0.0", 8, 2), c = prefix("10.1.0.0", 16);
  ASSERT_TRUE(task_radix32_add(&root, &a.rn));
  ASSERT_TRUE(task_radix32_add(&root, &b.rn));
  ASSERT_TRUE(task_radix32_add(&root, &c.rn));
  task_radix32_sanity(&root);
  b.rn.instance = 0;
  EXPECT_DEATH(task_radix32_sanity(&root), "x->instance < x->next->instance");
  b.rn.instance = 2;
  root.attached_inodes = 0;
  EXPECT_DEATH(task_radix32_sanity(&root), "c.attached == root->attached_inodes");
  root.attached_inodes = 1;
  for (rec32 *r : {&a, &b, &c}) task_radix32_delete(&root, &r->rn);
  task_radix_delete_root(&root);
}

}  // namespace
