// System facts by name, in the shape of the platform's sysctlbyname. One table
// holds every key the framework asks for; values come from sysconf, sysinfo,
// /sys/class/net or are fixed. Each key can be overridden for tests by the
// environment variable TVX_SYSCTL_<KEY>, the key in capitals with dots as
// underscores (TVX_SYSCTL_KERN_SMP_CPUS=4, TVX_SYSCTL_HW_PRODUCT_SYSTEM_MAC_BASE=
// 02:00:00:00:00:01).
//
// Keys:
//   kern.smp.cpus               int    processors online
//   hw.512bmem                  number physical memory in 512-byte units
//   hw.512binstalledmem         number the same (installed memory)
//   hw.chassis.macaddrs         int    distinct non-zero MAC addresses
//   hw.product.system_mac_base  6 bytes the lowest non-zero MAC address
//   kern.gencfg_cfg2_peermask   int    240, the bits of the peer mask
//   debug.enable_kbt            int    0, writable (kept in the process)
//   hw.re.tvx_rebooting         int    0
// Numbers are 4 bytes, or 8 when the value needs it or the caller gives 8.
#pragma once

#include <cstddef>

// Returns 0, or -1 with errno: ENOENT unknown key or no value, EINVAL a
// malformed override or new value, ENOMEM buffer
// too small (*oldlenp then holds the size needed), EPERM write to a read-only
// key. With oldp null, *oldlenp receives the size.
int sysctlbyname(const char *name, void *oldp, size_t *oldlenp, const void *newp, size_t newlen);
