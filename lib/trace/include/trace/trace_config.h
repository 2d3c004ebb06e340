// Trace configuration and filters: turns a module's "traceoptions" object of
// the configuration store into a trace handle (file, flags, control flags,
// level, trace events), and attaches filters to single flags of a handle.
//
// The statements and their meaning are in docs/configuration.md; the schema
// node below is what a program puts in its own schema to accept them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "config/ddl.h"
#include "trace/trace.h"

// ---- Flag tables ---------------------------------------------------------------

enum trace_flag_kind : uint32_t {
  TRACE_KIND_PLAIN = 0,     // the flag mask
  TRACE_KIND_PACKET = 1,    // trace_parse_packet(detail, direction, number)
  TRACE_KIND_FEATURE = 2,   // trace_parse_feature(detail, direction, number)
  TRACE_KIND_COMBINED = 3,  // the flag mask, plus the detail mask with "detail"
};

// One configurable flag; a table ends with a record whose name is null.
// A flag written as a number in the configuration matches tfe_number.
struct trace_flag_entry {
  uint32_t tfe_number;
  uint32_t tfe_lo, tfe_hi;                // flag mask
  uint32_t tfe_detail_lo, tfe_detail_hi;  // detail mask (kind 3)
  uint32_t tfe_kind;
  const char *tfe_name;
};

constexpr unsigned TR_PARSE_DETAIL_VALS = 2;
constexpr unsigned TR_PARSE_SENDRECV = 3;
constexpr unsigned TR_PARSE_PACKETS_VALS = 8;
constexpr unsigned TR_PARSE_FEATURE_VALS = 2;

// Packet flags (low word): packet type i (1..7) has bit i for send and 7+i
// for receive, with detail also 14+i and 21+i; type 0 is every type. The
// direction is 0 both, 1 send, 2 receive (3 counts as both).
uint32_t trace_parse_packet(unsigned detail, unsigned direction, unsigned index);
// Feature flags (high word): 0x2000 send, 0x4000 receive, detail adds 0x10000
// and 0x20000 by direction.
uint64_t trace_parse_feature(unsigned detail, unsigned direction, unsigned index);

// ---- Filters --------------------------------------------------------------------

constexpr unsigned TRACE_FILTER_SLOTS = 64;

// One slot of a filter table; type 0 is no filter.
struct trace_filter {
  uint32_t trfil_type;
  void *trfil_data;
};

// The slot of a flag: leading zero bits of the high word, or 32 plus those of
// the low word (0x80000000 in the high word is slot 0, 0x1 low is slot 63).
unsigned trace_filter_slot(uint32_t lo, uint32_t hi);

// Fills the slot of every bit of the mask (data is borrowed, not retained).
void trace_filter_set(trace_filter *table, size_t size, uint32_t lo, uint32_t hi, uint32_t type, void *data);
// The interned copy of a 64-slot table, with a reference for the caller. A
// new copy keeps its data through the store hook (or retain when none).
trace_filter *trace_store_filter(const trace_filter *table);
// Drops a reference; the last releases the data of every slot.
void trace_filter_free(trace_filter *table);
// Runs one slot's filter: type 0 passes.
bool trace_run_filter(const trace_filter *filter, const void *arg);
// trace_enabled, then some asked flag whose filter passes arg (or no table).
bool trace_filter_enabled(const trace_handle *tp, uint32_t lo, uint32_t hi, const void *arg);
// Whether some asked flag has a filter.
bool trace_has_filter(const trace_handle *tp, uint32_t lo, uint32_t hi);
// Before a re-read: every table is stale until stored again.
void trace_filter_mark_stale(void);
bool trace_filter_is_stale(const trace_filter *table);
// Interned tables (tests).
size_t trace_filter_count(void);

// ---- Reading the configuration -----------------------------------------------

// Parses a flag's "filter" object into a filter type and data (one reference
// for the caller); false fails the read.
using trace_filter_parse_fn = bool (*)(const ddl_object_t *filter, uint32_t *type, void **data, void *user);

// Reads the "traceoptions" object under parent into *slot: the file clause,
// the flags of `table` (null: trace_app_ctx->flag_table) named with tr_types
// `types`, control flags, the level and the trace events. Returns false, with
// the error reported through the store and the old handle in place, on a bad
// configuration. Without a file clause nothing changes (a warning says so).
// Without a "traceoptions" object the slot is released.
bool ztrace_config_trace_options(const ddl_object_t *parent, trace_handle **slot, const trace_flag_entry *table,
                                 const trace_types *types, trace_filter_parse_fn parse, void *user);
// The same for the global handle, with the context's tables.
bool ztrace_config_global(const ddl_object_t *parent);

// The reading itself, for callers with their own apply step: fills the flags,
// control word and file (retained; null without a file clause).
bool trace_config_traceoptions_internal(const ddl_object_t *traceoptions, const trace_flag_entry *table,
                                        trace_filter_parse_fn parse, void *user, uint64_t *flags,
                                        uint32_t *control, trace_file **file, trace_filter **filters);

// The level keyword (0..5) to the control word's level: 8, 4, 2, 1, 0, 0.
// -1 for any other value.
int ztrace_level_bits(uint32_t level);

// The "traceoptions" statement for a program's schema.
extern const ddl_node ztrace_traceoptions_schema;
