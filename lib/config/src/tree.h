// The parsed configuration: a tree of objects owned by one ddl_tree.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config/ddl.h"

enum class ddl_kind : uint8_t {
  container,  // a container statement, or the top of the file
  list,       // the entries of a DDL_LIST container, gathered under its keyword
  entry,      // one entry of a list
  leaf,       // a value, toggle, choice or identifier
};

struct ddl_tree;

struct ddl_object {
  const ddl_node *schema = nullptr;
  ddl_kind kind = ddl_kind::container;
  std::string name;   // the keyword (the choice node's name for a choice)
  std::string text;   // a leaf's value as written, unquoted
  uint64_t num = 0;   // a number's value
  bool numeric = false;
  unsigned line = 0, col = 0;
  ddl_object *parent = nullptr;
  size_t index = 0;   // place among the parent's children
  ddl_tree *tree = nullptr;
  uint64_t digest = 0;
  std::vector<std::unique_ptr<ddl_object>> children;

  ddl_object *child(const std::string &n) const {
    for (auto &c : children)
      if (c->name == n) return c.get();
    return nullptr;
  }
  ddl_object *add(std::unique_ptr<ddl_object> c) {
    c->parent = this;
    c->tree = tree;
    c->index = children.size();
    children.push_back(std::move(c));
    return children.back().get();
  }
};

struct ddl_tree {
  std::string file;
  ddl_object root;
  unsigned refs = 0;  // the store's own reference and every handle
  ddl_tree() { root.tree = this; }
};

void ddl_tree_retain(ddl_tree *t);
// The top object of db's content (null db: the static configuration), or null.
ddl_object *ddl_db_top(const ddl_db_t *db);
void ddl_tree_release(ddl_tree *t);

// Parses text against schema `root`; on success sets *out. On failure reports
// the first error through dax-style located reporting and returns false.
bool ddl_parse(const std::string &file, const std::string &text, const ddl_node *root,
               std::unique_ptr<ddl_tree> *out);

// Fills the digests bottom-up; the root's stands for the whole content.
void ddl_digest(ddl_object *o);

// "a/b/entry[key]" naming obj's place, for comparing two reads.
std::string ddl_object_path(const ddl_object *o);

// Located report used by the parser and dax_error.
void ddl_report_at(const std::string &file, unsigned line, unsigned col, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
