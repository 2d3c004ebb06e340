#include "test_schema.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr const char *actions[] = {"disable", "memtrace", "memtrace-bt", nullptr};

constexpr ddl_node file_attrs[] = {
    {.dn_name = "size", .dn_type = DDL_UINT},
    {.dn_name = "files", .dn_type = DDL_UINT, .dn_min = 2, .dn_max = 1000},
    {.dn_name = "world-readable", .dn_type = DDL_TOGGLE},
    {.dn_name = "replace", .dn_type = DDL_TOGGLE},
    {.dn_name = "no-stamp", .dn_type = DDL_TOGGLE},
    {},
};

constexpr ddl_node flag_attrs[] = {
    {.dn_name = "detail", .dn_type = DDL_TOGGLE},
    {.dn_name = "disable", .dn_type = DDL_TOGGLE},
    {.dn_name = "send", .dn_type = DDL_TOGGLE},
    {.dn_name = "receive", .dn_type = DDL_TOGGLE},
    {},
};

constexpr ddl_node event_attrs[] = {
    {.dn_name = "trace-action", .dn_type = DDL_CHOICE, .dn_choices = actions},
    {},
};

constexpr ddl_node traceoptions[] = {
    {.dn_name = "file", .dn_type = DDL_CONTAINER, .dn_key_type = DDL_STRING, .dn_key = "filename",
     .dn_maxlen = 255, .dn_children = file_attrs},
    {.dn_name = "flag", .dn_type = DDL_CONTAINER, .dn_flags = DDL_LIST, .dn_key_type = DDL_STRING,
     .dn_key = "flag_name", .dn_maxlen = 63, .dn_children = flag_attrs},
    {.dn_name = "level", .dn_type = DDL_UINT, .dn_min = 0, .dn_max = 5},
    {.dn_name = "trace-events", .dn_type = DDL_CONTAINER, .dn_flags = DDL_LIST, .dn_key_type = DDL_STRING,
     .dn_key = "evtsys_name", .dn_children = event_attrs},
    {},
};

constexpr ddl_node overlay[] = {
    {.dn_name = "traceoptions", .dn_type = DDL_CONTAINER, .dn_children = traceoptions},
    {.dn_name = "description", .dn_type = DDL_STRING, .dn_maxlen = 16},
    {},
};

constexpr ddl_node protocols[] = {
    {.dn_name = "overlay", .dn_type = DDL_CONTAINER, .dn_children = overlay},
    {},
};

extern const ddl_node group_children[];
// A recursive statement, to reach the nesting limit.
constexpr ddl_node group_node = {.dn_name = "group", .dn_type = DDL_CONTAINER, .dn_key_type = DDL_STRING,
                                 .dn_key = "group_name", .dn_children = group_children};
const ddl_node group_children[] = {group_node, {.dn_name = "port", .dn_type = DDL_UINT, .dn_max = 65535}, {}};

constexpr ddl_node top[] = {
    {.dn_name = "protocols", .dn_type = DDL_CONTAINER, .dn_children = protocols},
    {.dn_name = "tunnel", .dn_type = DDL_CONTAINER, .dn_flags = DDL_LIST, .dn_key_type = DDL_UINT,
     .dn_key = "vni", .dn_min = 1, .dn_max = 16777215, .dn_children = flag_attrs},
    group_node,
    {},
};

constexpr ddl_node root = {.dn_name = "", .dn_type = DDL_CONTAINER, .dn_children = top};

}  // namespace

void register_test_schema() {
  ddl_schema_register(kTestSchema, &root);
  ddl_access_config_error_clear_flags(DDL_ERR_STDERR);  // tests read the last error instead
}

TempDir::TempDir() {
  char tmpl[] = "/tmp/ddltestXXXXXX";
  dir_ = mkdtemp(tmpl);
}

TempDir::~TempDir() {
  std::string cmd = "rm -rf '" + dir_ + "'";
  if (system(cmd.c_str()) != 0) perror("rm");
}

std::string TempDir::write(const std::string &name, const std::string &text) const {
  std::string p = dir_ + "/" + name;
  FILE *f = fopen(p.c_str(), "w");
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
  return p;
}

ddl_db_t *open_text(const TempDir &dir, const std::string &text, const char *name) {
  return ddl_access_open_db(0, dir.write(name, text).c_str(), kTestSchema, 0, 1);
}
