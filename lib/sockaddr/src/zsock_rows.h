// Internal to the address library: what the family table needs from the
// files of the EVPN, flow and composite families, and the prebuilt-mask
// storage they share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sockaddr/zsockaddr.h"

namespace zsock {

// Registration of the families whose operations live in their own files.
void register_evpn(unsigned gf, unsigned kind, unsigned offset, unsigned max, unsigned masks, const char *name);
void register_flow(unsigned gf, unsigned kind, unsigned offset, unsigned max, const char *name);
void register_composite(unsigned gf, const char *name);
void register_str(unsigned gf, unsigned kind, const char *name);

// Mask storage for count entries of a family of offset and max size, filled:
// entry i has i leading one-bits from the offset, capped by the entry's
// room. Static storage, one block per index, reused when a family is
// registered again. Returns the table and its bytes (count * entry size, the
// entry size being max rounded up to 4).
const uint8_t *build_masks(unsigned gf, unsigned offset, unsigned max, unsigned count, size_t *bytes);

// Keeps bits from offset; an offset-aware cut and AND for families whose
// address does not start at byte 2.
void cut_from_offset(zsockaddr_t *a, unsigned bits);
void andmask_from_offset(zsockaddr_t *a, const zsockaddr_t *mask);
// Mask length by pointer, else by counting one-bits; asserted below the
// family's own table (count entries).
int masklen_checked(unsigned gf, const zsockaddr_t *mask, unsigned count);

// The end of a field family's text: an optional "/bits" (within the masks,
// when the family has any, and within the address's bits), then nothing.
// With room for it, the address built in buf (len bytes, family gf) goes to
// result and plen gets the bits or -1.
bool finish_parse(const char *t, unsigned masks, unsigned offset, uint8_t *buf, unsigned len, unsigned gf,
                  zsockaddr_t *result, size_t size, int *plen);

// The IP of an INET or INET6 address: 4 or 16 bytes into out; 0 for nullptr.
unsigned ip_bytes_of(const zsockaddr_t *ip, uint8_t out[16]);

}  // namespace zsock
