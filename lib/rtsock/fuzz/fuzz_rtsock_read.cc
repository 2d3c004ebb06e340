// rtslib's reading side against a peer that sends anything. The input is a
// verdict byte, an accepted-count byte, then records, each a 16-bit length
// and its bytes; an in-process edge queues them behind every write. Plain
// reads, a get, a raw statistics get and a bulk batch of three take them: no
// answer is handed out that is not its request's, nothing is read or written
// outside its block, and every block is released.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rtslib.h"

namespace {

using Msg = std::vector<uint8_t>;

struct Peer {
  std::vector<Msg> records;  // what each write queues
  std::deque<Msg> queue;
  int bulk_verdict = 0;
  bool in_bulk = false;
  uint32_t bulk_status[3] = {};
} peer;

int fail_with(int e) {
  errno = e;
  return -1;
}
int op_open(void *) { return 42; }
int op_close(void *, int) { return 0; }
int op_setopt(void *, int, int, int, const void *, socklen_t) { return 0; }
int op_getopt(void *, int, int level, int name, void *v, socklen_t *len) {
  Msg val;
  if (level == SOL_SOCKET) {
    int x = name == SO_SNDBUF ? 4096 : 65536;
    val.assign(reinterpret_cast<uint8_t *>(&x), reinterpret_cast<uint8_t *>(&x) + 4);
  } else if (name == RTS_OPT_VERSION) {
    val.push_back(RTS_TYPE_COUNT - 1);
    val.push_back(RTS_IFACE_VERSION);
    for (unsigned t = 1; t <= RTS_TYPE_LAST; t++) val.push_back(rts_type_table[t].version);
  } else if (name == RTS_OPT_BULK_ERROR) {
    auto *b = reinterpret_cast<uint8_t *>(peer.bulk_status);
    val.assign(b, b + 12);
  } else {
    return fail_with(ENOPROTOOPT);
  }
  socklen_t n = val.size() < *len ? static_cast<socklen_t>(val.size()) : *len;
  memcpy(v, val.data(), n);
  *len = n;
  return 0;
}
ssize_t op_write(void *, int, const void *buf, size_t len) {
  (void)buf;
  peer.queue.assign(peer.records.begin(), peer.records.end());
  return peer.in_bulk && peer.bulk_verdict ? fail_with(peer.bulk_verdict) : static_cast<ssize_t>(len);
}
ssize_t op_read(void *, int, void *buf, size_t len) {
  if (peer.queue.empty()) return fail_with(EAGAIN);
  Msg m = std::move(peer.queue.front());
  peer.queue.pop_front();
  size_t n = m.size() < len ? m.size() : len;
  if (n) memcpy(buf, m.data(), n);
  return static_cast<ssize_t>(n);
}
ssize_t op_peek(void *, int, void *buf, size_t len) {
  if (peer.queue.empty()) return fail_with(EAGAIN);
  const Msg &m = peer.queue.front();
  if (size_t n = m.size() < len ? m.size() : len) memcpy(buf, m.data(), n);
  return static_cast<ssize_t>(m.size());
}
const rts_lower_ops kOps = {op_open, op_close, op_setopt, op_getopt, op_write, op_read, op_peek, nullptr};

void noop_log(rtslib_cookie *, void *, int, const char *) {}

void must(bool ok, const char *what) {
  if (!ok) {
    fprintf(stderr, "%s\n", what);
    abort();
  }
}

// The decoded answer's header against the request's; it formats.
void same(const void *reply, uint8_t type, uint32_t seq, uint8_t op) {
  auto *h = static_cast<const rts_msg_hdr *>(reply);
  must(h->type == type && h->seq == seq && h->operation == op, "handed out a reply that is not the answer");
  char line[512];
  rtslib_format_output(line, sizeof line, reply);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  rtslib_set_default_log(noop_log, nullptr);
  rts_lower_set(&kOps);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2 || size > (1u << 20)) return 0;
  peer = Peer{};
  peer.bulk_verdict = data[0] & 1 ? EAGAIN : 0;
  peer.bulk_status[0] = data[0] & 2 ? 0 : EAGAIN;
  peer.bulk_status[1] = data[1];
  peer.bulk_status[2] = 3;
  for (size_t pos = 2; pos + 2 <= size;) {
    size_t n = data[pos] | data[pos + 1] << 8;
    pos += 2;
    if (n > size - pos) n = size - pos;
    peer.records.emplace_back(data + pos, data + pos + n);
    pos += n;
  }
  rtslib_cookie *c = rtslib_open(7);
  must(c != nullptr, "open failed");

  // Plain reads until the queue is dry (a failed read may leave a record).
  peer.queue.assign(peer.records.begin(), peer.records.end());
  for (size_t k = 0; k <= peer.records.size() && !peer.queue.empty(); k++) {
    void *msg;
    if (rtslib_msg_read_idl(c, &msg) == 0) {
      char line[512];
      rtslib_format_output(line, sizeof line, msg);
    }
    rtslib_msg_idl_release(c, msg);
  }

  // A get and a raw statistics get: sequence numbers 1 and 2.
  rts_rt_msg *rt = nullptr;
  const uint8_t key[4] = {10, 0, 0, 1};
  if (rtslib_rtm_get(c, 0, RTS_AF_INET, key, 32, 0, 0, 0, 0, RTS_OP_GET, &rt, 0) == 0)
    same(rt, RTS_T_ROUTE, 1, RTS_OP_GET);
  rtslib_msg_idl_release(c, rt);
  rts_ifstats_msg *st = nullptr;
  rtslib_seq_error_register(c, [](rtslib_cookie *, void *, uint32_t, uint32_t) {}, nullptr);
  // A raw answer is matched by type and number only.
  if (rtslib_ifdsm_get_by_index(c, 3, &st) == 0)
    must(st->hdr.word0 == 0 && st->hdr.type == RTS_T_IFDSTATS && st->hdr.seq == 2,
         "handed out a raw record that is not the answer");
  rtslib_msg_idl_release(c, st);

  // A batch of three bridge-domain gets: 3, 4, 5. The array has a fourth
  // entry that the library must leave alone.
  must(rtslib_set_sync_mode(c, RTS_SYNC_BULK_ENABLE) == 0, "bulk mode refused");
  rts_bd_msg reqs[3] = {};
  rtslib_bulk_iov iov[4] = {};
  for (int i = 0; i < 3; i++) {
    reqs[i].hdr.type = RTS_T_BRIDGE_DOMAIN;
    reqs[i].hdr.operation = RTS_OP_GET;
    reqs[i].bdm_index = static_cast<uint16_t>(i + 1);
    iov[i].rbi_msg = &reqs[i];
  }
  iov[3] = {nullptr, nullptr, 12345, 12345};
  peer.in_bulk = true;
  rtslib_msg_writev_idl(c, 3, iov, nullptr);
  must(iov[3].rbi_reply == nullptr && iov[3].rbi_write_error == 12345 && iov[3].rbi_read_error == 12345,
       "bulk wrote past the array");
  for (int i = 0; i < 3; i++) {
    if (iov[i].rbi_reply) same(iov[i].rbi_reply, RTS_T_BRIDGE_DOMAIN, reqs[i].hdr.seq, RTS_OP_GET);
    rtslib_msg_idl_release(c, iov[i].rbi_reply);
  }
  rtslib_close(c);
  return 0;
}
