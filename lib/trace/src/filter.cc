// Filters on single trace flags: 64-slot tables interned in
// trace_filter_list, so that modules with equal filters share one.
#include <cstring>

#include "containers/bit_tables.h"
#include "internal.h"
#include "trace/trace_config.h"

namespace tvx::trace {
namespace {

constexpr uint32_t TFN_STALE = 0x1;

struct trace_filter_node {
  hbt_node tfn_hnode;
  uint32_t tfn_flags;
  int32_t tfn_refcount;
  trace_filter tfn_table[TRACE_FILTER_SLOTS];
};

trace_filter_node *node_of(const trace_filter *table) {
  return reinterpret_cast<trace_filter_node *>(reinterpret_cast<char *>(const_cast<trace_filter *>(table)) -
                                               offsetof(trace_filter_node, tfn_table));
}

bool hooks_complete() {
  const ztrace_app_ctx *a = trace_app_ctx;
  return a->filter_retain && a->filter_store && a->filter_compare && a->filter_release;
}

// Slot by slot: type, then the application's compare on the data. Without
// all four data hooks every table compares equal.
int filter_cmp(const hbt_node *x, const hbt_node *y) {
  if (!hooks_complete()) return 0;
  const trace_filter *a = HBT_ENTRY(x, trace_filter_node, tfn_hnode)->tfn_table;
  const trace_filter *b = HBT_ENTRY(y, trace_filter_node, tfn_hnode)->tfn_table;
  for (unsigned i = 0; i < TRACE_FILTER_SLOTS; i++) {
    if (a[i].trfil_type != b[i].trfil_type) return a[i].trfil_type < b[i].trfil_type ? -1 : 1;
    if (a[i].trfil_type == 0) continue;
    if (int c = trace_app_ctx->filter_compare(a[i].trfil_data, b[i].trfil_data)) return c < 0 ? -1 : 1;
  }
  return 0;
}

hbt_root *tree() { return &trace_app_ctx->filter_tree; }

void node_free(trace_filter_node *n) {
  hbt_delete(tree(), &n->tfn_hnode);
  for (trace_filter &f : n->tfn_table)
    if (f.trfil_type && f.trfil_data && trace_app_ctx->filter_release) trace_app_ctx->filter_release(f.trfil_data);
  release(TRACE_CLASS_FILTER_NODE, n);
}

// The highest set bit of a 64-bit mask, counted from the top, by bytes.
unsigned top_bit(uint64_t m) {
  for (unsigned byte = 0; byte < 8; byte++) {
    const uint8_t b = static_cast<uint8_t>(m >> (56 - 8 * byte));
    if (b) return byte * 8 + bit_hi_table[b];
  }
  return 64;
}

}  // namespace

void filter_unref_shared(trace_filter *table) {
  trace_filter_node *n = node_of(table);
  const int32_t left = __atomic_sub_fetch(&n->tfn_refcount, 1, __ATOMIC_SEQ_CST);
  ZTRACE_ASSERT_MSG(left, "--tfn->tfn_refcount");
}

void filters_shutdown() {
  while (hbt_node *h = hbt_iterate_next(tree(), nullptr)) node_free(HBT_ENTRY(h, trace_filter_node, tfn_hnode));
}

}  // namespace tvx::trace

using namespace tvx::trace;

unsigned trace_filter_slot(uint32_t lo, uint32_t hi) { return top_bit(lo | static_cast<uint64_t>(hi) << 32); }

void trace_filter_set(trace_filter *table, size_t size, uint32_t lo, uint32_t hi, uint32_t type, void *data) {
  uint64_t m = lo | static_cast<uint64_t>(hi) << 32;
  while (m) {
    const unsigned slot = top_bit(m);
    if (slot < size) table[slot] = trace_filter{type, data};
    m &= ~(1ull << (63 - slot));
  }
}

trace_filter *trace_store_filter(const trace_filter *table) {
  trace_filter_node probe{};
  memcpy(probe.tfn_table, table, sizeof probe.tfn_table);
  if (hbt_node *h = hbt_lookup(tree(), &probe.tfn_hnode, filter_cmp)) {
    trace_filter_node *n = HBT_ENTRY(h, trace_filter_node, tfn_hnode);
    __atomic_add_fetch(&n->tfn_refcount, 1, __ATOMIC_SEQ_CST);
    n->tfn_flags &= ~TFN_STALE;
    return n->tfn_table;
  }
  auto *n = static_cast<trace_filter_node *>(alloc(TRACE_CLASS_FILTER_NODE, sizeof(trace_filter_node)));
  const ztrace_app_ctx *a = trace_app_ctx;
  for (unsigned i = 0; i < TRACE_FILTER_SLOTS; i++) {
    n->tfn_table[i] = table[i];
    void *&d = n->tfn_table[i].trfil_data;
    if (!table[i].trfil_type || !d) continue;
    if (a->filter_store)
      d = a->filter_store(d);
    else if (a->filter_retain)
      a->filter_retain(d);
  }
  n->tfn_refcount = 1;
  ZTRACE_ASSERT_MSG(hbt_insert(tree(), &n->tfn_hnode, filter_cmp), "hbt_insert(&tbc->trace_filter_list)");
  return n->tfn_table;
}

void trace_filter_free(trace_filter *table) {
  if (!table) return;
  trace_filter_node *n = node_of(table);
  const int32_t left = __atomic_sub_fetch(&n->tfn_refcount, 1, __ATOMIC_SEQ_CST);
  ZTRACE_ASSERT_MSG(left >= 0, "refcount-1 >= 0");
  if (left == 0) node_free(n);
}

bool trace_run_filter(const trace_filter *filter, const void *arg) {
  if (filter->trfil_type == 0) return true;
  ZTRACE_ASSERT_MSG(filter->trfil_type < trace_app_ctx->ztrace_filter_type_max,
                    "filter->trfil_type < trace_app_ctx->ztrace_filter_type_max");
  const trace_filter_run_fn run = trace_app_ctx->filter_run[filter->trfil_type];
  return run ? run(filter->trfil_data, arg) : true;
}

bool trace_filter_enabled(const trace_handle *tp, uint32_t lo, uint32_t hi, const void *arg) {
  if (!trace_app_ctx->may_use() || !tp || !(lo | hi)) return false;
  if (!trace_enabled(tp, lo, hi)) return false;
  if (!tp->tr_filters) return true;
  uint64_t m = lo | static_cast<uint64_t>(hi) << 32;
  while (m) {
    const unsigned slot = top_bit(m);
    const uint64_t bit = 1ull << (63 - slot);
    m &= ~bit;
    if (trace_enabled(tp, static_cast<uint32_t>(bit), static_cast<uint32_t>(bit >> 32)) &&
        trace_run_filter(&tp->tr_filters[slot], arg))
      return true;
  }
  return false;
}

bool trace_has_filter(const trace_handle *tp, uint32_t lo, uint32_t hi) {
  if (!tp || !tp->tr_filters) return false;
  uint64_t m = lo | static_cast<uint64_t>(hi) << 32;
  while (m) {
    const unsigned slot = top_bit(m);
    m &= ~(1ull << (63 - slot));
    if (tp->tr_filters[slot].trfil_type) return true;
  }
  return false;
}

void trace_filter_mark_stale(void) {
  for (hbt_node *h = hbt_iterate_next(tree(), nullptr); h; h = hbt_iterate_next(tree(), h))
    HBT_ENTRY(h, trace_filter_node, tfn_hnode)->tfn_flags |= TFN_STALE;
}

bool trace_filter_is_stale(const trace_filter *table) { return node_of(table)->tfn_flags & TFN_STALE; }

size_t trace_filter_count(void) {
  size_t n = 0;
  hbt_verify(tree(), filter_cmp, &n);
  return n;
}
