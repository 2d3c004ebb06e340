// tvxmm: looks into the mapped files of this machine (under TAVOX_ROOT).
//
//   tvxmm mmf show FILE    the header's figures and the free lists
//   tvxmm mmf valid FILE   walks every node; exit 0 valid, 1 not
//   tvxmm mmf walk FILE    one line per node, to the first bad one
//   tvxmm meminfo          the memory report: every mapped file in use
//   tvxmm meminfo report FILE on|off   keep FILE's record current, or not
//   tvxmm mmdb list|show|get|put|del|dump|verify|reset ...   the databases
//   tvxmm mmcq show NAME   a queue's header
//   tvxmm mmcq peek NAME [-n COUNT]    the messages waiting, none taken
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "mmcq_cmd.h"
#include "mmf/meminfo.h"
#include "mmdb/mmdb.h"
#include "mmf/mmf.h"
#include "tvxmm.h"

namespace {

const char kUsage[] =
    "usage: tvxmm mmf show FILE     header figures and free lists of a mapped file\n"
    "       tvxmm mmf valid FILE    walk every node; exit 0 when valid, 1 when not\n"
    "       tvxmm mmf walk FILE     one line per node, up to the first damaged one\n"
    "       tvxmm meminfo           the memory report: a record per mapped file in use\n"
    "       tvxmm meminfo report FILE on|off\n"
    "                               update FILE's record every 1000 locks, or stop\n"
    "       tvxmm mmdb list         every database id in the registry, with its record count\n"
    "       tvxmm mmdb show ID      the database's figures and replicators\n"
    "       tvxmm mmdb get ID KEY   the value of KEY\n"
    "       tvxmm mmdb put ID KEY VALUE [-r N]\n"
    "                               set KEY; N leading bytes replicated (all by default)\n"
    "       tvxmm mmdb del ID KEY   delete KEY\n"
    "       tvxmm mmdb dump ID      every record\n"
    "       tvxmm mmdb verify ID    check both files and every chain; exit 0 valid, 1 not\n"
    "       tvxmm mmdb reset ID     empty the database\n"
    "       tvxmm mmcq show NAME    a queue's header: offsets, pids, counts\n"
    "       tvxmm mmcq peek NAME [-n COUNT]\n"
    "                               the messages waiting (20 at most), none taken\n"
    "FILE is the file's logical path (\"/mfs/var/...\"), put under TAVOX_ROOT;\n"
    "a queue NAME is the file \"/mfs/var/mmcq/NAME\".\n"
    "mmf, mmcq and meminfo read files as they stand: nothing is initialised or rebuilt.\n"
    "mmdb opens the database of ID (1 to 22) as its programs do, by the registry.\n"
    "KEY and VALUE are text, or hex after 0x; values print as text, or 0x and hex.\n"
    "Exit status: 0 done (or valid), 1 file, record, id or key missing, not of this\n"
    "format or not valid, 2 usage.\n";

int usage(FILE *f, int rc) {
  fputs(kUsage, f);
  return rc;
}

}  // namespace

// A one-line reason before the usage, so a mistyped command says what was wrong.
int tvxmm_misuse(const char *why) {
  fprintf(stderr, "tvxmm: %s\n", why);
  return usage(stderr, 2);
}

namespace {
int misuse(const char *why) { return tvxmm_misuse(why); }

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

void show_mmf_record(const meminfo_record_t *rec) {
  meminfo_mmf_payload_t p = {};
  uint32_t len = rec->length - 16;
  memcpy(&p, meminfo_payload(rec), len < sizeof p ? len : sizeof p);
  p.name[sizeof p.name - 1] = 0;
  printf("mmf %s pid %u current %" PRIu64 " max %" PRIu64 " mapped %" PRIu64 " locks %" PRIu64
         " contended %" PRIu64 " wait %" PRIu64 " us mmaps %u%s\n",
         p.name, p.pid, static_cast<uint64_t>(p.current_bytes), static_cast<uint64_t>(p.max_bytes),
         static_cast<uint64_t>(p.mapped_bytes), static_cast<uint64_t>(p.lock_count),
         static_cast<uint64_t>(p.contended_count), static_cast<uint64_t>(p.wait_us), p.mmap_calls,
         (p.flags & MEMINFO_REC_REPORT) ? " reporting" : "");
}

int meminfo_show() {
  meminfo_reader *r = meminfo_reader_create();
  if (!r) {
    fprintf(stderr, "tvxmm: %s: %s\n", MEMINFO_NAME,
            errno == EINVAL ? "not a memory report of this format" : strerror(errno));
    return 1;
  }
  const meminfo_header_t *h = r->header;
  printf("meminfo version %u: %u records, %u writes, %u bytes free, %u resets\n", h->version, h->record_count,
         h->write_count, h->bytes_free, h->resets);
  for (uint32_t i = 0; i < MEMINFO_RESET_HISTORY && i < h->resets; i++)
    if (h->reset_history[i].pid)
      printf("reset by pid %u (check at line %u)\n", h->reset_history[i].pid, h->reset_history[i].line);
  for (uint32_t t = 0; t < MEMINFO_TYPES; t++)
    while (const meminfo_record_t *rec = meminfo_reader_next(r, t)) {
      if (t == MEMINFO_TYPE_MMF) {
        show_mmf_record(rec);
      } else if (t == MEMINFO_TYPE_MMDB && rec->length - 16 >= sizeof(mmdb_meminfo_payload_t)) {
        mmdb_meminfo_payload_t p;
        memcpy(&p, meminfo_payload(rec), sizeof p);
        p.name[sizeof p.name - 1] = 0;
        printf("mmdb %u %s pid %u records %u buckets %u data %" PRIu64 " of %" PRIu64 " locks %" PRIu64
               " contended %" PRIu64 " resets %u%s\n",
               p.id, p.name, p.pid, p.record_count, p.bucket_count, static_cast<uint64_t>(p.data_current_bytes),
               static_cast<uint64_t>(p.data_max_bytes), static_cast<uint64_t>(p.lock_count),
               static_cast<uint64_t>(p.contended), p.resets, p.invalid ? " INVALID" : "");
      } else {
        char name[MEMINFO_NAME_BYTES + 1] = {};
        memcpy(name, meminfo_payload(rec), MEMINFO_NAME_BYTES);
        printf("type %u %s length %u\n", t, name, rec->length);
      }
    }
  meminfo_reader_delete(r);
  return 0;
}

int meminfo_main(int argc, char **argv) {
  if (argc == 2) return meminfo_show();
  if (argc != 5 || strcmp(argv[2], "report") != 0 || (strcmp(argv[4], "on") && strcmp(argv[4], "off")))
    return misuse("meminfo takes nothing, or report FILE on|off");
  if (!meminfo_set_report(MEMINFO_TYPE_MMF, argv[3], strcmp(argv[4], "on") == 0)) {
    fprintf(stderr, "tvxmm: %s: no record in the memory report\n", argv[3]);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) return usage(stdout, 0);
  if (argc < 2) return misuse("a command is needed");
  if (strcmp(argv[1], "meminfo") == 0) return meminfo_main(argc, argv);
  if (strcmp(argv[1], "mmdb") == 0) return mmdb_main(argc, argv);
  if (strcmp(argv[1], "mmcq") == 0) return mmcq_main(argc, argv, misuse);
  if (strcmp(argv[1], "mmf") != 0) return misuse("unknown command (mmf, mmcq, mmdb or meminfo)");
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
