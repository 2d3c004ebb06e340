// Words, strings and punctuation of a configuration file, with positions.
#pragma once

#include <cstdint>
#include <string>

enum class tok : uint8_t { word, string, lbrace, rbrace, semi, end, error };

struct token {
  tok kind;
  std::string text;  // word or decoded string; for error, the message
  unsigned line, col;
};

class ddl_lexer {
 public:
  explicit ddl_lexer(const std::string &text) : s_(text) {}
  token next();

 private:
  token err(unsigned line, unsigned col, std::string msg);
  bool skip_space_and_comments(token *error);
  const std::string &s_;
  size_t i_ = 0;
  unsigned line_ = 1, col_ = 1;
  void advance();
};
