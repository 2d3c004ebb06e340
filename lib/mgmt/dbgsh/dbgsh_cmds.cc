// The debug shell's commands: memory through symbols of the running
// program, calls, a child process, a loaded library, asynchronous messages.
#include <dlfcn.h>
#include <signal.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dbgsh_internal.h"
#include "platform/path.h"
#include "task/quit.h"

dbg_sh_session *dbg_sh_current;

namespace {

constexpr int kDumpRowsDefault = 4;
constexpr int kMaxCallArgs = 6;
constexpr int kLibArgs = 4;
const char kLibDefault[] = "/var/tmp/libunit-test.so";

void *lib_handle;
char lib_path[4096];

// A symbol of the running program, or an address written in hex.
void *address_of(const char *what) {
  if (!what) return nullptr;
  if (strncasecmp(what, "0x", 2) == 0) {
    char *end;
    unsigned long long a = strtoull(what, &end, 16);
    return *end ? nullptr : reinterpret_cast<void *>(static_cast<uintptr_t>(a));
  }
  static void *self = dlopen(nullptr, RTLD_NOW);
  return self ? dlsym(self, what) : nullptr;
}

bool number(const char *text, unsigned long *out) {
  char *end;
  errno = 0;
  *out = strtoul(text, &end, 0);
  return *text && !*end && errno == 0;
}

long arg_value(const char *text) {
  unsigned long v;
  if (number(text, &v)) return static_cast<long>(v);
  return reinterpret_cast<long>(text);  // anything else is passed as a string
}

using fn6 = long (*)(long, long, long, long, long, long);

// The word VAR names (argv[1]), or null after saying why.
uint32_t *word_of(FILE *out, int argc, char **argv) {
  if (argc < 2) {
    fputs("Syntax error: try 'help'.\n", out);
    return nullptr;
  }
  auto *p = static_cast<uint32_t *>(address_of(argv[1]));
  if (!p) fprintf(out, "Variable %s not found\n", argv[1]);
  return p;
}

void c_print(FILE *out, int argc, char **argv) {
  if (uint32_t *p = word_of(out, argc, argv))
    fprintf(out, "%s (0x%016lX) = %u (0x%04X)\n", argv[1], reinterpret_cast<unsigned long>(p), *p, *p);
}

void c_set(FILE *out, int argc, char **argv) {
  uint32_t *p = word_of(out, argc, argv);
  if (!p) return;
  if (argc < 3) {
    fprintf(out, "%s is currently set to %u (0x%04X)\n", argv[1], *p, *p);
    return;
  }
  unsigned long v;
  if (!number(argv[2], &v) || v > UINT32_MAX) {
    fprintf(out, "Invalid value %s cannot be set to %s\n", argv[2], argv[1]);
    return;
  }
  uint32_t old = *p;
  *p = static_cast<uint32_t>(v);
  fprintf(out, "    Variable %s changed from %u (0x%04X) to %u (0x%04X)\n", argv[1], old, old, *p, *p);
}

void c_dump(FILE *out, int argc, char **argv) {
  auto *p = static_cast<uint32_t *>(argc >= 2 ? address_of(argv[1]) : nullptr);
  if (!p) {
    fprintf(out, "Variable/address %s not found\n", argc >= 2 ? argv[1] : "");
    return;
  }
  unsigned long rows = kDumpRowsDefault;
  if (argc >= 3 && (!number(argv[2], &rows) || rows == 0 || rows > 4096)) rows = kDumpRowsDefault;
  for (unsigned long r = 0; r < rows; r++) {
    fprintf(out, "\n0x%016lX: ", reinterpret_cast<unsigned long>(p + r * 4));
    for (int w = 0; w < 4; w++) fprintf(out, "0x%08X ", p[r * 4 + w]);
  }
  fputc('\n', out);
}

long call_with(void *fn, int argc, char **argv, int first) {
  long a[kMaxCallArgs] = {};
  for (int i = first; i < argc && i - first < kMaxCallArgs; i++) a[i - first] = arg_value(argv[i]);
  return reinterpret_cast<fn6>(fn)(a[0], a[1], a[2], a[3], a[4], a[5]);
}

void c_call(FILE *out, int argc, char **argv) {
  void *fn = argc >= 2 ? address_of(argv[1]) : nullptr;
  if (!fn) {
    fprintf(out, "%s() not found\n", argc >= 2 ? argv[1] : "");
    return;
  }
  long r = call_with(fn, argc, argv, 2);
  fprintf(out, "%s() returned %ld (0x%lX)\n", argv[1], r, static_cast<unsigned long>(r));
}

void c_die(FILE *out, int, char **) {
  fflush(out);
  abort();
}

// The child calls the function and exits with its result; the parent waits.
void c_fork(FILE *out, int argc, char **argv) {
  if (argc < 2) {
    fputs("Missing command for 'fork'\n", out);
    return;
  }
  fflush(out);
  pid_t pid = fork();
  if (pid < 0) {
    fprintf(out, "fork failed: %s\n", strerror(errno));
    return;
  }
  if (pid == 0) {
    // The daemon blocks its signals for the signalfd; the child must not.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGTERM, SIGPIPE, SIGINT, SIGHUP}) signal(sig, SIG_DFL);
    void *fn = address_of(argv[1]);
    if (!fn) _exit(127);
    _exit(static_cast<int>(call_with(fn, argc, argv, 2) & 0xff));
  }
  int status;
  pid_t w;
  do w = waitpid(pid, &status, WUNTRACED);
  while (w < 0 && errno == EINTR);
  if (w < 0) {
    fprintf(out, "fork: waitpid failed: %s\n", strerror(errno));
  } else if (WIFEXITED(status)) {
    fprintf(out, "fork: child exited with status %d\n", WEXITSTATUS(status));
  } else if (WIFSIGNALED(status)) {
    fprintf(out, "fork: child killed by signal %d\n", WTERMSIG(status));
  } else if (WIFSTOPPED(status)) {
    fputs("fork: child stopped, killing\n", out);
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
}

void c_monitor(FILE *out, int, char **) {
  if (!dbg_sh_current) {
    fputs("Syntax error: try 'help'.\n", out);
    return;
  }
  if (!task_assert_soft(dbg_sh_monitor_start(dbg_sh_current) && "dbg_sh_monitors < DBG_SH_CONNECTLIST_SIZE")) return;
  fputs("Monitoring asynchronous debug messages.  Press Enter to stop.\n", out);
}

void c_past(FILE *out, int, char **) { dbg_sh_past(out); }

bool on_off(const char *w, bool *v) {
  if (strcasecmp(w, "on") == 0) return *v = true, true;
  if (strcasecmp(w, "off") == 0) return *v = false, true;
  return false;
}

void c_async(FILE *out, int argc, char **argv) {
  bool v;
  if (argc == 1) {
    fprintf(out, "Asynchronous message collection: %s\n", dbg_sh_async_enabled() ? "enabled" : "disabled");
    fprintf(out, "Asynchronous message test: %s\n", dbg_sh_async_test_running() ? "running" : "not running");
  } else if (on_off(argv[1], &v)) {
    dbg_sh_async_set(v);
    fprintf(out, "Asynchronous message collection: %s\n", v ? "enabled" : "disabled");
  } else if (strcasecmp(argv[1], "test") == 0 && (argc == 2 || on_off(argv[2], &v))) {
    dbg_sh_async_test_set(argc == 2 || v);
    fprintf(out, "Asynchronous message test: %s\n", dbg_sh_async_test_running() ? "running" : "not running");
  } else {
    fprintf(out, "Syntax error. '%s' must be 'on', 'off' or 'test'\n", argc > 2 ? argv[2] : argv[1]);
  }
}

void c_lib_load(FILE *out, int argc, char **argv) {
  if (lib_handle) {
    fputs("Library already open.\n", out);
    return;
  }
  std::string path = argc >= 2 ? argv[1] : tvx_path(kLibDefault);
  lib_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!lib_handle) {
    fprintf(out, "Failed to dlopen shared library %s: %s.\n", path.c_str(), dlerror());
    return;
  }
  snprintf(lib_path, sizeof lib_path, "%s", path.c_str());
  fprintf(out, "Library %s loaded.\n", lib_path);
}

void c_lib_exec(FILE *out, int argc, char **argv) {
  if (!lib_handle) {
    fputs("Library not loaded.\n", out);
    return;
  }
  if (argc < 2) {
    fputs("Syntax error: try 'help'.\n", out);
    return;
  }
  if (argc - 2 > kLibArgs) {
    fprintf(out, "Too many args %d.\n", argc - 2);
    return;
  }
  dlerror();
  void *fn = dlsym(lib_handle, argv[1]);
  if (!fn) {
    const char *e = dlerror();
    fprintf(out, "dlsym failed for entry point %s: %s.\n", argv[1], e ? e : "null symbol");
    return;
  }
  long r = call_with(fn, argc, argv, 2);
  fprintf(out, "%s() returned %ld (0x%lX)\n", argv[1], r, static_cast<unsigned long>(r));
}

void c_lib_unload(FILE *out, int, char **) {
  if (!lib_handle) {
    fputs("Library not loaded.\n", out);
    return;
  }
  dlclose(lib_handle);
  lib_handle = nullptr;
  fprintf(out, "Library %s unloaded.\n", lib_path);
}

void c_lib_show(FILE *out, int, char **) {
  if (lib_handle)
    fprintf(out, "Library %s loaded.\n", lib_path);
  else
    fputs("Library not loaded.\n", out);
}

void c_help(FILE *out, int, char **);
void c_exit(FILE *, int, char **) {}

// Sorted by dbg_sh_routine_cmp.
const dbg_sh_cmd shell_cmds[] = {
    {"async", nullptr, c_async,
     "async [on|off]                    - Enable/disable async debug messages\n"
     "async test [on|off]               - Enable/disable async debug test"},
    {"call", "c", c_call, "c/call <function> [args]          - Call a function"},
    {"die", nullptr, c_die, "die                               - Kill the process"},
    {"dump", "x", c_dump, "x/dump <variable/addr> [num-rows] - Show memory hex dump"},
    {"exit", nullptr, c_exit, "exit                              - Exit from the shell"},
    {"fork", nullptr, c_fork, "fork command [arg...]             - Execute command in child process"},
    {"help", "h", c_help, "h/help                            - Display command summary"},
    {"lib-exec", nullptr, c_lib_exec, "lib-exec <func> [<arg1> <arg2> <arg3> <arg4>] - Call a function from a shared library"},
    {"lib-load", nullptr, c_lib_load, "lib-load [<path>]                 - Load shared library."},
    {"lib-show", nullptr, c_lib_show, "lib-show                           - Show shared library"},
    {"lib-unload", nullptr, c_lib_unload, "lib-unload                         - Unload a shared library"},
    {"monitor", nullptr, c_monitor, "monitor                           - Display async debug messages"},
    {"past", nullptr, c_past, "past                              - Display buffered debug messages"},
    {"print", "p", c_print, "p/print <variable/addr>           - Show address's contents"},
    {"quit", nullptr, c_exit, "quit                              - Exit from the shell"},
    {"set", nullptr, c_set, "set <variable/addr> [new-value]   - Show/Modify address's content"},
    {},
};

std::vector<const dbg_sh_cmd *> &tables() {
  static std::vector<const dbg_sh_cmd *> t{shell_cmds};
  return t;
}

void c_help(FILE *out, int, char **) {
  fprintf(out, "%s%s%s debug shell -- supports the following commands:\n\n", task_daemon_name(), "", "");
  for (const dbg_sh_cmd *t : tables())
    for (const dbg_sh_cmd *c = t; c->dc_name; c++) fprintf(out, "%s\n", c->dc_help);
}

const dbg_sh_cmd *find(const char *word) {
  for (const dbg_sh_cmd *t : tables())
    for (const dbg_sh_cmd *c = t; c->dc_name; c++)
      if (strcasecmp(c->dc_name, word) == 0 || (c->dc_alias && strcasecmp(c->dc_alias, word) == 0)) return c;
  return nullptr;
}

}  // namespace

int dbg_sh_routine_cmp(const void *a, const void *b) {
  auto *x = static_cast<const dbg_sh_cmd *>(a);
  auto *y = static_cast<const dbg_sh_cmd *>(b);
  const char *sx = strchr(x->dc_name, ' '), *sy = strchr(y->dc_name, ' ');
  size_t lx = sx ? static_cast<size_t>(sx - x->dc_name) : strlen(x->dc_name);
  size_t ly = sy ? static_cast<size_t>(sy - y->dc_name) : strlen(y->dc_name);
  int r = strncasecmp(x->dc_name, y->dc_name, lx < ly ? lx : ly);
  if (r || lx != ly) return r ? r : lx < ly ? -1 : 1;
  return strcasecmp(sx ? sx + 1 : "", sy ? sy + 1 : "");
}

void dbg_sh_add_table(const dbg_sh_cmd *table) {
  if (table) tables().push_back(table);
}

int dbg_sh_run_line(FILE *out, char *line) {
  char *argv[32];
  int argc = 0;
  for (char *w; argc < 32 && (w = strsep(&line, " \t\r\n"));)
    if (*w) argv[argc++] = w;
  if (!argc) return 0;
  const dbg_sh_cmd *c = find(argv[0]);
  if (!c) {
    fputs("Syntax error: try 'help'.\n", out);
    return 0;
  }
  if (c->dc_fn == c_exit) return 1;
  c->dc_fn(out, argc, argv);
  return 0;
}
