// The event system beside tracing: a module defines a table of numbered
// events; the configuration ("trace-events SYSTEM:EVENTS ACTION") switches
// events on by number and chooses what each does: nothing, a record in the
// in-memory memtrace ring, or a record with the stack. The ring is kept per
// context and dumped, gzip-compressed, to "/var/log/memtrace_...gz".
//
//   static const zevt_desc my_events[] = {{1, "open", 0}, {2, "close", 0}, {}};
//   zevt_system_desc d = {"sys", "my system", 2, my_events};
//   char err[256];
//   if (zevt_system_create(&d, err, sizeof err) != 0) ... err says why
//   zevt_record(zevt_system_find("sys", nullptr, 0), 1, "opened %s", name);
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "config/ddl.h"

constexpr size_t ZEVT_NAME_MAX = 64;     // characters of a name or title
constexpr unsigned ZEVT_EVENTS_MAX = 255;

// The action word of an event.
enum : uint32_t {
  ZEVT_ACT_MEMTRACE = 0x1,  // a record in the ring
  ZEVT_ACT_BT = 0x2,        // with the stack
};

// What a module gives: events numbered 1 to zsd_count, each once.
struct zevt_desc {
  uint32_t zd_number;
  const char *zd_title;  // null ends the table
  uint32_t zd_flags;
};

struct zevt_system_desc {
  const char *zsd_name;
  const char *zsd_title;
  uint32_t zsd_count;
  const zevt_desc *zsd_events;
};

struct zevt_event {
  char ze_title[ZEVT_NAME_MAX + 1];
  uint32_t ze_flags;
  uint32_t ze_action;
};

struct zevt_system {
  zevt_system *zs_next;
  char zs_name[ZEVT_NAME_MAX + 1];
  char zs_title[ZEVT_NAME_MAX + 1];
  uint32_t zs_count;
  zevt_event *zs_events;  // by number; entry 0 unused
};

// Checks the description and adds the system. 0, or -1 with the reason in
// errbuf and nothing changed.
int zevt_system_create(const zevt_system_desc *desc, char *errbuf, size_t errlen);
// The system of this name, or null with "error: evt system %s not found !!".
zevt_system *zevt_system_find(const char *name, char *errbuf, size_t errlen);
// Removes every system (tests and exit).
void zevt_system_destroy_all(void);

// The action word of an event (0 for an unknown one).
uint32_t zevt_action(const zevt_system *sys, unsigned number);
// Sets the action of events start..end: "disable", "memtrace", "memtrace-bt".
// 0, or -1 with the reason in errbuf.
int zevt_set_action(zevt_system *sys, const char *ranges, const char *action, char *errbuf, size_t errlen);

// Reads the "trace-events" list of a traceoptions object. The whole list is
// checked before any event changes; errors go through dax_error. A missing
// action means "memtrace".
bool zevt_config_read(const ddl_object_t *traceoptions);
// Reads a "memtrace" object ("size", "dump-on-wrap on", "fork-on-dump on")
// into the main ring's settings.
bool zevt_memtrace_config(const ddl_object_t *parent);
// Reads a "logging" object: whether event records also go to the trace.
bool zevt_global_config(const ddl_object_t *parent);

// ---- The memtrace ring -----------------------------------------------------

enum : uint32_t {
  MEMTRACE_ENABLED = 0x1,
  MEMTRACE_DUMP_ON_WRAP = 0x2,
  MEMTRACE_FORK_ON_DUMP = 0x4,
};

struct memtrace_record;

struct task_memtrace_ctx {
  uint32_t memtrace_size;      // in units of 16 records; default 20
  uint32_t memtrace_flags;     // MEMTRACE_*
  const char *memtrace_name;   // context name in the dump file ("global" for the main one)
  memtrace_record *memtrace_ring;
  uint32_t memtrace_count;     // records written since enabled
  uint32_t memtrace_dumps;     // dumps written
  void *memtrace_dump_task;    // the child task of a dump in progress
  char memtrace_file[512];     // the last dump's path
};

// The main context's ring ("global").
task_memtrace_ctx *task_memtrace_main(void);

// Enables (allocating the ring, size 20 when unset, with dump on wrap) or
// disables the ring; stack unwinding for events follows it.
void task_memtrace_enable(task_memtrace_ctx *ctx, bool on);
// Records one event when its action asks for it; returns whether it did.
bool zevt_record(const zevt_system *sys, unsigned number, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
// The same into a given context.
bool zevt_record_ctx(task_memtrace_ctx *ctx, const zevt_system *sys, unsigned number, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Writes the ring, oldest first, to
// "/var/log/memtrace_<program>_default_<context>.<pid>.<seconds>.<n>.gz".
// Returns 0 or an errno value.
int task_memtrace_dump(task_memtrace_ctx *ctx);

// Fork on dump: a runner that starts the dump in a child task named
// "memtrace_dump.<context>" at priority 10 and returns the task (null: dump
// here). The task calls memtrace_perform_dump_complete when done.
using memtrace_dump_runner = void *(*)(task_memtrace_ctx *ctx, const char *task_name, int priority);
void task_memtrace_set_runner(memtrace_dump_runner runner);
void memtrace_perform_dump_complete(task_memtrace_ctx *ctx, void *tp);
