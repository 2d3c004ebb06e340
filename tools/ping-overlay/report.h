// What ping-overlay prints: text lines in the manner of ping, or with --json
// one JSON object a line (each probe's outcome, then a summary), for scripts.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <cstdio>

#include "options.h"
#include "tracker.h"

struct po_report {
  FILE *out;
  const po_options *opt;
};

void po_print_header(const po_report &r, const struct ping_probe &pp, uint32_t bd);
void po_print_sent(const po_report &r, const struct ping_probe &pp);
// A reply read from the wire; rtt_us is meaningful for PO_ANSWER and is -1
// otherwise.
void po_print_reply(const po_report &r, po_verdict v, const struct ping_reply &rep, struct in_addr from,
                    size_t bytes, int64_t rtt_us);
void po_print_timeout(const po_report &r, uint32_t seq);
// An ICMP error about probe seq (0 when it names none of ours).
void po_print_error(const po_report &r, uint32_t seq, struct in_addr from, const char *what);
void po_print_summary(const po_report &r, const po_stats &s, int64_t elapsed_us);

// Text with JSON's escapes, in double quotes.
void po_json_string(FILE *out, const char *text);
