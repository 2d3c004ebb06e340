// Status texts, operation names and the debug log.
#include <unistd.h>

#include "internal.h"

const char *mmdb_status_str(int status) {
  static const char *const texts[] = {
      "mmdb: success",   "mmdb: invalid argument", "mmdb: corrupt",          "mmdb: mem allocation failure",
      "mmdb: not found", "mmdb: no more",          "mmdb: buffer too small",
  };
  if (status < 0 || status >= static_cast<int>(sizeof texts / sizeof texts[0])) return "mmdb: status unknown";
  return texts[status];
}

const char *mmdb_oper_str(uint32_t oper) {
  static const char *const names[] = {
      "NONE", "INIT", "ADD", "NOADD", "ADD_NODATA", "REMOVE", "REMOVE_ACK", "REMOVE_INTERNAL",
      "RESYNC_PREPARE_START", "RESYNC_PREPARE_DONE", "RESYNC_DONE_START", "RESYNC_DONE_DONE", "RESYNC_SET",
      "RESYNC_REMOVE", "CLEAR", "CLEAR_QUEUE", "unknown", "GET_DATAPTR", "UPDATE_DATAPTR_ARG_ENTRY",
      "UPDATE_DATAPTR_COOKIE_ENTRY", "UPDATE_DATAPTR_E_ENTRY", "UPDATE_DATAPTR_COOKIE_EXIT",
      "UPDATE_DATAPTR_EXIT", "RELEASE_DATAPTR", "IN_ITER_CHECK", "IN_ITER_SET", "IN_ITER_CLEAR", "REP_ADD",
      "REP_NOADD", "REP_ADD_FAIL",
  };
  if (oper >= sizeof names / sizeof names[0]) return "unknown";
  return names[oper];
}

void mmdb_log(mmdb *db, const mmdb_record_t *e, uint32_t oper, const void *key, uint32_t keylen, int line) {
  if (!db || !db->log) return;
  char stamp[32];
  time_t now = time(nullptr);
  struct tm tm;
  strftime(stamp, sizeof stamp, "%b %d %H:%M:%S", localtime_r(&now, &tm));
  // The key as text where it prints, else in hex.
  char k[61] = "";
  if (key) {
    bool text = true;
    const uint8_t *p = static_cast<const uint8_t *>(key);
    for (uint32_t i = 0; i < keylen; i++) text = text && p[i] >= 0x20 && p[i] < 0x7f;
    size_t n = 0;
    for (uint32_t i = 0; i < keylen && n + 3 < sizeof k; i++)
      n += static_cast<size_t>(text ? snprintf(k + n, sizeof k - n, "%c", p[i]) : snprintf(k + n, sizeof k - n, "%02x", p[i]));
  }
  fprintf(db->log,
          "%s%s: %-16s pid %6u mmdb:%p e:%16p eflag:0x%08x repid:%2u oper:%-30s keylen:%3u key:%-30s replen:%5u "
          "datalen:%5u line:%5u\n",
          stamp, "", db->p.name, static_cast<unsigned>(getpid()), static_cast<void *>(db),
          static_cast<const void *>(e), e ? e->eflag : 0, 0u, mmdb_oper_str(oper), keylen, k, e ? e->replen : 0,
          e ? e->datalen : 0, static_cast<unsigned>(line));
  fflush(db->log);
}
