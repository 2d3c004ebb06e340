// Node traits that let Boost.Intrusive's red-black algorithms run on the
// plain hbt_node record.
#pragma once

#include <boost/intrusive/rbtree_algorithms.hpp>

#include "containers/hbt.h"

namespace tvx::containers {

struct hbt_traits {
  using node = hbt_node;
  using node_ptr = hbt_node *;
  using const_node_ptr = const hbt_node *;
  using color = unsigned;

  static node_ptr get_parent(const_node_ptr n) { return n->hbt_parent; }
  static void set_parent(node_ptr n, node_ptr p) { n->hbt_parent = p; }
  static node_ptr get_left(const_node_ptr n) { return n->hbt_left; }
  static void set_left(node_ptr n, node_ptr l) { n->hbt_left = l; }
  static node_ptr get_right(const_node_ptr n) { return n->hbt_right; }
  static void set_right(node_ptr n, node_ptr r) { n->hbt_right = r; }
  static color get_color(const_node_ptr n) { return n->hbt_color; }
  static void set_color(node_ptr n, color c) { n->hbt_color = c; }
  static color black() { return 0; }
  static color red() { return 1; }
};

using rb = boost::intrusive::rbtree_algorithms<hbt_traits>;

// A zeroed header has no self links yet; Boost's empty tree has them.
inline hbt_node *header_of(hbt_root *root) {
  if (!root->hbt_header.hbt_left) rb::init_header(&root->hbt_header);
  return &root->hbt_header;
}
// Null when the tree was never used, which reads as empty.
inline hbt_node *header_if_used(const hbt_root *root) {
  auto *h = const_cast<hbt_node *>(&root->hbt_header);
  return h->hbt_left ? h : nullptr;
}

// Less-than over a user compare, usable both ways round as Boost asks.
template <class Cmp>
struct less_by {
  Cmp cmp;
  bool operator()(const hbt_node *a, const hbt_node *b) const { return cmp(a, b) < 0; }
};

bool verify_tree(const hbt_root *root, size_t *count,
                 bool (*in_order)(const hbt_node *a, const hbt_node *b, const void *ctx),
                 const void *ctx);

}  // namespace tvx::containers
