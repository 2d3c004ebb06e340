// Trace files: opening, what is refused, rotation, the toggle; and handles:
// interning and reference counts.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/path.h"
#include "trace/trace.h"
#include "trace_fixture.h"

namespace {

class Files : public TraceTest {
 protected:
  // A handle with flag 1 on the named file, turned on.
  trace_handle *open_handle(const char *name, uint32_t size = 0, uint32_t files = 0, uint32_t flags = 0) {
    trace_file *f = trace_file_locate(name, size, 0, files, flags, nullptr, false);
    trace_handle *tp = nullptr;
    ztrace_store(&tp, 1, 0, TRC_NO_TIMESTAMP, f, nullptr);
    trace_on(tp->tr_file);
    return tp;
  }
  bool exists(const std::string &p) { return access(p.c_str(), F_OK) == 0; }
};

TEST_F(Files, NewFileIsCreatedWithItsModeAndWorldReadableChangesIt) {
  trace_handle *tp = open_handle("new.trace");
  const std::string p = real("/var/log/new.trace");
  struct stat st;
  ASSERT_EQ(stat(p.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  // Locating it again with other parameters adopts them, with a warning each.
  trace_file *again = trace_file_locate("new.trace", 100, 0, 4, TRF_WORLD_READABLE, nullptr, false);
  EXPECT_EQ(again, tp->tr_file);
  EXPECT_EQ(again->trf_refcount, 2);
  ASSERT_EQ(stat(p.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  const std::string log = log_text(*log_);
  EXPECT_NE(log.find("trace_file_locate: replacing " + p + " file size limit 0 with 100"), std::string::npos);
  EXPECT_NE(log.find("file count limit 0 with 4"), std::string::npos);
  EXPECT_NE(log.find("changing " + p + " to world-readable"), std::string::npos);
  trace_file_release(again);
  trace_free(tp);
}

// A link planted at a trace file's path never carries a mode change to its
// target: the mode goes through the descriptor the file was opened with.
TEST_F(Files, WorldReadableNeverFollowsALinkAtThePath) {
  const std::string target = real("/var/log/secret");
  ASSERT_EQ(close(open(target.c_str(), O_RDWR | O_CREAT, 0600)), 0);
  ASSERT_EQ(chmod(target.c_str(), 0600), 0);
  struct stat st;

  // Located, not yet open: the link stands where the file will be.
  const std::string idle = real("/var/log/idle.trace");
  trace_file *f = trace_file_locate("idle.trace", 0, 0, 0, 0, nullptr, false);
  ASSERT_EQ(symlink(target.c_str(), idle.c_str()), 0);
  trace_file *again = trace_file_locate("idle.trace", 0, 0, 0, TRF_WORLD_READABLE, nullptr, false);
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  trace_file_release(again);
  trace_file_release(f);

  // Open: the file is swapped for a link under the open stream.
  trace_handle *tp = open_handle("open.trace");
  const std::string p = real("/var/log/open.trace");
  ASSERT_NE(tp->tr_file->trf_stream, nullptr);
  ASSERT_EQ(unlink(p.c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), p.c_str()), 0);
  again = trace_file_locate("open.trace", 0, 0, 0, TRF_WORLD_READABLE, nullptr, false);
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // The open file itself took the new mode.
  ASSERT_EQ(fstat(fileno(tp->tr_file->trf_stream), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  trace_file_release(again);
  trace_free(tp);
}

TEST_F(Files, ReplaceTruncatesAppendKeeps) {
  const std::string p = real("/var/log/keep.trace");
  {
    FILE *f = fopen(p.c_str(), "w");
    fputs("old\n", f);
    fclose(f);
  }
  trace_handle *tp = open_handle("keep.trace");
  EXPECT_EQ(slurp(p).rfind("old\n", 0), 0u);
  EXPECT_EQ(tp->tr_file->trf_size, slurp(p).size());
  trace_free(tp);
  tp = open_handle("/var/log/keep.trace", 0, 0, TRF_REPLACE);
  EXPECT_EQ(slurp(p).find("old"), std::string::npos);
  // The on hook clears replace: the file appends when reopened.
  EXPECT_FALSE(tp->tr_file->trf_flags & TRF_REPLACE);
  trace_free(tp);
}

TEST_F(Files, DirectoriesAndLinksAreRefused) {
  ASSERT_EQ(mkdir(real("/var/log/dir.trace").c_str(), 0755), 0);
  trace_handle *tp = open_handle("dir.trace");
  EXPECT_EQ(tp->tr_file->trf_stream, nullptr);
  EXPECT_NE(log_text(*log_).find("is not a regular file"), std::string::npos);
  trace_free(tp);

  const std::string target = real("/var/log/target");
  ASSERT_EQ(symlink(target.c_str(), real("/var/log/link.trace").c_str()), 0);
  tp = open_handle("link.trace");
  EXPECT_EQ(tp->tr_file->trf_stream, nullptr);
  EXPECT_FALSE(exists(target));  // nothing was created through the link
  trace_free(tp);
}

TEST_F(Files, AFifoDropsItsSizeLimitAndIsWritten) {
  const std::string p = real("/var/log/fifo.trace");
  ASSERT_EQ(mkfifo(p.c_str(), 0600), 0);
  int rd = open(p.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(rd, 0);
  trace_handle *tp = open_handle("fifo.trace", 10, 3);
  ASSERT_NE(tp->tr_file->trf_stream, nullptr);
  EXPECT_EQ(tp->tr_file->trf_limit_size, 0u);
  EXPECT_NE(log_text(*log_).find("is not a regular file, ignoring size limit"), std::string::npos);
  ZTRACE(tp, 1, "through the pipe, longer than ten bytes");
  char buf[512] = {};
  ssize_t n = read(rd, buf, sizeof buf - 1);
  ASSERT_GT(n, 0);
  EXPECT_NE(std::string(buf).find("through the pipe, longer than ten bytes\n"), std::string::npos);
  close(rd);
  trace_free(tp);
}

TEST_F(Files, AFileLockedByAnotherProcessIsNotOpened) {
  const std::string p = real("/var/log/locked.trace");
  int ready[2], done[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  pid_t child = fork();
  if (child == 0) {
    close(done[1]);
    int fd = open(p.c_str(), O_RDWR | O_CREAT, 0600);
    flock(fd, LOCK_EX);
    char c = 1;
    if (write(ready[1], &c, 1) != 1) _exit(1);
    if (read(done[0], &c, 1) < 0) _exit(1);
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  trace_handle *tp = open_handle("locked.trace");
  EXPECT_EQ(tp->tr_file->trf_stream, nullptr);
  EXPECT_NE(log_text(*log_).find("trace_on: trace file \"" + p + "\" appears to be in use"), std::string::npos);
  close(done[1]);
  int status;
  waitpid(child, &status, 0);
  // Once the holder is gone the file opens.
  trace_on(tp->tr_file);
  EXPECT_NE(tp->tr_file->trf_stream, nullptr);
  trace_free(tp);
  for (int fd : {ready[0], ready[1], done[0]}) close(fd);
}

TEST_F(Files, DevFullReportsAndStopsTracing) {
  tvx_path_set_root(nullptr);  // the real /dev/full
  trace_handle *tp = open_handle("/dev/full", 1000, 3);
  tvx_path_set_root(root_.c_str());
  ASSERT_NE(tp->tr_file->trf_stream, nullptr);
  EXPECT_EQ(tp->tr_file->trf_limit_size, 0u);  // a device: no limit
  log_->records.clear();
  ZTRACE(tp, 1, "into the void");
  EXPECT_EQ(tp->tr_file->trf_stream, nullptr);
  ASSERT_EQ(log_->records.size(), 1u);
  EXPECT_EQ(log_->records[0].tag, "ZTRACE_FAILED");
  EXPECT_EQ(log_->records[0].text, "ZTRACE_FAILED: Unable to write to trace file /dev/full");
  EXPECT_EQ(log_->records[0].priority, 3);
  EXPECT_FALSE(trace_enabled(tp, 1, 0));
  trace_free(tp);
}

class Rotation : public Files {
 protected:
  void SetUp() override {
    Files::SetUp();
    path_ = real("/var/log/rot.trace");
    tp_ = open_handle("rot.trace", 0, 3);
    opening_ = tp_->tr_file->trf_size;
  }
  void TearDown() override {
    trace_free(tp_);
    Files::TearDown();
  }
  // A message of n bytes, so that its line is n + 1.
  void line_of(size_t n, char c) { ZTRACE(tp_, 1, "%s", std::string(n, c).c_str()); }

  trace_handle *tp_ = nullptr;
  std::string path_;
  uint32_t opening_ = 0;
};

TEST_F(Rotation, ALineReachingTheLimitStaysOneByteMoreRotates) {
  tp_->tr_file->trf_limit_size = opening_ + 11;
  line_of(10, 'a');  // exactly to the limit
  EXPECT_EQ(tp_->tr_file->trf_size, opening_ + 11);
  EXPECT_FALSE(access((path_ + ".0").c_str(), F_OK) == 0);
  EXPECT_EQ(slurp(path_).size(), opening_ + 11u);

  line_of(0, 'b');  // nothing to write
  ZTRACE(tp_, 1, "b");  // one byte more than the limit allows
  ASSERT_EQ(access((path_ + ".0").c_str(), F_OK), 0);
  const std::string old = slurp(path_ + ".0");
  EXPECT_EQ(old.substr(opening_), "aaaaaaaaaa\ntrace_rotate: Rotating trace files\n");
  const std::string now = slurp(path_);
  EXPECT_EQ(now, std::string(kTimeText) + " trace_on: Tracing to \"" + path_ + "\" started\nb\n");
  EXPECT_EQ(tp_->tr_file->trf_size, now.size());
  EXPECT_NE(log_text(*log_).find("trace_rotate: rotating " + path_), std::string::npos);
}

TEST_F(Rotation, TheOldFilesClosingLineCarriesThePrefix) {
  ztrace_tr_control_set(tp_, 0);  // time stamps on
  tp_->tr_file->trf_limit_size = opening_ + 5;
  ZTRACE(tp_, 1, "%s", "longer than five");
  EXPECT_EQ(slurp(path_ + ".0").substr(opening_),
            std::string(kTimeText) + ".000042 trace_rotate: Rotating trace files\n");
}

TEST_F(Rotation, GenerationsKept) {
  tp_->tr_file->trf_limit_size = 1;  // every line rotates
  for (char c = 'a'; c <= 'f'; c++) line_of(1, c);
  // files 3: the file itself, .0 and .1.
  EXPECT_NE(slurp(path_).find("f\n"), std::string::npos);
  EXPECT_NE(slurp(path_ + ".0").find("e\n"), std::string::npos);
  EXPECT_NE(slurp(path_ + ".1").find("d\n"), std::string::npos);
  EXPECT_FALSE(access((path_ + ".2").c_str(), F_OK) == 0);
}

TEST_F(Rotation, NoLimitNeverRotatesAndStderrNeither) {
  for (int i = 0; i < 50; i++) line_of(100, 'x');
  EXPECT_FALSE(access((path_ + ".0").c_str(), F_OK) == 0);
  trace_file *err = trace_file_locate(nullptr, 0, 0, 0, 0, nullptr, false);
  EXPECT_EQ(err->trf_name, nullptr);
  EXPECT_EQ(err->trf_stream, stderr);
  trace_file_release(err);
}

TEST(RotateLog, ShiftsGenerations) {
  char tmpl[] = "/tmp/rotlogXXXXXX";
  const std::string dir = mkdtemp(tmpl);
  const std::string n = dir + "/log";
  auto put = [](const std::string &p, const char *s) {
    FILE *f = fopen(p.c_str(), "w");
    fputs(s, f);
    fclose(f);
  };
  put(n, "3");
  put(n + ".0", "2");
  put(n + ".1", "1");
  EXPECT_EQ(rotate_log(n.c_str(), 3, 2), 0);
  EXPECT_NE(access(n.c_str(), F_OK), 0);
  EXPECT_EQ(slurp(n + ".0"), "3");
  EXPECT_EQ(slurp(n + ".1"), "2");
  EXPECT_NE(access((n + ".2").c_str(), F_OK), 0);
  EXPECT_EQ(rotate_log(n.c_str(), 3, 1), EINVAL);
  put(n, "4");
  EXPECT_EQ(rotate_log(n.c_str(), 1, 2), 0);  // one generation: only the file, dropped
  EXPECT_NE(access(n.c_str(), F_OK), 0);
  EXPECT_EQ(slurp(n + ".0"), "3");
  std::string cmd = "rm -rf '" + dir + "'";
  EXPECT_EQ(system(cmd.c_str()), 0);
}

TEST_F(Files, ToggleTurnsNamedFilesOffAndOn) {
  trace_handle *a = open_handle("a.trace");
  trace_handle *b = open_handle("b.trace");
  trace_toggle();
  EXPECT_EQ(a->tr_file->trf_stream, nullptr);
  EXPECT_EQ(b->tr_file->trf_stream, nullptr);
  EXPECT_NE(ztrace_global->tr_file->trf_stream, nullptr);  // stderr stays
  EXPECT_NE(log_text(*log_).find("Tracing to \"" + real("/var/log/a.trace") + "\" suspended"), std::string::npos);
  trace_toggle();
  EXPECT_NE(a->tr_file->trf_stream, nullptr);
  EXPECT_NE(b->tr_file->trf_stream, nullptr);
  trace_free(a);
  trace_free(b);
}

// The tracing state that the dump file carries: each file with its state
// word (no stream: "closed"; suspended: "off"; else "on"), its counts and
// limits; a handle with its options and file.
TEST_F(Files, TheDumpShowsEachFileWithItsStateAndLimits) {
  trace_handle *a = open_handle("a.trace", 4096, 3);
  trace_file *idle = trace_file_locate("idle.trace", 0, 0, 0, 0, nullptr, false);
  trace_handle *s = open_handle("s.trace");
  s->tr_file->trf_flags |= TRF_SUSPENDED;
  char *buf = nullptr;
  size_t len = 0;
  FILE *m = open_memstream(&buf, &len);
  trace_dump_state(m);
  trace_dump_handle(m, a);
  fclose(m);
  std::string t(buf, len);
  free(buf);
  auto line = [&](const char *name, const char *state, trace_file *f, const char *limits) {
    return "\t\t" + real(std::string("/var/log/") + name) + ":\n\t\t\t" + state + "  refcount " +
           std::to_string(f->trf_refcount) + "  size " + std::to_string(f->trf_size) + "  " + limits + "\n";
  };
  EXPECT_EQ(t.rfind("Tracing:\n\tGlobal:\t", 0), 0u) << t;
  EXPECT_NE(t.find("\tFiles:\n"), std::string::npos) << t;
  EXPECT_NE(t.find(line("a.trace", "on", a->tr_file, "limit 4096 files 3")), std::string::npos) << t;
  EXPECT_NE(t.find(line("idle.trace", "closed", idle, "limit 0 files 0")), std::string::npos) << t;
  EXPECT_NE(t.find(line("s.trace", "off", s->tr_file, "limit 0 files 0")), std::string::npos) << t;
  EXPECT_NE(t.find("\t\t(stderr):\n\t\t\ton  "), std::string::npos) << t;
  EXPECT_NE(t.find("  Trace options:"), std::string::npos) << t;
  EXPECT_NE(t.find("  Trace file: " + real("/var/log/a.trace") + "\tsize 4096\tfiles 3\n"), std::string::npos) << t;
  s->tr_file->trf_flags &= ~TRF_SUSPENDED;
  trace_free(a);
  trace_free(s);
  trace_file_release(idle);
}

TEST_F(Files, SubdirectoriesAreMadeUnlessTheCallerSaysNot) {
  trace_file *f = trace_file_locate("x.trace", 0, 0, 0, 0, "inst", false);
  EXPECT_EQ(std::string(f->trf_name), real("/var/log/inst/x.trace"));
  struct stat st;
  EXPECT_EQ(stat(real("/var/log/inst").c_str(), &st), 0);
  trace_file *g = trace_file_locate("y.trace", 0, 0, 0, 0, "none", true);
  EXPECT_NE(stat(real("/var/log/none").c_str(), &st), 0);
  trace_file_release(f);
  trace_file_release(g);
}

class Handles : public Files {
 protected:
  trace_file *file(const char *name) { return trace_file_locate(name, 0, 0, 0, 0, nullptr, false); }
};

TEST_F(Handles, EqualOptionsShareOneHandle) {
  trace_handle *a = nullptr, *b = nullptr, *c = nullptr;
  ztrace_store(&a, 1, 2, 3, file("h.trace"), nullptr);
  ztrace_store(&b, 1, 2, 3, file("h.trace"), nullptr);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a->tr_refcount, 2);
  EXPECT_EQ(a->tr_file->trf_trpcount, 1);
  EXPECT_EQ(a->tr_file->trf_refcount, 1);  // the second caller's reference was dropped
  ztrace_store(&c, 1, 2, 4, file("h.trace"), nullptr);
  EXPECT_NE(c, a);
  EXPECT_EQ(c->tr_file, a->tr_file);
  EXPECT_EQ(a->tr_file->trf_trpcount, 2);
  EXPECT_EQ(ztrace_handle_count(), 2u);

  // Storing into a slot releases what it held.
  ztrace_store(&b, 9, 0, 0, file("h.trace"), nullptr);
  EXPECT_EQ(a->tr_refcount, 1);
  trace_free(b);
  trace_free(c);
  EXPECT_EQ(ztrace_handle_count(), 1u);
  trace_free(a);
  EXPECT_EQ(ztrace_handle_count(), 0u);
  EXPECT_EQ(trace_allocs.live[TRACE_CLASS_HANDLE], 1);  // the global one
  EXPECT_EQ(trace_allocs.live[TRACE_CLASS_FILE], 1);    // stderr
}

TEST_F(Handles, ANullFileStoresNothing) {
  trace_handle *a = nullptr;
  ztrace_store(&a, 1, 0, 0, file("n.trace"), nullptr);
  EXPECT_EQ(ztrace_store(&a, 1, 0, 0, nullptr, nullptr), nullptr);
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(ztrace_handle_count(), 0u);
}

TEST_F(Handles, KeyChangesReinsertEvenTheSoleHandle) {
  trace_handle *a = nullptr;
  ztrace_store(&a, 1, 0, 0, file("k.trace"), nullptr);
  ASSERT_EQ(ztrace_handle_count(), 1u);
  ztrace_set_tr_flags(a, 5, 0);
  ztrace_tr_control_set(a, 2);
  ztrace_trace_file_set(a, file("k2.trace"));
  EXPECT_TRUE(ztrace_handles_verify());
  EXPECT_EQ(ztrace_handle_count(), 1u);
  // The changed handle is found by its new key.
  trace_handle *b = nullptr;
  ztrace_store(&b, 5, 0, 2, file("k2.trace"), nullptr);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a->tr_refcount, 2);
  trace_free(a);
  trace_free(b);
}

TEST_F(Handles, TheGlobalHandleIsUpdatedInPlaceAndNeverInterned) {
  trace_handle *g = ztrace_global;
  ztrace_store(&ztrace_global, 7, 0, 0, file("g.trace"), nullptr);
  EXPECT_EQ(ztrace_global, g);
  EXPECT_EQ(g->tr_flags, 7u);
  EXPECT_EQ(ztrace_handle_count(), 0u);
  // A child takes the global flags under its mask and the same file.
  trace_handle *child = ztrace_trace_child(nullptr, 0x3);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->tr_flags, 3u);
  EXPECT_EQ(child->tr_file, g->tr_file);
  EXPECT_EQ(ztrace_handle_count(), 0u);
  trace_free(child);
  // Without flags there is no child.
  ztrace_set_tr_flags(g, 0, 0);
  EXPECT_EQ(ztrace_trace_child(nullptr, 0x3), nullptr);
}

using HandlesDeath = Handles;

TEST_F(HandlesDeath, ReleasingTooOftenAsserts) {
  trace_handle *a = nullptr;
  ztrace_store(&a, 1, 0, 0, file("d.trace"), nullptr);
  trace_alloc(a);
  trace_free(a);
  EXPECT_DEATH(
      {
        a->tr_refcount = 0;
        trace_free(a);
      },
      "refcount-1 >= 0");
  trace_free(a);
}

TEST_F(HandlesDeath, AFileFreedWhileAHandlePointsAtItAsserts) {
  trace_handle *a = nullptr;
  ztrace_store(&a, 1, 0, 0, file("p.trace"), nullptr);
  EXPECT_DEATH(trace_file_release(a->tr_file), "tfp->trf_trpcount == 0");
  trace_free(a);
}

}  // namespace
