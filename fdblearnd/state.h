// fdblearnd's state: which bridge domain, and which remote-VTEP interface,
// serve a VNI in a routing table. One line of the state file is one entry:
//
//   RTB VNI VTEP NAME IFL_INDEX        (e.g. "10 5000 192.0.2.9 bd-blue 17")
//
// VTEP is a dotted IPv4 address, or "*" for any remote VTEP. "#" starts a
// comment. The query is the responder's "TABLE/VNI/ZERO/VTEP": decimal
// numbers, VTEP the 32-bit number whose bytes in memory are the address (as
// an in_addr's s_addr); table 0 asks every table and VTEP 0 any VTEP.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fdblearnd {

struct Entry {
  uint32_t rtb;
  uint32_t vni;
  uint32_t vtep;  // s_addr; 0 is any
  std::string name;
  uint32_t ifl_index;
};

struct State {
  std::vector<Entry> entries;
};

// Parses one line into *e; false with the reason in *why. Blank and comment
// lines give true with *blank set.
bool parse_line(const std::string &line, Entry *e, bool *blank, std::string *why);

// Reads a whole file; false with "FILE:LINE: reason" in *why.
bool load(const char *file, State *state, std::string *why);

// The answer to a query, without its NUL: "NAME/INDEX" of the first entry that
// matches, or "" when none does or the query is not four numbers.
std::string answer(const State &state, const std::string &query);

}  // namespace fdblearnd
