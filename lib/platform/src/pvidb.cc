// The table of platform attributes and its overrides.
#include "platform/pvidb.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Attribute {
  const char *name;
  uint64_t value;
};
constexpr Attribute kTable[] = {
    {"platform.support_ae_ingress_q_stats", 0},
    {"platform.support_transit_acccounting", 1},
    {"global.retrieve_ifl_stats_from_cntd", 0},
};

bool parse(const char *s, uint64_t *out) {
  static const struct {
    const char *word;
    uint64_t v;
  } kWords[] = {{"true", 1}, {"false", 0}, {"yes", 1}, {"no", 0}, {"on", 1}, {"off", 0}};
  for (const auto &w : kWords)
    if (strcasecmp(s, w.word) == 0) {
      *out = w.v;
      return true;
    }
  if (!*s || *s == '-' || isspace(static_cast<unsigned char>(*s))) return false;
  errno = 0;
  char *end;
  *out = strtoull(s, &end, 0);
  return !errno && *end == 0;
}

}  // namespace

int pvidb_get(const char *name, uint64_t *value) {
  if (!name) return ENOENT;
  for (const Attribute &a : kTable)
    if (strcmp(a.name, name) == 0) {
      std::string env = "TVX_PVIDB_";
      for (const char *p = name; *p; p++) env += *p == '.' ? '_' : static_cast<char>(toupper(*p));
      const char *ov = getenv(env.c_str());
      if (!ov) {
        *value = a.value;
        return 0;
      }
      return parse(ov, value) ? 0 : EINVAL;
    }
  return ENOENT;
}
