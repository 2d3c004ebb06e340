// The touch file: a symbolic link whose target switches memory debugging on.
// Read before main too (jemalloc's options), so it allocates nothing.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal.h"
#include "platform/path.h"

namespace {

uint32_t debug_flags = 0;

constexpr struct {
  char letter;
  uint32_t bit;
} letters[] = {
    {'U', TASK_MEM_DBG_LIBC}, {'L', TASK_MEM_DBG_L}, {'C', TASK_MEM_DBG_C},      {'D', TASK_MEM_DBG_D},
    {'F', TASK_MEM_DBG_F},    {'M', TASK_MEM_DBG_M}, {'X', TASK_MEM_DBG_X},      {'A', TASK_MEM_DBG_A},
    {'R', TASK_MEM_DBG_R},    {'T', TASK_MEM_DBG_TOGGLE}, {'Z', TASK_MEM_DBG_Z}, {'J', TASK_MEM_DBG_J},
    {'B', TASK_MEM_DBG_B},
};

bool read_link(const char *dir, const char *program, char *target, size_t len) {
  char logical[512], real[1024];
  snprintf(logical, sizeof logical, "%s%s.debug", dir, program);
  if (!tvx_path(logical, real, sizeof real)) return false;
  ssize_t n = readlink(real, target, len - 1);
  if (n < 0) return false;
  target[n] = '\0';
  return true;
}

// Copies field [from, to) into out (bounded).
void field(const char *from, const char *to, char *out, size_t len) {
  size_t n = static_cast<size_t>(to - from);
  if (n >= len) n = len - 1;
  memcpy(out, from, n);
  out[n] = '\0';
}

}  // namespace

bool task_memory_touch_file_read(const char *program, task_mem_touch *out) {
  memset(out, 0, sizeof *out);
  char target[1024];
  if (!read_link("/tmp/", program, target, sizeof target) && !read_link("/var/tmp/", program, target, sizeof target))
    return false;
  out->found = true;

  // PATTERN,LETTERS[,ld:...],OPTIONS
  const char *p = target;
  const char *comma = strchr(p, ',');
  field(p, comma ? comma : p + strlen(p), out->pattern, sizeof out->pattern);
  const char *letters_text = "";
  char letters_buf[128] = "";
  if (comma) {
    p = comma + 1;
    comma = strchr(p, ',');
    field(p, comma ? comma : p + strlen(p), letters_buf, sizeof letters_buf);
    if (letters_buf[0] >= 'A' && letters_buf[0] <= 'Z') letters_text = letters_buf;
    if (comma) {
      p = comma + 1;
      if (strncmp(p, "ld:", 3) == 0 && strchr(p, ',')) p = strchr(p, ',') + 1;
      field(p, p + strlen(p), out->options, sizeof out->options);
    }
  }

  out->matched = strcmp(out->pattern, program) == 0 || out->pattern[0] == '*';
  if (out->matched)
    for (const char *l = letters_text; *l; l++)
      for (auto &e : letters)
        if (e.letter == *l) out->flags |= e.bit;
  return true;
}

void task_memory_touch_file_check(int pass) {
  task_mem_touch t;
  if (!task_memory_touch_file_read(program_invocation_short_name, &t)) return;
  uint32_t flags = t.flags;
  if (mem_use_libc) flags |= TASK_MEM_DBG_LIBC;
  debug_flags |= flags;
  if (pass == 1) {
    if (flags & TASK_MEM_DBG_LIBC) mem_use_libc = true;
    if (flags & TASK_MEM_DBG_Z) mem_junk = true;  // with the allocator's own junk:true
    if (flags & TASK_MEM_DBG_TOGGLE) task_mem_call_vector_toggle();
    const char *opts = strstr(t.options, "prof") ? nullptr : t.options;
    if (mem_vector->tmv_set_debug_options && mem_vector->tmv_set_debug_options(opts, t.pattern, flags) != 0)
      MEM_FATAL("task_memory_touch_file_check", "(rc == 0)");
  }
}

uint32_t task_memory_debug_flags(void) { return debug_flags; }
