// Trace handles: reference counts, interning in trace_list, key changes, the
// global handle and the handles of children.
#include <cstring>

#include "internal.h"
#include "trace/trace_config.h"

trace_handle *ztrace_global = nullptr;

namespace tvx::trace {
namespace {

template <typename T>
int cmp3(T a, T b) {
  return a < b ? -1 : a > b ? 1 : 0;
}

// Flags (high word first, then low: one unsigned 64-bit compare), control,
// types, file, filters; all unsigned.
int trace_hnode_cmp(const hbt_node *a, const hbt_node *b) {
  const trace_handle *x = HBT_ENTRY(a, trace_handle, tr_hnode);
  const trace_handle *y = HBT_ENTRY(b, trace_handle, tr_hnode);
  if (int c = cmp3(x->tr_flags, y->tr_flags)) return c;
  if (int c = cmp3(x->tr_control, y->tr_control)) return c;
  if (int c = cmp3(reinterpret_cast<uintptr_t>(x->tr_types), reinterpret_cast<uintptr_t>(y->tr_types))) return c;
  if (int c = cmp3(reinterpret_cast<uintptr_t>(x->tr_file), reinterpret_cast<uintptr_t>(y->tr_file))) return c;
  return cmp3(reinterpret_cast<uintptr_t>(x->tr_filters), reinterpret_cast<uintptr_t>(y->tr_filters));
}

// Points tp at file, taking over the caller's reference; the old file's
// counts drop after the new one's rose.
void attach_file(trace_handle *tp, trace_file *file) {
  if (file) __atomic_fetch_add(&file->trf_trpcount, 1, __ATOMIC_SEQ_CST);
  trace_file *old = tp->tr_file;
  tp->tr_file = file;
  if (old) {
    __atomic_fetch_sub(&old->trf_trpcount, 1, __ATOMIC_SEQ_CST);
    trace_app_ctx->backend.release(old);
  }
}

void drop_filters(trace_handle *tp) {
  if (tp->tr_filters) trace_filter_free(tp->tr_filters);
  tp->tr_filters = nullptr;
}

// A linked handle leaves the tree while its key changes.
template <typename Change>
void rekey(trace_handle *tp, Change change) {
  tbc &t = ctx();
  const bool linked = tp != ztrace_global && hbt_node_linked(&tp->tr_hnode);
  if (linked) hbt_delete(&t.trace_list, &tp->tr_hnode);
  change();
  if (linked)
    ZTRACE_ASSERT_MSG(hbt_insert(&t.trace_list, &tp->tr_hnode, trace_hnode_cmp),
                      "hbt_insert(&tbc->trace_list, &trp->tr_hnode, trace_hnode_cmp)");
}

bool is_stderr_file(const trace_file *f) { return f && !f->trf_name; }

// The reset of the global handle when its last holder lets go: a stderr file
// without flags is only detached; any other file is released with the filters.
void global_reset(trace_handle *g) {
  if (is_stderr_file(g->tr_file) && !g->tr_flags) {
    attach_file(g, nullptr);
  } else if (g->tr_file && !is_stderr_file(g->tr_file)) {
    attach_file(g, nullptr);
    drop_filters(g);
  }
}

}  // namespace

void global_handle_make() {
  if (!ztrace_global) {
    auto *g = static_cast<trace_handle *>(alloc(TRACE_CLASS_HANDLE, sizeof(trace_handle)));
    g->tr_types = trace_app_ctx->module_types;
    g->tr_refcount = 1;
    ztrace_global = g;
  }
  if (!ztrace_global->tr_file) {
    auto *f = static_cast<trace_file *>(alloc(TRACE_CLASS_FILE, sizeof(trace_file)));
    f->trf_refcount = 1;
    trace_app_ctx->backend.add(f);
    attach_file(ztrace_global, f);
  }
}

}  // namespace tvx::trace

using namespace tvx::trace;

trace_handle *trace_alloc(trace_handle *tp) {
  if (!tp) return nullptr;
  int32_t old = __atomic_fetch_add(&tp->tr_refcount, 1, __ATOMIC_SEQ_CST);
  ZTRACE_ASSERT_MSG(old + 1 > 0, "refcount+1 > 0");
  return tp;
}

void trace_free(trace_handle *tp) {
  if (!tp) return;
  int32_t old = __atomic_fetch_sub(&tp->tr_refcount, 1, __ATOMIC_SEQ_CST);
  ZTRACE_ASSERT_MSG(old - 1 >= 0, "refcount-1 >= 0");
  if (old - 1 > 0) return;
  if (tp == ztrace_global) {
    global_reset(tp);
    return;
  }
  hbt_delete(&ctx().trace_list, &tp->tr_hnode);
  attach_file(tp, nullptr);
  drop_filters(tp);
  release(TRACE_CLASS_HANDLE, tp);
}

void ztrace_global_reset(void) {
  trace_handle *g = ztrace_global;
  if (!g) return;
  if (is_stderr_file(g->tr_file) && !g->tr_flags) {
    attach_file(g, nullptr);
  } else if (g->tr_refcount == 1 && g->tr_file && !is_stderr_file(g->tr_file)) {
    attach_file(g, nullptr);
    drop_filters(g);
  }
}

trace_handle *ztrace_store_internal(trace_handle **slot, uint32_t lo, uint32_t hi, uint32_t control,
                                    trace_file *file, const trace_types *types, trace_filter *filters) {
  const uint64_t flags = lo | static_cast<uint64_t>(hi) << 32;
  if (slot == &ztrace_global) {
    if (!file) {
      if (filters) trace_filter_free(filters);
      return ztrace_global;
    }
    global_handle_make();
    trace_handle *g = ztrace_global;
    g->tr_flags = flags;
    g->tr_control = control;
    g->tr_types = types;
    attach_file(g, file);
    trace_filter *old = g->tr_filters;
    g->tr_filters = filters;
    if (old) trace_filter_free(old);
    return g;
  }

  trace_handle *old = *slot;
  *slot = nullptr;
  trace_free(old);
  if (!file) {
    if (filters) trace_filter_free(filters);
    return nullptr;
  }

  trace_handle cand{};
  cand.tr_flags = flags;
  cand.tr_control = control;
  cand.tr_types = types;
  cand.tr_filters = filters;
  attach_file(&cand, file);

  tbc &t = ctx();
  trace_handle *tp;
  if (hbt_node *n = hbt_lookup(&t.trace_list, &cand.tr_hnode, trace_hnode_cmp)) {
    tp = HBT_ENTRY(n, trace_handle, tr_hnode);
    trace_alloc(tp);
    attach_file(&cand, nullptr);  // the caller's reference
    if (filters) filter_unref_shared(filters);
  } else {
    tp = static_cast<trace_handle *>(alloc(TRACE_CLASS_HANDLE, sizeof(trace_handle)));
    *tp = cand;
    ZTRACE_ASSERT_MSG(hbt_insert(&t.trace_list, &tp->tr_hnode, trace_hnode_cmp),
                      "hbt_insert(&tbc->trace_list, &trp->tr_hnode, trace_hnode_cmp)");
    trace_alloc(tp);
  }
  *slot = tp;
  return tp;
}

trace_handle *ztrace_store(trace_handle **slot, uint32_t lo, uint32_t hi, uint32_t control, trace_file *file,
                           const trace_types *types) {
  return ztrace_store_internal(slot, lo, hi, control, file, types, nullptr);
}

trace_handle *ztrace_store_filters(trace_handle **slot, uint32_t lo, uint32_t hi, uint32_t control,
                                   trace_file *file, const trace_types *types, trace_filter *filters) {
  return ztrace_store_internal(slot, lo, hi, control, file, types, filters);
}

void ztrace_trace_file_set(trace_handle *tp, trace_file *file) {
  if (!tp) return;
  rekey(tp, [&] { attach_file(tp, file); });
}

void ztrace_tr_control_set(trace_handle *tp, uint32_t control) {
  if (!tp) return;
  rekey(tp, [&] { tp->tr_control = control; });
}

void ztrace_set_tr_flags(trace_handle *tp, uint32_t lo, uint32_t hi) {
  if (!tp) return;
  rekey(tp, [&] { tp->tr_flags = lo | static_cast<uint64_t>(hi) << 32; });
}

void ztrace_set_config_pending(bool pending) { ctx().config_pending = pending; }

trace_handle *ztrace_trace_child(const trace_types *types, uint64_t mask) {
  trace_handle *g = ztrace_global;
  if (!g || !g->tr_flags || !g->tr_file) return nullptr;
  if ((trace_app_ctx->options & ZTRACE_OPT_INCREMENTAL) && !ctx().config_pending) return nullptr;
  auto *tp = static_cast<trace_handle *>(alloc(TRACE_CLASS_HANDLE, sizeof(trace_handle)));
  const uint32_t glo = static_cast<uint32_t>(g->tr_flags), ghi = static_cast<uint32_t>(g->tr_flags >> 32);
  const uint32_t mlo = static_cast<uint32_t>(mask), mhi = static_cast<uint32_t>(mask >> 32);
  tp->tr_flags = (glo & mlo) | static_cast<uint64_t>(ghi & (mhi | 0x7e000000u)) << 32;
  tp->tr_control = g->tr_control & 0x81800000u;
  tp->tr_types = types;
  attach_file(tp, trace_file_retain(g->tr_file));
  tp->tr_refcount = 1;
  return tp;
}

size_t ztrace_handle_count(void) {
  size_t n = 0;
  hbt_verify(&ctx().trace_list, trace_hnode_cmp, &n);
  return n;
}

bool ztrace_handles_verify(void) { return hbt_verify(&ctx().trace_list, trace_hnode_cmp, nullptr); }
