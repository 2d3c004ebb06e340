// libstats' accounting plumbing: subscriber, service and multicast requests
// and replies, the ingress queue of mobile replies, the session's trace file
// and its run-time settings. Comparing a reply with the subscriber database
// belongs to the subscriber store, which is not built yet: replies reach the
// application as they came.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>
#include <string>
#include <vector>

#include "libstats_int.h"
#include "platform/path.h"

namespace {

struct MobileQ {
  std::deque<std::vector<uint8_t>> q;
};

int send_cntd_request(libstats_session *s, uint32_t req, uint64_t sid) {
  if (!s) return LIBSTATS_NULL_SESSION;
  if (req > LS_CNTD_REQ_SERV_DELETE) return LIBSTATS_INVALID_ARG;
  uint8_t msg[LS_HDR_LEN + LS_CNTD_REQ_BODY];
  ls_hdr_write(msg, sizeof msg, LS_CNTD_REQUEST);
  ls_put32(msg + LS_HDR_LEN, req);
  ls_put32(msg + LS_HDR_LEN + 4, ls_next_id(s));
  ls_put64(msg + LS_HDR_LEN + 8, sid);
  ls_trace(s, LIBSTATS_TRACE_NORMAL, "%s request for sid:%llu", libstats_cntd_req_type_str(static_cast<int>(req)),
           static_cast<unsigned long long>(sid));
  return libstats_send_msg_to_cntd(s, msg, sizeof msg);
}

}  // namespace

int libstats_send_servstats_request(libstats_session *s, uint32_t req_kind, uint64_t sid) {
  return send_cntd_request(s, req_kind, sid);
}
int libstats_servstats_delete_by_sid(libstats_session *s, uint64_t sid) {
  return send_cntd_request(s, LS_CNTD_REQ_SERV_DELETE, sid);
}
int libstats_servstats_interim_delete_by_sid(libstats_session *s, uint64_t sid) {
  return send_cntd_request(s, LS_CNTD_REQ_SERV_INTERIM, sid);
}
int libstats_servstats_get_aggr_stats_from_db(libstats_session *s, uint64_t sid, void *) {
  if (!s) return LIBSTATS_NULL_SESSION;
  return ls_fail(s, LIBSTATS_KIND_SERV_OTHER, LIBSTATS_ERR_DB_LOOKUP, LIBSTATS_DB_OP_FAILED,
                 "no subscriber store: aggregate of sid:%llu not read", static_cast<unsigned long long>(sid));
}
int libstats_servstats_db_delete_by_sid(libstats_session *s, uint64_t sid) {
  if (!s) return LIBSTATS_NULL_SESSION;
  return ls_fail(s, LIBSTATS_KIND_SERV_OTHER, LIBSTATS_ERR_DB_LOOKUP, LIBSTATS_DB_OP_FAILED,
                 "no subscriber store: sid:%llu not deleted", static_cast<unsigned long long>(sid));
}

int libstats_mcast_request(libstats_session *s, int kind, uint32_t ifl, const uint8_t group[16]) {
  if (!s) return LIBSTATS_NULL_SESSION;
  if (kind < LIBSTATS_KIND_MCAST_FIRST || kind > LIBSTATS_KIND_MCAST_LAST) return LIBSTATS_INVALID_ARG;
  uint8_t msg[LS_HDR_LEN + LS_MCAST_REQ_BODY] = {};
  ls_hdr_write(msg, sizeof msg, LS_MCAST_REQUEST);
  ls_put32(msg + LS_HDR_LEN, static_cast<uint32_t>(kind));
  ls_put32(msg + LS_HDR_LEN + 4, ls_next_id(s));
  ls_put32(msg + LS_HDR_LEN + 8, ifl);
  if (group) memcpy(msg + LS_HDR_LEN + 12, group, 16);
  return libstats_send_msg_to_cntd(s, msg, sizeof msg);
}

bool ls_handle_acct_reply(libstats_session *s, const ls_reply &r, uint8_t *) {
  int kind = static_cast<int>(r.index);
  bool final = r.flags & LS_REPLY_FINAL;
  unsigned long long sid = r.key;
  libstats_acct_fn cb = nullptr;
  switch (r.type) {
    case LS_SUBSTATS_REPLY:
    case LS_SUBSTATS_OTHER_REPLY:
      // libstats_post_process_substats_msg: the database comparison waits for the subscriber store.
      cb = s->cb.substats;
      if (kind == LIBSTATS_KIND_SUB_INTERIM)
        ls_trace(s, LIBSTATS_TRACE_NORMAL, "send interim stats for sid:%llu, id:%d flags:0x%x ls_final:0x%x err:%d",
                 sid, r.id, r.flags, final, r.err);
      else if (kind == LIBSTATS_KIND_SUB_THRESHOLD)
        ls_trace(s, LIBSTATS_TRACE_NORMAL, "send threshold stats for sid:%llu, id:%d flags:0x%x ls_final:0x%x err:%d",
                 sid, r.id, r.flags, final, r.err);
      else
        ls_trace(s, LIBSTATS_TRACE_NORMAL, "send stats for sid:%llu, id:%d flags:0x%x ls_final:0x%x err:%d", sid,
                 r.id, r.flags, final, r.err);
      break;
    case LS_SERVSTATS_REPLY:
      // libstats_post_process_servstats_msg
      cb = s->cb.servstats;
      ls_trace(s, LIBSTATS_TRACE_NORMAL, "send stats for sid:%llu, id:%d flags:0x%x ls_final:0x%x err:%d", sid, r.id,
               r.flags, final, r.err);
      break;
    default:
      cb = s->cb.mcaststats;
  }
  if (r.err && kind >= 0 && kind < LIBSTATS_KIND_COUNT) s->counters.errors[kind][LIBSTATS_ERR_PFE]++;
  if (cb) cb(s, kind, r.key, r.id, r.err, r.tlv, r.tlv_len, s->app_ctx);
  return false;
}

bool ls_handle_mobile_reply(libstats_session *s, uint8_t *buf, uint32_t len) {
  if (!s->mobile_q) s->mobile_q = new (std::nothrow) MobileQ;
  if (!s->mobile_q) {
    ls_fail(s, LIBSTATS_KIND_SUB_OTHER, LIBSTATS_ERR_MEMORY, LIBSTATS_MEMORY_ALLOC_FAILURE,
            "no memory to queue a mobile reply");
    return false;
  }
  // libstats_q_ingress_insert
  static_cast<MobileQ *>(s->mobile_q)->q.emplace_back(buf, buf + len);
  return false;
}

uint32_t libstats_q_ingress_depth(const libstats_session *s) {
  return s && s->mobile_q ? static_cast<uint32_t>(static_cast<MobileQ *>(s->mobile_q)->q.size()) : 0;
}

uint32_t libstats_process_mobilestats_msg(libstats_session *s) {
  if (!s || !s->mobile_q) return 0;
  auto &q = static_cast<MobileQ *>(s->mobile_q)->q;
  uint32_t n = 0;
  while (!q.empty() && (s->ingress_q_process_rate_max == 0 || n < s->ingress_q_process_rate_max)) {
    std::vector<uint8_t> m = std::move(q.front());
    q.pop_front();
    ls_reply r{};
    if (ls_reply_read(m.data(), static_cast<uint32_t>(m.size()), &r) && s->cb.mobilestats)
      s->cb.mobilestats(s, static_cast<int>(r.index), r.key, r.id, r.err, r.tlv, r.tlv_len, s->app_ctx);
    n++;
  }
  return n;
}

void ls_mobile_q_free(libstats_session *s) {
  delete static_cast<MobileQ *>(s->mobile_q);
  s->mobile_q = nullptr;
}

// ---- Trace file and settings ------------------------------------------------------------
// Body of type 11: u32 flags, then the file's logical name (empty: "/var/log/cntd_libstats").
void ls_trace_on(libstats_session *s, const uint8_t *body, uint32_t len) {
  ls_trace_off(s);
  uint32_t flags = len >= 4 ? ls_get32(body) : LIBSTATS_TRACE_NORMAL;
  std::string name(len > 4 ? reinterpret_cast<const char *>(body + 4) : "", len > 4 ? strnlen(reinterpret_cast<const char *>(body + 4), len - 4) : 0);
  if (name.empty()) name = "/var/log/cntd_libstats";
  std::string real = tvx_path(name.c_str());
  FILE *f = real.empty() ? nullptr : fopen(real.c_str(), "a");
  if (!f) {
    ls_log(true, "cannot open the trace file %s", real.c_str());
    return;
  }
  s->trace_file = f;
  s->trace_flags = flags;
}

void ls_trace_off(libstats_session *s) {
  if (s->trace_file) fclose(static_cast<FILE *>(s->trace_file));
  s->trace_file = nullptr;
  s->trace_flags = 0;
}

void libstats_update_flags(libstats_session *s, uint32_t new_flags) {
  if (!s) return;
  ls_log(false, "flag:0x%x new_flag:0x%x", s->session_flags, new_flags);
  s->session_flags = new_flags;
}

int libstats_update_dyn_param(libstats_session *s, uint32_t param_set_flag, uint32_t value) {
  if (!s || !(param_set_flag & LIBSTATS_PARAM_INGRESS_Q_RATE) || (param_set_flag & ~LIBSTATS_PARAM_INGRESS_Q_RATE)) {
    ls_log(true, "param_set_flag %x ingress_q_process_rate_max=%u update failed", param_set_flag, value);
    return s ? LIBSTATS_INVALID_ARG : LIBSTATS_NULL_SESSION;
  }
  s->ingress_q_process_rate_max = value;
  ls_log(false, "param_set_flag %x ingress_q_process_rate_max=%u updated successfully", param_set_flag, value);
  return LIBSTATS_SUCCESS;
}
