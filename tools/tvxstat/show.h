// tvxstat's output: one interface's statistics message, as records of the
// gif_* readers, in text for an operator or in JSON for scripts.
#pragma once

#include <cstdio>

#include "stats/ifstat.h"

struct tvxstat_view {
  bool json = false;
  bool abs = false;  // counters since the interface came up, not since the last clear
};

// Writes the report of one parsed message (device or logical interface).
// False when a reader could not allocate its record.
bool tvxstat_show(FILE *out, const gif_ifd *parsed, const tvxstat_view &view);
