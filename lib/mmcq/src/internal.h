// Shared by the queue's sources: access to the ring, the grower word, asserts.
#pragma once

#include <cstdint>

#include "mmcq/mmcq.h"

#define MMCQ_ASSERT(e) ((e) ? (void)0 : mmcq_assert_fail(#e, __FILE__, __LINE__))
[[noreturn]] void mmcq_assert_fail(const char *expr, const char *file, int line);

template <typename T>
inline T mmcq_load(const T *p) {
  return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}
template <typename T>
inline void mmcq_store(T *p, T v) {
  __atomic_store_n(p, v, __ATOMIC_RELEASE);
}
inline bool mmcq_cas(uint32_t *p, uint32_t from, uint32_t to) {
  return __atomic_compare_exchange_n(p, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Pointer to len bytes of the file at off, mapping what another process grew.
void *mmcq_at(mmcq *h, uint32_t off, uint32_t len);
// Takes the grower word for this pid, waiting while another live process
// holds it; a dead holder's word is taken over (a dead grower's journal is
// then finished by the caller, who holds the file's lock).
void mmcq_claim(mmcq *h);
void mmcq_release(mmcq *h);
// Moves the ring as the journal says and commits: the growth itself, and
// its completion for a grower that died. Under the file's lock and the word.
void mmcq_run_grow(mmcq *h);
// A dead grower's journal, finished by a process that holds the file's lock:
// takes the word, runs the move if it is still pending, counts it.
void mmcq_finish_grow(mmcq *h);
// The waits between processes: sleeps from first_us, 1 ms longer each round
// up to 100 ms, at most 30 s (scaled) in all, then the process ends.
// Returns when *word no longer holds pid, clearing it if pid died. A live
// process without the file mapped counts as dead: every grower and receiver
// maps it, so such a pid is a dead one's reused, or damage.
void mmcq_wait(const mmcq *h, uint32_t *word, uint32_t pid, uint32_t first_us);
int mmcq_self(void);
void mmcq_print(const mmcq *h, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
