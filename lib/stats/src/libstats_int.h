// What libstats' sources share: its log lines, soft asserts, error tallies,
// the trace file and the reply handlers' entry points.
#pragma once

#include "stats/libstats.h"

void ls_log(bool error, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// A soft assert: false after the line "FILE:LINE: insist 'EXPR' failed".
bool ls_insist(bool ok, const char *expr, const char *file, int line);
#define LS_INSIST(e) ls_insist((e), #e, __FILE__, __LINE__)
// One failure: a tally of (kind, class) and the event-log line; returns status.
int ls_fail(libstats_session *s, int kind, int cls, int status, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
// A line of the session's trace file when flag is on in it.
void ls_trace(libstats_session *s, uint32_t flag, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void ls_trace_on(libstats_session *s, const uint8_t *body, uint32_t len);
void ls_trace_off(libstats_session *s);

// The reply handlers: true when the handler kept buf (and frees it itself).
bool ls_handle_ifl_reply(libstats_session *s, const ls_reply &r, uint8_t *buf);
bool ls_handle_acct_reply(libstats_session *s, const ls_reply &r, uint8_t *buf);
bool ls_handle_mobile_reply(libstats_session *s, uint8_t *buf, uint32_t len);
void ls_mobile_q_free(libstats_session *s);
// The session's next request id: never -1, and 0 only at the very start.
uint32_t ls_next_id(libstats_session *s);
