// Binary radix tree (task_radix) keyed by bit strings of any length: route
// prefixes of every family, with longest-prefix match, ordered and subtree
// walks, and several entries per key told apart by an instance number.
//
// The user's record embeds an rnode; its key follows the rnode at the root's
// key offset (or, with RADIX_KEY_PTR, the word after the rnode points to an
// object whose key lies at that offset). The tree never copies keys. Bit 0 of
// a key is 0x80 of its first byte; bits past a key's length must be zero.
// Adding allocates at most one inode (internal node); looking up allocates
// nothing.
//
// Walk order: a prefix before its more specifics, left (bit clear) before
// right, and on one key by rising instance. It is byte-wise key order with a
// prefix ahead of its extensions.
//
// Misuse (null roots, deleting what is not in the tree, deleting a non-empty
// root) ends the process with an assertion. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

struct inode;

// External node, embedded in the user's record; the key follows it.
struct rnode {
  uint32_t prefix_len;  // key length in bits
  uint32_t instance;
  struct rnode *next;   // same key, next higher instance
  struct inode *parent; // owning inode; null when the rnode's chain is the root
};

union radix_ptr {
  struct inode *inode;
  struct rnode *rnode;
};

// inode flags.
enum : uint32_t {
  INODE_ATTACHED = 0x01,      // rattached holds the chain of length `bit`
  INODE_LEFT_OWN = 0x02,      // left is an rnode chain of its own
  INODE_LEFT_ATTACHED = 0x04, // left shows the attached chain: nothing else lies left
  INODE_RIGHT_OWN = 0x08,
  INODE_RIGHT_ATTACHED = 0x10,
  INODE_LEFT_EXTERNAL = 0x06,
  INODE_RIGHT_EXTERNAL = 0x18,
};

// Internal node. rattached exists only in inodes allocated with a chain slot
// (kind 1); the others (kind 0) end before it.
struct inode {
  struct inode *parent;
  union radix_ptr left;
  union radix_ptr right;
  uint32_t bit;  // bit tested here; every key below shares the bits before it
  uint32_t flags;
  struct rnode *rattached;
};

// Root flags.
enum : uint16_t {
  RADIX_KEY_PTR = 0x1,   // the word after the rnode points to the keyed object
  RADIX_OWN_ALLOC = 0x2, // inodes come from the root's alloc and free hooks
};

enum { RADIX_INODE_PLAIN = 0, RADIX_INODE_ATTACHED = 1 };  // allocation kinds

struct radix_root_struct;
// Own allocators. alloc never fails; kind is RADIX_INODE_*. Kind 0 objects
// need only offsetof(inode, rattached) bytes.
typedef struct inode *(*radix_alloc_fn)(struct radix_root_struct *root, int kind);
typedef void (*radix_free_fn)(struct radix_root_struct *root, struct inode *node, int kind);

struct radix_root_struct {
  union radix_ptr root;  // an inode, or the one rnode chain when there are no inodes
  uint16_t flags;
  uint16_t key_offset;
  uint32_t external_nodes;
  uint32_t internal_nodes;
  uint32_t attached_inodes;
  radix_alloc_fn alloc;
  radix_free_fn free;
  void *user;
};
typedef struct radix_root_struct task_radix;

// Prepares an empty tree: key at offset bytes after the rnode (or after the
// pointed-to object's start with RADIX_KEY_PTR in flags). Inodes come from
// two shared blocks, made on first use.
void task_radix_init(task_radix *root, uint16_t offset, uint16_t flags);
// Gives the root its own inode allocators; the tree must have no inodes.
void task_radix_root_extended_init(task_radix *root, radix_alloc_fn alloc, radix_free_fn free,
                                   void *user);
// Retires a root; it must be empty.
void task_radix_delete_root(task_radix *root);

// Clears the links and sets length and instance, before adding.
void task_radix32_node_init(struct rnode *rn, uint32_t prefix_len, uint32_t instance);
// The key of an rnode in this tree.
const uint8_t *task_radix_key(const task_radix *root, const struct rnode *rn);

// Adds rn; false, with nothing changed, when its key and instance exist.
bool task_radix32_add(task_radix *root, struct rnode *rn);
// Removes rn (which must be in the tree) and clears its links.
void task_radix32_delete(task_radix *root, struct rnode *rn);

// Longest-prefix match of a full-length key: the head (lowest instance) of
// the longest stored prefix covering it, or null.
struct rnode *task_radix_lookup(const task_radix *root, const void *key);

// Walks. A null rnode starts from the first (or, for find_prev, the last).
struct rnode *task_radix32_getnext(const task_radix *root, const struct rnode *rn);
// The next entry with that instance.
struct rnode *task_radix32_getnext_instance(const task_radix *root, const struct rnode *rn,
                                            uint32_t instance);
// The first entry after prefix (key, prefix_len), which need not be stored;
// entries of that very prefix are skipped. Resumes a walk after a deletion.
struct rnode *task_radix32_find_next(const task_radix *root, uint32_t prefix_len, const void *key);
struct rnode *task_radix_find_prev(const task_radix *root, const struct rnode *rn);
struct rnode *task_radix_find_prev_instance(const task_radix *root, const struct rnode *rn,
                                            uint32_t instance);

// Nearest covering entry: the head of the longest stored prefix strictly
// shorter than rn's key that covers it, or null.
struct rnode *task_radix_find_parent(const task_radix *root, const struct rnode *rn);
// Nearest covering entry with that instance: rn's own key first (from rn on),
// then ever shorter prefixes.
struct rnode *task_radix32_find_parent_instance(const task_radix *root, const struct rnode *rn,
                                                uint32_t instance);

// Subtrees. The subtree of (key, length) is every entry at least `length`
// bits long that agrees with key on those bits.
// First entry strictly below rn; null unless some entry is more specific.
struct rnode *task_radix_subtree_first(const task_radix *root, const struct rnode *rn);
// The entry after rn, if it lies in the subtree of rn's first `length` bits.
struct rnode *task_radix32_subtree_next(const task_radix *root, const struct rnode *rn,
                                        uint32_t length);
// The first entry after rn and everything below it (rn's other instances
// too), if it lies in the subtree of rn's first `length` bits.
struct rnode *task_radix32_subtree_prune(const task_radix *root, const struct rnode *rn,
                                         uint32_t length);
// The first entry strictly longer than `length` in the subtree of
// (key, length), or null.
struct rnode *task_radix32_subtree_match(const task_radix *root, uint32_t length, const void *key);

// Checks every invariant of the tree; a fault is an assertion naming it.
void task_radix32_sanity(const task_radix *root);

// Replaces an inode by a copy of the given kind (RADIX_INODE_*), re-pointing
// its neighbours, and frees the old one; returns the copy. A copy without a
// chain slot needs the inode to have no attached chain.
struct inode *task_radix_inode_copy(task_radix *root, struct inode *node, int kind);

}  // extern "C"
