// The bridge-domain and VNI tables, kept from route-socket messages of type
// 89: per routing table, bd_data by bridge-domain index (bd_tbl) and by VNI
// (vni_tbl), one object reached from both. The newest message wins: a VNI
// moves to the bridge domain announced last, and a bridge domain takes the
// VNI announced last.
#include <unistd.h>

#include <cstring>

#include "krt/krt.h"
#include "krt/krt_scan.h"
#include "mem/mem.h"
#include "tunechod.h"

namespace {

void *table_alloc(void *, size_t size) { return task_mem_malloc(nullptr, size); }
void table_free(void *, void *block) { task_mem_free(nullptr, block); }

const char *const op_names[] = {nullptr, "add", "change", "delete", "get", "getnext"};

// Removes a bridge domain from both tables of its routing table.
void unlink_bd(rtb_entry *rtb, const bd_data *bd) {
  uint32_t bd_key = bd->bd_id, vni_key = bd->vni;
  sparse_table16_delete(rtb->bd_tbl, &bd_key);
  sparse_table32_delete(rtb->vni_tbl, &vni_key);
}

int add_bd(const rts_bd_msg *m) {
  if (!(m->cfg_flags & TUNECHOD_BD_VXLAN)) return 1;
  const uint32_t rtb_id = m->rtb_id, bd_id = m->bdm_index, vni = m->vnid;

  rtb_entry *rtb = tunechod_rtb_find(rtb_id);
  if (!rtb) {
    rtb = static_cast<rtb_entry *>(task_mem_malloc(nullptr, sizeof *rtb));
    if (sparse_table16_insert(tunechod_app.rtb_tbl, rtb, &rtb_id) != 0) {
      TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "rtb_tbl insertion failed for rtb_id %u", rtb_id);
      task_mem_free(nullptr, rtb);
      return 0;
    }
    rtb->bd_tbl = sparse_table16_create(table_alloc, table_free, nullptr);
    rtb->vni_tbl = sparse_table32_create(table_alloc, table_free, nullptr);
  }
  TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "Adding [vni %u, bdm_index %u] to bd_tbl", vni, bd_id);

  bd_data *bd = static_cast<bd_data *>(sparse_table16_lookup(rtb->bd_tbl, &bd_id));
  if (bd) {
    if (bd->bd_id == bd_id && bd->vni == vni) {
      TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "[vni %u, bdm_index %u] already present", vni, bd_id);
      return 1;
    }
    // The bridge domain takes a new VNI: its old VNI must lead back to it.
    uint32_t old_vni = bd->vni;
    bd_data *other = static_cast<bd_data *>(sparse_table32_lookup(rtb->vni_tbl, &old_vni));
    if (other != bd) {
      uint32_t ovni = other ? other->vni : 0, obd = other ? other->bd_id : 0;
      TUNECHOD_ERROR("TUNECHOD_VNI_DELETE3_FAILED",
                     "Del(3) failed for [vni %u, bdm_index %u] - conflicts with [vni %u, bdm_index %u]", bd->vni,
                     static_cast<uint32_t>(bd->bd_id), ovni, obd);
      TUNECHOD_TRACE(DAEMON_TRACE_KERNEL,
                     "Del(3) failed for [vni %u, bdm_index %u] - conflicts with [vni %u, bdm_index %u]", bd->vni,
                     static_cast<uint32_t>(bd->bd_id), ovni, obd);
      return 0;
    }
    unlink_bd(rtb, bd);
    // The new VNI may belong to another bridge domain, which then loses it:
    // without this the other one would stay in bd_tbl with a VNI that no
    // longer leads back to it.
    if (bd_data *holder = static_cast<bd_data *>(sparse_table32_lookup(rtb->vni_tbl, &vni))) {
      TUNECHOD_TRACE(DAEMON_TRACE_KERNEL,
                     "Removing conflicting [vni %u, bdm_index %u] - before adding [vni %u, bdm_index %u]", holder->vni,
                     static_cast<uint32_t>(holder->bd_id), vni, bd_id);
      unlink_bd(rtb, holder);
      task_mem_free(nullptr, holder);
    }
  } else {
    bd = static_cast<bd_data *>(sparse_table32_lookup(rtb->vni_tbl, &vni));
    if (!bd) {
      bd = static_cast<bd_data *>(task_mem_malloc(nullptr, sizeof *bd));
    } else {
      // The VNI moves here from another bridge domain.
      uint32_t old_bd = bd->bd_id;
      TUNECHOD_TRACE(DAEMON_TRACE_KERNEL,
                     "Removing conflicting [vni %u, bdm_index %u] - before adding [vni %u, bdm_index %u]", bd->vni,
                     old_bd, vni, bd_id);
      bd_data *other = static_cast<bd_data *>(sparse_table16_lookup(rtb->bd_tbl, &old_bd));
      if (other != bd) {
        uint32_t ovni = other ? other->vni : 0, obd = other ? other->bd_id : 0;
        TUNECHOD_ERROR("TUNECHOD_VNI_DELETE_FAILED",
                       "Delete failed for [vni %u, bdm_index %u] - conflicts with [vni %u, bdm_index %u]", bd->vni,
                       old_bd, ovni, obd);
        TUNECHOD_TRACE(DAEMON_TRACE_KERNEL,
                       "Del failed for [vni %u, bdm_index %u] - conflicts with [vni %u, bdm_index %u]", bd->vni,
                       old_bd, ovni, obd);
        return 0;
      }
      unlink_bd(rtb, bd);
    }
  }

  bd->vni = vni;
  bd->bd_id = static_cast<uint16_t>(bd_id);
  bd->vlan = m->vlan.vlan;
  if (!tunechod_app.def_rtb_id_set) {
    tunechod_app.def_rtb_id = static_cast<uint16_t>(rtb_id);
    tunechod_app.def_rtb_id_set = 1;
  }
  if (sparse_table16_insert(rtb->bd_tbl, bd, &bd_id) != 0) {
    TUNECHOD_ERROR("TUNECHOD_BD_TBL_INSERTION_FAILED", "bd_tbl insertion failed for [vni %u, bdm_index %u] ", vni,
                   bd_id);
    TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "bd_tbl insertion failed for [vni %u, bdm_index %u] ", vni, bd_id);
    return 0;
  }
  TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "Adding [vni %u, bdm_index %u] to vni_tbl", vni, bd_id);
  if (sparse_table32_insert(rtb->vni_tbl, bd, &vni) != 0) {
    // No roll-back: the entry stays in bd_tbl.
    TUNECHOD_ERROR("TUNECHOD_VNI_TBL_INSERTION_FAILED", "vni_tbl insertion failed for [vni %u, bdm_index %u] ",
                   vni, bd_id);
    TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "vni_tbl insertion failed for [vni %u, bdm_index %u] ", vni, bd_id);
    return 0;
  }
  return 1;
}

int delete_bd(const rts_bd_msg *m) {
  const uint32_t rtb_id = m->rtb_id, bd_id = m->bdm_index;
  rtb_entry *rtb = tunechod_rtb_find(rtb_id);
  bd_data *bd = rtb ? static_cast<bd_data *>(sparse_table16_lookup(rtb->bd_tbl, &bd_id)) : nullptr;
  if (!bd) return 1;
  uint32_t vni = bd->vni;
  bd_data *other = static_cast<bd_data *>(sparse_table32_lookup(rtb->vni_tbl, &vni));
  if (other != bd) {
    uint32_t ovni = other ? other->vni : 0, obd = other ? other->bd_id : 0;
    TUNECHOD_ERROR("TUNECHOD_VNI_DELETE_FAILED",
                   "Delete failed for [vni %u, bdm_index %u] - conflicts with [vni %u, bdm_index %u]", vni, bd_id,
                   ovni, obd);
    TUNECHOD_TRACE(DAEMON_TRACE_KERNEL,
                   "Delete failed for [vni %u, bdm_index %u] - conflicts with [vni %u, bdm_index %u]", vni, bd_id,
                   ovni, obd);
    return 0;
  }
  TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "Deleting [vni %u, bdm_index %u] from bd_tbl and vni_tbl", vni, bd_id);
  unlink_bd(rtb, bd);
  task_mem_free(nullptr, bd);
  return 1;
}

}  // namespace

uint8_t tunechod_scan_complete;

void tunechod_tables_init(void) {
  tunechod_app.rtb_tbl = sparse_table16_create(table_alloc, table_free, nullptr);
}

rtb_entry *tunechod_rtb_find(uint32_t rtb_id) {
  if (!tunechod_app.rtb_tbl || rtb_id >= SPARSE16_LIMIT) return nullptr;
  return static_cast<rtb_entry *>(sparse_table16_lookup(tunechod_app.rtb_tbl, &rtb_id));
}

int tunechod_rtsock_decode_bd(void *message) {
  const rts_bd_msg *m = static_cast<const rts_bd_msg *>(message);
  const uint32_t op = m->hdr.operation, bd_id = m->bdm_index, rtb_id = m->rtb_id;
  if (op < RTS_OP_ADD || op > RTS_OP_GETNEXT) {
    TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "Received unknown message %u for bdm_index %u rtb_id %u", op, bd_id, rtb_id);
    return 0;
  }
  TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "Received BD %s for bdm_index %u rtb_id %u", op_names[op], bd_id, rtb_id);
  return op == RTS_OP_DELETE ? delete_bd(m) : add_bd(m);
}

// ---- The start-up scan ---------------------------------------------------------------

void tunechod_bd_scan_init(krt_scan_state *state) {
  uint16_t zero = 0;
  memcpy(state->priv, &zero, sizeof zero);
}

void tunechod_bd_scan_request(void *message, uint32_t *length, krt_scan_state *state) {
  rts_bd_msg *m = static_cast<rts_bd_msg *>(message);
  memset(m, 0, sizeof *m);
  m->hdr.version = 98;
  m->hdr.type = RTS_T_BRIDGE_DOMAIN;
  m->hdr.seq = krt_seq();
  m->hdr.sender = TUNECHOD_SENDER_ID;
  m->hdr.length = 200;
  m->hdr.size = 200;
  memcpy(&m->bdm_index, state->priv, sizeof m->bdm_index);
  m->hdr.operation = state->first_request ? RTS_OP_GET : RTS_OP_GETNEXT;
  *length = 200;
}

int tunechod_bd_scan_reply(void *message, uint32_t, krt_scan_state *state) {
  if (tunechod_rtsock_decode_bd(message) != 1) return 0;
  memcpy(state->priv, &static_cast<const rts_bd_msg *>(message)->bdm_index, sizeof(uint16_t));
  return 1;
}

// ---- The route-socket channel ------------------------------------------------------------

namespace {

void bd_handler(task *, void *message, uint32_t) { tunechod_rtsock_decode_bd(message); }

void bd_scan_done(void) {
  tunechod_scan_complete = 1;
  TUNECHOD_TRACE(DAEMON_TRACE_KERNEL, "start-up scan of bridge domains complete");
}

krt_handler_fn handlers[KRT_HANDLER_COUNT];

const krt_scan bd_scans[] = {{
    .table = RTS_T_BRIDGE_DOMAIN,
    .idl = 1,
    .state_size = sizeof(uint16_t),
    .first_get = 0,
    .skip = nullptr,
    .init = tunechod_bd_scan_init,
    .on_end = nullptr,
    .request = tunechod_bd_scan_request,
    .reply = tunechod_bd_scan_reply,
    .done = bd_scan_done,
}};

krt_config tunechod_krt_config = {
    .protocol = 0,
    .sender_id = TUNECHOD_SENDER_ID,
    .listen_mask = {0, 0x1000},  // bridge domains
    .fg_listen_mask = {0, 0},
    .loopback_mask = {0, 0},
    .async_mode_on = 1,
    .slave_mode = 0,
    .task = nullptr,
    .db_table = nullptr,
    .handlers = handlers,
    .fg_handlers = nullptr,
    .scans = bd_scans,
    .scan_count = 1,
    .fg_scans = nullptr,
    .fg_scan_count = 0,
    .current_scans = nullptr,
    .ifstate_resync = 0,
    .current_scan_count = 0,
    .multi_thread_queue = 0,
    .after_start = nullptr,
    .route_veto = 0,
    .filter_build = nullptr,
    .filter_release = nullptr,
};

}  // namespace

void tunechod_krt_init(void) {
  static bool done;
  if (done) return;
  done = true;
  handlers[RTS_T_BRIDGE_DOMAIN] = bd_handler;
  tunechod_tables_init();
  krt_start(&tunechod_krt_config);
}
