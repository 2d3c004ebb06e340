// The generic operations of the default table, and the dispatchers that pick
// a family's slot, its default, or the assertion naming the operation.
#include <algorithm>
#include <cstring>

#include "zsock_internal.h"

namespace zsock {
namespace {

inline const uint8_t *bytes(const zsockaddr_t *a) { return reinterpret_cast<const uint8_t *>(a); }
inline uint8_t *bytes(zsockaddr_t *a) { return reinterpret_cast<uint8_t *>(a); }
inline uint8_t top_bits(unsigned n) { return static_cast<uint8_t>(0xff00u >> n); }  // n in 0..8

bool generic_eq(const zsockaddr_t *a, const zsockaddr_t *b) { return common_sockaddrcmp2(a, b) == 0; }

bool generic_maskedeq(const zsockaddr_t *a, const zsockaddr_t *b, const zsockaddr_t *mask) {
  if (a->zs_gf != b->zs_gf) return false;
  unsigned mlen = socklen(mask);
  if (socklen(a) < mlen || socklen(b) < mlen) return false;
  const uint8_t *pa = bytes(a), *pb = bytes(b), *pm = bytes(mask);
  for (unsigned i = offset_of(a); i < mlen; i++)
    if ((pa[i] ^ pb[i]) & pm[i]) return false;
  return true;
}

bool generic_prefixeq(const zsockaddr_t *a, const zsockaddr_t *b, unsigned bits) {
  if (a->zs_gf != b->zs_gf) return false;
  if (bits == 0) return true;
  unsigned off = offset_of(a), whole = bits >> 3, rest = bits & 7;
  unsigned need = off + sockbytes(bits);
  if (need > socklen(a) || need > socklen(b)) return false;
  const uint8_t *pa = bytes(a) + off, *pb = bytes(b) + off;
  if (memcmp(pa, pb, whole) != 0) return false;
  return rest == 0 || ((pa[whole] ^ pb[whole]) & top_bits(rest)) == 0;
}

bool generic_outsidemask(const zsockaddr_t *a, const zsockaddr_t *mask) {
  const uint8_t *pa = bytes(a), *pm = bytes(mask);
  unsigned alen = socklen(a), mlen = socklen(mask);
  for (unsigned i = offset_of(a); i < alen; i++)
    if (pa[i] & ~(i < mlen ? pm[i] : 0)) return true;
  return false;
}

bool generic_beyondlen(const zsockaddr_t *a, unsigned bits) {
  const uint8_t *pa = bytes(a);
  unsigned off = offset_of(a), len = socklen(a);
  unsigned i = off + (bits >> 3);
  if (i >= len) return false;
  if (pa[i] & ~top_bits(bits & 7)) return true;
  for (i++; i < len; i++)
    if (pa[i]) return true;
  return false;
}

bool generic_issame(const zsockaddr_t *a, const zsockaddr_t *b) { return a == b; }

// Generic masking and cutting count from byte 2, whatever the family's
// offset: a family with another offset supplies its own.
void generic_andmask(zsockaddr_t *a, const zsockaddr_t *mask) {
  unsigned len = std::min(socklen(a), socklen(mask));
  uint8_t *pa = bytes(a);
  const uint8_t *pm = bytes(mask);
  for (unsigned i = 2; i < len; i++) pa[i] &= pm[i];
  socklen_set(a, len);
}

void generic_cutlen(zsockaddr_t *a, unsigned bits) { cut_bits(a, bits, 2, 0); }

int generic_prefixcmp(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen) {
  int c = sockaddrcmp(a, b);
  return c ? c : static_cast<int>(alen) - static_cast<int>(blen);
}

bool generic_ishost(const zsockaddr_t *, const void *) { return false; }
void generic_clean(zsockaddr_t *) {}
void generic_copy(zsockaddr_t *target, const zsockaddr_t *source) { memcpy(target, source, socklen(source)); }
bool generic_isunspec(const zsockaddr_t *) { return false; }

}  // namespace

void cut_bits(zsockaddr_t *a, unsigned bits, unsigned offset, unsigned min_len) {
  uint8_t *pa = bytes(a);
  unsigned len = socklen(a), end = offset + sockbytes(bits);
  if (bits & 7 && end <= len) pa[end - 1] &= top_bits(bits & 7);
  for (unsigned i = end; i < len; i++) pa[i] = 0;
  if (end < len) socklen_set(a, std::max(end, min_len));
}

void fill_default_ops(zsock_ops *ops) {
  *ops = zsock_ops{};
  ops->sockclean = generic_clean;
  ops->sockaddrcmp2 = common_sockaddrcmp2;
  ops->sockaddreq = generic_eq;
  ops->sockmaskedeq = generic_maskedeq;
  ops->sockprefixeq = generic_prefixeq;
  ops->sockoutsidemask = generic_outsidemask;
  ops->sockbeyondlen = generic_beyondlen;
  ops->sockissame = generic_issame;
  ops->sockandmask = generic_andmask;
  ops->sockcutlen = generic_cutlen;
  ops->sockishost = generic_ishost;
  ops->sockprefixcmp = generic_prefixcmp;
  ops->copy = generic_copy;
  ops->isunspec = generic_isunspec;
}

}  // namespace zsock

using namespace zsock;

// The slot of a's family, or nullptr when the family or the slot is empty.
#define SLOT(a, name) (ops_of(a) ? ops_of(a)->name : nullptr)
// The slot, or an assertion that names the operation (a null address too).
#define NEED(a, name)                                  \
  ([&] {                                               \
    auto fn_ = (a) ? SLOT(a, name) : nullptr;          \
    ZSOCK_ASSERT_TEXT(fn_ != nullptr, #name);          \
    return fn_;                                        \
  }())
#define NEED_GF(gf, name)                                          \
  ([&] {                                                           \
    const zsock_family *r_ = row(gf);                              \
    auto fn_ = r_ ? r_->gf_ops->name : nullptr;                    \
    ZSOCK_ASSERT_TEXT(fn_ != nullptr, #name);                      \
    return fn_;                                                    \
  }())

extern "C" {

int common_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b) {
  if (a == b) return 0;
  if (!a) return -1;
  if (!b) return 1;
  if (a->zs_gf != b->zs_gf) return a->zs_gf < b->zs_gf ? -1 : 1;
  unsigned alen = socklen(a), blen = socklen(b);
  if (alen != blen) return alen < blen ? -1 : 1;
  const zsock_family *r = row(a->zs_gf);
  int ko = r ? static_cast<int>(r->gf_offset) : -1;
  ZSOCK_ASSERT(ko >= 0);
  if (static_cast<unsigned>(ko) >= alen) return 0;
  int c = memcmp(reinterpret_cast<const uint8_t *>(a) + ko, reinterpret_cast<const uint8_t *>(b) + ko, alen - ko);
  return (c > 0) - (c < 0);
}

// A pair of different families goes to the first one's slot as well: a
// family may order itself against its relatives (a composite against its
// underlying family). The families here order by family first.
int sockaddrcmp(const zsockaddr_t *a, const zsockaddr_t *b) {
  if (!a || !b) return common_sockaddrcmp2(a, b);
  auto fn = SLOT(a, sockaddrcmp2);
  return fn ? fn(a, b) : common_sockaddrcmp2(a, b);
}

bool sockaddreq(const zsockaddr_t *a, const zsockaddr_t *b) {
  if (!a || !b) return a == b;
  auto fn = SLOT(a, sockaddreq);
  return fn ? fn(a, b) : sockaddrcmp(a, b) == 0;
}

bool sockmaskedeq(const zsockaddr_t *a, const zsockaddr_t *b, const zsockaddr_t *mask) {
  auto fn = SLOT(a, sockmaskedeq);
  return (fn ? fn : generic_maskedeq)(a, b, mask);
}

bool sockprefixeq(const zsockaddr_t *a, const zsockaddr_t *b, unsigned bits) {
  auto fn = SLOT(a, sockprefixeq);
  return (fn ? fn : generic_prefixeq)(a, b, bits);
}

bool sockoutsidemask(const zsockaddr_t *a, const zsockaddr_t *mask) {
  auto fn = SLOT(a, sockoutsidemask);
  return (fn ? fn : generic_outsidemask)(a, mask);
}

bool sockbeyondlen(const zsockaddr_t *a, unsigned bits) {
  auto fn = SLOT(a, sockbeyondlen);
  return (fn ? fn : generic_beyondlen)(a, bits);
}

bool sockissame(const zsockaddr_t *a, const zsockaddr_t *b) {
  auto fn = a && b ? SLOT(a, sockissame) : nullptr;
  return fn ? fn(a, b) : a == b;
}

void sockandmask(zsockaddr_t *a, const zsockaddr_t *mask) {
  auto fn = SLOT(a, sockandmask);
  (fn ? fn : generic_andmask)(a, mask);
}

void sockcutlen(zsockaddr_t *a, unsigned bits) {
  auto fn = SLOT(a, sockcutlen);
  (fn ? fn : generic_cutlen)(a, bits);
}

int sockprefixcmp(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen) {
  auto fn = a ? SLOT(a, sockprefixcmp) : nullptr;
  return (fn ? fn : generic_prefixcmp)(a, alen, b, blen);
}

void sockclean(zsockaddr_t *a) { NEED(a, sockclean)(a); }
bool sockishost(const zsockaddr_t *a, const void *arg) { return NEED(a, sockishost)(a, arg); }
const zsockaddr_t *sockhostmask(const zsockaddr_t *a) { return NEED(a, sockhostmask)(a); }
int sockhostmasklen(unsigned gf) { return NEED_GF(gf, sockhostmasklen)(gf); }
int sockmasklen(unsigned gf, const zsockaddr_t *mask) { return NEED_GF(gf, sockmasklen)(gf, mask); }
int sock_host_plen(const zsockaddr_t *a) { return NEED(a, sock_host_plen)(a); }
void setsockport(zsockaddr_t *a, unsigned port) { NEED(a, setsockport)(a, port); }
int sock2unix(const zsockaddr_t *a, void *target) { return NEED(a, sock2unix)(a, target); }
int zsock2fwd_sock(const zsockaddr_t *a, void *target) { return NEED(a, zsock2fwd_sock)(a, target); }
uint32_t sockextract_in(const zsockaddr_t *a, void *arg) { return NEED(a, sockextract_in)(a, arg); }
uint32_t sockextractsrc(const zsockaddr_t *a, void *arg) { return NEED(a, sockextractsrc)(a, arg); }
uint32_t sockextractgrp(const zsockaddr_t *a, void *arg) { return NEED(a, sockextractgrp)(a, arg); }
const uint8_t *sockgrp_ptr(const zsockaddr_t *a) { return NEED(a, sockgrp_ptr)(a); }
zsockaddr_t *sockbuild_mc(const zsockaddr_t *a, const void *arg) { return NEED(a, sockbuild_mc)(a, arg); }

// A family's converter may serve several indexes: the result carries gf.
zsockaddr_t *fwd_sock2zsock(unsigned gf, const void *fwd) {
  const zsock_family *r = row(gf);
  zsockaddr_t *a = r && r->gf_ops->fwd_sock2zsock && fwd ? r->gf_ops->fwd_sock2zsock(fwd) : nullptr;
  if (a) a->zs_gf = gf;
  return a;
}

bool sockisunspec(const zsockaddr_t *a) {
  auto fn = a ? SLOT(a, isunspec) : nullptr;
  return fn ? fn(a) : false;
}

uint32_t sockgetter(const zsockaddr_t *a, unsigned which) {
  if (!a || which >= 27) return 0;
  const zsock_ops *ops = ops_of(a);
  return ops && ops->getters[which] ? ops->getters[which](a) : 0;
}

}  // extern "C"
