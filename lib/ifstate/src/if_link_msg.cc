// Logical interfaces: the iflogical message.
#include <cstdio>

#include "ifstate_internal.h"

namespace {

if_rtsock_filter_fn iflogical_filter;

template <class T>
void set(T &field, const T &value, bool *changed) {
  if (field != value) {
    field = value;
    *changed = true;
  }
}

bool update_vtep(if_link *ifl, const rts_ifl_vtep &v) {
  if (!v.flags) {
    if (!ifl->ifl_vtep) return false;
    ifs::vtep_free(ifl->ifl_vtep);
    ifl->ifl_vtep = nullptr;
    return true;
  }
  if (!ifl->ifl_vtep) ifl->ifl_vtep = ifs::vtep_alloc();
  if_link_vtep_data_t d{};
  d.vtep_flags = v.flags;
  d.vtep_udp_port = v.udp_port;
  memcpy(d.vtep_src, v.src, sizeof d.vtep_src);
  if (!memcmp(&d, ifl->ifl_vtep, sizeof d)) return false;
  *ifl->ifl_vtep = d;
  return true;
}

bool ifl_update_df_role_info(if_link *ifl, uint8_t role) {
  if (ifl->ifl_df_role == role) return false;
  ifl->ifl_df_role = role;
  IF_TRACE("New DF state is %d", int(role));
  return true;
}

}  // namespace

void if_rtsock_iflogical_filter_set(if_rtsock_filter_fn fn) { iflogical_filter = fn; }

int if_rtsock_decode_iflogical(void *message, uint32_t) {
  auto *m = static_cast<rts_ifl_msg *>(message);
  if (!if_rtsock_iflogical_sanity(m)) return 0;
  if (m->iflm_index == 0) return 1;
  if (iflogical_filter && iflogical_filter(m)) return 1;
  if_link *ifl = ifl_find_by_index(m->iflm_index);
  if (ifl) ifl->ifl_change = 0;
  if (m->hdr.operation == RTS_OP_DELETE) {
    if (ifl) if_link_delete(ifl);
    return 1;
  }
  if_device *ifd = ifd_find_by_index(m->iflm_ifd_index);
  if (!ifd) {
    IF_TRACE("%s msg: unknown device %d", "iflogical", int(m->iflm_ifd_index));
    return 1;
  }
  char name[IF_NAME_SIZE];
  ifs::link_name(name, ifd->ifd_name, m->iflm_unit);
  if (ifl && (ifl->ifl_ifd != ifd || ifl->ifl_unit != m->iflm_unit)) {
    IF_TRACE("iflogical msg: index %u re-used by %s, %s deleted", m->iflm_index, name, ifl->ifl_name);
    if_link_delete(ifl);
    ifl = nullptr;
  }
  if (ifl_name_conflict(m->iflm_index, name)) {
    IF_TRACE("%s msg: name and index do not match in internal db", "iflogical");
    return 0;
  }
  bool created = !ifl, c = false;
  if (created) ifl = ifl_create_internal(ifd, m->iflm_index, m->iflm_unit);
  uint32_t old_agg = ifl->ifl_agg_index;
  set(ifl->ifl_flags, m->iflm_flags, &c);
  set(ifl->ifl_instance, m->iflm_rtb_id, &c);
  set(ifl->ifl_snmp_index, m->iflm_snmp_index, &c);
  set(ifl->ifl_encaps, m->iflm_encaps, &c);
  set(ifl->ifl_vlan, m->iflm_vlan, &c);
  set(ifl->ifl_bandwidth, m->iflm_bandwidth, &c);
  set(ifl->ifl_agg_index, m->iflm_agg_index, &c);
  uint16_t weight = m->iflm_bw_weight ? m->iflm_bw_weight : uint16_t(IF_BW_WEIGHT_DEFAULT);
  set(ifl->ifl_bw_weight, weight, &c);
  c = ifl_update_df_role_info(ifl, m->iflm_df_role) || c;
  c = update_vtep(ifl, m->iflm_vtep) || c;
  ifl->ifl_change = created ? IF_CHANGE_NEW : c ? IF_CHANGE_CHANGED : 0u;
  char fl[128];
  IF_TRACE("%s msg: %s for %s (%lu) flags: %s", "iflogical", rts_op_name(m->hdr.operation), ifl->ifl_name,
           static_cast<unsigned long>(ifl->ifl_index), if_flags_text(ifl->ifl_flags, fl, sizeof fl));
  task_iflchange(ifl, IF_IN_CHANGE, 0);
  if (ifl->ifl_agg_index != old_agg) {
    if_agg_member member{ifl, old_agg, ifl->ifl_agg_index};
    task_ifl_agg_change(ifl, &member);
  }
  return 1;
}
