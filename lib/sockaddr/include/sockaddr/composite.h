// Composite address families: an address made of typed fields packed after a
// 4-byte header (length, family, two reserved bytes): inetcolor (IPv4
// address, color word), inet6color, srte (word, IPv4 address, word), srte6,
// and the opaque composite. Each family's row comes from a constant table,
// copied to writable memory at registration with its prebuilt masks.
//
// Words are given and returned in host order and stored big-endian; IPv4 and
// IPv6 values are their network-order bytes. Text: the fields joined by ','
// (a word in decimal, addresses as usual, the opaque field in dotted hex),
// with an optional "/bits".
#pragma once

#include "sockaddr/zsockaddr.h"

extern "C" {

enum { ZSOCK_FIELD_BYTES = 0, ZSOCK_FIELD_WORD = 1, ZSOCK_FIELD_IPV4 = 2, ZSOCK_FIELD_IPV6 = 3 };
enum { ZSOCK_COMPOSITE_OFFSET = 4, ZSOCK_COMPOSITE_MAX_FIELDS = 3 };

struct zsock_composite_field {
  uint8_t cf_type;
  uint8_t cf_size;
};

// A row: family index, name, field count and total size, maximum address
// size, mask count, the underlying family's kind, the fields; then, filled at
// registration, the masks and their pointer array (mask_count entries).
struct zsock_composite_info {
  unsigned ci_gf;
  const char *ci_name;
  unsigned ci_nfields;
  unsigned ci_size;
  unsigned ci_max_size;
  unsigned ci_mask_count;
  unsigned ci_kind;
  zsock_composite_field ci_fields[ZSOCK_COMPOSITE_MAX_FIELDS];
  const zsockaddr_t **ci_masks;
};

// The constant table, ended by a row with a null name.
extern const zsock_composite_info zsock_composite_table[];

// Registers every composite row at its fixed index (the table's rows are
// also registered one by one through zsock_register_row).
void composite_family_init(void);
// The row of a registered composite family, or nullptr.
const zsock_composite_info *sock_info_composite_vec(unsigned gf);

// An address with the first count fields from values (nullptr leaves a field
// zero); a count over the row's asserts. sockcreate_composite allocates
// (sockfree), sockbuild_composite uses the scratch ring.
zsockaddr_t *sockcreate_composite(unsigned gf, unsigned count, const void *const *values);
zsockaddr_t *sockbuild_composite(unsigned gf, unsigned count, const void *const *values);
// Pointer to field (asserted below the field count) and its size; the
// pointer may reach past a short address's length, which reads as zero.
const uint8_t *getsock_field_composite(const zsockaddr_t *a, unsigned field, unsigned *size);
uint32_t getsock_word_composite(const zsockaddr_t *a, unsigned field);
void setsock_field_composite(zsockaddr_t *a, unsigned field, const void *value);
// Text to address; plen receives the "/bits" or -1.
bool composite_parse_prefix(unsigned gf, const char *text, zsockaddr_t *result, size_t size, int *plen);
// The masks of the family, by prefix length (mask_count pointers).
const zsockaddr_t *const *composite_init_mask_list(unsigned gf);
// The underlying address: the first address field as an INET or INET6
// address (port 0) in the ring; nullptr for the opaque composite.
zsockaddr_t *sock_composite_underlying(const zsockaddr_t *a);

}  // extern "C"
