// The Linux port's adapter class key: an interface is physical when sysfs
// shows a device behind it, and only its exact name matches.
#include <gtest/gtest.h>

#include <filesystem>

#include "hostid_internal.h"

TEST(LinuxPort, PhysicalMeansADeviceBehindTheInterface) {
  for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net")) {
    const bool device = std::filesystem::exists(entry.path() / "device");
    EXPECT_EQ(hostid_adapter_is_physical(entry.path().filename().c_str()), device ? 1 : 0);
  }
  EXPECT_EQ(hostid_adapter_is_physical("lo"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("LO"), 0);
}
