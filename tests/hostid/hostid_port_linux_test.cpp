// What the Linux port stands in for: the class key made from sysfs and the
// conversion from the locale's character set.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "hostid_internal.h"

namespace {

const HostidPort& p = *hostid_port_system();

TEST(LinuxPort, PhysicalMeansADeviceBehindTheInterface) {
  int seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net")) {
    std::string name = entry.path().filename().string();
    bool device = std::filesystem::exists(entry.path() / "device");
    EXPECT_EQ(hostid_adapter_is_physical(name.c_str()), device ? 1 : 0) << name;
    ++seen;
  }
  EXPECT_GT(seen, 0);
  // Only the exact name matches.
  EXPECT_EQ(hostid_adapter_is_physical("l"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("LO"), 0);
}

TEST(LinuxPort, TheLocalesCharacterSetToUtf16) {
  const char* saved = std::getenv("LC_ALL");
  std::string before = saved != nullptr ? saved : "";
  uint16_t out[8];
  // In a UTF-8 locale "é" is one character, U+00E9, and U+1F600 two units.
  setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_EQ(p.ansi_to_wide(p.handle, "caf\xc3\xa9", out, 8), 5);
  EXPECT_EQ(out[3], 0xE9);
  EXPECT_EQ(p.ansi_to_wide(p.handle, "\xf0\x9f\x98\x80", out, 8), 3);
  EXPECT_EQ(out[0], 0xD83D);
  EXPECT_EQ(out[1], 0xDE00);
  // Invalid text in that character set fails, as with MB_ERR_INVALID_CHARS.
  EXPECT_EQ(p.ansi_to_wide(p.handle, "caf\xe9", nullptr, 0), 0);
  EXPECT_EQ(p.ansi_to_wide(p.handle, "abcdefghij", out, 8), 0);  // no room
  saved != nullptr ? setenv("LC_ALL", before.c_str(), 1) : unsetenv("LC_ALL");
}

}  // namespace
