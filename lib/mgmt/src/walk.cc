// The table walk: words against the rows of one or more tables per level,
// sub-tables, catch-all rows, help listings, and the session commands.
#include <strings.h>

#include <cstring>

#include "internal.h"
#include "task/lifecycle.h"

namespace {

struct level {
  const mgmt_cmd *tables[MGMT_ROOTS_MAX + 1];
  uint32_t n;
};

const mgmt_cmd *catch_all(const mgmt_cmd *t) {
  while (t->cmd_name) t++;
  return t->cmd_next || t->cmd_method ? t : nullptr;
}

const mgmt_cmd *catch_all(const level &lv) {
  for (uint32_t i = 0; i < lv.n; i++)
    if (const mgmt_cmd *c = catch_all(lv.tables[i])) return c;
  return nullptr;
}

// Every named row once (rows of a name seen in an earlier table are merged).
int list_rows(mgmtPeer *mp, const level &lv) {
  const char *names[256];
  size_t count = 0;
  for (uint32_t i = 0; i < lv.n; i++)
    for (const mgmt_cmd *r = lv.tables[i]; r->cmd_name; r++) {
      bool seen = false;
      for (size_t k = 0; k < count && !seen; k++) seen = strcasecmp(names[k], r->cmd_name) == 0;
      if (!seen && count < sizeof names / sizeof names[0]) names[count++] = r->cmd_name;
    }
  for (size_t k = 0; k < count; k++) mgmt_reply(mp, MGMT_CODE_HELP, k + 1 < count, "%s", names[k]);
  return count ? 1 : 0;
}

int unrecognized(mgmtPeer *mp) {
  mgmt_reply(mp, MGMT_CODE_FAIL, 0, "Unrecognized command");
  return MGMT_CMD_DONE;
}

void enter(mgmt_cmd_ctx *ctx, uint32_t module_id) {
  ctx->mc_module_id = module_id;
  if (ctx->mc_depth < MGMT_DEPTH_SAVED) ctx->mc_module_ids[ctx->mc_depth] = module_id;
  ctx->mc_depth++;
}

char *next_word(char **rest) {
  char *w;
  do w = strsep(rest, " \t");
  while (w && !*w);
  return w;
}

int session_abort(mgmt_cmd_ctx *ctx, char *) {
  mgmtPeer *mp = ctx->mc_peer;
  if (mp->mp_generator) {
    noblock_fpurge(mp->mp_cookie);
    mgmt_generator_end(mp, 1);
    mgmt_reply(mp, MGMT_CODE_RESYNC, 1, "--RESYNC--");
  }
  mgmt_reply(mp, MGMT_CODE_RESYNC, 0, "Current output aborted");
  return MGMT_CMD_DONE;
}

int session_quit(mgmt_cmd_ctx *ctx, char *args) {
  session_abort(ctx, args);
  return MGMT_EVENT_QUIT;
}

}  // namespace

const mgmt_cmd mgmt_session_cmds[] = {
    {"abort", MGMT_MODULE_NONE, nullptr, session_abort},
    {"quit", MGMT_MODULE_NONE, nullptr, session_quit},
    {},
};

namespace {

int syntax_ok(mgmtPeer *mp) {
  mgmt_reply(mp, MGMT_CODE_SYNTAX_OK, 0, "Command syntax correct");
  return MGMT_CMD_DONE;
}

// The line stopped at this level: list it (help), or run the row that led
// here, or the level's catch-all.
int line_end(mgmt_cmd_ctx *ctx, const level &lv, const mgmt_cmd *ended) {
  mgmtPeer *mp = ctx->mc_peer;
  const mgmt_cmd *c = catch_all(lv);
  if (ctx->mc_flags & MGMT_CMD_HELP) {
    if (list_rows(mp, lv)) return MGMT_CMD_DONE;
    if (c && c->cmd_method) return c->cmd_method(ctx, nullptr);  // it sees the help flag
    return ended && ended->cmd_method ? syntax_ok(mp) : unrecognized(mp);
  }
  if (ended && ended->cmd_method) return ended->cmd_method(ctx, nullptr);
  return c && c->cmd_method ? c->cmd_method(ctx, nullptr) : unrecognized(mp);
}

// The first row named word, and in *down the sub-tables of every row so named.
const mgmt_cmd *find_rows(const level &lv, const char *word, level *down) {
  const mgmt_cmd *hit = nullptr;
  for (uint32_t i = 0; i < lv.n; i++)
    for (const mgmt_cmd *r = lv.tables[i]; r->cmd_name; r++) {
      if (strcasecmp(r->cmd_name, word) != 0) continue;
      if (!hit) hit = r;
      if (r->cmd_next && down->n < MGMT_ROOTS_MAX + 1) down->tables[down->n++] = r->cmd_next;
      break;
    }
  return hit;
}

char *args_of(char *rest) {
  while (rest && (*rest == ' ' || *rest == '\t')) rest++;
  return rest && *rest ? rest : nullptr;
}

}  // namespace

int mgmt_walk(mgmt_cmd_ctx *ctx, const mgmt_cmd *const *tables, uint32_t ntables, char *rest) {
  mgmtPeer *mp = ctx->mc_peer;
  level lv{};
  for (uint32_t i = 0; i < ntables && i < MGMT_ROOTS_MAX + 1; i++) lv.tables[lv.n++] = tables[i];
  const mgmt_cmd *ended = nullptr;  // the row whose sub-table we are in, for a line that stops there
  for (;;) {
    char *word = rest ? next_word(&rest) : nullptr;
    if (!word) return line_end(ctx, lv, ended);
    level down{};
    if (const mgmt_cmd *hit = find_rows(lv, word, &down)) {
      enter(ctx, hit->cmd_module_id);
      if (hit->cmd_module_id != MGMT_MODULE_NONE && !task_module_running(hit->cmd_module_id)) {
        mgmt_reply(mp, MGMT_CODE_FAIL, 0, "Module not running");
        return MGMT_CMD_DONE;
      }
      if (!hit->cmd_next) {
        if (ctx->mc_flags & MGMT_CMD_HELP) return syntax_ok(mp);
        return hit->cmd_method ? hit->cmd_method(ctx, args_of(rest)) : unrecognized(mp);
      }
      ended = hit;
      lv = down;
      continue;
    }
    const mgmt_cmd *c = catch_all(lv);
    if (!c) return unrecognized(mp);
    if (c->cmd_next) {  // the word is a value: kept, and the walk goes on below
      enter(ctx, c->cmd_module_id);
      if (ctx->mc_nvalues < MGMT_VALUES_MAX) ctx->mc_values[ctx->mc_nvalues++] = word;
      ended = c;
      lv = level{{c->cmd_next}, 1};
      continue;
    }
    if (rest) word[strlen(word)] = ' ';  // give back the space strsep cut
    return c->cmd_method(ctx, word);
  }
}

int mgmt_list_roots(mgmtPeer *mp) {
  level lv{{mgmt_session_cmds}, 1};
  for (uint32_t i = 0; i < mgmt_block.mv_nroots; i++) lv.tables[lv.n++] = mgmt_block.mv_roots[i];
  list_rows(mp, lv);
  return MGMT_CMD_DONE;
}

void mgmt_cmd_register(const mgmt_cmd *root_table) {
  mgmt_block.mv_nroots = 0;
  mgmt_cmd_mount(root_table);
}

void mgmt_cmd_mount(const mgmt_cmd *table) {
  if (!table) return;
  task_assert(mgmt_block.mv_nroots < MGMT_ROOTS_MAX);
  mgmt_block.mv_roots[mgmt_block.mv_nroots++] = table;
}
