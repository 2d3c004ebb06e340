// The configurations in force, their sequence numbers and change records.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <unordered_map>

#include "platform/path.h"
#include "tree.h"

// One open configuration slot (the static one and the dynamic one).
struct ddl_db {
  std::string path;
  ddl_tree *tree = nullptr;  // the store's reference while open
  uint32_t seq = 0;
  std::unordered_map<std::string, uint64_t> previous;  // digests of the read before
  bool had_previous = false;
};

namespace {

std::map<uint32_t, const ddl_node *> &schemas() {
  static std::map<uint32_t, const ddl_node *> m;
  return m;
}

// What a file's reads had, kept across closes so that a re-read compares.
struct history {
  uint32_t seq = 0;
  uint64_t digest = 0;
  std::unordered_map<std::string, uint64_t> digests;
};
std::map<std::string, history> &histories() {
  static std::map<std::string, history> h;
  return h;
}

ddl_db static_db, dynamic_db;

uint64_t fnv(uint64_t h, const void *p, size_t n) {
  const unsigned char *b = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; i++) h = (h ^ b[i]) * 1099511628211ull;
  return h;
}

void collect(const ddl_object *o, std::unordered_map<std::string, uint64_t> &out) {
  out[ddl_object_path(o)] = o->digest;
  for (auto &c : o->children) collect(c.get(), out);
}

bool read_file(const std::string &path, std::string *text, bool missing_ok, bool *missing) {
  *missing = false;
  FILE *f = fopen(path.c_str(), "re");
  if (!f) {
    int e = errno;
    if (e == ENOENT && missing_ok) {
      *missing = true;
      return true;
    }
    ddl_access_config_error("%s: cannot open: %s", path.c_str(), strerror(e));
    errno = e;
    return false;
  }
  struct stat st;
  if (fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
    fclose(f);
    ddl_access_config_error("%s: is a directory", path.c_str());
    errno = EISDIR;
    return false;
  }
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
    text->append(buf, n);
    if (text->size() > DDL_MAX_FILE) {
      fclose(f);
      ddl_access_config_error("%s: larger than %zu bytes", path.c_str(), DDL_MAX_FILE);
      errno = EFBIG;
      return false;
    }
  }
  int e = ferror(f) ? errno : 0;
  fclose(f);
  if (e) {
    ddl_access_config_error("%s: read error: %s", path.c_str(), strerror(e));
    errno = e;
    return false;
  }
  return true;
}

void close_slot(ddl_db &db) {
  if (db.tree) ddl_tree_release(db.tree);
  db.tree = nullptr;
}

ddl_db *open_slot(ddl_db &db, const char *name, uint32_t schema_id) {
  auto s = schemas().find(schema_id);
  if (s == schemas().end()) {
    ddl_access_config_error("unknown configuration schema 0x%08x", schema_id);
    errno = ENOENT;
    return nullptr;
  }
  std::string path = name ? name : tvx_path((std::string("/etc/") + program_invocation_short_name + ".conf").c_str());

  std::string text;
  bool missing;
  if (!read_file(path, &text, name == nullptr, &missing)) return nullptr;
  std::unique_ptr<ddl_tree> tree;
  if (!ddl_parse(path, text, s->second, &tree)) {
    errno = EINVAL;
    return nullptr;
  }

  // The new content is good: it replaces what was in force.
  close_slot(db);
  history &h = histories()[path];
  db.path = path;
  db.tree = tree.release();
  ddl_tree_retain(db.tree);
  db.had_previous = h.seq != 0;
  db.previous = std::move(h.digests);
  h.digests.clear();
  collect(&db.tree->root, h.digests);
  if (h.seq == 0 || h.digest != db.tree->root.digest) h.seq++;
  h.digest = db.tree->root.digest;
  db.seq = h.seq;
  return &db;
}

}  // namespace

void ddl_tree_retain(ddl_tree *t) { t->refs++; }

void ddl_tree_release(ddl_tree *t) {
  if (--t->refs == 0) delete t;
}

void ddl_digest(ddl_object *o) {
  uint64_t h = 1469598103934665603ull;
  uint8_t k = static_cast<uint8_t>(o->kind);
  h = fnv(h, &k, 1);
  h = fnv(h, o->name.data(), o->name.size() + 1);
  h = fnv(h, o->text.data(), o->text.size() + 1);
  for (auto &c : o->children) {
    ddl_digest(c.get());
    h = fnv(h, &c->digest, sizeof c->digest);
  }
  o->digest = h;
}

std::string ddl_object_path(const ddl_object *o) {
  if (!o->parent) return "";
  std::string p = ddl_object_path(o->parent);
  if (o->kind == ddl_kind::entry) {
    const ddl_object *key = o->schema->dn_key ? o->child(o->schema->dn_key) : nullptr;
    return p + "[" + (key ? key->text : "") + "]";
  }
  return p + "/" + o->name;
}

void ddl_schema_register(uint32_t id, const ddl_node *root) { schemas()[id] = root; }

ddl_db_t *ddl_access_open_db(int ctx, const char *name, uint32_t schema_id, int, int) {
  if (ctx != 0) {
    errno = EINVAL;
    return nullptr;
  }
  return open_slot(static_db, name, schema_id);
}

void ddl_access_close_db(int, int) { close_slot(static_db); }

int ddl_access_per_thread_init(void) { return 0; }
void ddl_access_per_thread_close(void) {}

int ddl_access_check_sequence(const ddl_db_t *db, uint32_t *seq) {
  uint32_t now = db ? db->seq : 0;
  int changed = *seq != now;
  *seq = now;
  return changed;
}

bool ddl_access_object_changed(const ddl_object_t *obj) {
  if (!obj) return false;
  ddl_db *db = nullptr;
  for (ddl_db *d : {&static_db, &dynamic_db})
    if (d->tree == obj->tree) db = d;
  if (!db || !db->had_previous) return true;  // a tree no longer in force, or a first read
  auto it = db->previous.find(ddl_object_path(obj));
  return it == db->previous.end() || it->second != obj->digest;
}

ddl_db_t *ddax_open_db(const char *name, uint32_t schema_id) { return open_slot(dynamic_db, name, schema_id); }

void ddax_close_db(void) { close_slot(dynamic_db); }

ddl_object *ddl_db_top(const ddl_db_t *db) {
  if (!db) db = &static_db;
  return db->tree ? &db->tree->root : nullptr;
}
