// What the connection tests share: the library's lines kept for a look, and
// messages framed by hand.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ipc/ipcconn.h"

namespace ipct {

inline std::vector<std::string> lines;
inline void keep_line(int level, const char *line) {
  lines.push_back(std::string(level == IPCCONN_LOG_ERROR ? "E " : "D ") + line);
}
inline bool logged(const std::string &part) {
  for (auto &l : lines)
    if (l.find(part) != std::string::npos) return true;
  return false;
}

inline std::string frame(uint16_t type, uint16_t subtype, const std::string &payload, uint8_t opcode = 1) {
  ipc_msg h{type, subtype, static_cast<uint16_t>(payload.size()), opcode, 0};
  return std::string(reinterpret_cast<const char *>(&h), sizeof h) + payload;
}
inline std::string ident_bytes(uint32_t app, uint32_t pid, uint32_t inst) {
  uint32_t v[3] = {app, pid, inst};
  return frame(0x417, 0xFFFE, std::string(reinterpret_cast<char *>(v), sizeof v));
}

}  // namespace ipct
