// Object handles and typed reads of the configuration.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tree.h"

namespace {

unsigned open_handles = 0;

ddl_object *hand_out(ddl_object *o) {
  ddl_tree_retain(o->tree);
  open_handles++;
  return o;
}

void give_back(ddl_object *o) {
  open_handles--;
  ddl_tree_release(o->tree);
}

const ddl_object *attribute(const ddl_object_t *obj, const char *name) {
  if (!obj) return nullptr;
  if (!name) return obj->kind == ddl_kind::leaf ? obj : nullptr;
  const ddl_object *a = obj->child(name);
  return a && a->kind == ddl_kind::leaf ? a : nullptr;
}

}  // namespace

bool dax_get_root_object(const ddl_db_t *db, ddl_object_t **obj) {
  ddl_object *top = ddl_db_top(db);
  *obj = top ? hand_out(top) : nullptr;
  return top != nullptr;
}

bool dax_get_object_by_name(const ddl_object_t *parent, const char *name, ddl_object_t **obj) {
  const ddl_object *p = parent ? parent : ddl_db_top(nullptr);
  ddl_object *c = p && name ? p->child(name) : nullptr;
  *obj = c ? hand_out(c) : nullptr;
  return c != nullptr;
}

bool dax_get_object_by_path(const ddl_object_t *parent, const char *const *path, ddl_object_t **obj) {
  const ddl_object *p = parent ? parent : ddl_db_top(nullptr);
  for (; p && path && *path; path++) p = p->child(*path);
  *obj = p ? hand_out(const_cast<ddl_object *>(p)) : nullptr;
  return p != nullptr;
}

bool dax_visit_container(const ddl_object_t *container, ddl_object_t **cursor) {
  ddl_object *cur = *cursor;
  size_t next = 0;
  if (cur) {
    next = cur->parent == container ? cur->index + 1 : SIZE_MAX;
    give_back(cur);
    *cursor = nullptr;
  }
  if (!container || next >= container->children.size()) return false;
  *cursor = hand_out(container->children[next].get());
  return true;
}

void dax_release_object(ddl_object_t **obj) {
  if (obj && *obj) {
    give_back(*obj);
    *obj = nullptr;
  }
}

bool dax_get_string_by_name(const ddl_object_t *obj, const char *name, char *buf, size_t len) {
  const ddl_object *a = attribute(obj, name);
  if (!a || !buf || len == 0) return false;
  if (a->text.size() >= len) {
    dax_error(a, "value of '%s' is longer than %zu bytes", a->name.c_str(), len - 1);
    return false;
  }
  memcpy(buf, a->text.c_str(), a->text.size() + 1);
  return true;
}

bool dax_get_uint_by_name(const ddl_object_t *obj, const char *name, uint32_t *value) {
  const ddl_object *a = attribute(obj, name);
  if (!a) return false;
  if (a->numeric) {
    if (a->num > UINT32_MAX) return false;
    *value = static_cast<uint32_t>(a->num);
    return true;
  }
  // A string that reads as a number.
  const char *s = a->text.c_str();
  if (!*s || !isdigit(static_cast<unsigned char>(*s))) return false;
  char *end;
  errno = 0;
  unsigned long long v = strtoull(s, &end, 0);
  if (*end || errno || v > UINT32_MAX) return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

bool dax_get_toggle_by_name(const ddl_object_t *obj, const char *name, bool *value) {
  const ddl_object *a = attribute(obj, name);
  *value = a != nullptr;
  return *value;
}

const char *dax_object_name(const ddl_object_t *obj) { return obj ? obj->name.c_str() : ""; }

void dax_object_location(const ddl_object_t *obj, const char **file, unsigned *line, unsigned *col) {
  if (file) *file = obj ? obj->tree->file.c_str() : "";
  if (line) *line = obj ? obj->line : 0;
  if (col) *col = obj ? obj->col : 0;
}

unsigned dax_open_handles(void) { return open_handles; }
