// tvxmm mmdb: the databases of this machine, by their registry ids.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mmdb/mmdb.h"
#include "tvxmm.h"

namespace {

// A key or value from the command line: text, or hex after "0x".
bool parse_bytes(const char *arg, std::string *out) {
  out->clear();
  if (strncmp(arg, "0x", 2) != 0) {
    *out = arg;
    return true;
  }
  const char *h = arg + 2;
  size_t n = strlen(h);
  if (n % 2) return false;
  for (size_t i = 0; i < n; i += 2) {
    if (!isxdigit(static_cast<unsigned char>(h[i])) || !isxdigit(static_cast<unsigned char>(h[i + 1]))) return false;
    char pair[3] = {h[i], h[i + 1], 0};
    out->push_back(static_cast<char>(strtoul(pair, nullptr, 16)));
  }
  return true;
}

// Bytes as text when every one prints, else as 0x and hex.
std::string show_bytes(const void *p, size_t n) {
  const uint8_t *b = static_cast<const uint8_t *>(p);
  bool text = true;
  for (size_t i = 0; i < n; i++) text = text && b[i] >= 0x20 && b[i] < 0x7f;
  if (text && n) return std::string(reinterpret_cast<const char *>(b), n);
  std::string s = "0x";
  char hex[3];
  for (size_t i = 0; i < n; i++) {
    snprintf(hex, sizeof hex, "%02x", b[i]);
    s += hex;
  }
  return s;
}

bool parse_id(const char *arg, uint32_t *id) {
  char *end;
  unsigned long v = strtoul(arg, &end, 10);
  if (*end || end == arg || v == 0 || v >= MMDB_MAX_IDS) return false;
  *id = static_cast<uint32_t>(v);
  return true;
}

int list() {
  const mmdb_registry_t *r = mmdb_registry_peek();
  if (!r) {
    printf("no databases (no registry)\n");
    return 0;
  }
  int n = 0;
  for (uint32_t id = 1; id < MMDB_MAX_IDS; id++) {
    const mmdb_registry_entry_t &e = r->entry[id];
    if (e.id != id) continue;
    n++;
    char hash_name[1100];
    mmdb_file_name(e.name, "_hash", hash_name, sizeof hash_name);
    std::string records = "files missing";
    if (mmf *m = mmf_open_existing(hash_name)) {
      uint32_t len = 0;
      off_t off;
      // The header as it stands, read without opening the database.
      const auto *h = static_cast<const mmdb_hash_header_t *>(mmf_alloc_common(m, &len, &off));
      if (h && len >= MMDB_HASH_HEADER_BYTES && h->version == MMDB_HASH_VERSION)
        records = std::to_string(h->record_count) + " records" + (h->invalid ? ", INVALID" : "");
      else
        records = "header not of this format";
      mmf_close(m);
    }
    printf("%2u %-24s buckets %-6u max key %-4u max data %-6u %s\n", id, e.name, e.bucket_count, e.max_key,
           e.max_data, records.c_str());
  }
  if (!n) printf("no databases\n");
  return 0;
}

}  // namespace

int mmdb_main(int argc, char **argv) {
  if (argc < 3) return tvxmm_misuse("mmdb takes a subcommand");
  const char *cmd = argv[2];
  if (strcmp(cmd, "list") == 0) {
    if (argc != 3) return tvxmm_misuse("mmdb list takes nothing more");
    return list();
  }
  struct {
    const char *name;
    int args;  // after the id
  } const cmds[] = {{"show", 0}, {"get", 1}, {"put", 2}, {"del", 1}, {"dump", 0}, {"verify", 0}, {"reset", 0}};
  int want = -1;
  for (const auto &c : cmds)
    if (strcmp(cmd, c.name) == 0) want = c.args;
  if (want < 0) return tvxmm_misuse("unknown mmdb subcommand (list, show, get, put, del, dump, verify or reset)");
  // put takes an optional "-r N", the replicated length.
  long replen = -1;
  int args = argc - 4;
  if (strcmp(cmd, "put") == 0 && argc == 8 && strcmp(argv[6], "-r") == 0) {
    char *end;
    replen = strtol(argv[7], &end, 10);
    if (*end || replen < 0) return tvxmm_misuse("-r takes a length");
    args -= 2;
  }
  if (argc < 4 || args != want) return tvxmm_misuse("wrong number of arguments for this mmdb subcommand");
  uint32_t id;
  if (!parse_id(argv[3], &id)) return tvxmm_misuse("ID is a database id from 1 to 22");
  std::string key, value;
  if (want >= 1 && !parse_bytes(argv[4], &key)) return tvxmm_misuse("KEY: odd or bad hex after 0x");
  if (want >= 2 && !parse_bytes(argv[5], &value)) return tvxmm_misuse("VALUE: odd or bad hex after 0x");

  int st;
  mmdb *db = mmdb_open_by_id(id, &st);
  if (!db) {
    fprintf(stderr, "tvxmm: database %u: %s\n", id,
            st == MMDB_NOT_FOUND ? "no such id in the registry" : mmdb_status_str(st));
    return 1;
  }
  int rc = 0;
  const auto keylen = static_cast<uint32_t>(key.size());
  if (strcmp(cmd, "show") == 0) {
    mmdb_show(db, stdout);
  } else if (strcmp(cmd, "get") == 0) {
    std::string buf(mmdb_get_params(db)->max_data, '\0');
    uint32_t len = static_cast<uint32_t>(buf.size()), rep = 0;
    st = mmdb_get(db, key.data(), keylen, buf.data(), &len, &rep);
    if (st == MMDB_SUCCESS)
      printf("%s (replicated %u of %u bytes)\n", show_bytes(buf.data(), len).c_str(), rep, len);
    else
      rc = 1;
  } else if (strcmp(cmd, "put") == 0) {
    auto len = static_cast<uint32_t>(value.size());
    uint32_t max_rep = mmdb_get_params(db)->max_replicated;
    uint32_t rep = replen < 0 ? (len < max_rep ? len : max_rep) : static_cast<uint32_t>(replen);
    if (rep > len) {
      fprintf(stderr, "tvxmm: -r %u is longer than the value\n", rep);
      mmdb_close(db);
      return 2;
    }
    st = mmdb_put(db, key.data(), keylen, value.data(), len, len, rep, false);
    rc = st != MMDB_SUCCESS;
  } else if (strcmp(cmd, "del") == 0) {
    st = mmdb_delete(db, key.data(), keylen);
    rc = st != MMDB_SUCCESS;
  } else if (strcmp(cmd, "dump") == 0) {
    mmdb_iterator *it = mmdb_iterator_create_all(db);
    std::string k(MMDB_MAX_KEYLEN, '\0'), v(mmdb_get_params(db)->max_data, '\0');
    uint32_t n = 0;
    for (;;) {
      uint32_t kl = static_cast<uint32_t>(k.size()), vl = static_cast<uint32_t>(v.size()), rep = 0;
      st = it ? mmdb_iterator_get_next(it, k.data(), &kl, v.data(), &vl, &rep) : MMDB_NO_MORE;
      if (st != MMDB_SUCCESS) break;
      printf("%s = %s (replicated %u)\n", show_bytes(k.data(), kl).c_str(), show_bytes(v.data(), vl).c_str(), rep);
      n++;
    }
    mmdb_iterator_delete(it);
    printf("%u records\n", n);
    rc = st == MMDB_NO_MORE ? 0 : 1;
    if (st == MMDB_NO_MORE) st = MMDB_SUCCESS;
  } else if (strcmp(cmd, "verify") == 0) {
    char why[256] = "";
    st = mmdb_verify_chains(db, why, sizeof why);
    printf("database %u: %s%s%s\n", id, st == MMDB_SUCCESS ? "valid" : "not valid", *why ? ": " : "", why);
    rc = st != MMDB_SUCCESS;
    st = MMDB_SUCCESS;
  } else {
    st = mmdb_reset(db);
    rc = st != MMDB_SUCCESS;
  }
  if (st != MMDB_SUCCESS) fprintf(stderr, "tvxmm: database %u: %s\n", id, mmdb_status_str(st));
  mmdb_close(db);
  return rc;
}
