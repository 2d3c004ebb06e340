// Devices: the ifdev message, aggregates and the removal of a device.
#include <cstdio>

#include "ifstate_internal.h"

namespace {

if_rtsock_filter_fn ifdev_filter;
uint32_t waiting_members;  // members whose aggregate parent is not there yet

template <class T>
void set(T &field, const T &value, bool *changed) {
  if (memcmp(&field, &value, sizeof(T)) != 0) {
    field = value;
    *changed = true;
  }
}

// Announces an object's deletion and frees it, each level in turn.
void announce_addresses(if_family *iff) {
  for (if_address *ifa = ifa_first(iff), *next; ifa; ifa = next) {
    next = ifa_next(ifa);
    ifa->ifa_state |= IF_STATE_DELETED;
    ifa->ifa_change = IF_CHANGE_DELETE;
    task_ifachange(ifa, IF_IN_CHANGE);
    ifa_free(ifa);
  }
}

void announce_family(if_family *iff) {
  announce_addresses(iff);
  iff->iff_state |= IF_STATE_DELETED;
  iff->iff_change = IF_CHANGE_DELETE;
  task_iffchange(iff, iff_change_arg(iff), nullptr, 0, IF_IN_CHANGE, 0);
  iff_free(iff);
}

void announce_link(if_link *ifl) {
  ifl->ifl_state |= IF_STATE_DELETED;
  ifl->ifl_change = IF_CHANGE_DELETE;
  task_iflchange(ifl, IF_IN_CHANGE, 0);
  ifl_free(ifl);
}

bool update(if_device *ifd, const rts_ifd_msg *m) {
  bool c = false;
  set(ifd->ifd_flags, m->ifdm_flags, &c);
  set(ifd->ifd_devflags, m->ifdm_devflags, &c);
  uint32_t state = (ifd->ifd_state & IF_STATE_DELETED) | m->ifdm_state;
  set(ifd->ifd_state, state, &c);
  set(ifd->ifd_snmp_index, m->ifdm_snmp_index, &c);
  set(ifd->ifd_mtu, m->ifdm_mtu, &c);
  set(ifd->ifd_speed, m->ifdm_speed, &c);
  uint8_t mac[6];
  memcpy(mac, m->ifdm_mac, 6);
  if (memcmp(ifd->ifd_mac, mac, 6) != 0) {
    memcpy(ifd->ifd_mac, mac, 6);
    c = true;
  }
  set(ifd->ifd_duplex, m->ifdm_duplex, &c);
  set(ifd->ifd_autoneg, m->ifdm_autoneg, &c);
  uint16_t agg = m->ifdm_agg_parentidx, ifh = m->ifdm_ifh_parentidx;
  if (agg && ifh) {
    IF_TRACE("ifdev msg: %s names an aggregate and a hierarchy parent, the hierarchy one is ignored",
             ifd->ifd_name);
    ifh = 0;
  }
  if (ifd->ifdm_agg_parentidx != agg) {
    ifs::agg_unlink(ifd);
    ifd->ifdm_agg_parentidx = agg;
    if (agg) waiting_members++;
    c = true;
  }
  set(ifd->ifdm_ifh_parentidx, ifh, &c);
  // Firewall bindings, input first.
  if_fw_binding fw[2] = {};
  uint8_t n = 0;
  if (m->ifdm_fw.input) fw[n++] = {m->ifdm_fw.input, RTS_FW_BIND_INPUT};
  if (m->ifdm_fw.output) fw[n++] = {m->ifdm_fw.output, RTS_FW_BIND_OUTPUT};
  if (n != ifd->ifd_fw_count || memcmp(fw, ifd->ifd_fw, sizeof fw) != 0) {
    memcpy(ifd->ifd_fw, fw, sizeof fw);
    ifd->ifd_fw_count = n;
    c = true;
  }
  if (n) IF_TRACE("Found %d num ifd firewall filter binding", n);
  for (uint8_t i = 0; i < n; i++)
    IF_TRACE("Firewall filter idx:%d of type:%d is attachd to ifd %s", int(fw[i].ifb_index), int(fw[i].ifb_type),
             ifd->ifd_name);
  char fl[128], dfl[16];
  snprintf(dfl, sizeof dfl, "%#x", ifd->ifd_devflags);
  IF_TRACE("%s msg: %s for %s (%d) flags: %s devflags: %s", "ifdev", rts_op_name(m->hdr.operation), ifd->ifd_name,
           int(ifd->ifd_index), if_flags_text(ifd->ifd_flags, fl, sizeof fl), dfl);
  return c;
}

// MC-AE and Ethernet-port options: kept after the broadcast, as their own
// change.
bool ifd_update_mcae_options(if_device *ifd, const rts_ifd_msg *m) {
  if (!memcmp(&ifd->ifd_mcae, &m->ifdm_mcae, sizeof m->ifdm_mcae)) return false;
  ifd->ifd_mcae = m->ifdm_mcae;
  if (m->ifdm_mcae.rg_id) {
    IF_TRACE("RG-ID: %d MC-AE-%d", int(m->ifdm_mcae.rg_id), int(m->ifdm_mcae.mcae_id));
    IF_TRACE("Local Port ID: %d ", int(m->ifdm_mcae.local_port_id));
  }
  return true;
}

bool ifd_update_ep_options(if_device *ifd, const rts_ifd_msg *m) {
  if (!memcmp(&ifd->ifd_ep, &m->ifdm_ep, sizeof m->ifdm_ep)) return false;
  ifd->ifd_ep = m->ifdm_ep;
  return true;
}

void reannounce(if_device **parents, int n) {
  for (int i = 0; i < n; i++) {
    if (!parents[i] || (i == 1 && parents[1] == parents[0])) continue;
    parents[i]->ifd_change = IF_CHANGE_CHANGED;
    task_ifdchange(parents[i], nullptr, 0, IF_IN_CHANGE, 0);
    parents[i]->ifd_change = 0;
  }
}

}  // namespace

// ---- Aggregates -------------------------------------------------------------------------------
void ifs::agg_unlink(if_device *member) {
  if_device *parent = member->ifd_agg_parent;
  if (!parent) {
    if (member->ifdm_agg_parentidx && waiting_members) waiting_members--;
    return;
  }
  for (if_device **pp = &parent->ifd_members; *pp; pp = &(*pp)->ifd_sibs)
    if (*pp == member) {
      *pp = member->ifd_sibs;
      break;
    }
  member->ifd_sibs = nullptr;
  member->ifd_agg_parent = nullptr;
}

void ifs::agg_forget_parent(if_device *parent) {
  while (if_device *m = parent->ifd_members) {
    parent->ifd_members = m->ifd_sibs;
    m->ifd_sibs = nullptr;
    m->ifd_agg_parent = nullptr;
    waiting_members++;
  }
}

void ifs::agg_link(if_device *ifd, if_device **changed, int *n_changed) {
  if (ifd->ifdm_agg_parentidx && !ifd->ifd_agg_parent) {
    if_device *parent = ifd_find_by_index(ifd->ifdm_agg_parentidx);
    if (parent && parent != ifd) {
      ifd->ifd_sibs = parent->ifd_members;
      parent->ifd_members = ifd;
      ifd->ifd_agg_parent = parent;
      waiting_members--;
      changed[(*n_changed)++] = parent;
    }
  }
  // Members that came before their parent.
  if (!waiting_members) return;
  for (if_device *m = ifd_first(); m && waiting_members; m = ifd_next(m))
    if (m != ifd && m->ifdm_agg_parentidx == ifd->ifd_index && !m->ifd_agg_parent) {
      m->ifd_sibs = ifd->ifd_members;
      ifd->ifd_members = m;
      m->ifd_agg_parent = ifd;
      waiting_members--;
    }
}

// ---- Removal ------------------------------------------------------------------------------------
void ifd_delete(if_device *ifd) {
  ifd->ifd_state |= IF_STATE_DELETED;
  for (if_link *ifl = ifl_first_of(ifd); ifl; ifl = ifl_next_of(ifl))
    for (if_family *iff = iff_first(ifl); iff; iff = iff_next(iff)) announce_addresses(iff);
  for (if_link *ifl = ifl_first_of(ifd); ifl; ifl = ifl_next_of(ifl))
    for (if_family *iff = iff_first(ifl), *next; iff; iff = next) {
      next = iff_next(iff);
      announce_family(iff);
    }
  for (if_link *ifl = ifl_first_of(ifd), *next; ifl; ifl = next) {
    next = ifl_next_of(ifl);
    announce_link(ifl);
  }
  if_device *parent = ifd->ifd_agg_parent;
  ifd->ifd_change = IF_CHANGE_DELETE;
  task_ifdchange(ifd, nullptr, 0, IF_IN_CHANGE, 0);
  ifd_free(ifd);
  reannounce(&parent, parent ? 1 : 0);
}

void if_link_delete(if_link *ifl) {
  ifl->ifl_state |= IF_STATE_DELETED;
  for (if_family *iff = iff_first(ifl), *next; iff; iff = next) {
    next = iff_next(iff);
    announce_family(iff);
  }
  announce_link(ifl);
}

void if_family_delete(if_family *iff) { announce_family(iff); }

// ---- The message ----------------------------------------------------------------------------------
void if_rtsock_ifdev_filter_set(if_rtsock_filter_fn fn) { ifdev_filter = fn; }

int if_rtsock_decode_ifdev(void *message, uint32_t) {
  auto *m = static_cast<rts_ifd_msg *>(message);
  if (!if_rtsock_ifdev_sanity(m)) return 0;
  if (m->ifdm_index == 0) return 1;
  if (ifdev_filter && ifdev_filter(m)) return 1;
  const char *name = m->ifdm_name ? m->ifdm_name : "";
  bool del = m->hdr.operation == RTS_OP_DELETE;
  if_device *ifd = ifd_find_by_index(m->ifdm_index);
  if (ifd) ifd->ifd_change = 0;
  if (del) {
    if (ifd) ifd_delete(ifd);
    return 1;
  }
  if (ifd && strncmp(ifd->ifd_name, name, IF_NAME_SIZE) != 0) {
    // The index now names another device: the old one is gone.
    IF_TRACE("ifdev msg: index %d re-used by %s, %s deleted", int(m->ifdm_index), name, ifd->ifd_name);
    ifd_delete(ifd);
    ifd = nullptr;
  }
  if (ifd_name_conflict(m->ifdm_index, name)) {
    IF_TRACE("%s msg: name and index do not match in internal db", "ifdev");
    return 0;
  }
  // The port type is fixed once the device exists. A kernel never changes it,
  // but the message comes from a peer (its admin socket can send any field),
  // so a change is refused here rather than asserted: one bad message must not
  // stop the daemon.
  if (ifd && m->ifdm_porttype && ifd->ifd_porttype && ifd->ifd_porttype != m->ifdm_porttype) {
    IF_TRACE("ifdev msg: %s changes port type %d to %d, refused", name, int(ifd->ifd_porttype),
             int(m->ifdm_porttype));
    return 0;
  }
  bool created = !ifd;
  ifd = ifd_locate(m->ifdm_index, name, m->ifdm_porttype);
  if (!ifd->ifd_porttype) ifd->ifd_porttype = m->ifdm_porttype;
  bool changed = update(ifd, m);
  changed = ifd_update_mcae_options(ifd, m) || changed;
  changed = ifd_update_ep_options(ifd, m) || changed;
  ifd->ifd_change = created ? IF_CHANGE_NEW : changed ? IF_CHANGE_CHANGED : 0u;
  if_device *parents[2] = {};
  int n = 0;
  ifs::agg_link(ifd, parents, &n);
  task_ifdchange(ifd, nullptr, 0, IF_IN_CHANGE, 0);
  reannounce(parents, n);
  return 1;
}
