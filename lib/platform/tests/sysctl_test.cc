#include "platform/sysctl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

TEST(Sysctl, CpusFromTheSystemAndSizeQuery) {
  size_t len = 0;
  ASSERT_EQ(sysctlbyname("kern.smp.cpus", nullptr, &len, nullptr, 0), 0);
  EXPECT_EQ(len, 4u);
  int32_t cpus = 0;
  len = sizeof cpus;
  ASSERT_EQ(sysctlbyname("kern.smp.cpus", &cpus, &len, nullptr, 0), 0);
  EXPECT_EQ(cpus, sysconf(_SC_NPROCESSORS_ONLN));
}

TEST(Sysctl, MemoryInFourOrEightBytes) {
  uint32_t m4 = 0;
  uint64_t m8 = 0;
  size_t len = 4;
  ASSERT_EQ(sysctlbyname("hw.512binstalledmem", &m4, &len, nullptr, 0), 0);
  EXPECT_EQ(len, 4u);
  len = 8;
  ASSERT_EQ(sysctlbyname("hw.512binstalledmem", &m8, &len, nullptr, 0), 0);
  EXPECT_EQ(len, 8u);
  EXPECT_EQ(m8, m4);
  EXPECT_GT(m8, 1024u * 2);  // more than a megabyte of memory
}

TEST(Sysctl, Refusals) {
  int32_t v = 0;
  size_t len = sizeof v;
  errno = 0;
  EXPECT_EQ(sysctlbyname("no.such.key", &v, &len, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(sysctlbyname(nullptr, &v, &len, nullptr, 0), -1);

  uint8_t small[2];
  len = sizeof small;
  EXPECT_EQ(sysctlbyname("kern.smp.cpus", small, &len, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(len, 4u);

  int32_t one = 1;
  EXPECT_EQ(sysctlbyname("kern.smp.cpus", nullptr, nullptr, &one, sizeof one), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(sysctlbyname("debug.enable_kbt", nullptr, nullptr, &one, 2), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(Sysctl, WritableKeyKeepsItsValue) {
  int32_t v = -1;
  size_t len = sizeof v;
  ASSERT_EQ(sysctlbyname("debug.enable_kbt", &v, &len, nullptr, 0), 0);
  EXPECT_EQ(v, 0);
  int32_t one = 1;
  ASSERT_EQ(sysctlbyname("debug.enable_kbt", nullptr, nullptr, &one, sizeof one), 0);
  ASSERT_EQ(sysctlbyname("debug.enable_kbt", &v, &len, nullptr, 0), 0);
  EXPECT_EQ(v, 1);
}

TEST(Sysctl, EnvironmentOverrides) {
  setenv("TVX_SYSCTL_KERN_SMP_CPUS", "0x10", 1);
  setenv("TVX_SYSCTL_HW_PRODUCT_SYSTEM_MAC_BASE", "02:00:5e:00:01:ff", 1);
  int32_t cpus = 0;
  size_t len = sizeof cpus;
  ASSERT_EQ(sysctlbyname("kern.smp.cpus", &cpus, &len, nullptr, 0), 0);
  EXPECT_EQ(cpus, 16);
  uint8_t mac[6];
  len = sizeof mac;
  ASSERT_EQ(sysctlbyname("hw.product.system_mac_base", mac, &len, nullptr, 0), 0);
  const uint8_t want[6] = {0x02, 0x00, 0x5e, 0x00, 0x01, 0xff};
  EXPECT_EQ(memcmp(mac, want, 6), 0);

  // A malformed override is refused, never replaced by the real value.
  setenv("TVX_SYSCTL_HW_PRODUCT_SYSTEM_MAC_BASE", "02:00", 1);
  EXPECT_EQ(sysctlbyname("hw.product.system_mac_base", mac, &len, nullptr, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  setenv("TVX_SYSCTL_KERN_SMP_CPUS", "-3", 1);
  EXPECT_EQ(sysctlbyname("kern.smp.cpus", &cpus, &len, nullptr, 0), -1);
  EXPECT_EQ(errno, EINVAL);
}
