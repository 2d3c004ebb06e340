// Splits configuration text into tokens. Rejects binary junk, over-long words
// and unterminated strings or comments at the exact position.
#include "lexer.h"

#include <cstdio>

#include "config/ddl.h"

namespace {
bool is_control(unsigned char c) { return (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f; }
bool is_space(unsigned char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool ends_word(unsigned char c) { return is_space(c) || c == '{' || c == '}' || c == ';' || c == '"'; }

std::string bad_char(unsigned char c) {
  char b[48];
  snprintf(b, sizeof b, "invalid character 0x%02x", c);
  return b;
}
}  // namespace

void ddl_lexer::advance() {
  if (s_[i_] == '\n') {
    line_++;
    col_ = 1;
  } else {
    col_++;
  }
  i_++;
}

token ddl_lexer::err(unsigned line, unsigned col, std::string msg) { return {tok::error, std::move(msg), line, col}; }

bool ddl_lexer::skip_space_and_comments(token *error) {
  while (i_ < s_.size()) {
    unsigned char c = s_[i_];
    if (is_space(c)) {
      advance();
    } else if (c == '#') {
      while (i_ < s_.size() && s_[i_] != '\n') {
        if (is_control(s_[i_])) {
          *error = err(line_, col_, bad_char(s_[i_]));
          return false;
        }
        advance();
      }
    } else if (c == '/' && i_ + 1 < s_.size() && s_[i_ + 1] == '*') {
      unsigned l = line_, k = col_;
      advance();
      advance();
      for (;;) {
        if (i_ >= s_.size()) {
          *error = err(l, k, "unterminated comment");
          return false;
        }
        if (s_[i_] == '*' && i_ + 1 < s_.size() && s_[i_ + 1] == '/') {
          advance();
          advance();
          break;
        }
        if (is_control(s_[i_])) {
          *error = err(line_, col_, bad_char(s_[i_]));
          return false;
        }
        advance();
      }
    } else {
      return true;
    }
  }
  return true;
}

token ddl_lexer::next() {
  token e;
  if (!skip_space_and_comments(&e)) return e;
  if (i_ >= s_.size()) return {tok::end, "", line_, col_};

  unsigned line = line_, col = col_;
  unsigned char c = s_[i_];
  switch (c) {
    case '{': advance(); return {tok::lbrace, "{", line, col};
    case '}': advance(); return {tok::rbrace, "}", line, col};
    case ';': advance(); return {tok::semi, ";", line, col};
    default: break;
  }

  if (c == '"') {
    advance();
    std::string out;
    for (;;) {
      if (i_ >= s_.size() || s_[i_] == '\n') return err(line, col, "unterminated string");
      unsigned char d = s_[i_];
      if (d == '"') {
        advance();
        break;
      }
      if (is_control(d)) return err(line_, col_, bad_char(d));
      if (d == '\\') {
        advance();
        if (i_ >= s_.size() || s_[i_] == '\n') return err(line, col, "unterminated string");
        d = s_[i_];
        if (d == 'n') d = '\n';
        else if (d == 't') d = '\t';
        else if (is_control(d)) return err(line_, col_, bad_char(d));
      }
      if (out.size() == DDL_MAX_WORD) return err(line, col, "string longer than 1023 bytes");
      out += static_cast<char>(d);
      advance();
    }
    return {tok::string, std::move(out), line, col};
  }

  std::string out;
  while (i_ < s_.size() && !ends_word(s_[i_])) {
    unsigned char d = s_[i_];
    if (is_control(d) || d >= 0x80) return err(line_, col_, bad_char(d));
    if (out.size() == DDL_MAX_WORD) return err(line, col, "word longer than 1023 bytes");
    out += static_cast<char>(d);
    advance();
  }
  return {tok::word, std::move(out), line, col};
}
