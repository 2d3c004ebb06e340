// The responder's configuration: only trace options, under
// "protocols overlay traceoptions".
#include "config/ddl.h"
#include "trace/trace_config.h"
#include "tunechod.h"

namespace {

const ddl_node overlay[] = {ztrace_traceoptions_schema, {}};
const ddl_node protocols[] = {{.dn_name = "overlay", .dn_type = DDL_CONTAINER, .dn_children = overlay}, {}};
const ddl_node top[] = {{.dn_name = "protocols", .dn_type = DDL_CONTAINER, .dn_children = protocols}, {}};
const ddl_node root = {.dn_name = "", .dn_type = DDL_CONTAINER, .dn_children = top};

}  // namespace

void tunechod_schema_register(void) { ddl_schema_register(TUNECHOD_SCHEMA, &root); }
