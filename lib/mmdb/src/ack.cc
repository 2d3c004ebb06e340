// Acknowledgements: the cookie each change stamps in a record of a database
// with acks, the ack registry of the processes that write such databases,
// and the ack queues by which the replicator tells a writer that a change
// of its has been stored. Docs in mmdb.h and docs/mmdb.md.
#include <unistd.h>

#include <cerrno>
#include <map>

#include "internal.h"
#include "mmcq/aack.h"
#include "platform/path.h"

namespace {

pthread_mutex_t mu = PTHREAD_MUTEX_INITIALIZER;
mmf *reg_file;
mmdb_ack_registry_t *reg;
std::string reg_root;
int my_entry = -1;
std::string my_name;
uint32_t my_instance;
mmcq *ackq;                               // this process's ack queue (writers)
std::string ackq_name;
// The writers' queues (the replicator), kept for the process's life: never
// destroyed at exit, so the handles stay reachable.
std::map<std::string, mmcq *> &senders = *new std::map<std::string, mmcq *>;
aack ledger;
std::string held;                         // an ack handed out short of room
uint32_t seq;

struct {
  uint32_t queued, dequeued, all_calls, get_calls, acked_not_acked, old_pid, null_rec, from_dupd, different_pid,
      not_sent, no_dupd, rep_disabled, prev_rep, send_fail, existing_pending;
} cnt;

#pragma pack(push, 4)
struct ack_msg {
  uint16_t db_id;
  uint16_t keylen;
  uint32_t rep_pid;
  uint32_t start_count;
  uint64_t cookie;
};
#pragma pack(pop)
static_assert(sizeof(ack_msg) == 20);

constexpr uint32_t kAckMsgBytes = sizeof(ack_msg) + MMDB_MAX_KEYLEN;
constexpr int64_t kAckQueueDefault = 64 << 10, kAckQueueMax = 4 << 20;

// The registry, opened (and made) on first use; mu held.
mmdb_ack_registry_t *registry(bool create) {
  if (reg && reg_file && reg_root == (tvx_path_root() ? tvx_path_root() : "")) return reg;
  reg = nullptr;
  my_entry = -1;
  char name[128];
  snprintf(name, sizeof name, MMDB_ACK_REGISTRY_FMT, MMDB_DIR);
  bool created = false;
  auto *block = static_cast<mmdb_ack_registry_t *>(
      mmdb_block_file(name, MMDB_ACK_REGISTRY_BYTES, create, &reg_file, &reg_root, &created));
  if (!block) return nullptr;
  // All zeroes is the empty registry: a file made (or rebuilt) just now is wiped.
  if (created) {
    mmf_lock(reg_file);
    memset(block, 0, MMDB_ACK_REGISTRY_BYTES);
    mmf_unlock(reg_file);
  }
  reg = block;
  return reg;
}

// A queue name holds letters, digits, '_', '-' and '.'; the rest become '_'.
std::string queue_name(const char *name, uint32_t instance) {
  std::string n;
  for (const char *p = name; *p && n.size() < 40; p++)
    n += (isalnum(static_cast<unsigned char>(*p)) || *p == '-' || *p == '.') ? *p : '_';
  char out[MMCQ_NAME_MAX];
  snprintf(out, sizeof out, MMDB_ACK_QUEUE_FMT, n.c_str(), static_cast<int>(instance));
  return out;
}

std::string entry_name(const mmdb_ack_entry_t &e) { return std::string(e.name, strnlen(e.name, sizeof e.name)); }

}  // namespace

void mmdb_ack_set_identity(const char *name, uint32_t instance) {
  pthread_mutex_lock(&mu);
  my_name = name ? std::string(name).substr(0, 59) : "";
  my_instance = instance;
  pthread_mutex_unlock(&mu);
}

const mmdb_ack_registry_t *mmdb_ack_registry_peek(void) {
  pthread_mutex_lock(&mu);
  const mmdb_ack_registry_t *r = registry(false);
  pthread_mutex_unlock(&mu);
  return r;
}

int mmdb_ack_join(void) {
  pthread_mutex_lock(&mu);
  mmdb_ack_registry_t *r = registry(true);
  if (!r) {
    pthread_mutex_unlock(&mu);
    return MMDB_NOMEM;
  }
  uint32_t me = static_cast<uint32_t>(getpid());
  if (my_name.empty()) my_name = std::string(program_invocation_short_name).substr(0, 59);
  mmf_lock(reg_file);
  if (my_entry >= 0 && r->entry[my_entry].pid != me) my_entry = -1;  // wiped by someone who thought us dead
  int take = my_entry;
  if (take < 0) {
    for (mmdb_ack_entry_t &e : r->entry)
      if (e.pid && e.pid != me && !mmf_pid_alive(static_cast<pid_t>(e.pid))) memset(&e, 0, sizeof e);
    // A live process of the same name and instance owns that ack queue: the
    // next instance no live process holds is ours.
    uint32_t inst = my_instance;
    for (bool clash = true; clash;) {
      clash = false;
      for (const mmdb_ack_entry_t &e : r->entry)
        if (e.pid && e.pid != me && e.instance == inst && entry_name(e) == my_name) clash = true;
      if (clash) inst++;
    }
    int own = -1, free_slot = -1;
    for (int i = 0; i < MMDB_ACK_ENTRIES; i++) {
      const mmdb_ack_entry_t &e = r->entry[i];
      if (own < 0 && (!e.pid || e.pid == me) && e.instance == inst && entry_name(e) == my_name) own = i;
      if (free_slot < 0 && !e.pid && !e.name[0]) free_slot = i;
    }
    take = own >= 0 ? own : free_slot;
    if (take >= 0) {
      mmdb_ack_entry_t &e = r->entry[take];
      memset(&e, 0, sizeof e);
      memcpy(e.name, my_name.data(), my_name.size());
      e.instance = inst;
      __atomic_store_n(&e.pid, me, __ATOMIC_RELEASE);
      my_entry = take;
    }
  }
  uint32_t joined = take >= 0 ? r->entry[take].instance : 0;
  mmf_unlock(reg_file);
  if (take < 0) {
    pthread_mutex_unlock(&mu);
    return MMDB_NOMEM;
  }
  if (!ackq) {
    ackq_name = queue_name(my_name.c_str(), joined);
    ackq = mmcq_receiver_create(ackq_name.c_str(), nullptr, kAckMsgBytes, kAckQueueDefault, kAckQueueMax, 0, nullptr,
                                nullptr, nullptr);
  }
  int st = ackq ? MMDB_SUCCESS : MMDB_NOMEM;
  pthread_mutex_unlock(&mu);
  return st;
}

void mmdb_ack_rep_running(bool running) {
  pthread_mutex_lock(&mu);
  if (mmdb_ack_registry_t *r = registry(running)) {
    mmf_lock(reg_file);
    uint32_t me = static_cast<uint32_t>(getpid());
    if (running) {
      r->rep_pid = me;
      r->start_count++;
      r->running = 1;
    } else if (r->rep_pid == me) {
      r->running = 0;
    }
    mmf_unlock(reg_file);
  }
  pthread_mutex_unlock(&mu);
}

void mmdb_ack_stamp(mmdb *db, const void *key, uint32_t keylen) {
  uint32_t b;
  uint64_t prev, off;
  mmdb_record_t *e = mmdb_find_record(db, key, keylen, &b, &prev, &off);
  if (!e) return;
  uint32_t n = __atomic_add_fetch(&seq, 1u, __ATOMIC_RELAXED);
  if (!n) n = __atomic_add_fetch(&seq, 1u, __ATOMIC_RELAXED);  // 0 means no cookie
  uint64_t cookie = static_cast<uint64_t>(getpid()) << 32 | n;
  if (e->eflag & MMDB_EF_ACK_PENDING) cnt.existing_pending++;
  memcpy(mmdb_rec_key(e) + e->keylen, &cookie, 8);
  e->eflag |= MMDB_EF_ACK_PENDING;
  if (!__atomic_load_n(&db->hdr->reps_want_msgs, __ATOMIC_ACQUIRE)) cnt.rep_disabled++;
  pthread_mutex_lock(&mu);
  if (!reg || !__atomic_load_n(&reg->running, __ATOMIC_ACQUIRE)) cnt.no_dupd++;
  pthread_mutex_unlock(&mu);
  mmdb_unlock_bucket(db, b);
}

uint64_t mmdb_record_cookie(mmdb *db, mmdb_record_t *e) {
  if (!db->cookie_bytes) return 0;
  uint64_t c;
  memcpy(&c, mmdb_rec_key(e) + e->keylen, 8);
  return c;
}

int mmdb_process_ack_from_rep(mmdb_iterator *it, const void *key, uint32_t keylen, uint64_t cookie) {
  cnt.all_calls++;
  mmdb *db = mmdb_iterator_db(it);
  if (!db || !key || !keylen || keylen > MMDB_MAX_KEYLEN) return MMDB_INVALID_ARG;
  if (mmdb_is_invalid(db)) return MMDB_CORRUPT;
  if (!cookie || !db->cookie_bytes) {
    cnt.not_sent++;
    return MMDB_SUCCESS;
  }
  uint32_t b;
  uint64_t prev, off;
  mmdb_record_t *e = mmdb_find_record(db, key, keylen, &b, &prev, &off);
  if (!e) {
    cnt.null_rec++;
    return MMDB_SUCCESS;
  }
  if (mmdb_record_cookie(db, e) != cookie || !(e->eflag & MMDB_EF_ACK_PENDING)) {
    // A later change is on its way; its own ack will follow.
    cnt.acked_not_acked++;
    mmdb_unlock_bucket(db, b);
    return MMDB_SUCCESS;
  }
  e->eflag &= ~MMDB_EF_ACK_PENDING;
  mmdb_unlock_bucket(db, b);

  pthread_mutex_lock(&mu);
  mmdb_ack_registry_t *r = registry(false);
  uint32_t pid = static_cast<uint32_t>(cookie >> 32);
  int idx = -1;
  for (int i = 0; r && i < MMDB_ACK_ENTRIES && idx < 0; i++)
    if (__atomic_load_n(&r->entry[i].pid, __ATOMIC_ACQUIRE) == pid) idx = i;
  if (idx < 0) {
    cnt.old_pid++;  // the writer is gone: nobody waits for this ack
    pthread_mutex_unlock(&mu);
    return MMDB_SUCCESS;
  }
  std::string qn = queue_name(entry_name(r->entry[idx]).c_str(), r->entry[idx].instance);
  mmcq *&s = senders[qn];
  if (!s) {
    s = mmcq_sender_create(qn.c_str(), nullptr, kAckMsgBytes, kAckQueueDefault, kAckQueueMax, 0, nullptr, nullptr);
    if (s) s->print = 0;
  }
  uint8_t msg[kAckMsgBytes];
  ack_msg h = {static_cast<uint16_t>(db->id), static_cast<uint16_t>(keylen), static_cast<uint32_t>(getpid()),
               r->start_count, cookie};
  memcpy(msg, &h, sizeof h);
  memcpy(msg + sizeof h, key, keylen);
  if (s && mmcq_send(s, msg, static_cast<uint32_t>(sizeof h + keylen)) == MMCQ_SUCCESS)
    cnt.queued++;
  else
    cnt.send_fail++;
  pthread_mutex_unlock(&mu);
  return MMDB_SUCCESS;
}

int mmdb_ack_get_next(uint32_t *db_id, void *key, uint32_t *keylen, uint64_t *cookie) {
  if (!keylen || !key) return MMDB_INVALID_ARG;
  pthread_mutex_lock(&mu);
  cnt.get_calls++;
  if (held.empty()) {
    uint32_t len;
    const void *data;
    // The ledger's acknowledged head first; when it is through, what the
    // queue holds now becomes the next group.
    while (aack_id_get_next(&ledger, &len, &data) != AACK_SUCCESS) {
      if (ledger.first) continue;  // the head was freed: the next one is up
      aack_id *id = nullptr;
      uint8_t buf[kAckMsgBytes];
      int st;
      while (ackq) {
        uint32_t n = mmcq_get_next(ackq, sizeof buf, buf, &st);
        if (!n) break;
        if (n < sizeof(ack_msg)) continue;
        if (!id) id = aack_id_create(&ledger);
        if (!id || aack_id_add(id, n, buf) != AACK_SUCCESS) break;
      }
      if (!id) {
        pthread_mutex_unlock(&mu);
        return MMDB_NOT_FOUND;
      }
      aack_id_ack(&ledger, id);
    }
    held.assign(static_cast<const char *>(data), len);
    ack_msg h;
    memcpy(&h, held.data(), sizeof h);
    if (reg && h.rep_pid == reg->rep_pid)
      cnt.from_dupd++;
    else
      cnt.different_pid++;
    if (reg && h.start_count != reg->start_count) cnt.prev_rep++;
    cnt.dequeued++;
  }
  ack_msg h;
  memcpy(&h, held.data(), sizeof h);
  if (*keylen < h.keylen) {
    *keylen = h.keylen;
    pthread_mutex_unlock(&mu);
    return MMDB_BUFFER_TOO_SMALL;
  }
  memcpy(key, held.data() + sizeof h, h.keylen);
  *keylen = h.keylen;
  if (db_id) *db_id = h.db_id;
  if (cookie) *cookie = h.cookie;
  held.clear();
  pthread_mutex_unlock(&mu);
  return MMDB_SUCCESS;
}

int mmdb_ack_pending(mmdb *db, const void *key, uint32_t keylen, bool *pending) {
  if (!db || !key || !pending) return MMDB_INVALID_ARG;
  uint32_t b;
  uint64_t prev, off;
  mmdb_record_t *e = mmdb_find_record(db, key, keylen, &b, &prev, &off);
  if (!e) return MMDB_NOT_FOUND;
  *pending = (e->eflag & MMDB_EF_ACK_PENDING) != 0;
  mmdb_unlock_bucket(db, b);
  return MMDB_SUCCESS;
}

void mmdb_ack_report(FILE *f) {
  fprintf(f, "ack queued cnt                %12u\n", cnt.queued);
  fprintf(f, "ack dequeued cnt              %12u    %s\n", cnt.dequeued, ackq_name.c_str());
  fprintf(f, "ack all call cnt              %12u\n", cnt.all_calls);
  fprintf(f, "get ack call cnt              %12u\n", cnt.get_calls);
  fprintf(f, "get acked not acked cnt       %12u\n", cnt.acked_not_acked);
  fprintf(f, "get ack old pid cnt           %12u\n", cnt.old_pid);
  fprintf(f, "get ack null cnt              %12u\n", cnt.null_rec);
  fprintf(f, "from dupd cnt                 %12u\n", cnt.from_dupd);
  fprintf(f, "different pid cnt             %12u\n", cnt.different_pid);
  fprintf(f, "not sent cnt                  %12u\n", cnt.not_sent);
  fprintf(f, "no dupd cnt                   %12u\n", cnt.no_dupd);
  fprintf(f, "rep disabled cnt              %12u\n", cnt.rep_disabled);
  fprintf(f, "prev rep cnt                  %12u\n", cnt.prev_rep);
  fprintf(f, "send fail cnt                 %12u\n", cnt.send_fail);
  fprintf(f, "existing pending ack cnt      %12u    FAILED\n", cnt.existing_pending);
}

void mmdb_ack_close(void) {
  pthread_mutex_lock(&mu);
  if (reg && my_entry >= 0 && reg->entry[my_entry].pid == static_cast<uint32_t>(getpid())) {
    mmf_lock(reg_file);
    memset(&reg->entry[my_entry], 0, sizeof reg->entry[my_entry]);
    mmf_unlock(reg_file);
  }
  my_entry = -1;
  if (ackq) mmcq_delete(ackq);
  ackq = nullptr;
  for (auto &s : senders)
    if (s.second) mmcq_delete(s.second);
  senders.clear();
  aack_flush(&ledger);
  held.clear();
  if (reg_file) mmf_close(reg_file);
  reg_file = nullptr;
  reg = nullptr;
  cnt = {};
  pthread_mutex_unlock(&mu);
}
