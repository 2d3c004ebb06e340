// patricia_*: byte-string keys in an intrusive red-black tree. Any ordered
// map serves the callers; this one keeps their node-in-record layout.
#include <cstring>

#include "containers/patricia.h"
#include "fatal.h"
#include "rb_traits.h"

using namespace tvx::containers;

namespace {

struct key_ref {
  const uint8_t *bytes;
  unsigned len;
};

const patricia_node *pnode(const hbt_node *h) {
  return PATRICIA_ENTRY(h, const patricia_node, patricia_hnode);
}

const uint8_t *key_of(const patricia_root *root, const patricia_node *n) {
  const char *at = reinterpret_cast<const char *>(n) + root->patricia_key_offset;
  if (root->patricia_key_is_ptr) {
    const uint8_t *p;
    std::memcpy(&p, at, sizeof p);
    return p;
  }
  return reinterpret_cast<const uint8_t *>(at);
}

int compare(key_ref a, key_ref b) {
  int c = std::memcmp(a.bytes, b.bytes, a.len < b.len ? a.len : b.len);
  if (c) return c;
  return a.len < b.len ? -1 : a.len > b.len ? 1 : 0;
}

struct key_less {
  const patricia_root *root;
  key_ref of(const hbt_node *h) const {
    const patricia_node *n = pnode(h);
    return {key_of(root, n), n->patricia_length};
  }
  bool operator()(const hbt_node *a, const hbt_node *b) const { return compare(of(a), of(b)) < 0; }
  bool operator()(const key_ref &a, const hbt_node *b) const { return compare(a, of(b)) < 0; }
  bool operator()(const hbt_node *a, const key_ref &b) const { return compare(of(a), b) < 0; }
};

patricia_node *result(const hbt_node *h, const hbt_node *n) {
  return n == h ? nullptr : const_cast<patricia_node *>(pnode(n));
}

}  // namespace

extern "C" {

patricia_root *patricia_root_init(patricia_root *root, bool key_is_ptr, uint16_t key_bytes,
                                  int32_t key_offset) {
  CONT_ASSERT(root);
  std::memset(root, 0, sizeof *root);
  hbt_root_init(&root->patricia_tree);
  root->patricia_key_offset = key_offset;
  root->patricia_key_bytes = key_bytes;
  root->patricia_key_is_ptr = key_is_ptr;
  return root;
}

void patricia_root_delete(patricia_root *root) {
  CONT_ASSERT(root && root->patricia_count == 0);
  std::memset(root, 0, sizeof *root);
}

void patricia_node_init_length(patricia_node *node, uint16_t key_bytes) {
  CONT_ASSERT(node && key_bytes > 0);
  node->patricia_length = key_bytes;
}

bool patricia_add(patricia_root *root, patricia_node *node) {
  CONT_ASSERT(root && node && !hbt_node_linked(&node->patricia_hnode));
  if (root->patricia_key_bytes) node->patricia_length = root->patricia_key_bytes;
  CONT_ASSERT(node->patricia_length > 0);
  hbt_node *h = header_of(&root->patricia_tree);
  rb::insert_commit_data commit;
  if (!rb::insert_unique_check(h, &node->patricia_hnode, key_less{root}, commit).second)
    return false;
  rb::insert_unique_commit(h, &node->patricia_hnode, commit);
  root->patricia_count++;
  return true;
}

bool patricia_delete(patricia_root *root, patricia_node *node) {
  CONT_ASSERT(root && node);
  if (!hbt_delete(&root->patricia_tree, &node->patricia_hnode)) return false;
  root->patricia_count--;
  return true;
}

patricia_node *patricia_get(const patricia_root *root, uint16_t key_bytes, const void *key) {
  CONT_ASSERT(root && key);
  hbt_node *h = header_if_used(&root->patricia_tree);
  if (!h) return nullptr;
  key_ref k{static_cast<const uint8_t *>(key), key_bytes ? key_bytes : root->patricia_key_bytes};
  return result(h, rb::find(h, k, key_less{root}));
}

patricia_node *patricia_getnext(const patricia_root *root, uint16_t key_bytes, const void *key,
                                bool or_equal) {
  CONT_ASSERT(root && key);
  hbt_node *h = header_if_used(&root->patricia_tree);
  if (!h) return nullptr;
  key_ref k{static_cast<const uint8_t *>(key), key_bytes ? key_bytes : root->patricia_key_bytes};
  key_less less{root};
  return result(h, or_equal ? rb::lower_bound(h, k, less) : rb::upper_bound(h, k, less));
}

patricia_node *patricia_find_next(const patricia_root *root, const patricia_node *node) {
  CONT_ASSERT(root);
  hbt_node *n = hbt_iterate_next(&root->patricia_tree, node ? &node->patricia_hnode : nullptr);
  return n ? const_cast<patricia_node *>(pnode(n)) : nullptr;
}

const uint8_t *patricia_key(const patricia_root *root, const patricia_node *node) {
  return key_of(root, node);
}

bool patricia_isempty(const patricia_root *root) { return root->patricia_count == 0; }

bool patricia_verify(const patricia_root *root) {
  auto in_order = [](const hbt_node *a, const hbt_node *b, const void *ctx) {
    return key_less{static_cast<const patricia_root *>(ctx)}(a, b);
  };
  size_t n = 0;
  return verify_tree(&root->patricia_tree, &n, in_order, root) && n == root->patricia_count;
}

}  // extern "C"
