// The dump file: the tracing state and the task list written on request to
// "/var/tmp/PROGRAM_dump", appended to, under an exclusive lock.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "internal.h"
#include "platform/path.h"
#include "platform/version.h"
#include "task/process.h"

namespace {

constexpr int kAttempts = 10;
constexpr uint32_t kLockWaitSeconds = 15;

}  // namespace

FILE *trace_get_dump_file(const char *path) {
  for (int attempt = 0; attempt < kAttempts; attempt++) {
    struct stat st;
    bool exists = lstat(path, &st) == 0;
    if (!exists && errno != ENOENT) {
      logging(LOG_ERR, "trace_do_dump: stat(%s): %m", path);
      return nullptr;
    }
    if (exists && (S_ISBLK(st.st_mode) || S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode))) {
      logging(LOG_ERR, "trace_do_dump: \"%s\" is not a regular file", path);
      return nullptr;
    }
    bool append = !exists || S_ISREG(st.st_mode);
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | (append ? O_APPEND : 0), 0644);
    if (fd < 0) {
      logging(LOG_ERR, "trace_do_dump: Could not open \"%s\": %m", path);
      return nullptr;
    }
    FILE *f = fdopen(fd, append ? "a" : "w");
    if (!f) {
      logging(LOG_ERR, "trace_do_dump: can not open \"%s\" for writing: %m", path);
      close(fd);
      return nullptr;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return f;
    if (errno != EWOULDBLOCK) {
      logging(LOG_ERR, "trace_do_dump: Could not obtain lock on \"%s\": %m", path);
      fclose(f);
      return nullptr;
    }
    logging(LOG_ERR, "trace_do_dump: dump file \"%s\" in use, waiting...", path);
    fclose(f);
    task_time_update();
    task_utime until = task_utime_add(task_now, task_utime{kLockWaitSeconds, 0});
    while (task_utime_cmp(task_now, until) < 0) {
      task_daemon_nap();
      task_time_update();
    }
  }
  return nullptr;
}

namespace {

// The process's start: the time of its /proc entry.
std::string started_at(void) {
  struct stat st;
  time_t t = stat("/proc/self", &st) == 0 ? st.st_mtime : time(nullptr);
  char b[64];
  ctime_r(&t, b);  // ends in a newline
  return b;
}

}  // namespace

int trace_do_dump(void) {
  char logical[256];
  snprintf(logical, sizeof logical, "/var/tmp/%s_dump", task_daemon_name());
  std::string path = tvx_path(logical);
  FILE *f = trace_get_dump_file(path.c_str());
  if (!f) return -1;
  logging(LOG_INFO, "trace_do_dump: processing dump to %s", path.c_str());
  time_t now = time(nullptr);
  char when[64];
  ctime_r(&now, when);
  std::string started = started_at();
  fprintf(f, "%s[%d] version %s built %s by %s, dumped %s", task_daemon_name(), static_cast<int>(getpid()),
          tvx_build_version(), tvx_build_date(), tvx_builder(), when);
  fprintf(f, "\t\tStarted at %s\n", started.c_str());
  if (trace_app_ctx->backend.first)
    trace_dump_state(f);
  else
    fprintf(f, "Tracing:\n\tnot started\n");  // before trace_init the file list has no back end
  fputc('\n', f);
  task_dump(f);
  fprintf(f, "\nDone\n");
  fflush(f);
  fclose(f);
  logging(LOG_INFO, "trace_do_dump: dump completed to %s", path.c_str());
  return 0;
}
