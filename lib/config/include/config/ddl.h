// The configuration store: a program's configuration, read from a text file in
// the platform's hierarchical syntax (docs/configuration.md) and checked against
// the program's schema, then read through object handles.
//
//   ddl_schema_register  tells the store a program's schema, by its identity
//   ddl_access_*         opens and closes the configuration, sequence number,
//                        change check, error reporting
//   ddax_*               the same for a second, dynamic configuration
//   dax_*                objects, strings, numbers, toggles, visiting lists
//
// A file with an error is refused whole, with the file, line and column of the
// first error, and the configuration in force stays as it was. The sequence
// number moves only when the content changes (not for comments or layout).
// Single-threaded, like the framework.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// ---- Schema --------------------------------------------------------------

enum ddl_type : uint8_t {
  DDL_CONTAINER = 1,  // keyword [identifier] [inline leaves] ( ';' | '{' statements '}' )
  DDL_STRING,         // keyword value ';'
  DDL_UINT,           // keyword number ';'   (decimal or 0x hex, suffix k, m or g)
  DDL_TOGGLE,         // keyword ';'
  DDL_CHOICE,         // one of dn_choices alone; the object is named dn_name
};

enum : uint8_t {
  DDL_LIST = 0x1,  // container that repeats, one entry per identifier
};

// One statement of a schema; tables of them are written with designated
// initializers, the fields left out being zero.
struct ddl_node {
  const char *dn_name = nullptr;
  uint8_t dn_type = 0;
  uint8_t dn_flags = 0;
  uint8_t dn_key_type = 0;                // DDL_STRING or DDL_UINT, with dn_key
  const char *dn_key = nullptr;           // container: attribute that holds the identifier
  uint64_t dn_min = 0, dn_max = 0;        // DDL_UINT value or identifier: range (both 0: 32 bits)
  uint32_t dn_maxlen = 0;                 // string value or identifier: longest (0: DDL_MAX_WORD)
  const ddl_node *dn_children = nullptr;  // container: children, ended by a null dn_name
  const char *const *dn_choices = nullptr;  // DDL_CHOICE: keywords, ended by null
};

constexpr unsigned DDL_MAX_WORD = 1023;         // bytes in one word or string
constexpr unsigned DDL_MAX_DEPTH = 64;          // nested braces
constexpr size_t DDL_MAX_FILE = 16u << 20;      // bytes in one file

// Makes a schema known under its identity (the magic number a program opens
// its configuration with). `root` is a container whose children are the
// top-level statements. Registering an identity again replaces it.
void ddl_schema_register(uint32_t id, const ddl_node *root);

// ---- Opening -------------------------------------------------------------

struct ddl_db;
using ddl_db_t = ddl_db;
struct ddl_object;
using ddl_object_t = ddl_object;

// Reads the configuration file `name` against schema `schema_id` and makes it
// the configuration in force. A null name is the program's default,
// "/etc/<program>.conf" under the path root; when that file does not exist the
// configuration is empty. Errors are reported (below) and give null with errno
// (ENOENT no schema or file, EINVAL a bad file, EFBIG too large, or the open's
// errno); the configuration in force is then unchanged. ctx must be 0;
// read_only is accepted (the store never writes).
ddl_db_t *ddl_access_open_db(int ctx, const char *name, uint32_t schema_id, int flags, int read_only);
// Releases the configuration in force (handles still held stay valid).
void ddl_access_close_db(int ctx, int flags);
// The store keeps no per-thread state: these succeed and do nothing.
int ddl_access_per_thread_init(void);
void ddl_access_per_thread_close(void);

// Stores the sequence number of db's content in *seq; returns 1 when it differs
// from the number *seq held, else 0. The first content read is number 1.
int ddl_access_check_sequence(const ddl_db_t *db, uint32_t *seq);
// Whether obj (at its place in the tree) is new or different since the
// previous successful read of the same file. Everything is new at the first.
bool ddl_access_object_changed(const ddl_object_t *obj);

// The dynamic configuration: a second file, opened and closed on its own.
ddl_db_t *ddax_open_db(const char *name, uint32_t schema_id);
void ddax_close_db(void);

// ---- Objects -------------------------------------------------------------
// Handles from dax_get_* must be given back with dax_release_object. A handle
// keeps its configuration alive even after the store moved on.

// The top of db's configuration (null db: the configuration in force).
bool dax_get_root_object(const ddl_db_t *db, ddl_object_t **obj);
// Child `name` of parent (null parent: the top of the configuration in force).
bool dax_get_object_by_name(const ddl_object_t *parent, const char *name, ddl_object_t **obj);
// Follows a null-ended list of names from parent.
bool dax_get_object_by_path(const ddl_object_t *parent, const char *const *path, ddl_object_t **obj);
// Visits the children of a container or the entries of a list, in file order.
// Start with *cursor null; each call moves it on and returns true, and at the
// end releases it, sets it null and returns false. Stopping early: release it.
bool dax_visit_container(const ddl_object_t *container, ddl_object_t **cursor);
// Gives a handle back and nulls it.
void dax_release_object(ddl_object_t **obj);

// Attribute `name` of obj, or the value of obj itself when name is null.
// Strings: false when absent or longer than len - 1 (an error then says so).
bool dax_get_string_by_name(const ddl_object_t *obj, const char *name, char *buf, size_t len);
// Numbers: a number value, or a string value that reads as one within 32 bits.
bool dax_get_uint_by_name(const ddl_object_t *obj, const char *name, uint32_t *value);
// Toggles: true and *value true when the toggle is written; else both false.
bool dax_get_toggle_by_name(const ddl_object_t *obj, const char *name, bool *value);

// The keyword of obj, and where it was written.
const char *dax_object_name(const ddl_object_t *obj);
void dax_object_location(const ddl_object_t *obj, const char **file, unsigned *line, unsigned *col);
// Handles given out and not yet released.
unsigned dax_open_handles(void);

// ---- Errors --------------------------------------------------------------
// Every report goes to the trace function when one is set, and by the flags to
// standard error and to the event log. Trailing newlines are dropped.

enum {
  DDL_ERR_STDERR = 0x2,  // print on standard error (the default)
  DDL_ERR_LOG = 0x4,     // send to the event log at the set level (warnings one lower)
};

void ddl_access_config_error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ddl_access_config_warning(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// An error about obj, prefixed by its file, line and column.
void dax_error(const ddl_object_t *obj, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Adds flags (they are never taken away: -X and the daemon's own both hold).
void ddl_access_config_error_set_flags(int flags);
void ddl_access_config_error_clear_flags(int flags);
// Syslog priority of errors (LOG_ERR by default).
void ddl_access_config_error_set_level(int level);
void ddl_access_config_error_set_trace_func(void (*fn)(const char *text));
void ddl_access_config_error_set_vsnprintf_func(int (*fn)(char *, size_t, const char *, va_list));
// Errors reported so far, and the text of the last.
unsigned ddl_access_config_error_count(void);
const char *ddl_access_config_last_error(void);
