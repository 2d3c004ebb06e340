#include "state.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace fdblearnd {

namespace {

bool number(const std::string &s, uint32_t *out) {
  if (s.empty() || s.size() > 10 || s.find_first_not_of("0123456789") != std::string::npos) return false;
  unsigned long v = strtoul(s.c_str(), nullptr, 10);
  if (v > 0xFFFFFFFFul) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

bool parse_line(const std::string &raw, Entry *e, bool *blank, std::string *why) {
  std::string line = raw.substr(0, raw.find('#'));
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  *blank = words.empty();
  if (*blank) return true;
  if (words.size() != 5) {
    *why = "want RTB VNI VTEP NAME IFL_INDEX";
    return false;
  }
  if (!number(words[0], &e->rtb) || e->rtb > 0xFFFF) {
    *why = "bad routing table '" + words[0] + "'";
    return false;
  }
  if (!number(words[1], &e->vni) || e->vni > 0xFFFFFF) {
    *why = "bad VNI '" + words[1] + "'";
    return false;
  }
  in_addr a{};
  if (words[2] == "*") {
    e->vtep = 0;
  } else if (inet_pton(AF_INET, words[2].c_str(), &a) == 1) {
    e->vtep = a.s_addr;
  } else {
    *why = "bad VTEP address '" + words[2] + "'";
    return false;
  }
  if (words[3].size() > 383 || words[3].find('/') != std::string::npos) {
    *why = "bad bridge-domain name (at most 383 bytes, no '/')";
    return false;
  }
  e->name = words[3];
  if (!number(words[4], &e->ifl_index)) {
    *why = "bad interface index '" + words[4] + "'";
    return false;
  }
  return true;
}

bool load(const char *file, State *state, std::string *why) {
  std::ifstream in(file);
  if (!in) {
    *why = std::string(file) + ": cannot read";
    return false;
  }
  State next;
  std::string line;
  for (int n = 1; std::getline(in, line); n++) {
    Entry e;
    bool blank;
    std::string reason;
    if (!parse_line(line, &e, &blank, &reason)) {
      *why = std::string(file) + ":" + std::to_string(n) + ": " + reason;
      return false;
    }
    if (!blank) next.entries.push_back(std::move(e));
  }
  *state = std::move(next);
  return true;
}

std::string answer(const State &state, const std::string &query) {
  uint32_t q[4];
  size_t at = 0;
  for (int i = 0; i < 4; i++) {
    size_t end = i < 3 ? query.find('/', at) : query.size();
    if (end == std::string::npos || !number(query.substr(at, end - at), &q[i])) return "";
    at = end + 1;
  }
  for (const Entry &e : state.entries) {
    if (q[0] && q[0] != e.rtb) continue;
    if (q[1] != e.vni) continue;
    if (q[3] && e.vtep && q[3] != e.vtep) continue;
    return e.name + "/" + std::to_string(e.ifl_index);
  }
  return "";
}

}  // namespace fdblearnd
