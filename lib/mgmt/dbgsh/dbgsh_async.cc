// Asynchronous debug messages: the ring that "past" shows, the sessions in
// "monitor" mode, and the test message of "async test".
#include <sys/time.h>

#include <cstdarg>
#include <ctime>
#include <deque>
#include <string>

#include "dbgsh_internal.h"
#include "platform/backtrace.h"
#include "task/timer.h"

namespace {

constexpr int kBacktraceFrames = 16;

bool collecting;
task_timer *test_timer;
std::deque<std::string> past;
dbg_sh_session *monitors[DBG_SH_CONNECTLIST_SIZE];
int dbg_sh_monitors;

std::string frame(const char *file, const char *function, int line, const char *text) {
  timeval tv;
  gettimeofday(&tv, nullptr);
  tm t;
  localtime_r(&tv.tv_sec, &t);
  char when[32];
  strftime(when, sizeof when, "%b %d %H:%M:%S", &t);
  char head[512];
  snprintf(head, sizeof head, "DBG_SH_START:\n%s.%lu:%s:%s():%d", when, static_cast<unsigned long>(tv.tv_usec), file,
           function, line);
  std::string r = head;
  r += "\nDBG_SH_MSG:\n";
  r += text;
  r += "\nDBG_SH_BT:\n";
  void *addrs[kBacktraceFrames];
  int n = tvx_backtrace(addrs, kBacktraceFrames);
  for (int i = 0; i < n; i++) {
    char a[24];
    snprintf(a, sizeof a, "%s0x%016lx", i ? " " : "", reinterpret_cast<unsigned long>(addrs[i]));
    r += a;
  }
  r += "\nDBG_SH_END:\n";
  return r;
}

void test_message(task_timer *, uint32_t) { DBG_SH_ASYNC("asynchronous debug test message"); }

}  // namespace

void dbg_sh_async_msg(const char *file, const char *function, int line, const char *format, ...) {
  if (!collecting) return;
  char text[1024];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  std::string r = frame(file, function, line, text);
  for (int i = 0; i < dbg_sh_monitors; i++) {
    fputs(r.c_str(), monitors[i]->ds_file);
    fflush(monitors[i]->ds_file);
  }
  past.push_back(std::move(r));
  if (past.size() > DBG_SH_PAST) past.pop_front();
}

bool dbg_sh_async_enabled(void) { return collecting; }
void dbg_sh_async_set(bool on) { collecting = on; }
bool dbg_sh_async_test_running(void) { return test_timer != nullptr; }
void dbg_sh_async_test_set(bool on) {
  if (on && !test_timer) test_timer = task_timer_create(nullptr, "DbgSh async test", 0, 1, 0, 0, test_message, nullptr);
  if (!on && test_timer) {
    task_timer_delete(test_timer);
    test_timer = nullptr;
  }
}

void dbg_sh_past(FILE *out) {
  for (const std::string &r : past) fputs(r.c_str(), out);
}

bool dbg_sh_monitor_start(dbg_sh_session *s) {
  if (dbg_sh_monitors >= DBG_SH_CONNECTLIST_SIZE) return false;
  monitors[dbg_sh_monitors++] = s;
  s->ds_monitor = 1;
  return true;
}

void dbg_sh_monitor_stop(dbg_sh_session *s) {
  if (!s->ds_monitor) return;
  s->ds_monitor = 0;
  for (int i = 0; i < dbg_sh_monitors; i++)
    if (monitors[i] == s) {
      monitors[i] = monitors[--dbg_sh_monitors];
      break;
    }
}
