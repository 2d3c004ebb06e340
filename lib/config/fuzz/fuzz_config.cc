// The configuration reader on any bytes: a file is either taken whole, and
// every value in it can be read back, or refused with one located error.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "test_schema.h"

namespace {

TempDir *dir;

void walk(const ddl_object_t *o, int depth) {
  ddl_object_t *cur = nullptr;
  while (dax_visit_container(o, &cur)) {
    char buf[512];
    uint32_t v;
    bool t;
    const char *file;
    unsigned line, col;
    dax_get_string_by_name(cur, nullptr, buf, sizeof buf);
    dax_get_uint_by_name(cur, nullptr, &v);
    dax_get_toggle_by_name(cur, dax_object_name(cur), &t);
    dax_object_location(cur, &file, &line, &col);
    if (depth < 64) walk(cur, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  register_test_schema();
  dir = new TempDir;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  if (ddl_db_t *db = open_text(*dir, text)) {
    ddl_object_t *top = nullptr;
    if (dax_get_root_object(db, &top)) {
      walk(top, 0);
      dax_release_object(&top);
    }
  } else if (!ddl_access_config_last_error() || !*ddl_access_config_last_error()) {
    std::fprintf(stderr, "refused without a located error\n");
    abort();
  }
  return 0;
}
