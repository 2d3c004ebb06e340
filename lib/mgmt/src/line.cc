// Input: full lines cut from each peer's own buffer, the prefix words, and
// the run of a line.
#include <strings.h>

#include <cctype>
#include <cstring>

#include "internal.h"
#include "task/sched.h"

namespace {

// Words at the start of a line that change how the rest runs.
struct mgmt_prefix {
  const char *mpx_name;
  size_t mpx_len;
  uint32_t mpx_flag;
};
constexpr mgmt_prefix prefixes[] = {{"help", 4, MGMT_CMD_HELP}};

char *strip(char *line) {
  while (isspace(static_cast<unsigned char>(*line))) line++;
  size_t n = strlen(line);
  while (n && isspace(static_cast<unsigned char>(line[n - 1]))) line[--n] = '\0';
  return line;
}

uint32_t take_prefixes(char **line) {
  uint32_t flags = 0;
  for (bool again = true; again;) {
    again = false;
    for (const mgmt_prefix &p : prefixes) {
      char *l = *line;
      if (strncasecmp(l, p.mpx_name, p.mpx_len) != 0 || (l[p.mpx_len] != ' ' && l[p.mpx_len] != '\t')) continue;
      flags |= p.mpx_flag;
      l += p.mpx_len;
      while (*l == ' ' || *l == '\t') l++;
      *line = l;
      again = true;
    }
  }
  return flags;
}

}  // namespace

int mgmt_run_line(mgmtPeer *mp, char *line) {
  line = strip(line);
  if (mgmt_block.mv_hooks.mh_command) mgmt_block.mv_hooks.mh_command(mp, line);
  mgmt_cmd_ctx ctx{};
  ctx.mc_peer = mp;
  ctx.mc_module_id = MGMT_MODULE_NONE;
  // While output runs only the session commands are understood.
  if (mgmt_active_session(mp)) {
    const mgmt_cmd *session = mgmt_session_cmds;
    return mgmt_walk(&ctx, &session, 1, line);
  }
  ctx.mc_flags = take_prefixes(&line);
  const mgmt_cmd *roots[MGMT_ROOTS_MAX + 1] = {mgmt_session_cmds};
  for (uint32_t i = 0; i < mgmt_block.mv_nroots; i++) roots[i + 1] = mgmt_block.mv_roots[i];
  return mgmt_walk(&ctx, roots, mgmt_block.mv_nroots + 1, line);
}

void mgmtp_recv(task *tp) {
  auto *mp = static_cast<mgmtPeer *>(task_get_data(tp));
  mgmt_peer_touched(mp);
  char buf[MGMT_LINE_MAX + 2];
  for (;;) {
    if (noblock_fgets(buf, sizeof buf, mp->mp_cookie) < 0) {
      mgmtp_close(mp, MGMT_EVENT_EOF);
      return;
    }
    size_t n = strlen(buf);
    if (!n) return;  // the rest of a line is still to come
    bool whole = buf[n - 1] == '\n';
    if (mp->mp_discarding) {
      mp->mp_discarding = !whole;
      continue;
    }
    // A piece without its end fills the buffer, or is the last of the stream.
    if (!whole && n >= sizeof buf - 1) {
      mgmt_reply(mp, MGMT_CODE_TOO_LARGE, 0, "Unable to allocate buffer, command too large");
      mp->mp_discarding = 1;
      continue;
    }
    mp->mp_last = task_now.ut_sec;
    char *line = strip(buf);
    MGMT_TRACE("%s ---> %s", mp->mp_name, line);
    int rc = mgmt_run_line(mp, line);
    if (rc == MGMT_CMD_DONE) {
      mgmt_flush(mp);
    } else if (rc == MGMT_CMD_SESSION) {
      task_assert(mgmt_active_session(mp));
    } else if (rc == MGMT_CMD_CLOSED) {
      return;
    } else {
      mgmtp_close(mp, rc);
      return;
    }
  }
}
