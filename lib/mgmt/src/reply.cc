// Answers: the numbered line, the accessors, flushing, and the generator
// that carries long answers.
#include <cstdlib>
#include <cstring>

#include "format/task_fmt.h"
#include "internal.h"

namespace {

mgmtPeer *checked(mgmtPeer *mp) {
  task_assert(mp != nullptr && mp->mp_task != nullptr);
  return mp;
}

// One write-ready step calls the generator until about this much is queued
// (small pieces wait for one send at the end of the step; large ones go out
// as they come), so a peer never holds more than this plus one piece; and at
// most this many times, so that a reader on another core that takes
// everything at once does not keep the loop in one step.
constexpr size_t kStepBytes = 256 * 1024;
constexpr int kStepCalls = 16;

void gen_step(task *, void *data) {
  auto *mp = static_cast<mgmtPeer *>(data);
  int more = 1;
  mp->mp_generating = 1;
  for (int calls = 0; more && calls < kStepCalls && mgmt_outstanding(mp) < kStepBytes; calls++) {
    more = mp->mp_generator(mp, mp->mp_gendata);
    fflush(mp->mp_file);  // into the queue only: the send comes after the step
  }
  mp->mp_generating = 0;
  if (!more) mgmt_generator_end(mp, 0);
}

// A block of text being sent as numbered lines.
struct text_job {
  char *tj_text;
  size_t tj_len, tj_off;
  int tj_code;
};

// About what one write-ready step hands to the socket: lines are formatted
// into one block and written at once, which stdio passes to the stream
// whole, so the socket sees a few large sends instead of one per page.
constexpr size_t kTextChunk = 65536;
char text_block[kTextChunk + 64];

// Lines from tj_off until about `budget` bytes went out; 1 while text remains.
int text_lines(mgmtPeer *mp, text_job *tj, size_t budget) {
  size_t used = 0;
  while (tj->tj_off < tj->tj_len && used < budget) {
    const char *p = tj->tj_text + tj->tj_off;
    size_t left = tj->tj_len - tj->tj_off;
    auto *nl = static_cast<const char *>(memchr(p, '\n', left));
    size_t n = nl ? static_cast<size_t>(nl - p) : left;
    size_t shown = n && p[n - 1] == '\r' ? n - 1 : n;
    if (used && used + shown + 6 > sizeof text_block) break;  // the next line starts the next block
    tj->tj_off += nl ? n + 1 : n;
    char mark = tj->tj_off >= tj->tj_len ? ' ' : '-';
    if (shown + 6 > sizeof text_block) {  // a line longer than a block goes out by itself
      fprintf(mp->mp_file, "%03d%c", tj->tj_code, mark);
      fwrite(p, 1, shown, mp->mp_file);
      fputs("\r\n", mp->mp_file);
      continue;
    }
    char *o = text_block + used;
    o[0] = static_cast<char>('0' + tj->tj_code / 100 % 10);
    o[1] = static_cast<char>('0' + tj->tj_code / 10 % 10);
    o[2] = static_cast<char>('0' + tj->tj_code % 10);
    o[3] = mark;
    memcpy(o + 4, p, shown);
    o[4 + shown] = '\r';
    o[5 + shown] = '\n';
    used += shown + 6;
  }
  if (used) fwrite(text_block, 1, used, mp->mp_file);
  return tj->tj_off < tj->tj_len;
}

int text_gen(mgmtPeer *mp, void *data) { return text_lines(mp, static_cast<text_job *>(data), kTextChunk); }
void text_close(mgmtPeer *, void *data, int) {
  auto *tj = static_cast<text_job *>(data);
  free(tj->tj_text);
  free(tj);
}

}  // namespace

void mgmt_vreply(mgmtPeer *mp, int code, int continued, const char *format, va_list ap) {
  FILE *f = checked(mp)->mp_file;
  char c = continued ? '-' : ' ';
  fprintf(f, "%03d%c", code, c);
  task_fmt_vfprintf(f, format, ap);
  fputs("\r\n", f);
  MGMT_TRACE("%s <--- %03d%c", mp->mp_name, code, c);
  if (!mp->mp_generating) fflush(f);
}

void mgmt_reply(mgmtPeer *mp, int code, int continued, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  mgmt_vreply(mp, code, continued, format, ap);
  va_end(ap);
}

int mgmt_reply_text(mgmtPeer *mp, int code, const char *text, size_t length) {
  checked(mp);
  if (length && text[length - 1] == '\n') length--;  // a final newline ends the last line, it adds none
  if (!length) {
    mgmt_reply(mp, code, 0, "");
    return MGMT_CMD_DONE;
  }
  text_job local{const_cast<char *>(text), length, 0, code};
  if (!text_lines(mp, &local, kTextChunk)) return MGMT_CMD_DONE;
  auto *tj = static_cast<text_job *>(malloc(sizeof(text_job)));
  tj->tj_len = length - local.tj_off;
  tj->tj_text = static_cast<char *>(malloc(tj->tj_len));
  memcpy(tj->tj_text, text + local.tj_off, tj->tj_len);
  tj->tj_off = 0;
  tj->tj_code = code;
  mgmt_generator(mp, text_gen, text_close, tj);
  return MGMT_CMD_SESSION;
}

task *mgmt_task(mgmtPeer *mp) { return checked(mp)->mp_task; }
noblock_cookie *mgmt_cookie(mgmtPeer *mp) { return checked(mp)->mp_cookie; }
FILE *mgmt_file(mgmtPeer *mp) { return checked(mp)->mp_file; }
int mgmt_xml_tag(mgmtPeer *mp) { return checked(mp)->mp_xml_tag; }

int mgmt_flush(mgmtPeer *mp) { return fflush(checked(mp)->mp_file) == 0 ? 0 : -1; }
size_t mgmt_outstanding(mgmtPeer *mp) { return noblock_outstanding(checked(mp)->mp_cookie); }

void mgmt_generator(mgmtPeer *mp, mgmt_generator_fn generator, mgmt_genclose_fn close, void *data) {
  checked(mp);
  task_assert(mp->mp_generator == nullptr);
  mp->mp_generator = generator;
  mp->mp_genclose = close;
  mp->mp_gendata = data;
  noblock_assign_generator(mp->mp_cookie, gen_step, nullptr, mp);
}

bool mgmt_active_session(const mgmtPeer *mp) { return mp && mp->mp_generator; }

void mgmt_generator_end(mgmtPeer *mp, int aborted) {
  if (!mp->mp_generator) return;
  if (noblock_generator_registered(mp->mp_cookie)) noblock_clear_generator(mp->mp_cookie);
  mgmt_genclose_fn close = mp->mp_genclose;
  void *data = mp->mp_gendata;
  mp->mp_generator = nullptr;
  mp->mp_genclose = nullptr;
  mp->mp_gendata = nullptr;
  if (close) close(mp, data, aborted);
  if (mgmt_block.mv_hooks.mh_output_done) mgmt_block.mv_hooks.mh_output_done(mp);
}
