// hbt_*: the balanced tree, as calls into Boost.Intrusive's red-black
// algorithms on the caller's nodes.
#include <cstring>

#include "containers/hbt.h"
#include "rb_traits.h"

namespace tvx::containers {

namespace {

struct verifier {
  bool (*in_order)(const hbt_node *, const hbt_node *, const void *);
  const void *ctx;
  const hbt_node *prev = nullptr;
  size_t count = 0;

  // Black height of the subtree, or -1 on a fault.
  int check(const hbt_node *n, const hbt_node *parent) {
    if (!n) return 1;
    if (n->hbt_parent != parent) return -1;
    if (n->hbt_color == hbt_traits::red() && parent->hbt_color == hbt_traits::red()) return -1;
    int lh = check(n->hbt_left, n);
    if (lh < 0) return -1;
    if (prev && !in_order(prev, n, ctx)) return -1;
    prev = n;
    count++;
    int rh = check(n->hbt_right, n);
    if (rh != lh) return -1;
    return lh + (n->hbt_color == hbt_traits::black() ? 1 : 0);
  }
};

}  // namespace

bool verify_tree(const hbt_root *root, size_t *count,
                 bool (*in_order)(const hbt_node *, const hbt_node *, const void *),
                 const void *ctx) {
  if (count) *count = 0;
  const hbt_node *h = header_if_used(root);
  if (!h) return true;
  const hbt_node *top = h->hbt_parent;
  if (!top) return h->hbt_left == h && h->hbt_right == h;
  if (top->hbt_color != hbt_traits::black()) return false;
  verifier v{in_order, ctx};
  // The header is red, so a red top would be caught too; its colour is
  // checked above because the parent test below starts from the header.
  if (v.check(top, h) < 0) return false;
  if (h->hbt_left != rb::minimum(const_cast<hbt_node *>(top))) return false;
  if (h->hbt_right != rb::maximum(const_cast<hbt_node *>(top))) return false;
  if (count) *count = v.count;
  return true;
}

}  // namespace tvx::containers

using namespace tvx::containers;

extern "C" {

void hbt_root_init(hbt_root *root) { rb::init_header(&root->hbt_header); }

bool hbt_empty(const hbt_root *root) {
  const hbt_node *h = header_if_used(root);
  return !h || !h->hbt_parent;
}

bool hbt_insert(hbt_root *root, hbt_node *node, hbt_compare_fn compare) {
  hbt_node *h = header_of(root);
  rb::insert_commit_data commit;
  less_by<hbt_compare_fn> less{compare};
  if (!rb::insert_unique_check(h, node, less, commit).second) return false;
  rb::insert_unique_commit(h, node, commit);
  return true;
}

bool hbt_delete(hbt_root *root, hbt_node *node) {
  if (!hbt_node_linked(node)) return false;
  rb::erase(header_of(root), node);
  std::memset(node, 0, sizeof *node);
  return true;
}

hbt_node *hbt_lookup(const hbt_root *root, const hbt_node *probe, hbt_compare_fn compare) {
  hbt_node *h = header_if_used(root);
  if (!h) return nullptr;
  hbt_node *n = rb::find(h, probe, less_by<hbt_compare_fn>{compare});
  return n == h ? nullptr : n;
}

hbt_node *hbt_getnext(const hbt_root *root, const hbt_node *probe, hbt_compare_fn compare) {
  hbt_node *h = header_if_used(root);
  if (!h) return nullptr;
  hbt_node *n = rb::upper_bound(h, probe, less_by<hbt_compare_fn>{compare});
  return n == h ? nullptr : n;
}

hbt_node *hbt_iterate_next(const hbt_root *root, const hbt_node *node) {
  hbt_node *h = header_if_used(root);
  if (!h) return nullptr;
  hbt_node *n = node ? rb::next_node(const_cast<hbt_node *>(node)) : rb::begin_node(h);
  return n == h ? nullptr : n;
}

hbt_node *hbt_max_element(const hbt_root *root) {
  hbt_node *h = header_if_used(root);
  if (!h || !h->hbt_parent) return nullptr;
  return h->hbt_right;
}

// Every linked node has a parent: the tree's top node has the header.
bool hbt_node_linked(const hbt_node *node) { return node->hbt_parent != nullptr; }

bool hbt_verify(const hbt_root *root, hbt_compare_fn compare, size_t *count) {
  auto in_order = [](const hbt_node *a, const hbt_node *b, const void *ctx) {
    return (*static_cast<const hbt_compare_fn *>(ctx))(a, b) < 0;
  };
  return verify_tree(root, count, in_order, &compare);
}

}  // extern "C"
