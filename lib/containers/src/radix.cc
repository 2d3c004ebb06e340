// task_radix: add, delete, longest-prefix match and the walks.
//
// Shape: an inode at bit b has every key below it agreeing on bits [0, b);
// keys with bit b clear go left, set go right. A chain of rnodes of length
// exactly b hangs in rattached; when one side holds nothing else, that side
// points at the chain too (the *_ATTACHED flags), so a lookup that runs off
// the bottom still lands on a candidate. An own chain never has keys longer
// than itself: those would sit below an inode at its length.
#include "containers/radix.h"

#include <cstring>

#include "containers/bit_tables.h"
#include "containers/mem_hooks.h"
#include "fatal.h"

namespace {

constexpr uint32_t kOwn[2] = {INODE_LEFT_OWN, INODE_RIGHT_OWN};
constexpr uint32_t kAtt[2] = {INODE_LEFT_ATTACHED, INODE_RIGHT_ATTACHED};
constexpr uint32_t kExt[2] = {INODE_LEFT_EXTERNAL, INODE_RIGHT_EXTERNAL};

constexpr size_t kPlainSize = offsetof(inode, rattached);

void *plain_block, *attached_block;

inline const uint8_t *key_of(const task_radix *root, const rnode *rn) {
  const char *after = reinterpret_cast<const char *>(rn + 1);
  if (root->flags & RADIX_KEY_PTR) {
    const char *obj;
    std::memcpy(&obj, after, sizeof obj);
    return reinterpret_cast<const uint8_t *>(obj) + root->key_offset;
  }
  return reinterpret_cast<const uint8_t *>(after) + root->key_offset;
}

inline int bit_of(const uint8_t *key, uint32_t b) { return (key[b >> 3] & (0x80 >> (b & 7))) != 0; }

// First bit below nbits where a and b differ, or nbits.
inline uint32_t first_diff(const uint8_t *a, const uint8_t *b, uint32_t nbits) {
  uint32_t i = 0, whole = nbits >> 3;
  for (; i < whole; i++)
    if (a[i] != b[i]) return (i << 3) + bit_hi_table[a[i] ^ b[i]];
  if (nbits & 7) {
    uint8_t x = static_cast<uint8_t>((a[i] ^ b[i]) & (0xff00 >> (nbits & 7)));
    if (x) return (i << 3) + bit_hi_table[x];
  }
  return nbits;
}

inline radix_ptr &child(inode *n, int s) { return s ? n->right : n->left; }
inline bool real(const inode *n, int s) { return !(n->flags & kAtt[s]); }
inline int side_in_parent(const inode *n) { return n->parent->left.inode == n ? 0 : 1; }

inode *alloc_inode(task_radix *root, int kind) {
  if (root->flags & RADIX_OWN_ALLOC) return root->alloc(root, kind);
  void *&block = kind ? attached_block : plain_block;
  if (!block)
    block = kind ? containers_mem.cmh_block_init("task_radix_inode_attached", sizeof(inode))
                 : containers_mem.cmh_block_init("task_radix_inode", kPlainSize);
  return static_cast<inode *>(containers_mem.cmh_block_alloc(block));
}

void free_inode(task_radix *root, inode *n, int kind) {
  if (root->flags & RADIX_OWN_ALLOC) return root->free(root, n, kind);
  containers_mem.cmh_block_free(kind ? attached_block : plain_block, n);
}

void set_chain_parent(rnode *head, inode *parent) {
  for (rnode *x = head; x; x = x->next) x->parent = parent;
}

// Puts what (a chain when external) where old hung under parent.
void hang(task_radix *root, inode *parent, int side, radix_ptr what, bool external) {
  if (external) set_chain_parent(what.rnode, parent);
  else what.inode->parent = parent;
  if (!parent) {
    root->root = what;
    return;
  }
  child(parent, side) = what;
  parent->flags = (parent->flags & ~kExt[side]) | (external ? kOwn[side] : 0);
}

inode *copy_inode(task_radix *root, inode *old, int old_kind, int new_kind) {
  inode *n = alloc_inode(root, new_kind);
  n->parent = old->parent;
  n->left = old->left;
  n->right = old->right;
  n->bit = old->bit;
  n->flags = old->flags;
  if (new_kind) n->rattached = (old_kind && (old->flags & INODE_ATTACHED)) ? old->rattached : nullptr;
  if (!n->parent) root->root.inode = n;
  else child(n->parent, side_in_parent(old)) = radix_ptr{n};
  for (int s = 0; s < 2; s++) {
    if (n->flags & kOwn[s]) set_chain_parent(child(n, s).rnode, n);
    else if (!(n->flags & kAtt[s])) child(n, s).inode->parent = n;
  }
  if (n->flags & INODE_ATTACHED) set_chain_parent(n->rattached, n);
  free_inode(root, old, old_kind);
  return n;
}

// Removes inode n, whose only remaining content is what (a chain when
// external): what takes its place.
void splice_out(task_radix *root, inode *n, radix_ptr what, bool external) {
  inode *parent = n->parent;
  int side = parent ? side_in_parent(n) : 0;
  hang(root, parent, side, what, external);
  int kind = (n->flags & INODE_ATTACHED) ? RADIX_INODE_ATTACHED : RADIX_INODE_PLAIN;
  if (kind) root->attached_inodes--;
  root->internal_nodes--;
  free_inode(root, n, kind);
}

// First entry of a subtree, in walk order.
inline rnode *first_of(const inode *n) {
  for (;;) {
    if (n->flags & INODE_ATTACHED) return n->rattached;
    if (n->flags & INODE_LEFT_OWN) return n->left.rnode;
    n = n->left.inode;
  }
}
inline rnode *first_of(radix_ptr p, bool external) { return external ? p.rnode : first_of(p.inode); }

inline rnode *chain_last(rnode *x) {
  while (x->next) x = x->next;
  return x;
}

rnode *last_of(const inode *n) {
  for (;;) {
    int s = real(n, 1) ? 1 : 0;
    if (n->flags & kOwn[s]) return chain_last(child(const_cast<inode *>(n), s).rnode);
    n = child(const_cast<inode *>(n), s).inode;
  }
}

// First entry after the subtree hanging on side s of n.
rnode *after_subtree(const inode *n, int s) {
  while (n) {
    if (s == 0 && real(n, 1)) return first_of(n->right, n->flags & INODE_RIGHT_OWN);
    if (!n->parent) return nullptr;
    s = side_in_parent(n);
    n = n->parent;
  }
  return nullptr;
}

// Last entry before the subtree headed by inode n.
rnode *before_subtree(const inode *n) {
  while (n->parent) {
    int s = side_in_parent(n);
    const inode *p = n->parent;
    if (s == 1 && real(p, 0))
      return (p->flags & INODE_LEFT_OWN) ? chain_last(p->left.rnode) : last_of(p->left.inode);
    if (p->flags & INODE_ATTACHED) return chain_last(p->rattached);
    n = p;
  }
  return nullptr;
}

// Where a chain hangs: the slot that holds its head.
rnode **chain_slot(task_radix *root, const rnode *rn, bool *attached) {
  inode *p = rn->parent;
  *attached = false;
  if (!p) return &root->root.rnode;
  if (p->bit == rn->prefix_len) {
    *attached = true;
    return &p->rattached;
  }
  return &child(p, bit_of(key_of(root, rn), p->bit)).rnode;
}

// Descent shared by add, find_next and subtree_match: follows key while the
// inode's bit is below len; stops at an external child or at an inode at or
// past len. x is where it stopped, p its parent and side its side there.
struct stop {
  radix_ptr x;
  bool external;
  inode *p;
  int side;
};

stop descend(const task_radix *root, const uint8_t *key, uint32_t len) {
  stop st{root->root, root->internal_nodes == 0, nullptr, 0};
  if (st.external) return st;
  inode *n = st.x.inode;
  while (n->bit < len) {
    int s = bit_of(key, n->bit);
    st.p = n;
    st.side = s;
    if (n->flags & kExt[s]) {
      st.x.rnode = child(n, s).rnode;
      st.external = true;
      return st;
    }
    n = child(n, s).inode;
  }
  st.x.inode = n;
  return st;
}

inline rnode *candidate(const stop &st) {
  if (st.external) return st.x.rnode;
  const inode *n = st.x.inode;
  return (n->flags & INODE_ATTACHED) ? n->rattached : first_of(n);
}

// Where a key of len bits parts from the tree: the stop of the descent, the
// entry found there, the bits the two can share (m) and the first bit in
// which they differ (m when none).
uint32_t part(const task_radix *root, const uint8_t *key, uint32_t len, stop *st, rnode **cand, uint32_t *m) {
  *st = descend(root, key, len);
  *cand = candidate(*st);
  const uint32_t clen = (*cand)->prefix_len;
  *m = len < clen ? len : clen;
  return first_diff(key_of(root, *cand), key, *m);
}

// Moves st up while its parent tests a bit past d.
void climb_past(stop &st, uint32_t d) {
  while (st.p && st.p->bit > d) {
    st.x.inode = st.p;
    st.external = false;
    st.side = st.p->parent ? side_in_parent(st.p) : 0;
    st.p = st.p->parent;
  }
}

inline bool within(const task_radix *root, const rnode *rn, const uint8_t *key, uint32_t length) {
  return rn->prefix_len >= length && first_diff(key_of(root, rn), key, length) == length;
}

struct sanity_counts {
  uint32_t external = 0, internal = 0, attached = 0;
};

void check_chain(const task_radix *root, const rnode *head, const inode *parent,
                 sanity_counts &c) {
  const uint8_t *hk = key_of(root, head);
  for (const rnode *x = head; x; x = x->next) {
    CONT_ASSERT(x->parent == parent);
    CONT_ASSERT(x->prefix_len == head->prefix_len);
    CONT_ASSERT(first_diff(key_of(root, x), hk, head->prefix_len) == head->prefix_len);
    CONT_ASSERT(!x->next || x->instance < x->next->instance);
    c.external++;
  }
}

// ref: a key of n's subtree, which every key below must agree with on n->bit bits.
void check_inode(const task_radix *root, const inode *n, sanity_counts &c) {
  c.internal++;
  const uint8_t *ref = key_of(root, first_of(n));
  CONT_ASSERT((n->flags & ~0x1fu) == 0);
  CONT_ASSERT((n->flags & 0x06) != 0x06 && (n->flags & 0x18) != 0x18);
  CONT_ASSERT((n->flags & 0x14) != 0x14);
  CONT_ASSERT(!(n->flags & 0x14) || (n->flags & INODE_ATTACHED));
  if (n->flags & INODE_ATTACHED) {
    c.attached++;
    CONT_ASSERT(n->rattached && n->rattached->prefix_len == n->bit);
    CONT_ASSERT(first_diff(key_of(root, n->rattached), ref, n->bit) == n->bit);
    check_chain(root, n->rattached, n, c);
  }
  for (int s = 0; s < 2; s++) {
    radix_ptr p = s ? n->right : n->left;
    if (n->flags & kAtt[s]) {
      CONT_ASSERT(p.rnode == n->rattached);
    } else if (n->flags & kOwn[s]) {
      const uint8_t *k = key_of(root, p.rnode);
      CONT_ASSERT(p.rnode->prefix_len > n->bit);
      CONT_ASSERT(bit_of(k, n->bit) == s);
      CONT_ASSERT(first_diff(k, ref, n->bit) == n->bit);
      check_chain(root, p.rnode, n, c);
    } else {
      CONT_ASSERT(p.inode && p.inode->parent == n);
      CONT_ASSERT(p.inode->bit > n->bit);
      const uint8_t *k = key_of(root, first_of(p.inode));
      CONT_ASSERT(bit_of(k, n->bit) == s);
      CONT_ASSERT(first_diff(k, ref, n->bit) == n->bit);
      check_inode(root, p.inode, c);
    }
  }
}

}  // namespace

extern "C" {

void task_radix_init(task_radix *root, uint16_t offset, uint16_t flags) {
  CONT_ASSERT(root);
  std::memset(root, 0, sizeof *root);
  root->key_offset = offset;
  root->flags = flags & RADIX_KEY_PTR;
}

void task_radix_root_extended_init(task_radix *root, radix_alloc_fn alloc, radix_free_fn free,
                                   void *user) {
  CONT_ASSERT(root);
  CONT_ASSERT(root->internal_nodes == 0);
  CONT_ASSERT(alloc && free);
  root->alloc = alloc;
  root->free = free;
  root->user = user;
  root->flags |= RADIX_OWN_ALLOC;
}

void task_radix_delete_root(task_radix *root) {
  CONT_ASSERT(root);
  CONT_ASSERT(root->root.rnode == NULL);
  std::memset(root, 0, sizeof *root);
}

void task_radix32_node_init(rnode *rn, uint32_t prefix_len, uint32_t instance) {
  CONT_ASSERT(rn);
  rn->prefix_len = prefix_len;
  rn->instance = instance;
  rn->next = nullptr;
  rn->parent = nullptr;
}

const uint8_t *task_radix_key(const task_radix *root, const rnode *rn) { return key_of(root, rn); }

bool task_radix32_add(task_radix *root, rnode *nw) {
  CONT_ASSERT_MSG(root && nw, "root && new");
  const uint8_t *nk = key_of(root, nw);
  const uint32_t len = nw->prefix_len;
  nw->next = nullptr;
  nw->parent = nullptr;
  if (!root->root.rnode) {
    root->root.rnode = nw;
    root->external_nodes = 1;
    return true;
  }

  stop st;
  rnode *cand;
  uint32_t m;
  const uint32_t diff_bit = part(root, nk, len, &st, &cand, &m);
  const uint32_t clen = cand->prefix_len;

  if (diff_bit < m) {
    // The keys part inside: a plain inode at diff_bit above everything that
    // shares more than diff_bit bits with the candidate.
    climb_past(st, diff_bit);
    inode *parent = st.p;
    CONT_ASSERT(!parent || (parent->bit != diff_bit));
    inode *n = alloc_inode(root, RADIX_INODE_PLAIN);
    n->bit = diff_bit;
    n->flags = 0;
    int s = bit_of(nk, diff_bit);
    hang(root, parent, st.side, radix_ptr{n}, false);
    n->parent = parent;
    hang(root, n, !s, st.x, st.external);
    hang(root, n, s, radix_ptr{.rnode = nw}, true);
    root->internal_nodes++;
  } else if (len == clen) {
    // Same key: into the chain by rising instance.
    bool attached;
    rnode **slot = chain_slot(root, cand, &attached);
    rnode *prev = nullptr, *cur = *slot;
    for (; cur && cur->instance < nw->instance; cur = cur->next) prev = cur;
    if (cur && cur->instance == nw->instance) return false;
    nw->parent = cand->parent;
    nw->next = cur;
    if (prev) {
      prev->next = nw;
    } else {
      *slot = nw;
      inode *p = cand->parent;
      if (attached) {
        if (p->flags & INODE_LEFT_ATTACHED) p->left.rnode = nw;
        if (p->flags & INODE_RIGHT_ATTACHED) p->right.rnode = nw;
      }
    }
  } else if (clen < len) {
    // The candidate covers the new key; it is the chain where the descent
    // ran out.
    inode *p = st.p;
    int s = bit_of(nk, clen);
    if (p && p->bit == clen) {
      // The candidate is p's attached chain, shown on the new key's side.
      child(p, st.side).rnode = nw;
      p->flags ^= kExt[st.side];
      nw->parent = p;
    } else {
      inode *n = alloc_inode(root, RADIX_INODE_ATTACHED);
      n->bit = clen;
      n->rattached = cand;
      hang(root, p, st.side, radix_ptr{n}, false);
      n->parent = p;
      set_chain_parent(cand, n);
      child(n, !s).rnode = cand;
      child(n, s).rnode = nw;
      nw->parent = n;
      n->flags = INODE_ATTACHED | kOwn[s] | kAtt[!s];
      root->internal_nodes++;
      root->attached_inodes++;
    }
  } else {
    // The new key covers the candidate: it becomes an attached chain at len.
    if (!st.external && st.x.inode->bit == len) {
      inode *n = task_radix_inode_copy(root, st.x.inode, RADIX_INODE_ATTACHED);
      n->rattached = nw;
      n->flags |= INODE_ATTACHED;
      nw->parent = n;
    } else {
      int s = bit_of(key_of(root, cand), len);
      inode *n = alloc_inode(root, RADIX_INODE_ATTACHED);
      n->bit = len;
      n->rattached = nw;
      n->flags = 0;
      hang(root, st.p, st.side, radix_ptr{n}, false);
      n->parent = st.p;
      hang(root, n, s, st.x, st.external);
      child(n, !s).rnode = nw;
      n->flags |= INODE_ATTACHED | kAtt[!s];
      nw->parent = n;
      root->internal_nodes++;
    }
    root->attached_inodes++;
  }
  root->external_nodes++;
  return true;
}

void task_radix32_delete(task_radix *root, rnode *rn) {
  CONT_ASSERT(root);
  CONT_ASSERT(rn);
  bool attached;
  rnode **slot = chain_slot(root, rn, &attached);
  inode *p = rn->parent;
  rnode *prev = nullptr, *cur = *slot;
  for (; cur && cur != rn; cur = cur->next) prev = cur;
  CONT_ASSERT_MSG(cur == rn, "rnode in its chain");

  if (prev || rn->next) {
    if (prev) {
      prev->next = rn->next;
    } else {
      *slot = rn->next;
      if (attached && (p->flags & INODE_LEFT_ATTACHED)) p->left.rnode = rn->next;
      if (attached && (p->flags & INODE_RIGHT_ATTACHED)) p->right.rnode = rn->next;
    }
  } else if (!p) {
    CONT_ASSERT(root->external_nodes == 1 && root->root.rnode == rn);
    root->root.rnode = nullptr;
  } else if (attached) {
    if ((p->flags & 0x15) == INODE_ATTACHED) {
      // Both sides hold more: keep the inode, without its chain slot.
      p->flags &= ~INODE_ATTACHED;
      copy_inode(root, p, RADIX_INODE_ATTACHED, RADIX_INODE_PLAIN);
      root->attached_inodes--;
    } else {
      int s = (p->flags & INODE_LEFT_ATTACHED) ? 1 : 0;
      splice_out(root, p, child(p, s), p->flags & kOwn[s]);
    }
  } else {
    int s = bit_of(key_of(root, rn), p->bit);
    if (!(p->flags & INODE_ATTACHED)) {
      splice_out(root, p, child(p, !s), p->flags & kOwn[!s]);
    } else if (p->flags & kAtt[!s]) {
      // Only the attached chain is left: it replaces the inode.
      splice_out(root, p, radix_ptr{.rnode = p->rattached}, true);
    } else {
      child(p, s).rnode = p->rattached;
      p->flags ^= kExt[s];
    }
  }
  root->external_nodes--;
  rn->next = nullptr;
  rn->parent = nullptr;
}

inode *task_radix_inode_copy(task_radix *root, inode *node, int kind) {
  CONT_ASSERT(root && node);
  CONT_ASSERT(kind == RADIX_INODE_ATTACHED || !(node->flags & 0x15));
  int old_kind = (node->flags & INODE_ATTACHED) ? RADIX_INODE_ATTACHED : RADIX_INODE_PLAIN;
  return copy_inode(root, node, old_kind, kind);
}

rnode *task_radix_lookup(const task_radix *root, const void *v_key) {
  CONT_ASSERT(root && v_key);
  const uint8_t *key = static_cast<const uint8_t *>(v_key);
  rnode *cand;
  const inode *n = nullptr;
  if (!root->internal_nodes) {
    cand = root->root.rnode;
    if (!cand) return nullptr;
  } else {
    n = root->root.inode;
    for (;;) {
      int s = bit_of(key, n->bit);
      if (n->flags & kExt[s]) {
        cand = (s ? n->right : n->left).rnode;
        break;
      }
      n = (s ? n->right : n->left).inode;
    }
  }
  uint32_t d = first_diff(key_of(root, cand), key, cand->prefix_len);
  if (d == cand->prefix_len) return cand;
  for (; n; n = n->parent)
    if (n->bit <= d && (n->flags & INODE_ATTACHED)) return n->rattached;
  return nullptr;
}

rnode *task_radix32_getnext(const task_radix *root, const rnode *rn) {
  CONT_ASSERT(root);
  if (!rn) {
    if (!root->root.rnode) return nullptr;
    return root->internal_nodes ? first_of(root->root.inode) : root->root.rnode;
  }
  if (rn->next) return rn->next;
  const inode *p = rn->parent;
  if (!p) return nullptr;
  if (p->bit == rn->prefix_len) {
    int s = real(p, 0) ? 0 : 1;
    return first_of(s ? p->right : p->left, p->flags & kOwn[s]);
  }
  return after_subtree(p, bit_of(key_of(root, rn), p->bit));
}

rnode *task_radix32_getnext_instance(const task_radix *root, const rnode *rn, uint32_t instance) {
  CONT_ASSERT(root);
  const rnode *last = rn;
  if (rn) {
    const rnode *x = rn->next;
    for (; x && x->instance < instance; x = x->next) {
    }
    if (x && x->instance == instance) return const_cast<rnode *>(x);
    last = chain_last(const_cast<rnode *>(rn));
  }
  for (rnode *h = task_radix32_getnext(root, last); h; h = task_radix32_getnext(root, chain_last(h))) {
    rnode *x = h;
    for (; x && x->instance < instance; x = x->next) {
    }
    if (x && x->instance == instance) return x;
  }
  return nullptr;
}

rnode *task_radix32_find_next(const task_radix *root, uint32_t len, const void *v_key) {
  CONT_ASSERT(root && v_key);
  const uint8_t *key = static_cast<const uint8_t *>(v_key);
  if (!root->root.rnode) return nullptr;
  stop st;
  rnode *cand;
  uint32_t m;
  const uint32_t d = part(root, key, len, &st, &cand, &m);
  const uint32_t clen = cand->prefix_len;
  if (d < m) {
    // The key leaves the tree at bit d: all of the subtree found there lies
    // on one side of it.
    climb_past(st, d);
    if (!bit_of(key, d)) return first_of(st.x, st.external);
    return st.p ? after_subtree(st.p, st.side) : nullptr;
  }
  if (d == len && len <= clen) {
    // The key covers the candidate's subtree (or is its very prefix).
    if (st.external) {
      if (clen > len) return st.x.rnode;
      return st.p ? after_subtree(st.p, st.side) : nullptr;
    }
    const inode *n = st.x.inode;
    if (n->bit > len) return first_of(n);
    int s = real(n, 0) ? 0 : 1;
    return first_of(s ? n->right : n->left, n->flags & kOwn[s]);
  }
  // The candidate chain covers the key and nothing longer lies on its path.
  return st.p ? after_subtree(st.p, st.side) : nullptr;
}

rnode *task_radix_find_prev(const task_radix *root, const rnode *rn) {
  CONT_ASSERT(root);
  if (!rn) {
    if (!root->root.rnode) return nullptr;
    return root->internal_nodes ? last_of(root->root.inode) : chain_last(root->root.rnode);
  }
  bool attached;
  rnode *head = *chain_slot(const_cast<task_radix *>(root), rn, &attached);
  if (head != rn) {
    while (head->next != rn) head = head->next;
    return head;
  }
  const inode *p = rn->parent;
  if (!p) return nullptr;
  if (attached) return before_subtree(p);
  int s = bit_of(key_of(root, rn), p->bit);
  if (s == 1 && real(p, 0))
    return (p->flags & INODE_LEFT_OWN) ? chain_last(p->left.rnode) : last_of(p->left.inode);
  if (p->flags & INODE_ATTACHED) return chain_last(p->rattached);
  return before_subtree(p);
}

rnode *task_radix_find_prev_instance(const task_radix *root, const rnode *rn, uint32_t instance) {
  CONT_ASSERT(root);
  rnode *x = task_radix_find_prev(root, rn);
  while (x && x->instance != instance) x = task_radix_find_prev(root, x);
  return x;
}

rnode *task_radix_find_parent(const task_radix *root, const rnode *rn) {
  CONT_ASSERT(root);
  CONT_ASSERT(rn);
  const inode *p = rn->parent;
  if (p && p->bit == rn->prefix_len) p = p->parent;
  for (; p; p = p->parent)
    if (p->flags & INODE_ATTACHED) return p->rattached;
  return nullptr;
}

rnode *task_radix32_find_parent_instance(const task_radix *root, const rnode *rn,
                                         uint32_t instance) {
  CONT_ASSERT(root);
  CONT_ASSERT(rn);
  const rnode *x = rn;
  for (; x && x->instance < instance; x = x->next) {
  }
  if (x && x->instance == instance) return const_cast<rnode *>(x);
  const inode *p = rn->parent;
  if (p && p->bit == rn->prefix_len) p = p->parent;
  for (; p; p = p->parent) {
    if (!(p->flags & INODE_ATTACHED)) continue;
    for (x = p->rattached; x && x->instance < instance; x = x->next) {
    }
    if (x && x->instance == instance) return const_cast<rnode *>(x);
  }
  return nullptr;
}

rnode *task_radix_subtree_first(const task_radix *root, const rnode *rn) {
  CONT_ASSERT(root);
  CONT_ASSERT(rn);
  const inode *p = rn->parent;
  if (!p || p->bit != rn->prefix_len) return nullptr;
  int s = real(p, 0) ? 0 : 1;
  return first_of(s ? p->right : p->left, p->flags & kOwn[s]);
}

rnode *task_radix32_subtree_next(const task_radix *root, const rnode *rn, uint32_t length) {
  CONT_ASSERT(root);
  CONT_ASSERT(rn);
  rnode *x = task_radix32_getnext(root, rn);
  return x && within(root, x, key_of(root, rn), length) ? x : nullptr;
}

rnode *task_radix32_subtree_prune(const task_radix *root, const rnode *rn, uint32_t length) {
  CONT_ASSERT(root);
  CONT_ASSERT(rn);
  const inode *p = rn->parent;
  rnode *x = nullptr;
  if (p && p->bit == rn->prefix_len) x = p->parent ? after_subtree(p->parent, side_in_parent(p)) : nullptr;
  else if (p) x = after_subtree(p, bit_of(key_of(root, rn), p->bit));
  return x && within(root, x, key_of(root, rn), length) ? x : nullptr;
}

rnode *task_radix32_subtree_match(const task_radix *root, uint32_t length, const void *v_key) {
  CONT_ASSERT(root && v_key);
  const uint8_t *key = static_cast<const uint8_t *>(v_key);
  if (!root->root.rnode) return nullptr;
  stop st = descend(root, key, length);
  rnode *c;
  if (st.external) {
    c = st.x.rnode;
  } else if (st.x.inode->bit > length) {
    c = first_of(st.x.inode);
  } else {
    const inode *n = st.x.inode;
    int s = real(n, 0) ? 0 : 1;
    c = first_of(s ? n->right : n->left, n->flags & kOwn[s]);
  }
  return c->prefix_len > length && within(root, c, key, length) ? c : nullptr;
}

void task_radix32_sanity(const task_radix *root) {
  CONT_ASSERT(root);
  sanity_counts c;
  if (!root->root.rnode) {
    CONT_ASSERT(root->external_nodes == 0 && root->internal_nodes == 0);
  } else if (!root->internal_nodes) {
    check_chain(root, root->root.rnode, nullptr, c);
  } else {
    CONT_ASSERT(root->root.inode->parent == NULL);
    check_inode(root, root->root.inode, c);
  }
  CONT_ASSERT(c.external == root->external_nodes);
  CONT_ASSERT(c.internal == root->internal_nodes);
  CONT_ASSERT(c.attached == root->attached_inodes);
}

}  // extern "C"
