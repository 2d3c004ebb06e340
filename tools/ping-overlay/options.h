// ping-overlay's command line: what the operator asked for, checked.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "oam/oam.h"

struct po_options {
  uint32_t vni = 0;
  bool vni_set = false;
  struct in_addr tunnel_dst {};
  struct in_addr tunnel_src {};
  bool tunnel_src_set = false;
  uint8_t ttl = 255;

  ping_target target = PING_TARGET_NONE;
  uint8_t target_mac[6] = {};
  uint8_t target_addr[16] = {};

  // The inner frame; each field the operator gave is a stated hash parameter
  // (bit in hash_have) and replaces the probe's default.
  bool inner_ipv6 = false;
  uint8_t smac[6] = {}, dmac[6] = {};
  struct in_addr src4 {}, dst4 {};
  struct in6_addr src6 {}, dst6 {};
  // Range-checked by the parser to the width of their fields.
  uint32_t protocol = 17, l4_src_port = 0, l4_dst_port = 0, vlan = 0, input_ifd = 0;
  uint32_t hash_have = 0;

  long count = 0;            // 0: until interrupted
  long interval_ms = 1000;
  long wait_ms = 1000;       // per probe
  bool quiet = false, verbose = false, json = false;
};

enum po_parse_result { PO_RUN = 0, PO_HELP = 1, PO_USAGE_ERROR = 2 };

// Parses argv into o. On PO_USAGE_ERROR, error holds one line without the
// program's name.
po_parse_result po_parse(int argc, char **argv, po_options *o, std::string *error);

// Applies the options to a probe whose tunnel source is set: defaults first,
// then what the operator stated.
void po_fill_probe(const po_options &o, struct ping_probe *pp);

extern const char po_help_text[];
