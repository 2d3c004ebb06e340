// Filter programs: checking one, running it on a record, and the option's record.
#include <cstring>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_filter.h"

namespace {

uint32_t u32(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}

// The field a path of tags leads to in a type's record, and where the
// structure holding it starts; null when the path is not sound.
const rts_field *resolve(uint32_t type, const uint8_t *tags, unsigned depth, const uint8_t *record,
                         const uint8_t **base) {
  const rts_struct *s = rts_type_struct(type);
  const uint8_t *at = record;
  for (unsigned i = 0; s && i < depth; i++) {
    const rts_field *f = rts_field_by_tag(s, tags[i]);
    if (!f) return nullptr;
    if (i + 1 == depth) {
      if (f->rf_kind == RK_NESTED) return nullptr;
      *base = at;
      return f;
    }
    if (f->rf_kind != RK_NESTED) return nullptr;
    if (at) at += f->rf_off;
    s = f->rf_nested;
  }
  return nullptr;
}

bool int_kind(uint8_t k) { return k <= RK_U64; }

uint64_t read_int(const rts_field *f, const uint8_t *base) {
  const uint8_t *p = base + f->rf_off;
  switch (f->rf_kind) {
    case RK_U8: return *p;
    case RK_U16: { uint16_t v; memcpy(&v, p, 2); return v; }
    case RK_U32: return u32(p);
    default: { uint64_t v; memcpy(&v, p, 8); return v; }
  }
}

bool compare_int(uint8_t op, uint64_t a, uint64_t b) {
  switch (op) {
    case RTS_FC_EQ: return a == b;
    case RTS_FC_NE: return a != b;
    case RTS_FC_LT: return a < b;
    case RTS_FC_LE: return a <= b;
    case RTS_FC_GT: return a > b;
    case RTS_FC_GE: return a >= b;
    default: return (a & b) != 0;
  }
}

// The address's first `bits` bits against the prefix's.
bool in_prefix(const rts_field *f, const uint8_t *base, unsigned bits, const uint8_t *want) {
  const uint8_t *addr;
  uint16_t abits;
  memcpy(&addr, base + f->rf_off, sizeof addr);
  memcpy(&abits, base + f->rf_off2, 2);
  if (!addr || abits < bits) return false;
  unsigned whole = bits / 8, rest = bits % 8;
  if (memcmp(addr, want, whole) != 0) return false;
  if (!rest) return true;
  uint8_t m = static_cast<uint8_t>(0xFF << (8 - rest));
  return (addr[whole] & m) == (want[whole] & m);
}

bool same_blob(const rts_field *f, const uint8_t *base, const uint8_t *s, unsigned n) {
  const uint8_t *blob;
  uint32_t len;
  memcpy(&blob, base + f->rf_off, sizeof blob);
  memcpy(&len, base + f->rf_off2, 4);
  if (len && blob && blob[len - 1] == 0) len--;
  return len == n && (n == 0 || memcmp(blob, s, n) == 0);
}

// Walks (and with a record, runs) a program within room bytes: its length,
// or -1 when it is malformed. *result is the truth left on the stack.
int run(const void *program, size_t room, uint32_t type, const void *record, bool *result) {
  auto *p = static_cast<const uint8_t *>(program);
  if (!p || room < RTS_FILTER_HEADER + 1 || u32(p) != RTS_FILTER_MAGIC) return -1;
  uint16_t len;
  memcpy(&len, p + 4, 2);
  if (len < RTS_FILTER_HEADER + 1 || len > room || len > RTS_FILTER_MAX) return -1;
  const uint8_t *types = p + 8;
  bool stack[RTS_FILTER_DEPTH_MAX * 2 + 2];
  unsigned sp = 0;
  const unsigned cap = sizeof stack / sizeof stack[0];
  size_t i = RTS_FILTER_HEADER;
  auto need = [&](size_t n) { return i + n <= len; };
  while (need(1)) {
    uint8_t ins = p[i++];
    switch (ins) {
      case RTS_FI_END:
        if (sp != 1 || i != len) return -1;
        *result = stack[0];
        return len;
      case RTS_FI_AND:
      case RTS_FI_OR:
        if (sp < 2) return -1;
        sp--;
        stack[sp - 1] = ins == RTS_FI_AND ? stack[sp - 1] && stack[sp] : stack[sp - 1] || stack[sp];
        break;
      case RTS_FI_NOT:
        if (sp < 1) return -1;
        stack[sp - 1] = !stack[sp - 1];
        break;
      case RTS_FI_CMP: {
        if (!need(3)) return -1;
        uint8_t op = p[i], ftype = p[i + 1], depth = p[i + 2];
        i += 3;
        if (op < RTS_FC_EQ || op > RTS_FC_BITS || depth < 1 || depth > 4 || !need(depth + 1u)) return -1;
        if (ftype >= 128 || !(types[ftype / 8] & (1u << (ftype % 8)))) return -1;
        const uint8_t *tags = p + i;
        i += depth;
        uint8_t kind = p[i++];
        const uint8_t *base = nullptr;
        // The path is checked against the structure of the type it names;
        // it is read only when the record is of that type.
        const rts_field *f = resolve(ftype, tags, depth, nullptr, &base);
        if (!f) return -1;
        bool mine = record && ftype == type;
        if (mine) resolve(ftype, tags, depth, static_cast<const uint8_t *>(record), &base);
        bool truth = false;
        if (kind == RTS_FV_INT) {
          if (!int_kind(f->rf_kind) || !need(8)) return -1;
          uint64_t v;
          memcpy(&v, p + i, 8);
          i += 8;
          truth = mine && compare_int(op, read_int(f, base), v);
        } else if (kind == RTS_FV_PREFIX) {
          if (f->rf_kind != RK_PREFIX || (op != RTS_FC_EQ && op != RTS_FC_NE) || !need(2)) return -1;
          uint8_t bits = p[i], n = p[i + 1];
          i += 2;
          if (n > 16 || bits > 8u * n || !need(n)) return -1;
          truth = mine && in_prefix(f, base, bits, p + i) == (op == RTS_FC_EQ);
          i += n;
        } else if (kind == RTS_FV_STRING) {
          if (f->rf_kind != RK_BLOB || (op != RTS_FC_EQ && op != RTS_FC_NE) || !need(1)) return -1;
          uint8_t n = p[i++];
          if (!need(n)) return -1;
          truth = mine && same_blob(f, base, p + i, n) == (op == RTS_FC_EQ);
          i += n;
        } else {
          return -1;
        }
        if (sp == cap) return -1;
        stack[sp++] = truth;
        break;
      }
      default:
        return -1;
    }
  }
  return -1;
}

}  // namespace

int rts_filter_check(const void *program, size_t room) {
  bool r;
  return run(program, room, 0, nullptr, &r);
}

bool rts_filter_names(const void *program, uint32_t type) {
  auto *p = static_cast<const uint8_t *>(program);
  return type < 128 && (p[8 + type / 8] & (1u << (type % 8)));
}

int rts_filter_eval(const void *program, uint32_t type, const void *record) {
  bool r = false;
  if (run(program, RTS_FILTER_MAX, type, record, &r) < 0) return -1;
  if (!rts_filter_names(program, type)) return 1;
  return r ? 1 : 0;
}

bool rts_filter_record(const void *program, uint32_t listen[2], uint8_t record[RTS_FILTER_RECORD]) {
  int len = rts_filter_check(program, RTS_FILTER_MAX);
  if (len < 0) return false;
  memset(record, 0, RTS_FILTER_RECORD);
  listen[1] |= RTS_FILTER_LISTEN_BIT;
  memcpy(record, listen, 8);
  uint32_t flag = 1;
  memcpy(record + 8, &flag, 4);
  memcpy(record + RTS_FILTER_PROGRAM_OFF, program, static_cast<size_t>(len));
  return true;
}
