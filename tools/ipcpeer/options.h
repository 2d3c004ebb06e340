// ipcpeer's command line: what the user asked for, checked.
#pragma once

#include <cstdint>
#include <string>

enum ipcpeer_mode { IPCPEER_ECHO, IPCPEER_SINK, IPCPEER_SOURCE };
enum ipcpeer_role { IPCPEER_CLIENT, IPCPEER_SERVER };

struct ipcpeer_options {
  ipcpeer_mode mode = IPCPEER_SINK;
  ipcpeer_role role = IPCPEER_CLIENT;
  std::string path;       // the Unix socket (logical, under the root), or with tcp ADDRESS:PORT
  bool tcp = false;
  uint32_t tcp_addr = 0;  // network order
  uint16_t tcp_port = 0;
  bool use_ev = false;    // the event library instead of the task kernel
  uint16_t retries = 1000;
  uint32_t bufsize = 0;   // 0: the library's default
  uint32_t threshold_high = 0, threshold_medium = 0, threshold_low = 0, threshold_backpressure = 0;
  bool threshold_low_set = false;
  uint32_t keepalive = 0;
  uint32_t app_id = 1, instance_id = 0;
  uint64_t count = 0;     // source: messages to send, 0 without end
  uint32_t size = 64;     // source: payload bytes, at least 8 (the sequence number)
  uint32_t interval_ms = 0;  // source: one message every interval_ms, 0 as fast as it goes
  int priority = 0;
  bool verbose = false;   // a line per message
};

enum ipcpeer_parse_result { IPCPEER_RUN = 0, IPCPEER_HELP = 1, IPCPEER_USAGE_ERROR = 2 };

// Parses argv into o. On IPCPEER_USAGE_ERROR, error holds one line without
// the program's name.
ipcpeer_parse_result ipcpeer_parse(int argc, char **argv, ipcpeer_options *o, std::string *error);

extern const char ipcpeer_help_text[];
