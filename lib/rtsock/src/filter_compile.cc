// The filter compiler: text to byte program by recursive descent (the grammar
// is in rts_filter.h), and rts_filter_parse over a file.
#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_filter.h"
#include "rtslib_internal.h"

namespace {

// A fault: -1 for what the grammar does not allow, -2 for the rest.
struct Fault {
  int code;
  size_t at;
  std::string why;
};

class Compiler {
 public:
  Compiler(const char *text, size_t n) : s_(text), n_(n) {}

  std::vector<uint8_t> code;
  uint8_t types[16] = {};

  void run() {
    expr();
    skip();
    if (i_ < n_) syntax(std::string("unexpected '") + s_[i_] + "'");
    code.push_back(RTS_FI_END);
  }

 private:
  const char *s_;
  size_t n_, i_ = 0;
  unsigned depth_ = 0;

  [[noreturn]] void fail(int code, size_t at, std::string why) { throw Fault{code, at, std::move(why)}; }
  [[noreturn]] void syntax(std::string why) { fail(-1, i_, std::move(why)); }

  void skip() {
    while (i_ < n_ && isspace(static_cast<unsigned char>(s_[i_]))) i_++;
  }
  bool at(const char *tok) {
    skip();
    size_t l = strlen(tok);
    return n_ - i_ >= l && memcmp(s_ + i_, tok, l) == 0;
  }
  bool eat(const char *tok) {
    if (!at(tok)) return false;
    i_ += strlen(tok);
    return true;
  }
  static bool ident_char(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; }
  // A keyword as a whole word.
  bool eat_word(const char *w) {
    skip();
    size_t l = strlen(w);
    if (n_ - i_ < l || memcmp(s_ + i_, w, l) != 0 || (i_ + l < n_ && ident_char(s_[i_ + l]))) return false;
    i_ += l;
    return true;
  }
  std::string ident() {
    skip();
    size_t b = i_;
    if (i_ < n_ && (isalpha(static_cast<unsigned char>(s_[i_])) || s_[i_] == '_'))
      while (i_ < n_ && ident_char(s_[i_])) i_++;
    if (b == i_) syntax(i_ < n_ ? std::string("expected a field, found '") + s_[i_] + "'" : "expected a field");
    return std::string(s_ + b, i_ - b);
  }

  void expr() {
    enter();
    conj();
    while (eat("||") || eat_word("or")) {
      conj();
      code.push_back(RTS_FI_OR);
    }
    depth_--;
  }
  void conj() {
    unary();
    while (eat("&&") || eat_word("and")) {
      unary();
      code.push_back(RTS_FI_AND);
    }
  }
  void enter() {
    if (++depth_ > RTS_FILTER_DEPTH_MAX) fail(-2, i_, "yacc stack overflow");
  }
  void unary() {
    skip();
    bool bang = at("!") && !at("!=");
    if (bang) i_++;
    if (bang || eat_word("not")) {
      enter();
      unary();
      depth_--;
      code.push_back(RTS_FI_NOT);
      return;
    }
    if (eat("(")) {
      expr();
      if (!eat(")")) syntax("expected ')'");
      return;
    }
    compare();
  }

  static const rts_struct *structure(const std::string &name, uint32_t *type) {
    for (uint32_t t = 0; t < RTS_TYPE_COUNT; t++) {
      const rts_struct *s = rts_type_struct(t);
      if (!s) continue;
      std::string tn = rts_type_table[t].name;
      for (char &c : tn)
        if (c == '-' || c == ' ') c = '_';
      // "rts_bd_msg", its short form "bd", and the type's name.
      std::string full = s->rs_name, brief = full;
      if (brief.rfind("rts_", 0) == 0) brief.erase(0, 4);
      if (brief.size() > 4 && brief.compare(brief.size() - 4, 4, "_msg") == 0) brief.resize(brief.size() - 4);
      for (const std::string &n : {full, brief, tn})
        if (name == n || name == n + "_t") {
          *type = t;
          return s;
        }
    }
    return nullptr;
  }

  void compare() {
    skip();
    size_t start = i_;
    std::string sname = ident();
    uint32_t type;
    const rts_struct *s = structure(sname, &type);
    if (!s) fail(-2, start, "unknown structure '" + sname + "'");
    if (!eat("->") && !eat(".")) syntax("expected '->' after '" + sname + "'");
    std::vector<uint8_t> tags;
    const rts_field *f = nullptr;
    for (;;) {
      skip();
      size_t fat = i_;
      std::string name = ident();
      f = rts_field_by_name(s, name.c_str());
      if (!f && tags.empty()) {
        // The common header's fields may be named directly.
        const rts_field *h = rts_field_by_name(s, "hdr");
        const rts_field *inner = h && h->rf_kind == RK_NESTED ? rts_field_by_name(h->rf_nested, name.c_str()) : nullptr;
        if (inner) {
          tags.push_back(static_cast<uint8_t>(h->rf_tag));
          f = inner;
          s = h->rf_nested;
        }
      }
      if (!f) fail(-2, fat, "unknown field '" + name + "' of " + s->rs_name);
      tags.push_back(static_cast<uint8_t>(f->rf_tag));
      if (f->rf_kind != RK_NESTED) break;
      if (!eat(".")) fail(-2, fat, "'" + name + "' is a structure: name one of its fields");
      if (tags.size() >= 4) fail(-2, fat, "fields nest too deep");
      s = f->rf_nested;
    }
    types[type / 8] |= static_cast<uint8_t>(1u << (type % 8));
    skip();
    size_t opat = i_;
    uint8_t op = 0;
    static const struct {
      const char *tok;
      uint8_t op;
    } kOps[] = {{"==", RTS_FC_EQ}, {"!=", RTS_FC_NE}, {"<=", RTS_FC_LE}, {">=", RTS_FC_GE},
                {"<", RTS_FC_LT},  {">", RTS_FC_GT},  {"&", RTS_FC_BITS}};
    if (!at("&&"))
      for (auto &o : kOps)
        if (eat(o.tok)) {
          op = o.op;
          break;
        }
    if (!op && i_ < n_ && strchr("=<>!~^|+-*/%", s_[i_]) && !at("||")) {
      size_t b = i_;
      while (i_ < n_ && strchr("=<>!~^|+-*/%&", s_[i_])) i_++;
      fail(-2, b, "Unknown op " + std::string(s_ + b, i_ - b));
    }
    bool integer = f->rf_kind <= RK_U64;
    emit_head(op ? op : static_cast<uint8_t>(RTS_FC_NE), type, tags);
    if (!op) {
      if (!integer) fail(-2, start, std::string("'") + f->rf_name + "' is not an integer: compare it with a value");
      emit_int(0);
      return;
    }
    skip();
    size_t vat = i_;
    if (f->rf_kind == RK_BLOB) {
      if (op != RTS_FC_EQ && op != RTS_FC_NE) fail(-2, opat, "a blob takes == or != only");
      string_value(vat);
    } else if (f->rf_kind == RK_PREFIX) {
      if (op != RTS_FC_EQ && op != RTS_FC_NE) fail(-2, opat, "an address takes == or != only");
      prefix_value(vat);
    } else if (integer) {
      number_value(vat);
    } else {
      fail(-2, start, std::string("'") + f->rf_name + "' cannot be compared");
    }
  }

  void emit_head(uint8_t op, uint32_t type, const std::vector<uint8_t> &tags) {
    code.push_back(RTS_FI_CMP);
    code.push_back(op);
    code.push_back(static_cast<uint8_t>(type));
    code.push_back(static_cast<uint8_t>(tags.size()));
    code.insert(code.end(), tags.begin(), tags.end());
  }
  void emit_int(uint64_t v) {
    code.push_back(RTS_FV_INT);
    auto *b = reinterpret_cast<const uint8_t *>(&v);
    code.insert(code.end(), b, b + 8);
  }

  // A value word: what an address or a number is made of.
  std::string word() {
    size_t b = i_;
    while (i_ < n_ && (isalnum(static_cast<unsigned char>(s_[i_])) || strchr(".:/_", s_[i_]))) i_++;
    return std::string(s_ + b, i_ - b);
  }
  void number_value(size_t at) {
    std::string w = word();
    if (w.empty()) syntax("expected a number");
    if (w.find_first_of(".:/") != std::string::npos) fail(-2, at, "expected a number, found an address");
    errno = 0;
    char *end;
    unsigned long long v = strtoull(w.c_str(), &end, 0);
    if (*end || w[0] == '-') fail(-2, at, "invalid number '" + w + "'");
    if (errno == ERANGE) fail(-2, at, "number out of range '" + w + "'");
    emit_int(v);
  }
  void prefix_value(size_t at) {
    std::string w = word();
    if (w.empty()) syntax("expected an address");
    bool v6 = w.find(':') != std::string::npos;
    std::string addr = w, len;
    size_t slash = w.find('/');
    if (slash != std::string::npos) {
      addr = w.substr(0, slash);
      len = w.substr(slash + 1);
    }
    uint8_t bytes[16];
    unsigned max = v6 ? 128 : 32;
    unsigned bits = max;
    bool ok = inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), bytes) == 1;
    if (ok && slash != std::string::npos) {
      char *end;
      unsigned long b = len.empty() || !isdigit(static_cast<unsigned char>(len[0])) ? max + 1 : strtoul(len.c_str(), &end, 10);
      ok = !len.empty() && isdigit(static_cast<unsigned char>(len[0])) && *end == 0 && b <= max;
      bits = static_cast<unsigned>(b);
    }
    if (!ok) fail(-2, at, v6 ? "Invalid ipv6 prefix" : "Invalid ip prefix");
    code.push_back(RTS_FV_PREFIX);
    unsigned n = (bits + 7) / 8;
    code.push_back(static_cast<uint8_t>(bits));
    code.push_back(static_cast<uint8_t>(n));
    code.insert(code.end(), bytes, bytes + n);
    if (bits % 8) code.back() &= static_cast<uint8_t>(0xFF << (8 - bits % 8));
  }
  void string_value(size_t at) {
    if (i_ >= n_ || s_[i_] != '"') syntax("expected a string in double quotes");
    i_++;
    std::string v;
    for (;;) {
      if (i_ >= n_) fail(-1, at, "string without its closing '\"'");
      char c = s_[i_++];
      if (c == '"') break;
      if (c == '\\') {
        if (i_ >= n_ || (s_[i_] != '"' && s_[i_] != '\\')) fail(-1, i_ - 1, "unknown escape in a string");
        c = s_[i_++];
      }
      v += c;
    }
    if (v.size() > 255) fail(-2, at, "string longer than 255 bytes");
    code.push_back(RTS_FV_STRING);
    code.push_back(static_cast<uint8_t>(v.size()));
    code.insert(code.end(), v.begin(), v.end());
  }
};

void place(const char *text, size_t at, rts_filter_error *err) {
  err->offset = static_cast<uint32_t>(at);
  err->line = 1;
  err->column = 1;
  for (size_t i = 0; i < at; i++) {
    if (text[i] == '\n') {
      err->line++;
      err->column = 1;
    } else {
      err->column++;
    }
  }
}

int fault(const char *text, size_t at, int code, const char *why, rts_filter_error *err) {
  if (err) {
    place(text, at, err);
    snprintf(err->message, sizeof err->message, "%s", why);
  }
  return code;
}

}  // namespace

int rts_filter_compile(const char *text, size_t length, void *buffer, size_t size, rts_filter_error *err) {
  if (err) memset(err, 0, sizeof *err);
  if (!text) return fault("", 0, -2, "NULL filter text", err);
  if (length > RTS_FILTER_TEXT_MAX) return fault(text, 0, -2, "Filter too long", err);
  if (!buffer || size < RTS_FILTER_HEADER + 1) return fault(text, 0, -2, "Insufficient parse buffer size!", err);
  Compiler c(text, length);
  try {
    c.run();
  } catch (const Fault &f) {
    return fault(text, f.at, f.code, f.why.c_str(), err);
  } catch (const std::bad_alloc &) {
    return fault(text, 0, -2, "Out of memory!", err);
  }
  size_t total = RTS_FILTER_HEADER + c.code.size();
  if (total > RTS_FILTER_MAX || total > size) return fault(text, 0, -2, "Filter length exceeds maximum size", err);
  auto *p = static_cast<uint8_t *>(buffer);
  memset(p, 0, RTS_FILTER_HEADER);
  uint32_t magic = RTS_FILTER_MAGIC;
  memcpy(p, &magic, 4);
  auto len16 = static_cast<uint16_t>(total);
  memcpy(p + 4, &len16, 2);
  memcpy(p + 8, c.types, sizeof c.types);
  memcpy(p + RTS_FILTER_HEADER, c.code.data(), c.code.size());
  // The depth the program needs, as the checker counts it.
  int sp = 0, most = 0;
  for (size_t i = RTS_FILTER_HEADER; i < total;) {
    uint8_t ins = p[i];
    if (ins == RTS_FI_CMP) {
      sp++;
      size_t j = i + 4 + p[i + 3];
      uint8_t kind = p[j++];
      j += kind == RTS_FV_INT ? 8 : kind == RTS_FV_PREFIX ? 2 + p[j + 1] : 1 + p[j];
      i = j;
    } else {
      if (ins == RTS_FI_AND || ins == RTS_FI_OR) sp--;
      i++;
    }
    if (sp > most) most = sp;
  }
  p[6] = static_cast<uint8_t>(most);
  return 0;
}

int rts_filter_parse(const char *path, void *buffer, size_t size) {
  if (!path) {
    rtslib_log(nullptr, RTSLIB_LOG_ERROR, "NULL file name");
    return -3;
  }
  FILE *f = fopen(path, "r");
  if (!f) {
    rtslib_log(nullptr, RTSLIB_LOG_ERROR, "Failed to open file, errno = %d", errno);
    return -3;
  }
  std::string text;
  char chunk[1024];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, f)) > 0 && text.size() <= RTS_FILTER_TEXT_MAX)
    text.append(chunk, got);
  bool bad = ferror(f);
  fclose(f);
  if (bad) {
    rtslib_log(nullptr, RTSLIB_LOG_ERROR, "Failed to open file, errno = %d", EIO);
    return -3;
  }
  rts_filter_error err;
  int r = rts_filter_compile(text.data(), text.size(), buffer, size, &err);
  if (r == -1) rtslib_log(nullptr, RTSLIB_LOG_ERROR, "syntax error");
  if (r < 0) rtslib_log(nullptr, RTSLIB_LOG_ERROR, "%s:%u:%u: %s", path, err.line, err.column, err.message);
  return r;
}
