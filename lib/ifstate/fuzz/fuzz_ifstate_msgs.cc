// The mirrors on any sequence of messages: 12 bytes make one ifdev,
// iflogical, iffamily, ifaddr or rttable message over small key ranges, so
// that indexes, names, units and parents collide. After each, the trees and
// counts must agree, every object must reach its parent, no deleted object
// may stay, and a listener reads every object it is told of (a freed one
// shows under ASan).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ifstate/ifchange.h"
#include "ifstate/ifobj.h"
#include "ifstate/rt_instance.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

task_app_ctx_t app;
uint64_t sink;  // read by nobody: the reads above are what count

void fail(const char *what) {
  fprintf(stderr, "invariant: %s\n", what);
  abort();
}

void on_ifd(task *, if_device *d, void *, uint32_t) { sink += d->ifd_index + d->ifd_name[0] + d->ifd_ifl_count; }
void on_ifl(task *, if_link *l) { sink += l->ifl_index + l->ifl_ifd->ifd_index + l->ifl_family_count; }
void on_iff(task *, if_family *f, uint32_t, void *, int) { sink += f->iff_family + f->iff_ifl->ifl_index; }
void on_ifa(task *, if_address *a) { sink += a->ifa_local[3] + a->ifa_iff->iff_ifl->ifl_unit; }
void on_rtt(task *, rt_instance *r) { sink += r->rti_id + static_cast<uint8_t>(r->rti_name[0]); }
void on_agg(task *, const if_agg_member *m) { sink += m->iam_ifl->ifl_index; }

const char *const kNames[] = {"ge-0/0/0", "ge-0/0/1", "ae0", "lo0", "xe-1/0/0", ""};
const uint8_t kAfs[] = {2, 28, 63, 1};

void apply(const uint8_t *c) {
  uint8_t kind = c[0] % 5, op = c[1] % 3 == 2 ? RTS_OP_DELETE : c[1] % 3 ? RTS_OP_CHANGE : RTS_OP_ADD;
  uint32_t value;
  memcpy(&value, c + 6, 4);
  bool bad_version = c[10] == 0xff;
  switch (kind) {
    case 0: {
      rts_ifd_msg m{};
      m.hdr.version = bad_version ? 1 : 106;
      m.hdr.operation = op;
      m.ifdm_index = c[2] % 6;
      m.ifdm_name = const_cast<char *>(kNames[c[5] % 6]);
      m.ifdm_flags = value;
      m.ifdm_mtu = value >> 8;
      m.ifdm_porttype = c[4] % 3;
      m.ifdm_agg_parentidx = c[11] % 8 < 6 ? c[11] % 8 : 0;
      m.ifdm_ifh_parentidx = c[11] >> 6;
      m.ifdm_mcae.rg_id = c[4] >> 4;
      m.ifdm_fw = {value & 3, (value >> 2) & 3};
      if_rtsock_decode_ifdev(&m, 0);
      break;
    }
    case 1: {
      rts_ifl_msg m{};
      m.hdr.version = bad_version ? 1 : 107;
      m.hdr.operation = op;
      m.iflm_index = c[2] % 8;
      m.iflm_ifd_index = c[3] % 6;
      m.iflm_unit = c[4] % 3;
      m.iflm_agg_index = c[11] % 4;
      m.iflm_df_role = c[5] % 3;
      m.iflm_vtep.flags = value & 1;
      m.iflm_rtb_id = static_cast<uint16_t>(value);
      if_rtsock_decode_iflogical(&m, 0);
      break;
    }
    case 2: {
      rts_iff_msg m{};
      m.hdr.version = bad_version ? 1 : 102;
      m.hdr.operation = op;
      m.iffm_ifl_index = c[2] % 8;
      m.iffm_af = kAfs[c[4] % 4];
      m.iffm_mtu = value;
      m.iffm_max_mtu = c[5] * 100u;
      m.iffm_flags = c[11];
      if_rtsock_decode_iffamily(&m, 0);
      break;
    }
    case 3: {
      rts_ifa_msg m{};
      m.hdr.version = bad_version ? 1 : 101;
      m.hdr.operation = op;
      m.ifam_ifl_index = c[2] % 8;
      m.ifam_af = kAfs[c[4] % 4];
      // Exactly the bytes the record says it has: a read past them shows.
      uint16_t plen = static_cast<uint16_t>(c[10] % 17);
      uint8_t *local = new uint8_t[plen];
      memset(local, 0, plen);
      if (plen > 0) local[0] = 10;
      if (plen > 3) local[3] = c[5] % 4;
      m.ifam_local = c[11] == 0x55 ? nullptr : local;
      m.ifam_local_plen = plen;
      m.ifam_local_bits = static_cast<uint16_t>(c[3] % 140);
      m.ifam_dest = local;
      m.ifam_dest_plen = plen;
      m.ifam_dest_bits = static_cast<uint16_t>(c[11] % 140);
      m.ifam_flags = value;
      if_rtsock_decode_ifam(&m, 0);
      delete[] local;
      break;
    }
    default: {
      rts_rtb_msg m{};
      m.hdr.operation = op;
      m.rtbm_af = kAfs[c[4] % 2];
      m.rtbm_index = c[2] % 4;
      std::string name = c[5] % 5 ? std::string(kNames[c[5] % 6]) : std::string(200, 'n');
      m.rtbm_name = name.data();
      m.rtbm_attr = c[11] % 3;
      rt_instance_rtsock_handler(&m, 0);
      break;
    }
  }
}

void check() {
  uint32_t n_ifd = 0, n_ifl = 0;
  for (if_device *d = ifd_first(); d; d = ifd_next(d), n_ifd++) {
    if (d->ifd_state & IF_STATE_DELETED) fail("a deleted device stays");
    if (ifd_find_by_index(d->ifd_index) != d || ifd_find_by_name(d->ifd_name) != d) fail("device lookups");
    uint32_t units = 0;
    for (if_link *l = ifl_first_of(d); l; l = ifl_next_of(l), units++)
      if (l->ifl_ifd != d) fail("a logical interface under another device");
    if (units != d->ifd_ifl_count) fail("device's logical interface count");
    if (if_device *p = d->ifd_agg_parent) {
      if (ifd_find_by_index(p->ifd_index) != p || p->ifd_index != d->ifdm_agg_parentidx) fail("aggregate parent");
      bool found = false;
      for (if_device *m = p->ifd_members; m; m = m->ifd_sibs) found = found || m == d;
      if (!found) fail("member not in its parent's chain");
    }
    for (if_device *m = d->ifd_members; m; m = m->ifd_sibs)
      if (m->ifd_agg_parent != d) fail("chain holds a device of another parent");
  }
  if (n_ifd != ifd_count()) fail("device count");
  for (if_link *l = ifl_first(); l; l = ifl_next(l), n_ifl++) {
    if (l->ifl_state & IF_STATE_DELETED) fail("a deleted logical interface stays");
    if (ifl_find_by_index(l->ifl_index) != l || ifl_find_by_name(l->ifl_name) != l) fail("logical lookups");
    if (ifd_find_by_index(l->ifl_ifd->ifd_index) != l->ifl_ifd) fail("logical interface's device is gone");
    uint32_t fams = 0;
    for (if_family *f = iff_first(l); f; f = iff_next(f), fams++) {
      if (f->iff_ifl != l || (f->iff_state & IF_STATE_DELETED)) fail("family");
      uint32_t addrs = 0;
      for (if_address *a = ifa_first(f); a; a = ifa_next(a), addrs++)
        if (a->ifa_iff != f || (a->ifa_state & IF_STATE_DELETED) || ifa_find(f, a->ifa_local, a->ifa_local_bits) != a)
          fail("address");
      if (addrs != f->iff_addr_count) fail("address count");
      if (addrs && f->iff_family != IF_FAM_INET && f->iff_family != IF_FAM_INET6) fail("address of a bare family");
    }
    if (fams != l->ifl_family_count) fail("family count");
  }
  if (n_ifl != ifl_count()) fail("logical interface count");
  uint32_t n_rti = 0;
  for (rt_instance *r = rt_instance_first(); r; r = rt_instance_next(r), n_rti++)
    if (rt_instance_find(r->rti_af, r->rti_id) != r || rt_instance_find_by_name(r->rti_name) != r ||
        strlen(r->rti_name) >= RT_INSTANCE_NAME_SIZE)
      fail("instance lookups");
  if (n_rti != rt_instance_count()) fail("instance count");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  task_set_task_app_ctx(&app);
  task_kernel_init();
  task *keeper = task_alloc("keeper", 100, nullptr);
  task_create(keeper);
  task *tp = task_alloc("listener", 10, nullptr);
  task_create(tp);
  task_set_ifdchange(tp, on_ifd);
  task_set_iflchange(tp, on_ifl);
  task_set_iffchange(tp, on_iff);
  task_set_ifachange(tp, on_ifa);
  task_set_rttchange(tp, on_rtt);
  task_set_ifl_agg_change(tp, on_agg);
  if_init();
  rt_instance_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  for (size_t i = 0; i + 12 <= size && i < 12 * 400; i += 12) {
    apply(data + i);
    check();
  }
  if_reset();
  rt_instance_reset();
  return 0;
}
