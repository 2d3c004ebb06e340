// mmcqpeer: one end of a queue between processes (lib/mmcq), with messages
// that check themselves, for system tests.
//
//   mmcqpeer send NAME ID COUNT          COUNT messages of sender ID, in order
//   mmcqpeer recv NAME LOG ID:COUNT...   take them, logging each before it is taken
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <string>
#include <unistd.h>

#include "mmcq/mmcq.h"

namespace {

const char kUsage[] =
    "usage: mmcqpeer [options] send NAME ID COUNT\n"
    "                send COUNT messages of sender ID (0-999) in order, waiting while the queue is full\n"
    "       mmcqpeer [options] recv NAME LOG ID:COUNT...\n"
    "                take messages until every ID's last (COUNT-1) is in LOG; each is\n"
    "                checked, and logged (\"ID SEQ\" a line) before it is taken, so a\n"
    "                receiver killed in between logs it again after a restart\n"
    "options: -m BYTES  largest message (256)\n"
    "         -d BYTES  file size to start with and to grow by (8192)\n"
    "         -x BYTES  largest file size (1048576)\n"
    "NAME is the queue \"/mfs/var/mmcq/NAME\" under TAVOX_ROOT.\n"
    "Exit status: 0 done, 1 a message damaged or out of order, 2 usage,\n"
    "3 the queue could not be opened or a send failed, 4 (recv) messages waited\n"
    "10 s without a wake-up.\n";

int usage(FILE *f, int rc) {
  fputs(kUsage, f);
  return rc;
}

int misuse(const char *why) {
  fprintf(stderr, "mmcqpeer: %s\n", why);
  return usage(stderr, 2);
}

uint32_t max_msg = 256;
int64_t def_bytes = 8192, max_bytes = 1 << 20;

// A message: "ID SEQ " and a filler that both ends derive from the pair.
std::string make(int id, long seq) {
  std::string m = std::to_string(id) + " " + std::to_string(seq) + " ";
  size_t len = 16 + static_cast<size_t>(seq * 37 + id * 11) % (max_msg - 16);
  for (size_t i = m.size(); i < len; i++) m += static_cast<char>('a' + (id * 7 + seq + static_cast<long>(i)) % 26);
  return m;
}

bool number(const char *s, long lo, long hi, long *out) {
  char *end;
  errno = 0;
  long v = strtol(s, &end, 10);
  if (errno || end == s || *end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

int do_send(const char *name, int id, long count) {
  mmcq *s = mmcq_sender_create(name, nullptr, max_msg, def_bytes, max_bytes, 0, nullptr, nullptr);
  if (!s) {
    fprintf(stderr, "mmcqpeer: %s: cannot open the queue (%s)\n", name, mmcq_status_str(mmcq_last_status));
    return 3;
  }
  for (long seq = 0; seq < count;) {
    std::string m = make(id, seq);
    int st = mmcq_send(s, m.data(), static_cast<uint32_t>(m.size()));
    if (st == MMCQ_SUCCESS) {
      seq++;
    } else if (st == MMCQ_Q_FULL) {
      usleep(1000);
    } else {
      fprintf(stderr, "mmcqpeer: %s: send %ld failed: %s\n", name, seq, mmcq_status_str(st));
      return 3;
    }
  }
  mmcq_delete(s);
  return 0;
}

struct receiver_state {
  int log_fd;
  std::map<int, long> last;   // last SEQ logged, per ID
  std::map<int, long> want;   // COUNT per ID
  long duplicates = 0;
  int rc = 0;
  bool done() const {
    for (auto &w : want) {
      auto it = last.find(w.first);
      if (it == last.end() || it->second < w.second - 1) return false;
    }
    return true;
  }
};

// Every message waiting: checked, logged, then taken.
void on_wake(mmcq *q, void *cookie) {
  auto *st = static_cast<receiver_state *>(cookie);
  static char buf[1 << 16];
  while (st->rc == 0) {
    uint32_t len = max_msg;
    int status;
    uint32_t n = mmcq_peek(q, &len, buf, &status);
    if (!n) break;
    int id;
    long seq;
    std::string m(buf, n);
    if (sscanf(m.c_str(), "%d %ld ", &id, &seq) != 2 || make(id, seq) != m) {
      fprintf(stderr, "mmcqpeer: damaged message: %.60s\n", m.c_str());
      st->rc = 1;
      return;
    }
    auto it = st->last.find(id);
    long last = it == st->last.end() ? -1 : it->second;
    if (seq == last) {
      // Logged by a receiver killed before it took it.
      st->duplicates++;
      printf("redelivered %d %ld\n", id, seq);
      fflush(stdout);
    } else if (seq != last + 1) {
      fprintf(stderr, "mmcqpeer: sender %d: message %ld after %ld\n", id, seq, last);
      st->rc = 1;
      return;
    } else {
      char line[64];
      int k = snprintf(line, sizeof line, "%d %ld\n", id, seq);
      if (write(st->log_fd, line, static_cast<size_t>(k)) != k) {
        st->rc = 3;
        return;
      }
      st->last[id] = seq;
    }
    if (mmcq_get_next(q, sizeof buf, buf, &status) != n) {
      fprintf(stderr, "mmcqpeer: the message peeked was not the one taken\n");
      st->rc = 1;
      return;
    }
  }
}

int do_recv(const char *name, const char *log, receiver_state *st) {
  // What earlier receivers logged counts as done.
  if (FILE *f = fopen(log, "r")) {
    int id;
    long seq;
    while (fscanf(f, "%d %ld", &id, &seq) == 2) st->last[id] = seq;
    fclose(f);
  }
  st->log_fd = open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (st->log_fd < 0) {
    fprintf(stderr, "mmcqpeer: %s: %s\n", log, strerror(errno));
    return 3;
  }
  mmcq *r = mmcq_receiver_create(name, nullptr, max_msg, def_bytes, max_bytes, 0, on_wake, st, nullptr);
  if (!r) {
    fprintf(stderr, "mmcqpeer: %s: cannot open the queue (%s)\n", name, mmcq_status_str(mmcq_last_status));
    return 3;
  }
  printf("receiving\n");
  fflush(stdout);
  while (st->rc == 0 && !st->done()) {
    pollfd p = {mmcq_wake_fd(r), POLLIN, 0};
    int k = poll(&p, 1, 10000);
    if (k == 0 && mmcq_fill(r->q)) {
      fprintf(stderr, "mmcqpeer: %u bytes waiting, no wake-up for 10 s\n", mmcq_fill(r->q));
      return 4;
    }
    if (k > 0) mmcq_receiver_receive(r);
  }
  printf("received, %ld again after a restart\n", st->duplicates);
  mmcq_delete(r);
  return st->rc;
}

}  // namespace

int main(int argc, char **argv) {
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; i += 2) {
    if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h")) return usage(stdout, 0);
    long v;
    if (i + 1 >= argc || !number(argv[i + 1], 1, INT32_MAX, &v)) return misuse("an option needs a number");
    if (!strcmp(argv[i], "-m"))
      max_msg = static_cast<uint32_t>(v);
    else if (!strcmp(argv[i], "-d"))
      def_bytes = v;
    else if (!strcmp(argv[i], "-x"))
      max_bytes = v;
    else
      return misuse("unknown option");
  }
  if (max_msg < 32 || max_msg > 65000) return misuse("-m takes 32 to 65000");
  if (argc - i < 2) return misuse("a command (send or recv) and a queue NAME are needed");
  const char *cmd = argv[i], *name = argv[i + 1];
  long id, count;
  if (!strcmp(cmd, "send")) {
    if (argc - i != 4 || !number(argv[i + 2], 0, 999, &id) || !number(argv[i + 3], 1, INT32_MAX, &count))
      return misuse("send takes NAME ID COUNT");
    return do_send(name, static_cast<int>(id), count);
  }
  if (!strcmp(cmd, "recv")) {
    if (argc - i < 4) return misuse("recv takes NAME LOG and ID:COUNT pairs");
    receiver_state st;
    for (int k = i + 3; k < argc; k++) {
      const char *colon = strchr(argv[k], ':');
      if (!colon || !number(std::string(argv[k], static_cast<size_t>(colon - argv[k])).c_str(), 0, 999, &id) ||
          !number(colon + 1, 1, INT32_MAX, &count))
        return misuse("a pair is ID:COUNT");
      st.want[static_cast<int>(id)] = count;
    }
    return do_recv(name, argv[i + 2], &st);
  }
  return misuse("unknown command (send or recv)");
}
