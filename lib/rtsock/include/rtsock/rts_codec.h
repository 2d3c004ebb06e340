// Route-socket codecs: records to bytes and back, in the two encodings of the
// route socket, driven by one table of fields per structure (the wire layout
// that this library and the route-socket peer share).
//
// IDR: the fields follow each other in table order, each aligned to its own
// size (2 or 4; 8-byte values on 4) from the start of the structure, gaps as
// zero bytes. A blob is a 4-byte length, the bytes and padding to 4; a prefix
// is a 16-bit length in bits, a 16-bit padded length, and the padded bytes; a
// nested structure starts on 4 and ends padded to 4; a list (errors, arrays)
// is a 32-bit count and its fixed-size members. The common header is 28 bytes.
//
// TLV: attributes of a 32-bit tag, a 32-bit value length, the value, padding
// to 4. Tags are the table's; tag 1 of every message is the nested common
// header. Integers are written at their full width. Values of blobs,
// prefixes and lists are the same bytes as in IDR, without the blob length.
//
// Decoder tolerances (TLV): unknown tags are skipped; an integer field takes
// the widths below and zero-extends, anything wider or odd gives 0, anything
// shorter than the least width gives -1:
//     8-byte field: 1, 2, 4, 8     4-byte field: 2, 4
//     2-byte field: 2              1-byte field: 1
// With a mask the first occurrence of a field wins; without one a repeated
// integer overwrites and a repeated blob, prefix, list or nested field is -1.
// A last attribute cut short ends the structure without error; a nested
// structure must consume its whole value, else -1.
//
// Results: bytes consumed or needed (> 0), else 0 "Invalid Buffer Size",
// -1 "Garbled Message", -2 "Allocation Failure", -3 "Invalid Magic",
// -4 "Invalid Choice", -5 "HOMOGENEOUS".
//
// Encoders allocate nothing and write only what fits, counting on: a call with
// room 0 and a null buffer is the length calculation.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "rtsock/rts_msg.h"

extern "C" {

enum : int {
  RTS_DEC_SIZE = 0,
  RTS_DEC_GARBLED = -1,
  RTS_DEC_NOMEM = -2,
  RTS_DEC_MAGIC = -3,
  RTS_DEC_CHOICE = -4,
  RTS_DEC_HOMOGENEOUS = -5,
};
// The text of a decoder result (0 and below), as logged.
const char *rts_decode_error_text(int result);

// The allocator of a decode: memory for the record, blobs and lists, 8-byte
// aligned (records hold pointers); null when it has none. The free function is for releases.
typedef void *(*rts_alloc_fn)(void *context, size_t size);
typedef void (*rts_free_fn)(void *context, void *block);

// ---- The layout table ----------------------------------------------------------

enum rts_kind : uint8_t {
  RK_U8, RK_U16, RK_U32, RK_U64,
  RK_FIXED,   // rf_width bytes, copied as they stand
  RK_BLOB,    // pointer at rf_off, u32 length at rf_off2
  RK_PREFIX,  // pointer at rf_off, u16 bits at rf_off2, u16 padded length at rf_off2 + 2
  RK_NESTED,  // structure rf_nested embedded at rf_off
  RK_ERRORS,  // rts_err_rec pointer at rf_off, u32 count at rf_off2
  RK_ARRAY,   // pointer at rf_off, count at rf_off2 (rf_cwidth bytes), members of rf_width bytes
  RK_ATTRS,   // attribute-list blob as RK_BLOB, walker result at rf_off3
};

struct rts_struct;

struct rts_field {
  const char *rf_name;
  uint16_t rf_tag;
  uint8_t rf_kind;
  uint8_t rf_cwidth;
  uint16_t rf_width;
  uint16_t rf_off;
  uint16_t rf_off2;
  uint16_t rf_off3;
  uint16_t rf_mask_off;  // RK_NESTED: where its inner mask starts in ours
  const rts_struct *rf_nested;
};

constexpr unsigned RTS_MAX_TAG = 63;

struct rts_struct {
  const char *rs_name;
  const rts_field *rs_fields;
  uint16_t rs_count;
  uint16_t rs_record;      // bytes of the record in memory
  uint16_t rs_mask_size;   // bytes of its presence mask
  uint8_t rs_by_tag[RTS_MAX_TAG + 1];  // field index + 1, 0 for none
};

// The structures of the table.
extern const rts_struct rts_hdr_struct;
extern const rts_struct rts_bd_struct;
extern const rts_struct rts_rt_struct;
extern const rts_struct rts_nh_struct;
extern const rts_struct rts_rtmatch_struct;
extern const rts_struct rts_rtb_struct;
extern const rts_struct rts_ifd_struct;
extern const rts_struct rts_ifl_struct;
extern const rts_struct rts_iff_struct;
extern const rts_struct rts_ifa_struct;
extern const rts_struct rts_gencfg_struct;

// The structure of a message type, null when the type travels raw.
const rts_struct *rts_type_struct(uint32_t type);
// The field of a structure by tag or by name, null when there is none.
const rts_field *rts_field_by_tag(const rts_struct *s, unsigned tag);
const rts_field *rts_field_by_name(const rts_struct *s, const char *name);

// ---- Presence masks -------------------------------------------------------------
// A mask is rs_mask_size bytes: one bit per field of the structure in table
// order (8 bytes), then the inner masks of its nested fields in order.
void rts_mask_set(const rts_struct *s, uint8_t *mask, unsigned tag);
bool rts_mask_test(const rts_struct *s, const uint8_t *mask, unsigned tag);
// Marks every field, nested ones through.
void rts_mask_set_all(const rts_struct *s, uint8_t *mask);
// The inner mask of a nested field.
uint8_t *rts_mask_inner(const rts_struct *s, uint8_t *mask, unsigned tag);

// ---- One structure ----------------------------------------------------------------

int rts_struct_idr_encode(const rts_struct *s, const void *record, void *buffer, uint32_t room);
int rts_struct_idr_decode(const rts_struct *s, void *record, const void *buffer, uint32_t length,
                          rts_alloc_fn alloc, void *context);
int rts_struct_tlv_encode(const rts_struct *s, const void *record, const uint8_t *mask, void *buffer,
                          uint32_t room);
int rts_struct_tlv_decode(const rts_struct *s, void *record, uint8_t *mask, const void *buffer,
                          uint32_t length, rts_alloc_fn alloc, void *context);
// Frees what the decode allocated (blobs, lists, attribute sets); not the record.
void rts_struct_release(const rts_struct *s, void *record, const uint8_t *mask, rts_free_fn free_fn,
                        void *context);

// ---- Messages ---------------------------------------------------------------------

// Envelope and payload. room below 12: returns the size needed and writes
// nothing. A type without a codec writes an envelope of length 0.
int rts_idr_encode(const rts_msg_pair *pair, void *buffer, uint32_t room);
int rts_tlv_encode(const rts_msg_pair *pair, const uint8_t *mask, void *buffer, uint32_t room);
// Sets result->type from the envelope and result->record to a record
// allocated through alloc (null for a type above 108 or without a codec);
// returns the envelope's size, or a result of 0 and below. The record's
// header names the envelope's type: one that names another is -1 (a record
// is only ever read as one structure), one that names none takes it.
int rts_idr_decode(rts_msg_pair *result, const void *buffer, uint32_t length, rts_alloc_fn alloc,
                   void *context);
// The same for TLV; with mask_out, also allocates the presence mask.
int rts_tlv_decode(rts_msg_pair *result, uint8_t **mask_out, const void *buffer, uint32_t length,
                   rts_alloc_fn alloc, void *context);
// Releases the parts and the record (and the mask when given).
void rts_release(const rts_msg_pair *pair, uint8_t *mask, rts_free_fn free_fn, void *context);

// ---- Attribute lists ------------------------------------------------------------------
// Attributes of a 16-bit type and a 16-bit length that counts the 4 header
// bytes, padded to 4. A length of 0 ends the list; a length below 4 or past
// the end stops the walk and the bytes from there are left over. Arrays of
// 32-bit words, single values of 1, 2, 4 or 8 bytes and fixed structures go
// into the set (at most 128); everything else is kept in ras_rest as it came.
// Returns the count understood, or -2 when the allocator fails.
int rts_attr_walk(rts_attr_set *set, const void *buffer, uint32_t length, rts_alloc_fn alloc,
                  void *context);
// RTS_ATTR_ARRAY, RTS_ATTR_VALUE, RTS_ATTR_STRUCT, or 0 for a type not understood.
uint8_t rts_attr_kind(unsigned type);

// ---- Family numbers -------------------------------------------------------------------
// Route-socket records carry the platform's family numbers (2, 28, 63); these
// map them to the local ones and back. -1, and the line "rts_decode_af:
// Invalid address family N" (or rts_encode_af's) at ERROR through rtslib's
// default log sink, for a number without a counterpart.
int rts_decode_af(int wire_af);
int rts_encode_af(int local_af);

// ---- Text dump ----------------------------------------------------------------------
// One line for the message, as traces show it. Returns the length written, or
// -1 when the line did not fit (the buffer then holds the error line, cut).
// The record is read as the structure of the type in its header: give it
// what the decoders hand out (which see to that) or a record built as that
// type, never raw bytes off the socket.
int rtslib_format_output(char *buffer, size_t size, const void *record);

}  // extern "C"

// ---- Per-structure functions -------------------------------------------------------------
// S_idr_encode, S_idr_decode, S_tlv_encode, S_tlv_decode, S_release for each
// record of the table, as thin forms of the table-driven functions above.
#define RTS_CODEC_FUNCTIONS(S, table)                                                              \
  inline int S##_idr_encode(const S *r, void *b, uint32_t room) {                                  \
    return rts_struct_idr_encode(&table, r, b, room);                                              \
  }                                                                                                \
  inline int S##_idr_decode(S *r, const void *b, uint32_t len, rts_alloc_fn a, void *c) {          \
    return rts_struct_idr_decode(&table, r, b, len, a, c);                                         \
  }                                                                                                \
  inline int S##_tlv_encode(const S *r, const uint8_t *m, void *b, uint32_t room) {                \
    return rts_struct_tlv_encode(&table, r, m, b, room);                                           \
  }                                                                                                \
  inline int S##_tlv_decode(S *r, uint8_t *m, const void *b, uint32_t len, rts_alloc_fn a,         \
                            void *c) {                                                             \
    return rts_struct_tlv_decode(&table, r, m, b, len, a, c);                                      \
  }                                                                                                \
  inline void S##_release(S *r, const uint8_t *m, rts_free_fn f, void *c) {                        \
    rts_struct_release(&table, r, m, f, c);                                                        \
  }

RTS_CODEC_FUNCTIONS(rts_msg_hdr, rts_hdr_struct)
RTS_CODEC_FUNCTIONS(rts_bd_msg, rts_bd_struct)
RTS_CODEC_FUNCTIONS(rts_rt_msg, rts_rt_struct)
RTS_CODEC_FUNCTIONS(rts_nh_msg, rts_nh_struct)
RTS_CODEC_FUNCTIONS(rts_rtmatch_msg, rts_rtmatch_struct)
RTS_CODEC_FUNCTIONS(rts_rtb_msg, rts_rtb_struct)
RTS_CODEC_FUNCTIONS(rts_ifd_msg, rts_ifd_struct)
RTS_CODEC_FUNCTIONS(rts_ifl_msg, rts_ifl_struct)
RTS_CODEC_FUNCTIONS(rts_iff_msg, rts_iff_struct)
RTS_CODEC_FUNCTIONS(rts_ifa_msg, rts_ifa_struct)
RTS_CODEC_FUNCTIONS(rts_gencfg_msg, rts_gencfg_struct)
