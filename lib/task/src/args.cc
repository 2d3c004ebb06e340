// The command line every daemon on the kernel shares.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "platform/version.h"
#include "task/lifecycle.h"

task_cmdline task_options;

namespace {

const char *prog(void) { return task_daemon_name(); }

void usage(FILE *out) {
  fprintf(out, "ZTASK_USAGE: Usage: %s [-c] [-C] [-Gd] [-Gc] [-n] [-N] [-t[flags]]+ [-f config-file] [trace-file]\n",
          prog());
}

void help(void) {
  usage(stdout);
  fputs("  -c            check the configuration and exit (0 good, 1 bad); -cc says more\n"
        "  -C            the same without a trace file or cores; -CC says more\n"
        "  -f FILE       configuration file (default /etc/<program>.conf)\n"
        "  -N            stay in the foreground, log also to standard error\n"
        "  -n            do not detach and stay in the current directory\n"
        "  -p PID        replace the running daemon PID (SIGTERM, then SIGKILL)\n"
        "  -t[FLAGS]     trace flags: t task, i timer, c config, n normal, r route; none: all\n"
        "  -Gd, -Gc      hold the start for a debugger\n"
        "  -M            memory debugging on\n"
        "  -v, -vv       print the version and exit\n"
        "  -Ja, -Jd CMD, -Jf FILE, -Jl NAME, -Jt [PORT]   debug shell options\n"
        "  trace-file    write the trace there\n",
        stdout);
}

int error_end(void) {
  usage(stderr);
  show_daemon_version(stderr, 1, 0);
  return 1;
}

int bad(const char *word) {
  fprintf(stderr, "ZTASK_PARSE_BAD_OPTION: %s: command-line option %s is invalid\n", prog(), word);
  return error_end();
}

// An option's argument: the rest of the word, else the next word.
const char *argument(int argc, char **argv, int *i, size_t skip) {
  if (argv[*i][skip]) return argv[*i] + skip;
  if (*i + 1 < argc) return argv[++*i];
  return nullptr;
}

int missing(const char *word) {
  fprintf(stderr, "ZTASK_PARSE_CMD_ARG: %s: missing required argument for command-line option %s\n", prog(), word);
  return error_end();
}

uint32_t trace_letter(char c) {
  switch (c) {
    case 't': return TASK_TRACE_FLAG_TASK;
    case 'i': return TASK_TRACE_FLAG_TIMER;
    case 'c': return TASK_TRACE_FLAG_CONFIG;
    case 'n': return TASK_TRACE_FLAG_NORMAL;
    case 'r': return TASK_TRACE_FLAG_ROUTE;
    default: return 0;
  }
}

int parse_j(int argc, char **argv, int *i) {
  const char *word = argv[*i];
  switch (word[2]) {
    case 'a':
      task_options.tc_j_async = 1;
      return 0;
    case 'd': {
      const char *cmd = argument(argc, argv, i, 3);
      if (!cmd) return missing(word);
      const char *why = !cmd[0] ? "empty command" : task_options.tc_j_ncommands >= TASK_J_MAX ? "too many commands" : nullptr;
      if (why) {
        fprintf(stderr,
                "ZTASK_PARSE_BAD_COMMAND: %s: problem processing debug shell command for command-line option %s, "
                "command '%s': %s\n",
                prog(), word, cmd, why);
        return error_end();
      }
      task_options.tc_j_commands[task_options.tc_j_ncommands++] = cmd;
      return 0;
    }
    case 'f': {
      const char *file = argument(argc, argv, i, 3);
      if (!file) return missing(word);
      const char *why = access(file, R_OK) != 0                     ? strerror(errno)
                        : task_options.tc_j_nfiles >= TASK_J_MAX ? "too many files"
                                                                   : nullptr;
      if (why) {
        fprintf(stderr,
                "ZTASK_PARSE_BAD_FILE: %s: problem processing file for command-line option %s, file '%s': %s\n", prog(),
                word, file, why);
        return error_end();
      }
      task_options.tc_j_files[task_options.tc_j_nfiles++] = file;
      return 0;
    }
    case 'l':
    case 'L': {
      const char *name = argument(argc, argv, i, 3);
      if (!name) return missing(word);
      if (strlen(name) > TASK_LR_NAME_MAX) {
        fprintf(stderr, "ZTASK_PARSE_BAD_LR_NAME: %s: logical system name \"%s\" exceeds %d characters\n", prog(), name,
                TASK_LR_NAME_MAX);
        return error_end();
      }
      snprintf(task_options.tc_lr_name, sizeof task_options.tc_lr_name, "%s", name);
      return 0;
    }
    case 't': {
      const char *port = word[3] ? word + 3 : (*i + 1 < argc && argv[*i + 1][0] >= '0' && argv[*i + 1][0] <= '9') ? argv[++*i] : nullptr;
      if (!port) {
        printf("Using default debug shell TCP port of 10000\n");
        task_options.tc_j_port = 10000;
        return 0;
      }
      char *end;
      long v = strtol(port, &end, 10);
      if (*end || v < 1 || v > 65535) return bad(word);
      task_options.tc_j_port = static_cast<uint16_t>(v);
      return 0;
    }
    default:
      return bad(word);
  }
}

}  // namespace

int task_parse_args(int argc, char **argv, int (*app_parse_arg)(int argc, char **argv, int index)) {
  int errors = 0;
  bool seen[128] = {};
  for (int i = 1; i < argc; i++) {
    const char *word = argv[i];
    if (!strcmp(word, "--help") || !strcmp(word, "-h")) {
      help();
      exit(0);
    }
    if (app_parse_arg) {
      int took = app_parse_arg(argc, argv, i);
      if (took < 0) {
        errors++;
        continue;
      }
      if (took > 0) {
        i += took - 1;
        continue;
      }
    }
    if (word[0] != '-') {
      if (task_options.tc_trace_file) {
        fprintf(stderr, "ZTASK_PARSE_CMD_EXTRA: %s: command-line option %s is extraneous\n", prog(), word);
        errors += error_end();
        continue;
      }
      task_options.tc_trace_file = word;
      continue;
    }
    unsigned char letter = static_cast<unsigned char>(word[1]);
    // -J and -t may repeat; any other letter once.
    if (letter < 128 && letter != 'J' && letter != 't') {
      if (seen[letter]) {
        fprintf(stderr, "ZTASK_PARSE_CMD_DUPLICATE: %s: command-line option %s is a duplicate\n", prog(), word);
        errors += error_end();
        continue;
      }
      seen[letter] = true;
    }
    switch (letter) {
      case 'C':
        if (word[2] && strcmp(word + 2, "C")) { errors += bad(word); break; }
        task_newstate(TASKS_TEST | TASKS_NODUMP, 0);
        task_options.tc_trace_file = nullptr;
        if (word[2]) task_options.tc_verbose = 1;
        break;
      case 'c':
        if (word[2] && strcmp(word + 2, "c")) { errors += bad(word); break; }
        task_newstate(TASKS_TEST, 0);
        task_options.tc_trace_flags = TASK_TRACE_FLAG_ALL;
        task_options.tc_trace_set = 1;
        if (word[2]) task_options.tc_verbose = 1;
        break;
      case 'G':
        if (!word[2] || !strcmp(word + 2, "d"))
          task_options.tc_debug_wait = 'D';
        else if (!strcmp(word + 2, "c"))
          task_options.tc_debug_wait = 'C';
        else
          errors += bad(word);
        break;
      case 'M':
      case 'N':
      case 'n':
      case 'V':
      case 'X':
      case 'd':
      case 'e':
      case 'm':
        if (word[2]) { errors += bad(word); break; }
        if (letter == 'M') task_options.tc_memory = 1;
        if (letter == 'N') {
          task_newstate(TASKS_FOREGROUND, 0);
          task_options.tc_foreground = 1;
        }
        if (letter == 'n') task_newstate(TASKS_NODETACH, 0);
        break;
      case 'p': {
        const char *a = argument(argc, argv, &i, 2);
        if (!a) { errors += missing(word); break; }
        char *end;
        long pid = strtol(a, &end, 10);
        if (*end || pid <= 0) { errors += bad(word); break; }
        task_options.tc_replace_pid = static_cast<pid_t>(pid);
        break;
      }
      case 'f': {
        const char *a = argument(argc, argv, &i, 2);
        if (!a) { errors += missing(word); break; }
        task_options.tc_config_file = a;
        break;
      }
      case 't': {
        uint32_t flags = word[2] ? 0u : uint32_t{TASK_TRACE_FLAG_ALL};
        bool ok = true;
        for (const char *c = word + 2; *c; c++) {
          uint32_t f = trace_letter(*c);
          if (!f) ok = false;
          flags |= f;
        }
        if (!ok) { errors += bad(word); break; }
        task_options.tc_trace_flags |= flags;
        task_options.tc_trace_set = 1;
        break;
      }
      case 'v':
        if (word[2] && strcmp(word + 2, "v")) { errors += bad(word); break; }
        task_options.tc_version = word[2] ? 2 : 1;
        break;
      case 'J':
        errors += parse_j(argc, argv, &i);
        break;
      default:
        errors += bad(word);
        break;
    }
  }
  return errors;
}
