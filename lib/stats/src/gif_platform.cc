// The platform attributes that decide what the readers give.
#include <syslog.h>

#include <cerrno>

#include "evlog/evlog.h"
#include "platform/pvidb.h"
#include "stats/ifstat.h"

bool gif_platform_feature(const char *name) {
  uint64_t v = 0;
  int err = pvidb_get(name, &v);
  if (err == ENOENT)
    logging(LOG_ERR, "PVIDB: Attribute '%s' not present in Db\n", name ? name : "(null)");
  else if (err)
    logging(LOG_ERR, "PVIDB: Error retrieving '%s' variable value\n", name);
  return !err && v != 0;
}
