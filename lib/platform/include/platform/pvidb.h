// Platform attributes by name: what this platform supports, asked by the
// libraries that adapt to it (the statistics readers, the statistics
// library). One table with fixed defaults; each attribute can be overridden
// by the environment variable TVX_PVIDB_<NAME>, the name in capitals with dots
// as underscores (TVX_PVIDB_PLATFORM_SUPPORT_TRANSIT_ACCCOUNTING=0).
//
// Attributes (all numbers; 0 is off):
//   platform.support_ae_ingress_q_stats   0  aggregated Ethernet has ingress queue counters
//   platform.support_transit_acccounting  1  logical interfaces count transit traffic apart
//   global.retrieve_ifl_stats_from_cntd   0  interface statistics come from cntd and are merged
// An override is a number in C syntax, or true/false, yes/no, on/off.
#pragma once

#include <cstdint>

// 0 and *value, or ENOENT for a name not in the table, EINVAL for an
// override that does not read.
int pvidb_get(const char *name, uint64_t *value);
