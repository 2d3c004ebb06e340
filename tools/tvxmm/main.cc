// tvxmm: looks into the mapped files of this machine (under TAVOX_ROOT).
//
//   tvxmm mmf show FILE    the header's figures and the free lists
//   tvxmm mmf valid FILE   walks every node; exit 0 valid, 1 not
//   tvxmm mmf walk FILE    one line per node, to the first bad one
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "mmf/mmf.h"

namespace {

const char kUsage[] =
    "usage: tvxmm mmf show FILE     header figures and free lists of a mapped file\n"
    "       tvxmm mmf valid FILE    walk every node; exit 0 when valid, 1 when not\n"
    "       tvxmm mmf walk FILE     one line per node, up to the first damaged one\n"
    "FILE is the file's logical path (\"/mfs/var/...\"), put under TAVOX_ROOT.\n"
    "The file is read as it stands: nothing is initialised or rebuilt.\n"
    "Exit status: 0 done (or valid), 1 file missing, not a mapped file or not valid, 2 usage.\n";

int usage(FILE *f, int rc) {
  fputs(kUsage, f);
  return rc;
}

// A one-line reason before the usage, so a mistyped command says what was wrong.
int misuse(const char *why) {
  fprintf(stderr, "tvxmm: %s\n", why);
  return usage(stderr, 2);
}

void show_header(const mmf_shared_info_t *si) {
  printf("magic 0x%08x version %u header %u lock holder %u\n", si->magic, si->version, si->header_size,
         si->lockerpid);
  printf("current bytes %" PRIu64 " first node %" PRIu64 " allocated bytes %" PRIu64 "\n",
         static_cast<uint64_t>(si->current_bytes), static_cast<uint64_t>(si->first_alloc_offset),
         static_cast<uint64_t>(si->allocated_bytes));
  printf("allocs %u frees %u grows %u invalid %u inits %u\n", si->alloc_count, si->free_count, si->grow_count,
         si->invalid_count, si->init_calls);
  printf("locks %" PRIu64 " contended %" PRIu64 " waited %" PRIu64 " ns, taken from dead holders %u\n",
         static_cast<uint64_t>(si->lock_count), static_cast<uint64_t>(si->contended_count),
         static_cast<uint64_t>(si->wait_ns), si->dead_holder_takeovers);
  printf("common block offset %" PRIu64 " length %u\n", static_cast<uint64_t>(si->common_offset), si->common_len);
}

// Reads the nodes by their own fields, so that damage is reported, not trusted.
int walk(mmf *m) {
  const mmf_shared_info_t *si = m->shared_info;
  uint64_t end = si->current_bytes, size = static_cast<uint64_t>(m->mapped_bytes);
  if (end > size) end = size;
  const char *base = reinterpret_cast<const char *>(si);
  uint64_t n = 0;
  for (uint64_t off = si->first_alloc_offset; off < end; n++) {
    mmf_node_header_t h;
    if (off + sizeof h > size) {
      printf("%" PRIu64 ": node header past the end of the file\n", off);
      return 1;
    }
    memcpy(&h, base + off, sizeof h);
    bool ok = h.offset == off && h.pattern == MMF_HEADER_PATTERN && h.len >= mmf_node_bytes &&
              off + h.len <= size && (h.flags & ~MMF_FLAG_ALL) == 0;
    mmf_node_trailer_t t = {};
    if (ok) memcpy(&t, base + off + h.len - 8, sizeof t);
    ok = ok && t.pattern == MMF_TRAILER_PATTERN && t.len == h.len;
    printf("%" PRIu64 " len %u %s user %" PRIu64 " prev %" PRIu64 " next %" PRIu64 "%s\n", off, h.len,
           (h.flags & MMF_FLAG_FREE) ? "free" : "used", static_cast<uint64_t>(h.user_offset),
           static_cast<uint64_t>(h.prev_offset), static_cast<uint64_t>(h.next_offset), ok ? "" : " DAMAGED");
    if (!ok) return 1;
    off += h.len;
  }
  printf("%" PRIu64 " nodes\n", n);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) return usage(stdout, 0);
  if (argc < 2) return misuse("a command is needed");
  if (strcmp(argv[1], "mmf") != 0) return misuse("unknown command (only mmf exists)");
  if (argc != 4) return misuse("mmf takes a subcommand and a FILE");
  const char *cmd = argv[2], *file = argv[3];
  if (strcmp(cmd, "show") && strcmp(cmd, "valid") && strcmp(cmd, "walk"))
    return misuse("unknown mmf subcommand (show, valid or walk)");
  mmf *m = mmf_open_existing(file);
  if (!m) {
    fprintf(stderr, "tvxmm: %s: %s\n", file, errno == EINVAL ? "not a mapped file of this format" : strerror(errno));
    return 1;
  }
  int rc = 0;
  if (strcmp(cmd, "show") == 0) {
    show_header(m->shared_info);
    mmf_show(file, m);
  } else if (strcmp(cmd, "valid") == 0) {
    rc = mmf_valid(m, false) ? 0 : 1;
    printf("%s: %s, %u nodes walked\n", file, rc ? "not valid" : "valid", m->last_valid_iters);
  } else {
    rc = walk(m);
  }
  mmf_close(m);
  return rc;
}
