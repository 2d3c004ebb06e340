// Typed socket addresses (zsockaddr_t): one self-describing, variable-length
// byte string for everything the framework uses as a destination or a key.
// Byte 0 is the length, byte 1 the family index (gf), the family's data
// follows; what the bytes mean is known only to the family's operations table,
// found through the family byte. Code outside this library handles addresses
// through the operations declared here, never by reading the bytes.
//
// Families 14, 15, 32 and 33 may exceed 255 bytes: their true length is a
// 16-bit field at byte 2 (native order) and byte 0 keeps its low 8 bits; only
// socklen()/socklen_set() know this.
//
// The library allocates nothing by itself: the application gives it alloc,
// free and print hooks at zsock_init(). Tables are written at start and then
// only read; the scratch ring of sockbuild() is for the task thread only.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

extern "C" {

struct zsockaddr_t {
  uint8_t zs_len;     // whole length, header included (low 8 bits for long families)
  uint8_t zs_gf;      // family index
  uint8_t zs_data[];  // family data: port, qualifiers, address bytes
};

enum {
  GF_UNSPEC = 0,
  ZSOCK_GF_LIMIT = 256,         // a family index is one byte
  ZSOCK_LONG_MAX = 4063,        // largest length of a long family
  ZSOCK_CLASS_FAMILY_TABLE = 60,  // allocation classes beside the family indexes
  ZSOCK_CLASS_OPS = 61,
  ZSOCK_CLASS_RING = 58,
  ZTASK_FMT_ZSOCKA = 24,        // code of a family's %A printer registration
};

// Printer of a family (slot 26): renders addr into text of size bytes and
// returns the length written (at most size - 1). alt is the '#' flag.
typedef int (*zsock_printer_fn)(char *text, size_t size, const zsockaddr_t *addr, int alt);

// One value handed to a format extension's render function.
union zsock_fmt_value {
  uint32_t u32;
  uint64_t u64;
  const void *ptr;
  double dbl;
};

// Render function of a format extension letter (%zX): gets a buffer, its
// usable size (one less than its real size), the directive's values and the
// letter; returns the text, which may lie inside buf or elsewhere. A
// negative-valued pointer is never returned: failure is nullptr.
typedef const char *(*zsock_render_fn)(char *buf, size_t size, const zsock_fmt_value *values, int letter);

// What the application gives at start. alloc must return memory or not
// return. free_sized, when set, is preferred and gets the class and the size
// that alloc was asked for.
struct zsock_hooks {
  void *(*alloc)(unsigned cls, size_t size);
  void (*free)(void *ptr, unsigned cls);
  void (*free_sized)(void *ptr, unsigned cls, size_t size);
  void (*printf_ext)(unsigned gf, zsock_printer_fn printer, unsigned code, unsigned value);
  void (*register_ext)(int letter, zsock_render_fn render, unsigned code, unsigned family, unsigned gf,
                       unsigned value);
  int (*snprintf)(char *buf, size_t size, const char *fmt, ...);
  int (*fprintf)(FILE *stream, const char *fmt, ...);
  int (*vsnprintf)(char *buf, size_t size, const char *fmt, va_list ap);
};

// The 63-slot operations table, in slot order. An empty slot is nullptr;
// the dispatchers below apply the defaults and assertions of each slot.
typedef uint32_t (*zsock_getter_fn)(const zsockaddr_t *a);
struct zsock_ops {
  void *op_reserved0;                                                                          // 0
  void (*sockclean)(zsockaddr_t *a);                                                           // 1
  int (*sockaddrcmp2)(const zsockaddr_t *a, const zsockaddr_t *b);                             // 2
  bool (*sockaddreq)(const zsockaddr_t *a, const zsockaddr_t *b);                              // 3
  bool (*sockmaskedeq)(const zsockaddr_t *a, const zsockaddr_t *b, const zsockaddr_t *mask);   // 4
  bool (*sockprefixeq)(const zsockaddr_t *a, const zsockaddr_t *b, unsigned bits);             // 5
  bool (*sockoutsidemask)(const zsockaddr_t *a, const zsockaddr_t *mask);                      // 6
  bool (*sockbeyondlen)(const zsockaddr_t *a, unsigned bits);                                  // 7
  bool (*sockissame)(const zsockaddr_t *a, const zsockaddr_t *b);                              // 8
  void (*sockandmask)(zsockaddr_t *a, const zsockaddr_t *mask);                                // 9
  void (*sockcutlen)(zsockaddr_t *a, unsigned bits);                                           // 10
  bool (*sockishost)(const zsockaddr_t *a, const void *arg);                                   // 11
  const zsockaddr_t *(*sockhostmask)(const zsockaddr_t *a);                                    // 12
  int (*sockhostmasklen)(unsigned gf);                                                         // 13
  int (*sockmasklen)(unsigned gf, const zsockaddr_t *mask);                                    // 14
  void *op_reserved15[3];                                                                      // 15-17
  bool (*parse)(const char *text, zsockaddr_t *buf, size_t size, int *result_len);             // 18
  int (*sock_host_plen)(const zsockaddr_t *a);                                                 // 19
  int (*sock2unix)(const zsockaddr_t *a, void *target);                                        // 20
  uint32_t (*sockextract_in)(const zsockaddr_t *a, void *arg);                                 // 21
  uint32_t (*sockextractsrc)(const zsockaddr_t *a, void *arg);                                 // 22
  uint32_t (*sockextractgrp)(const zsockaddr_t *a, void *arg);                                 // 23
  void *op_reserved24;                                                                         // 24
  const uint8_t *(*sockgrp_ptr)(const zsockaddr_t *a);                                         // 25
  zsock_printer_fn printer;                                                                    // 26
  void *conversion_hook;                                                                       // 27
  int (*sockprefixcmp)(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen);  // 28
  void (*setsockport)(zsockaddr_t *a, unsigned port);                                          // 29
  zsockaddr_t *(*sockbuild_mc)(const zsockaddr_t *a, const void *arg);                         // 30
  zsock_getter_fn getters[27];                                                                 // 31-57
  void (*copy)(zsockaddr_t *target, const zsockaddr_t *source);                                // 58
  void (*release)(zsockaddr_t *a);                                                             // 59
  bool (*isunspec)(const zsockaddr_t *a);                                                      // 60
  int (*zsock2fwd_sock)(const zsockaddr_t *a, void *target);                                   // 61
  zsockaddr_t *(*fwd_sock2zsock)(const void *fwd);                                             // 62
};

// Family getters (slots 31 to 57), by index into zsock_ops::getters: protocol,
// ports and qualifier values of the flow families. INET fills the first three
// (its full-size form carries them); an empty getter reads as 0.
enum {
  ZSOCK_GET_FIRST_SLOT = 31,
  ZSOCK_GET_PROTO = 0,  // slot 31: protocol
  ZSOCK_GET_SPORT = 1,  // slot 32: source port, network order
  ZSOCK_GET_DPORT = 2,  // slot 33: destination port, network order
};

// Prebuilt masks of a family: one per prefix length from 0, entry_size apart.
struct zsock_mask_table {
  uint32_t mt_count;
  const uint8_t *mt_start;
  const uint8_t *mt_end;
  uint32_t mt_entry_size;
};

// A row of the family table.
struct zsock_family {
  zsock_ops *gf_ops;
  uint16_t gf_native;  // native family value
  uint16_t gf_offset;  // where the address bytes start
  uint16_t gf_max_size;
  char gf_name[64];
  zsock_mask_table gf_masks;
  uint16_t gf_kind;
  void *gf_composite;
};

struct zsock_family_name {
  unsigned value;
  const char *name;  // nullptr ends the table
};

typedef void (*zsock_family_init_fn)(zsock_ops *ops);

// --- start ---
void zsock_init(unsigned gf_max, const zsock_family_name *names, size_t ring_size, const zsock_hooks *hooks);
// Hooks over libc alone (calloc, free, the printf family), for programs and
// tests that run the address library without the framework's memory.
zsock_hooks zsock_hooks_libc(void);
void zsock_init_family(unsigned kind, unsigned gf, unsigned offset, unsigned max_size, const void *mask_table,
                       size_t mask_table_bytes, const char *name, zsock_family_init_fn init);
// Attaches a composite family's row (sockaddr/composite.h) to its table row.
void zsock_init_composite_info(unsigned gf, const void *info);
// Drops every table (tests and orderly shutdown); zsock_init may run again.
void zsock_shutdown(void);

// --- the family table ---
unsigned zsock_gf_max(void);
const zsock_family *zsock_family_row(unsigned gf);      // nullptr past gf_max or unregistered
zsock_printer_fn zsock_printer(unsigned gf);            // slot 26, nullptr if none
const zsock_hooks *zsock_get_hooks(void);
unsigned sockfamily_by_name(const char *name);          // 0 if unknown

// --- length and family ---
unsigned socklen(const zsockaddr_t *a);
void socklen_set(zsockaddr_t *a, unsigned len);
static inline unsigned socktype(const zsockaddr_t *a) { return a->zs_gf; }
void socksetlen(zsockaddr_t *a, unsigned gf, unsigned len);
static inline unsigned sockbytes(unsigned bits) { return (bits + 7) >> 3; }
unsigned sockbitcount(const zsockaddr_t *a);
const uint8_t *sockaddrptr(const zsockaddr_t *a);

// --- ownership ---
zsockaddr_t *sockdup(const zsockaddr_t *a);
void sockfree(zsockaddr_t *a);
void sockreplace(zsockaddr_t **slot, const zsockaddr_t *a);
zsockaddr_t *sockalloc(unsigned gf, unsigned len);
zsockaddr_t *sockbuild(unsigned gf, unsigned len);        // scratch ring
zsockaddr_t *sockbuild_empty(unsigned gf, unsigned len);  // scratch ring, family 0 allowed

// --- comparison and masks (dispatch through the family's table) ---
int sockaddrcmp(const zsockaddr_t *a, const zsockaddr_t *b);
int common_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b);
bool sockaddreq(const zsockaddr_t *a, const zsockaddr_t *b);
bool sockmaskedeq(const zsockaddr_t *a, const zsockaddr_t *b, const zsockaddr_t *mask);
bool sockprefixeq(const zsockaddr_t *a, const zsockaddr_t *b, unsigned bits);
bool sockoutsidemask(const zsockaddr_t *a, const zsockaddr_t *mask);
bool sockbeyondlen(const zsockaddr_t *a, unsigned bits);
bool sockissame(const zsockaddr_t *a, const zsockaddr_t *b);
void sockandmask(zsockaddr_t *a, const zsockaddr_t *mask);
void sockcutlen(zsockaddr_t *a, unsigned bits);
int sockprefixcmp(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen);
void sockclean(zsockaddr_t *a);
bool sockishost(const zsockaddr_t *a, const void *arg);
const zsockaddr_t *sockhostmask(const zsockaddr_t *a);
int sockhostmasklen(unsigned gf);
int sockmasklen(unsigned gf, const zsockaddr_t *mask);
int sock_host_plen(const zsockaddr_t *a);
void setsockport(zsockaddr_t *a, unsigned port);
int sock2unix(const zsockaddr_t *a, void *target);
int zsock2fwd_sock(const zsockaddr_t *a, void *target);
// The family's address built from its forwarding form (INET: struct
// sockaddr_in), in the scratch ring under index gf; nullptr for a family
// without the conversion or a form of another family.
zsockaddr_t *fwd_sock2zsock(unsigned gf, const void *fwd);
// Group and source of a multicast address; arg is the family's to read.
uint32_t sockextract_in(const zsockaddr_t *a, void *arg);
uint32_t sockextractsrc(const zsockaddr_t *a, void *arg);
uint32_t sockextractgrp(const zsockaddr_t *a, void *arg);
const uint8_t *sockgrp_ptr(const zsockaddr_t *a);  // the group's bytes inside a
// A (group, source) address in the scratch ring: a's group with the source
// of arg (an address of a's family; nullptr for none, printed "*").
zsockaddr_t *sockbuild_mc(const zsockaddr_t *a, const void *arg);
bool sockisunspec(const zsockaddr_t *a);
uint32_t sockgetter(const zsockaddr_t *a, unsigned which);  // slots 31-57, 0 when empty

// Prebuilt masks: nullptr past the family's count; a mask maps back to its
// length by pointer (-1 outside the table). Masks are static: never free one.
const zsockaddr_t *sockmask_for_len(unsigned gf, unsigned bits);
int sockmask_index(const zsock_family *row, const zsockaddr_t *mask);

// --- text ---
// Parses text of a family into buf (size bytes). result_len, when given,
// receives the prefix length in bits written after a "/", or -1 without one.
bool sockparse(unsigned gf, const char *text, size_t size, zsockaddr_t *result);
bool sockparse_prefix(unsigned gf, const char *text, size_t size, zsockaddr_t *result, int *result_len);
int sockparse_len(unsigned gf, const char *text);  // bytes needed, or -1
// The %A text of an address through its family's printer; "zero-len" for a
// null or empty address, "Func Null" for a family without printer.
int sockprint(char *text, size_t size, const zsockaddr_t *a, int alt);

}  // extern "C"
