// Named crash points: TVX_CRASHPOINT=name[:n] raises SIGKILL on the n-th pass.
#include "mmf/crashpoint.h"

#include <csignal>
#include <pthread.h>
#include <cstdlib>
#include <cstring>
#include <string>

const char *const mmf_crashpoints[] = {
    // The lock word: died holding it, in the middle of a takeover, while releasing.
    "mmf_lock_taken", "mmf_lock_takeover", "mmf_unlock_release",
    // Allocation: the node off its list, split, handed out but not yet returned.
    "mmf_alloc_unlinked", "mmf_alloc_split", "mmf_alloc_done",
    // Free: the node listed, two neighbours unlinked for a merge.
    "mmf_free_pushed", "mmf_free_merge",
    // Growth: the file extended, the new nodes written, current_bytes stored.
    "mmf_grow_extended", "mmf_grow_written", "mmf_grow_stored",
    // Rebuild: marked as initialising, the heap written but not marked ready.
    "mmf_init_marked", "mmf_init_built",
};
const size_t mmf_crashpoint_count = sizeof mmf_crashpoints / sizeof mmf_crashpoints[0];

#if TVX_CRASHPOINTS
int tvx_crashpoint_state = -1;

namespace {
std::string armed;
unsigned long kill_at = 1;
unsigned long passes;
void (*hook)(const char *);

void arm_from(const char *e) {
  int state = 0;
  armed.clear();
  kill_at = 1;
  passes = 0;
  if (e && *e) {
    armed = e;
    size_t colon = armed.find(':');
    if (colon != std::string::npos) {
      kill_at = strtoul(armed.c_str() + colon + 1, nullptr, 10);
      if (kill_at == 0) kill_at = 1;
      armed.resize(colon);
    }
    state = 1;
  }
  __atomic_store_n(&tvx_crashpoint_state, state, __ATOMIC_RELEASE);
}

pthread_once_t once = PTHREAD_ONCE_INIT;
void arm() { arm_from(getenv("TVX_CRASHPOINT")); }
}  // namespace

void tvx_crashpoint_set(const char *arming) {
  pthread_once(&once, arm);
  arm_from(arming);
}

void tvx_crashpoint_pass(const char *name) {
  pthread_once(&once, arm);
  if (__atomic_load_n(&tvx_crashpoint_state, __ATOMIC_ACQUIRE) != 1 || armed != name) return;
  if (__atomic_add_fetch(&passes, 1, __ATOMIC_ACQ_REL) != kill_at) return;
  if (hook)
    hook(name);
  else
    raise(SIGKILL);
}

void tvx_crashpoint_set_hook(void (*h)(const char *)) { hook = h; }

bool tvx_crashpoints_built(void) { return true; }
#else
bool tvx_crashpoints_built(void) { return false; }
void tvx_crashpoint_set(const char *) {}
void tvx_crashpoint_set_hook(void (*)(const char *)) {}
#endif
