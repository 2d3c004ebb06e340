// Route-socket filters: a small expression language over the fields of the
// route-socket messages, compiled here to a byte program that the route
// socket's peer runs on each notification, so that a subscriber is told only
// of the messages it wants.
//
// Grammar (whitespace between tokens is free; keywords are lower case):
//
//   filter  := expr
//   expr    := and ( ("||" | "or") and )*
//   and     := unary ( ("&&" | "and") unary )*
//   unary   := ("!" | "not") unary | "(" expr ")" | compare
//   compare := field [ op value ]            a field alone is "field != 0"
//   field   := struct ("->" | ".") name ( "." name )*
//   op      := "==" | "!=" | "<" | "<=" | ">" | ">=" | "&"
//   value   := number | prefix | string
//   number  := decimal | 0x hex | 0 octal        (at most 64 bits)
//   prefix  := IPv4 or IPv6 address, with "/bits" or without (a host)
//   string  := "..." with \" and \\ as escapes
//
// `struct` names a structure of the shared layout table (rts_codec.h): its
// name ("rts_bd_msg"), that name without "rts_" and "_msg" ("bd"), or the
// name of its message type with '-' written '_' ("bridge_domain"), any of
// them with "_t" behind ("gencfg_t").
// `name` is a field of it as the table names it ("major", "vnid"); a nested
// field is reached with '.', and the common header's fields may be named
// without "hdr." ("gencfg->operation"). Integer fields take numbers and all
// operators ("&": some bit in common); address fields take prefixes with ==
// and != (== when the address's first bits are the prefix); blob fields take
// strings with == and != (a trailing NUL of the field is not compared).
//
// Meaning: the filter applies to the message types whose fields it names. A
// message of such a type passes when the expression holds for it, a
// comparison on a field of another type being false; messages of types it
// does not name pass untouched.
//
// Program (host byte order; a record of option 10 carries it inline):
//   0  u32 magic RTS_FILTER_MAGIC     4  u16 length of the whole program
//   6  u8  stack depth needed         7  u8  0
//   8  u8[16] bit t set when type t is named
//   24 code: instructions, the last RTS_FI_END
//   RTS_FI_CMP  op, type, depth, tag[depth], kind, value:
//               RTS_FV_INT u64; RTS_FV_PREFIX bits, n, n bytes;
//               RTS_FV_STRING n, n bytes                         pushes a truth
//   RTS_FI_AND, RTS_FI_OR   pop two, push one     RTS_FI_NOT   pop one, push one
//   RTS_FI_END  the one truth left is the result
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

constexpr uint32_t RTS_FILTER_MAGIC = 0x31465452;  // "RTF1" in memory
constexpr uint32_t RTS_FILTER_HEADER = 24;
constexpr uint32_t RTS_FILTER_MAX = 736;       // the program room of the option's record
constexpr uint32_t RTS_FILTER_TEXT_MAX = 4096; // bytes of filter text
constexpr uint32_t RTS_FILTER_DEPTH_MAX = 32;  // nesting of brackets, not and or

enum : uint8_t { RTS_FI_END = 0, RTS_FI_CMP = 1, RTS_FI_AND = 2, RTS_FI_OR = 3, RTS_FI_NOT = 4 };
enum : uint8_t {
  RTS_FC_EQ = 1, RTS_FC_NE, RTS_FC_LT, RTS_FC_LE, RTS_FC_GT, RTS_FC_GE, RTS_FC_BITS,
};
enum : uint8_t { RTS_FV_INT = 1, RTS_FV_PREFIX = 2, RTS_FV_STRING = 3 };

// The record of option 10: the listen mask (two words, with the filter's bit),
// a flag word (1), a pointer that is zero on the wire, the program inline.
constexpr uint32_t RTS_FILTER_RECORD = 756;
constexpr uint32_t RTS_FILTER_PROGRAM_OFF = 20;
constexpr uint32_t RTS_FILTER_LISTEN_BIT = 0x1;  // in word 1 of the listen mask

// Where and why a compile failed.
struct rts_filter_error {
  uint32_t offset;  // byte of the text where the fault lies
  uint32_t line;    // from 1
  uint32_t column;  // from 1
  char message[128];
};

// Compiles text into buffer. 0 on success; -1 a syntax error; -2 any other
// fault (an invalid prefix, a program too long, a buffer too small); err,
// when given, says where and why. Nothing is logged.
int rts_filter_compile(const char *text, size_t length, void *buffer, size_t size, rts_filter_error *err);

// Compiles the text of a file, logging through rtslib's default sink. 0; -1
// syntax error; -2 another fault, with its message issued; -3 the file cannot
// be read. Lines: "NULL file name", "Failed to open file, errno = %d",
// "syntax error", then "PATH:LINE:COLUMN: why".
int rts_filter_parse(const char *path, void *buffer, size_t size);

// The program's length when it is well formed within room bytes (every
// instruction, field path and value sound, the stack never short), else -1.
// A peer checks a program it is given before it runs it.
int rts_filter_check(const void *program, size_t room);
// Whether the program names a type.
bool rts_filter_names(const void *program, uint32_t type);
// 1 when the record of that type passes, 0 when it does not, -1 for a
// malformed program. A type the program does not name passes.
int rts_filter_eval(const void *program, uint32_t type, const void *record);

// Fills the option's record from a program and a listen mask, which gets the
// filter's bit; false when the program is malformed or too long.
bool rts_filter_record(const void *program, uint32_t listen[2], uint8_t record[RTS_FILTER_RECORD]);

}  // extern "C"
