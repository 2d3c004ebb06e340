// The child side of a live core: a forked copy of the process that aborts,
// so that the core shows the process as it was while the process goes on.
#pragma once

// Closes the descriptors marked close-on-exec, moves to dir (when given and
// reachable), and raises SIGABRT with its default action; _exit(134) if it
// still lives. Only async-signal-safe calls: the slip detector runs it from
// its signal handler's fork.
[[noreturn]] void task_live_core_child(const char *dir);
