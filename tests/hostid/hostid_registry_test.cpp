// The physical test against a real registry: run by win32_registry_test.sh
// in a Wine prefix of its own, after it has added class entries with
// `wine reg add`:
//   {HOSTKIT-8001} 0x8001 (virtual bit with the 0x8000 bit: physical)
//   {HOSTKIT-8000} 0x8000 (no physical bit)
//   {HOSTKIT-0084} 0x84   (0x4, the physical bit)
//   {HOSTKIT-0001} 0x1    (virtual)
//   {HOSTKIT-DUP}  first 0x1 under 9005, then 0x4 under 9006: the first decides
//   {HOSTKIT-NOCH} no Characteristics under 9007, then 0x4 under 9008
#include <gtest/gtest.h>

#include "hostid_internal.h"

namespace {

TEST(Registry, ClassEntriesDecidePhysical) {
  EXPECT_EQ(hostid_adapter_is_physical("{HOSTKIT-8001}"), 1);
  EXPECT_EQ(hostid_adapter_is_physical("{HOSTKIT-8000}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{HOSTKIT-0084}"), 1);
  EXPECT_EQ(hostid_adapter_is_physical("{HOSTKIT-0001}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{HOSTKIT-DUP}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{HOSTKIT-NOCH}"), 1);
  EXPECT_EQ(hostid_adapter_is_physical("{hostkit-8001}"), 0);  // with case
  EXPECT_EQ(hostid_adapter_is_physical("{HOSTKIT-NONE}"), 0);
}

}  // namespace
