// Reads configuration text against a schema into a tree. Stops at the first
// error, reported with its line and column; nothing is kept from a bad file.
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "lexer.h"
#include "tree.h"

namespace {

uint64_t range_max(const ddl_node *n) { return n->dn_min == 0 && n->dn_max == 0 ? UINT32_MAX : n->dn_max; }
uint32_t max_len(const ddl_node *n) { return n->dn_maxlen ? n->dn_maxlen : DDL_MAX_WORD; }

// Decimal or 0x hex, with an optional k, m or g (powers of 1024).
bool parse_number(const std::string &s, uint64_t *out) {
  if (s.empty() || !(isdigit(static_cast<unsigned char>(s[0])))) return false;
  std::string digits = s;
  unsigned shift = 0;
  char last = static_cast<char>(tolower(static_cast<unsigned char>(s.back())));
  bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
  if (!hex && (last == 'k' || last == 'm' || last == 'g')) {
    shift = last == 'k' ? 10 : last == 'm' ? 20 : 30;
    digits.pop_back();
  }
  if (digits.empty()) return false;
  errno = 0;
  char *end;
  unsigned long long v = strtoull(digits.c_str(), &end, hex ? 16 : 10);
  if (*end || errno == ERANGE) return false;
  if (shift && v > (UINT64_MAX >> shift)) return false;
  *out = v << shift;
  return true;
}

class parser {
 public:
  parser(const std::string &file, const std::string &text) : file_(file), lex_(text) {}

  bool run(ddl_object *root) { return statements(root, root->schema, 0, nullptr); }

 private:
  const std::string &file_;
  ddl_lexer lex_;
  token peeked_;
  bool have_peek_ = false;

  token &peek() {
    if (!have_peek_) {
      peeked_ = lex_.next();
      have_peek_ = true;
    }
    return peeked_;
  }
  token take() {
    peek();
    have_peek_ = false;
    return std::move(peeked_);
  }

  template <typename... A>
  bool fail(const token &at, const char *fmt, A... a) {
    ddl_report_at(file_, at.line, at.col, fmt, a...);
    return false;
  }
  bool fail_token(const token &t) { return fail(t, "%s", t.text.c_str()); }

  static const ddl_node *find_child(const ddl_node *schema, const std::string &word) {
    for (const ddl_node *c = schema->dn_children; c && c->dn_name; c++) {
      if (c->dn_type == DDL_CHOICE) {
        for (const char *const *k = c->dn_choices; k && *k; k++)
          if (word == *k) return c;
      } else if (word == c->dn_name) {
        return c;
      }
    }
    return nullptr;
  }

  bool is_inline_leaf(const ddl_node *schema, const token &t) {
    if (t.kind != tok::word) return false;
    const ddl_node *c = find_child(schema, t.text);
    return c && c->dn_type != DDL_CONTAINER;
  }

  bool unknown(const token &t, const ddl_object *where) {
    if (where->name.empty()) return fail(t, "unknown statement '%s'", t.text.c_str());
    return fail(t, "unknown statement '%s' in '%s'", t.text.c_str(), where->name.c_str());
  }

  // Checks and converts a value for node n (a leaf or a container's identifier).
  bool value(const token &t, const ddl_node *n, uint8_t type, const char *what, ddl_object *leaf) {
    if (t.kind != tok::word && t.kind != tok::string) return fail(t, "'%s' needs a value", what);
    if (type == DDL_UINT) {
      uint64_t v;
      if (!parse_number(t.text, &v)) return fail(t, "'%s' is not a number for '%s'", t.text.c_str(), what);
      if (v < n->dn_min || v > range_max(n))
        return fail(t, "%s is out of range for '%s' (%" PRIu64 "..%" PRIu64 ")", t.text.c_str(), what,
                    n->dn_min, range_max(n));
      leaf->num = v;
      leaf->numeric = true;
    } else if (t.text.size() > max_len(n)) {
      return fail(t, "value of '%s' is longer than %u bytes", what, max_len(n));
    }
    leaf->text = t.text;
    return true;
  }

  static std::unique_ptr<ddl_object> make(const ddl_node *n, ddl_kind k, const std::string &name,
                                          const token &at) {
    auto o = std::make_unique<ddl_object>();
    o->schema = n;
    o->kind = k;
    o->name = name;
    o->line = at.line;
    o->col = at.col;
    return o;
  }

  // A leaf whose keyword `kw` was just taken; inline leaves end without ';'.
  bool leaf(ddl_object *obj, const ddl_node *n, const token &kw) {
    if (ddl_object *prev = obj->child(n->dn_name))
      return fail(kw, "'%s' is given twice (first at %u:%u)", n->dn_name, prev->line, prev->col);
    auto o = make(n, ddl_kind::leaf, n->dn_name, kw);
    if (n->dn_type == DDL_CHOICE) {
      o->text = kw.text;
    } else if (n->dn_type == DDL_STRING || n->dn_type == DDL_UINT) {
      token v = take();
      if (v.kind == tok::error) return fail_token(v);
      if (!value(v, n, n->dn_type, n->dn_name, o.get())) return false;
    }
    obj->add(std::move(o));
    return true;
  }

  bool end_of_statement(const token &kw) {
    token t = take();
    if (t.kind == tok::semi) return true;
    if (t.kind == tok::error) return fail_token(t);
    if (t.kind == tok::end) return fail(t, "missing ';' after '%s'", kw.text.c_str());
    return fail(t, "unexpected '%s' after '%s' (missing ';'?)", t.text.c_str(), kw.text.c_str());
  }

  bool container(ddl_object *parent, const ddl_node *n, const token &kw, unsigned depth) {
    // The identifier, when the next word is not one of the container's own leaves.
    token id{tok::end, "", 0, 0};
    token &p = peek();
    if (p.kind == tok::error) return fail_token(p);
    if ((p.kind == tok::string || p.kind == tok::word) && !is_inline_leaf(n, p)) {
      if (!n->dn_key) return fail(p, "unexpected '%s' after '%s'", p.text.c_str(), kw.text.c_str());
      id = take();
    }

    ddl_object *obj;
    if (n->dn_flags & DDL_LIST) {
      if (!n->dn_key || id.kind == tok::end) return fail(kw, "'%s' needs a name", kw.text.c_str());
      ddl_object *list = parent->child(n->dn_name);
      if (!list) list = parent->add(make(n, ddl_kind::list, n->dn_name, kw));
      auto key = make(n, ddl_kind::leaf, n->dn_key, id);
      if (!value(id, n, n->dn_key_type, n->dn_key, key.get())) return false;
      obj = nullptr;
      for (auto &e : list->children) {
        ddl_object *k = e->child(n->dn_key);
        if (k && (n->dn_key_type == DDL_UINT ? k->num == key->num : k->text == key->text)) obj = e.get();
      }
      if (!obj) {
        obj = list->add(make(n, ddl_kind::entry, n->dn_name, kw));
        obj->add(std::move(key));
      }
    } else {
      obj = parent->child(n->dn_name);
      if (!obj) obj = parent->add(make(n, ddl_kind::container, n->dn_name, kw));
      if (id.kind != tok::end) {
        auto key = make(n, ddl_kind::leaf, n->dn_key, id);
        if (!value(id, n, n->dn_key_type, n->dn_key, key.get())) return false;
        if (ddl_object *prev = obj->child(n->dn_key)) {
          if (prev->text != key->text)
            return fail(id, "'%s' is already named '%s' (at %u:%u)", kw.text.c_str(), prev->text.c_str(),
                        prev->line, prev->col);
        } else {
          obj->add(std::move(key));
        }
      }
    }

    // Leaves written on the statement's own line.
    while (is_inline_leaf(n, peek())) {
      token lk = take();
      if (!leaf(obj, find_child(n, lk.text), lk)) return false;
    }

    token t = take();
    if (t.kind == tok::semi) return true;
    if (t.kind == tok::lbrace) {
      if (depth + 1 >= DDL_MAX_DEPTH) return fail(t, "nesting deeper than %u levels", DDL_MAX_DEPTH);
      return statements(obj, n, depth + 1, &t);
    }
    if (t.kind == tok::error) return fail_token(t);
    if (t.kind == tok::end) return fail(t, "missing ';' or '{' after '%s'", kw.text.c_str());
    if (t.kind == tok::word && find_child(n, t.text))
      return fail(t, "'%s' must be inside braces", t.text.c_str());
    return fail(t, "unexpected '%s' in '%s' (missing ';'?)", t.text.c_str(), kw.text.c_str());
  }

  // Statements up to the brace that closes `open` (or the end of the text at the top).
  bool statements(ddl_object *obj, const ddl_node *schema, unsigned depth, const token *open) {
    for (;;) {
      token t = take();
      switch (t.kind) {
        case tok::error:
          return fail_token(t);
        case tok::end:
          if (open) return fail(*open, "unterminated '{' (no '}' before the end of the file)");
          return true;
        case tok::rbrace:
          if (open) return true;
          return fail(t, "unexpected '}'");
        case tok::semi:
          return fail(t, "unexpected ';'");
        case tok::lbrace:
          return fail(t, "unexpected '{'");
        case tok::string:
          return fail(t, "a statement starts with a keyword, not a string");
        case tok::word:
          break;
      }
      const ddl_node *n = find_child(schema, t.text);
      if (!n) return unknown(t, obj);
      if (n->dn_type == DDL_CONTAINER) {
        if (!container(obj, n, t, depth)) return false;
      } else {
        if (!leaf(obj, n, t) || !end_of_statement(t)) return false;
      }
    }
  }
};

}  // namespace

bool ddl_parse(const std::string &file, const std::string &text, const ddl_node *root,
               std::unique_ptr<ddl_tree> *out) {
  auto tree = std::make_unique<ddl_tree>();
  tree->file = file;
  tree->root.schema = root;
  tree->root.line = tree->root.col = 1;
  parser p(file, text);
  if (!p.run(&tree->root)) return false;
  ddl_digest(&tree->root);
  *out = std::move(tree);
  return true;
}
