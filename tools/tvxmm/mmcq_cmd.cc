// tvxmm mmcq: a queue's header and the messages waiting in its ring, read as
// they stand (nothing is taken, nothing repaired).
#include "mmcq_cmd.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mmcq/mmcq.h"
#include "mmf/mmf.h"

namespace {

const char *pid_state(uint32_t pid) {
  if (!pid) return "none";
  return mmf_pid_alive(static_cast<pid_t>(pid)) ? "alive" : "dead";
}

void show(const char *name, const mmcq_header_t *q) {
  printf("queue %s: version %u magic 0x%08x (%s) creator %u\n", name, q->version, q->magic,
         q->magic == MMCQ_MAGIC_READY  ? "ready"
         : q->magic == MMCQ_MAGIC_INIT ? "initialising"
                                       : "unknown",
         q->creator_pid);
  printf("receiver %u (%s) stopped %u notify wanted %u send disabled %u\n", q->receiver_pid,
         pid_state(q->receiver_pid), q->receiver_stopped, q->rnw, q->send_disabled);
  printf("ring %u..%u (%u bytes) put %u take %u holds %u bytes, most %u, largest message %u\n", q->min_data_offset,
         q->max_data_offset, q->max_data_bytes, q->put_offset, q->take_offset, mmcq_fill(q), q->high_fill,
         q->max_msg_bytes);
  printf("sent %u received %u failed %u full %u incomplete reads %u\n", q->sent, q->received, q->send_failures,
         q->full_count, q->incomplete);
  printf("wake-ups sent %u (%u bytes) read %u (%u bytes)\n", q->wakeups_sent, q->wakeup_bytes_sent,
         q->wakeups_read, q->wakeup_bytes_read);
  printf("grows %u, finished for dead growers %u, receivers taken over %u, grower %u (%s) reader %u\n", q->grows,
         q->grows_finished, q->takeovers, q->grower_pid, pid_state(q->grower_pid), q->reader_pid);
  if (q->grow_new_max)
    printf("growth in progress: end %u -> %u, take %u, put %u, moved down to %u\n", q->grow_old_max,
           q->grow_new_max, q->grow_old_take, q->grow_old_put, q->grow_low);
}

// The waiting messages by the reader's rules, without its asserts.
int peek(const mmf *m, const mmcq_header_t *q, long limit) {
  const char *base = reinterpret_cast<const char *>(m->shared_info);
  uint64_t size = static_cast<uint64_t>(m->mapped_bytes);
  uint32_t lo = q->min_data_offset, hi = q->max_data_offset, off = q->take_offset, put = q->put_offset;
  if (!mmcq_header_sane(q, m->page_size) || hi > size) {
    printf("header not sane: ring %u..%u put %u take %u in a file of %llu bytes\n", lo, hi, put, off,
           static_cast<unsigned long long>(size));
    return 1;
  }
  long n = 0;
  bool wrapped = false;
  while (off != put && n < limit) {
    if (hi - off < 5 || (hi - off >= 4 && [&] {
          uint32_t b;
          memcpy(&b, base + off, 4);
          return b == 0;
        }())) {
      if (wrapped) break;
      wrapped = true;
      off = lo;
      continue;
    }
    uint32_t bytes;
    memcpy(&bytes, base + off, 4);
    if (bytes <= 4 || bytes > hi - off || bytes - 4 > q->max_msg_bytes) {
      printf("%u: DAMAGED length %u\n", off, bytes);
      return 1;
    }
    uint32_t len = bytes - 4, shown = len < 48 ? len : 48;
    std::string text;
    for (uint32_t i = 0; i < shown; i++) {
      unsigned char c = static_cast<unsigned char>(base[off + 4 + i]);
      text += isprint(c) ? static_cast<char>(c) : '.';
    }
    printf("%u len %u: %s%s\n", off, len, text.c_str(), shown < len ? "..." : "");
    n++;
    off += bytes;
    if (off >= hi) {
      if (wrapped) break;
      wrapped = true;
      off = lo;
    }
  }
  printf("%ld messages shown\n", n);
  return 0;
}

}  // namespace

int mmcq_main(int argc, char **argv, int (*misuse)(const char *)) {
  if (argc < 4) return misuse("mmcq takes show or peek and a queue NAME");
  const char *cmd = argv[2], *name = argv[3];
  long limit = 20;
  if (strcmp(cmd, "show") == 0) {
    if (argc != 4) return misuse("mmcq show takes a queue NAME");
  } else if (strcmp(cmd, "peek") == 0) {
    if (argc == 6 && strcmp(argv[4], "-n") == 0) {
      char *end;
      limit = strtol(argv[5], &end, 10);
      if (*end || limit <= 0) return misuse("-n takes a positive count");
    } else if (argc != 4) {
      return misuse("mmcq peek takes a queue NAME and -n COUNT");
    }
  } else {
    return misuse("unknown mmcq subcommand (show or peek)");
  }
  if (!*name || strchr(name, '/')) return misuse("a queue NAME is a name, not a path");
  std::string file = std::string(MMCQ_DIR) + name;
  mmf *m = mmf_open_existing(file.c_str());
  if (!m) {
    fprintf(stderr, "tvxmm: %s: %s\n", file.c_str(),
            errno == EINVAL ? "not a mapped file of this format" : strerror(errno));
    return 1;
  }
  const mmf_shared_info_t *si = m->shared_info;
  int rc = 0;
  if (si->common_len != MMCQ_HEADER_SIZE || si->common_offset + MMCQ_HEADER_SIZE > si->first_alloc_offset) {
    fprintf(stderr, "tvxmm: %s: not a queue (no queue header)\n", file.c_str());
    rc = 1;
  } else {
    const auto *q = reinterpret_cast<const mmcq_header_t *>(reinterpret_cast<const char *>(si) + si->common_offset);
    if (q->version != MMCQ_VERSION || q->size != MMCQ_HEADER_SIZE) {
      fprintf(stderr, "tvxmm: %s: not a queue of this format (version %u, size 0x%x)\n", file.c_str(), q->version,
              q->size);
      rc = 1;
    } else if (strcmp(cmd, "show") == 0) {
      show(name, q);
    } else {
      rc = peek(m, q, limit);
    }
  }
  mmf_close(m);
  return rc;
}
