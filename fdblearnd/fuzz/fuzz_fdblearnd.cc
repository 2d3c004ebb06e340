// fdblearnd's two parsers on any bytes: the first line is a state-file line,
// the rest a query against the state it makes.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string in(reinterpret_cast<const char *>(data), size);
  size_t nl = in.find('\n');
  std::string line = in.substr(0, nl);
  std::string query = nl == std::string::npos ? "" : in.substr(nl + 1);
  fdblearnd::State state;
  fdblearnd::Entry e;
  bool blank;
  std::string why;
  if (fdblearnd::parse_line(line, &e, &blank, &why) && !blank) {
    if (e.name.empty() || e.name.find('/') != std::string::npos) abort();
    state.entries.push_back(e);
  }
  std::string a = fdblearnd::answer(state, query);
  if (!a.empty() && a.find('/') == std::string::npos) abort();
  return 0;
}
