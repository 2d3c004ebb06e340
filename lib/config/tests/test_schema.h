// A schema shaped like a daemon's trace options, and helpers for the tests.
#pragma once

#include <string>

#include "config/ddl.h"

constexpr uint32_t kTestSchema = 0xCF06EEE5;

void register_test_schema();

// A temporary directory removed at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  // Writes name with text; returns its path.
  std::string write(const std::string &name, const std::string &text) const;
  const std::string &path() const { return dir_; }

 private:
  std::string dir_;
};

// Opens text as the configuration in force; returns the db or null.
ddl_db_t *open_text(const TempDir &dir, const std::string &text, const char *name = "test.conf");
