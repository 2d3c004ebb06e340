// Trace configuration, flag masks by kind, flag names, and filters.
#include <cstring>
#include <map>
#include <string>

#include "trace/trace.h"
#include "trace/trace_config.h"
#include "trace_fixture.h"

namespace {

const trace_flag_entry kModuleFlags[] = {
    {1, 0x1, 0, 0, 0, TRACE_KIND_PLAIN, "alpha"},
    {2, 0x2, 0, 0, 0, TRACE_KIND_PLAIN, "beta"},
    {3, 0, 0, 0, 0, TRACE_KIND_PACKET, "packets"},
    {0, 0, 0, 0, 0, TRACE_KIND_FEATURE, "feature"},
    {5, 0x100000, 0, 0, 0x10, TRACE_KIND_COMBINED, "combo"},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const trace_types kModuleTypes[] = {
    {0x1, 0, "alpha"}, {0x2, 0, "beta"}, {0x3, 0, "ab"}, {0, 0x10, "detail"}, {0, 0, nullptr},
};

class Config : public TraceTest {
 protected:
  // Reads protocols overlay's trace options into tp_.
  bool read(const std::string &traceoptions, uint32_t schema = kTraceSchema,
            trace_filter_parse_fn parse = nullptr) {
    if (!configure("protocols { overlay { traceoptions { " + traceoptions + " } } }", schema)) return false;
    ddl_object_t *ov = nullptr;
    const char *path[] = {"protocols", "overlay", nullptr};
    EXPECT_TRUE(dax_get_object_by_path(nullptr, path, &ov));
    bool ok = ztrace_config_trace_options(ov, &tp_, kModuleFlags, kModuleTypes, parse, nullptr);
    dax_release_object(&ov);
    return ok;
  }
  void TearDown() override {
    trace_free(tp_);
    TraceTest::TearDown();
  }
  trace_handle *tp_ = nullptr;
};

TEST_F(Config, FileFlagsAndLevelMakeTheHandle) {
  ASSERT_TRUE(read("file cfg.trace size 1k files 4 world-readable no-stamp; flag alpha; flag beta; level 1;"));
  ASSERT_NE(tp_, nullptr);
  EXPECT_EQ(tp_->tr_flags, 0x3u);
  EXPECT_EQ(tp_->tr_control, TRC_NO_TIMESTAMP | 4u);
  EXPECT_EQ(tp_->tr_types, kModuleTypes);
  const trace_file *f = tp_->tr_file;
  EXPECT_EQ(std::string(f->trf_name), real("/var/log/cfg.trace"));
  EXPECT_EQ(f->trf_limit_size, 1024u);
  EXPECT_EQ(f->trf_limit_files, 4u);
  EXPECT_TRUE(f->trf_flags & TRF_WORLD_READABLE);
  ASSERT_NE(f->trf_stream, nullptr);
  // The active flags are written to the trace.
  const std::string text = slurp(f->trf_name);
  EXPECT_NE(text.find("\nTracing flags enabled: alpha, beta level 4 no timestamp\n\n"), std::string::npos) << text;
}

TEST_F(Config, LevelKeywordsMapToThresholds) {
  const std::map<uint32_t, int> expect = {{0, 8}, {1, 4}, {2, 2}, {3, 1}, {4, 0}, {5, 0}};
  for (auto [level, bits] : expect) {
    ASSERT_TRUE(read("file l.trace; flag alpha; level " + std::to_string(level) + ";"));
    EXPECT_EQ(tp_->tr_control & TRC_LEVEL_MASK, static_cast<uint32_t>(bits)) << level;
  }
  EXPECT_EQ(ztrace_level_bits(6), -1);
}

TEST_F(Config, ALevelOfNineIsAConfigurationError) {
  // The daemon's own schema refuses it while reading the file...
  EXPECT_FALSE(configure("protocols { overlay { traceoptions { level 9; } } }"));
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("9 is out of range for 'level' (0..5)"),
            std::string::npos);
  // ...and a schema that lets it through gets an error from the reader, the
  // old handle staying in place.
  ASSERT_TRUE(read("file l.trace; flag alpha;", kLooseSchema));
  trace_handle *before = tp_;
  EXPECT_FALSE(read("file l.trace; flag beta; level 9;", kLooseSchema));
  EXPECT_EQ(tp_, before);
  EXPECT_EQ(tp_->tr_flags, 0x1u);
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("bad trace level 9 (levels are 0 to 5)"),
            std::string::npos);
}

TEST_F(Config, MasksByKind) {
  ASSERT_TRUE(read("file k.trace; flag packets;"));
  EXPECT_EQ(tp_->tr_flags, trace_parse_packet(0, 0, 3));
  ASSERT_TRUE(read("file k.trace; flag packets { send; receive; }"));
  EXPECT_EQ(tp_->tr_flags, trace_parse_packet(0, 0, 3));  // both directions count as both
  ASSERT_TRUE(read("file k.trace; flag packets { receive; detail; }"));
  EXPECT_EQ(tp_->tr_flags, (1u << 10) | (1u << 24));
  ASSERT_TRUE(read("file k.trace; flag feature send;"));
  EXPECT_EQ(tp_->tr_flags, 0x2000ull << 32);
  ASSERT_TRUE(read("file k.trace; flag combo;"));
  EXPECT_EQ(tp_->tr_flags, 0x100000u);
  ASSERT_TRUE(read("file k.trace; flag combo detail;"));
  EXPECT_EQ(tp_->tr_flags, 0x100000u | (0x10ull << 32));
  // A flag both added and disabled is removed.
  ASSERT_TRUE(read("file k.trace; flag alpha; flag beta; flag \"1\" disable;"));
  EXPECT_EQ(tp_->tr_flags, 0x2u);
}

TEST_F(Config, PacketAndFeatureTables) {
  EXPECT_EQ(trace_parse_packet(1, 2, 0), 0x1fc07f00u);
  EXPECT_EQ(trace_parse_packet(0, 1, 1), 0x2u);
  EXPECT_EQ(trace_parse_packet(0, 2, 7), 1u << 14);
  EXPECT_EQ(trace_parse_packet(1, 1, 7), (1u << 7) | (1u << 21));
  EXPECT_EQ(trace_parse_packet(0, 3, 2), trace_parse_packet(0, 0, 2));
  uint32_t all = 0;
  for (unsigned i = 1; i < TR_PARSE_PACKETS_VALS; i++) all |= trace_parse_packet(1, 0, i);
  EXPECT_EQ(all, trace_parse_packet(1, 0, 0));
  EXPECT_EQ(trace_parse_feature(0, 0, 0), 0x6000ull << 32);
  EXPECT_EQ(trace_parse_feature(1, 1, 1), 0x12000ull << 32);
  EXPECT_EQ(trace_parse_feature(1, 2, 0), 0x24000ull << 32);
}

TEST_F(Config, BadFlagsAndControlFlags) {
  EXPECT_FALSE(read("file k.trace; flag gamma;"));
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("bad traceflag gamma"), std::string::npos);
  EXPECT_FALSE(read("file k.trace; flag 99;"));
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("bad traceflag"), std::string::npos);
  EXPECT_EQ(tp_, nullptr);
  ASSERT_TRUE(read("file k.trace; flag alpha; control-flag \"log only\"; control-flag nl_after;"));
  EXPECT_EQ(tp_->tr_control, TRC_LOG_ONLY | TRC_NL_AFTER);
  EXPECT_FALSE(read("file k.trace; control-flag loud;"));
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("bad control-flag"), std::string::npos);
}

TEST_F(Config, WithoutAFileNothingChangesAndNoFlagsTurnsTheFileOff) {
  ASSERT_TRUE(read("file k.trace; flag alpha;"));
  trace_handle *before = tp_;
  ASSERT_TRUE(read("flag beta;"));
  EXPECT_EQ(tp_, before);
  EXPECT_EQ(tp_->tr_flags, 0x1u);
  ASSERT_TRUE(read("file k.trace;"));
  EXPECT_EQ(tp_->tr_flags, 0u);
  EXPECT_EQ(tp_->tr_file->trf_stream, nullptr);
  // Without trace options at all the handle goes.
  ASSERT_TRUE(configure("protocols { overlay { } }"));
  const char *path[] = {"protocols", "overlay", nullptr};
  ddl_object_t *ov = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, path, &ov));
  EXPECT_TRUE(ztrace_config_trace_options(ov, &tp_, kModuleFlags, kModuleTypes, nullptr, nullptr));
  dax_release_object(&ov);
  EXPECT_EQ(tp_, nullptr);
}

TEST_F(Config, FlagNamesParseAndPrint) {
  actx_.module_types = kModuleTypes;
  char list[] = "alpha,none,beta";
  EXPECT_EQ(trace_args(list), 0x2u);
  char all_none[] = "all,none";
  EXPECT_EQ(trace_args(all_none), 0u);
  char none_all[] = "none,ALL";
  EXPECT_EQ(trace_args(none_all), ~0ull);
  char unknown[] = "alpha,zeta";
  EXPECT_EQ(trace_args(unknown), 0x1u);
  EXPECT_NE(log_text(*log_).find("tracetest: unknown trace flag: zeta"), std::string::npos);

  EXPECT_STREQ(trace_bits64(kModuleTypes, 0), " none");
  EXPECT_STREQ(trace_bits64(kModuleTypes, ~0ull), " all");
  EXPECT_STREQ(trace_bits64(kModuleTypes, 0x1), " alpha");
  EXPECT_STREQ(trace_bits64(kModuleTypes, 0x3), " alpha beta");  // "ab" adds nothing new
  EXPECT_STREQ(trace_bits2(kModuleTypes, nullptr, 0x3 | 0x10ull << 32), " alpha, beta, detail");
  const trace_bit_name bits[] = {{0x3, "both"}, {0x1, "one"}, {0x4, "four"}, {0, nullptr}};
  EXPECT_STREQ(trace_bits(bits, 0x7), " both four");  // "one" is already printed within "both"
  // Four results stand side by side.
  const char *a = trace_bits(bits, 1), *b = trace_bits(bits, 4), *c = trace_bits(bits, 3), *d = trace_bits(bits, 0);
  EXPECT_STREQ(a, " one");
  EXPECT_STREQ(b, " four");
  EXPECT_STREQ(c, " both");
  EXPECT_STREQ(d, " none");
}

TEST_F(Config, APrinterOutOfRoomReportsAndStops) {
  std::string name(600, 'n');
  const trace_bit_name bits[] = {{0x1, name.c_str()}, {0x2, name.c_str()}, {0, nullptr}};
  EXPECT_EQ(strlen(trace_bits(bits, 0x3)), 601u);
  ASSERT_FALSE(log_->records.empty());
  EXPECT_EQ(log_->records.back().tag, "ZTRACE_NOT_ENOUGH_SPACE_IN_TRACE_BUFFER");
}

// Filters: data are reference-counted records whose "port" the filter
// compares with the argument.
struct port_filter {
  int refs;
  int port;
};
std::map<port_filter *, bool> live_filters;

void filter_retain(void *d) { static_cast<port_filter *>(d)->refs++; }
void *filter_store(void *d) {
  filter_retain(d);
  return d;
}
int filter_compare(const void *a, const void *b) {
  return static_cast<const port_filter *>(a)->port - static_cast<const port_filter *>(b)->port;
}
void filter_release(void *d) {
  auto *f = static_cast<port_filter *>(d);
  if (--f->refs == 0) {
    live_filters.erase(f);
    delete f;
  }
}
bool run_port(const void *data, const void *arg) {
  return static_cast<const port_filter *>(data)->port == *static_cast<const int *>(arg);
}
const trace_filter_run_fn kRun[] = {nullptr, run_port};

bool parse_port(const ddl_object_t *filter, uint32_t *type, void **data, void *) {
  uint32_t port;
  if (!dax_get_uint_by_name(filter, "port", &port)) return false;
  auto *f = new port_filter{1, static_cast<int>(port)};
  live_filters[f] = true;
  *type = 1;
  *data = f;
  return true;
}

class Filters : public Config {
 protected:
  void SetUp() override {
    Config::SetUp();
    actx_.ztrace_filter_type_max = 2;
    actx_.filter_run = kRun;
    actx_.filter_retain = filter_retain;
    actx_.filter_store = filter_store;
    actx_.filter_compare = filter_compare;
    actx_.filter_release = filter_release;
  }
  void TearDown() override {
    Config::TearDown();
    EXPECT_TRUE(live_filters.empty());
  }
};

TEST_F(Filters, SlotsCountFromTheTopBit) {
  EXPECT_EQ(trace_filter_slot(0, 0x80000000u), 0u);
  EXPECT_EQ(trace_filter_slot(0, 0x40000000u), 1u);
  EXPECT_EQ(trace_filter_slot(0x80000000u, 0), 32u);
  EXPECT_EQ(trace_filter_slot(0x1, 0), 63u);
  trace_filter table[TRACE_FILTER_SLOTS] = {};
  int marker;
  trace_filter_set(table, TRACE_FILTER_SLOTS, 0x5, 0x40000000u, 1, &marker);
  for (unsigned i = 0; i < TRACE_FILTER_SLOTS; i++)
    EXPECT_EQ(table[i].trfil_type, (i == 1 || i == 61 || i == 63) ? 1u : 0u) << i;
}

TEST_F(Filters, AFilterDecidesPerFlag) {
  auto *f = new port_filter{1, 80};
  live_filters[f] = true;
  trace_filter table[TRACE_FILTER_SLOTS] = {};
  trace_filter_set(table, TRACE_FILTER_SLOTS, 0x1, 0, 1, f);
  trace_filter *interned = trace_store_filter(table);
  filter_release(f);  // the node keeps its own reference
  trace_file *file = trace_file_locate("f.trace", 0, 0, 0, 0, nullptr, false);
  ztrace_store_filters(&tp_, 0x3, 0, 0, file, nullptr, interned);
  trace_on(tp_->tr_file);
  int port = 80, other = 81;
  EXPECT_TRUE(trace_filter_enabled(tp_, 0x1, 0, &port));
  EXPECT_FALSE(trace_filter_enabled(tp_, 0x1, 0, &other));
  EXPECT_TRUE(trace_filter_enabled(tp_, 0x2, 0, &other));  // no filter on this flag
  EXPECT_TRUE(trace_filter_enabled(tp_, 0x3, 0, &other));  // some asked flag passes
  EXPECT_FALSE(trace_filter_enabled(tp_, 0x4, 0, &port));  // not enabled at all
  EXPECT_TRUE(trace_has_filter(tp_, 0x1, 0));
  EXPECT_FALSE(trace_has_filter(tp_, 0x2, 0));
}

TEST_F(Filters, EqualFiltersShareATableAndTheLastReleaseFreesTheData) {
  trace_handle *other = nullptr;
  ASSERT_TRUE(read("file a.trace; flag alpha { filter { port 80; } }", kLooseSchema, parse_port));
  ASSERT_TRUE(read("file a.trace; flag alpha { filter { port 80; } }", kLooseSchema, parse_port));
  ASSERT_NE(tp_->tr_filters, nullptr);
  EXPECT_EQ(trace_filter_count(), 1u);
  EXPECT_EQ(live_filters.size(), 1u);  // the second parse's data was dropped
  // A second module with the same filter on another file shares the table.
  const char *path[] = {"protocols", "overlay", nullptr};
  ddl_object_t *ov = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, path, &ov));
  ASSERT_TRUE(ztrace_config_trace_options(ov, &other, kModuleFlags, nullptr, parse_port, nullptr));
  dax_release_object(&ov);
  EXPECT_EQ(other->tr_filters, tp_->tr_filters);
  EXPECT_EQ(trace_filter_count(), 1u);
  trace_free(other);
  EXPECT_EQ(live_filters.size(), 1u);
  trace_free(tp_);
  tp_ = nullptr;
  EXPECT_EQ(trace_filter_count(), 0u);
  EXPECT_TRUE(live_filters.empty());
}

TEST_F(Filters, StaleMarksClearWhenStoredAgain) {
  ASSERT_TRUE(read("file a.trace; flag alpha { filter { port 80; } }", kLooseSchema, parse_port));
  trace_filter_mark_stale();
  EXPECT_TRUE(trace_filter_is_stale(tp_->tr_filters));
  ASSERT_TRUE(read("file a.trace; flag alpha { filter { port 80; } }", kLooseSchema, parse_port));
  EXPECT_FALSE(trace_filter_is_stale(tp_->tr_filters));
}

using FiltersDeath = Filters;

TEST_F(FiltersDeath, AnUnknownFilterTypeAsserts) {
  trace_filter f{7, nullptr};
  int port = 1;
  EXPECT_DEATH(trace_run_filter(&f, &port), "filter->trfil_type < trace_app_ctx->ztrace_filter_type_max");
}

}  // namespace
