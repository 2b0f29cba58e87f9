// The platform's real port against the machine it runs on. The expected
// values come from the kernel's own files (/sys/class/net, the host name
// in /proc), read here directly; under Wine through its drive Z:.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "hostid_internal.h"

#ifndef HOSTKIT_TEST_ROOT
#define HOSTKIT_TEST_ROOT ""
#endif

namespace {

using Address = std::vector<uint8_t>;

const HostidPort& p = *hostid_port_system();

std::string read_line(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// The 6-byte hardware addresses of the kernel's interfaces, loopback (type
// 772) left out, in the order of their interface index.
std::vector<Address> kernel_addresses() {
  std::vector<std::pair<int, Address>> found;
  std::error_code error;
  for (const auto& entry :
       std::filesystem::directory_iterator(HOSTKIT_TEST_ROOT "/sys/class/net", error)) {
    std::string dir = entry.path().string();
    std::string text = read_line(dir + "/address");  // "aa:bb:cc:dd:ee:ff"
    if (read_line(dir + "/type") == "772" || text.size() != 17) continue;
    Address address;
    for (size_t i = 0; i < 17; i += 3) {
      address.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    found.emplace_back(std::stoi(read_line(dir + "/ifindex")), address);
  }
  std::sort(found.begin(), found.end());
  std::vector<Address> addresses;
  for (auto& [index, address] : found) addresses.push_back(address);
  return addresses;
}

TEST(RealPort, ClockVersionEnvironmentAndTheHostName) {
  EXPECT_GT(p.now(p.handle), 1'600'000'000);    // after 2020
  EXPECT_LT(p.version(p.handle), 0x80000000u);  // the NT line on both platforms
  EXPECT_GT(p.process_id(p.handle), 0);
  EXPECT_EQ(p.get_env(p.handle, "HOSTKIT_SURELY_UNSET_VARIABLE"), nullptr);
  EXPECT_NE(p.get_env(p.handle, "PATH"), nullptr);

  std::string expected = read_line(HOSTKIT_TEST_ROOT "/proc/sys/kernel/hostname");
  ASSERT_FALSE(expected.empty());
  ASSERT_EQ(netlayer_load(), 1);
  char buffer[1024] = {};
  ASSERT_EQ(netlayer_gethostname(buffer, 1024), 0);
  EXPECT_EQ(std::string(buffer), expected);
}

TEST(RealPort, TextConversions) {
  // "aé€" and U+1F600 as a surrogate pair: 1 + 2 + 3 + 4 bytes and the NUL.
  const uint16_t text[] = {'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0};
  EXPECT_EQ(p.wide_to_utf8(p.handle, text, nullptr, 0), 11);
  char out[11];
  ASSERT_EQ(p.wide_to_utf8(p.handle, text, out, 11), 11);
  EXPECT_STREQ(out, "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
  EXPECT_EQ(p.wide_to_utf8(p.handle, text, out, 5), 0);  // too small
  uint16_t ascii[8];
  EXPECT_EQ(p.ansi_to_wide(p.handle, "host-1", nullptr, 0), 7);
  ASSERT_EQ(p.ansi_to_wide(p.handle, "host-1", ascii, 8), 7);
  EXPECT_EQ(ascii[0], 'h');
  EXPECT_EQ(ascii[6], 0);
}

TEST(RealPort, TheIpHelperListHasTheKernelsAddressesInOrder) {
  void* library = p.load_library(p.handle, "iphlpapi.dll");
  ASSERT_NE(library, nullptr);
  HostidProc get = p.get_function(p.handle, library, "GetAdaptersAddresses");
  ASSERT_NE(get, nullptr);
  uint32_t size = 0;
  ASSERT_EQ(p.get_adapters(p.handle, get, 0, 0x2F, nullptr, &size), 111u);
  std::vector<uint64_t> buffer(size / 8 + 1);
  ASSERT_EQ(p.get_adapters(p.handle, get, 0, 0x2F, buffer.data(), &size), 0u);
  std::vector<Address> listed;
  for (const void* a = p.adapter_first(p.handle, buffer.data()); a != nullptr;
       a = p.adapter_next(p.handle, a)) {
    HostidAdapter adapter{};
    p.adapter_read(p.handle, a, &adapter);
    ASSERT_NE(adapter.name, nullptr);
    ASSERT_NE(adapter.description, nullptr);
    if (adapter.address_length == 6) listed.emplace_back(adapter.address, adapter.address + 6);
  }
  EXPECT_EQ(listed, kernel_addresses());
  // No class entry for an adapter that isn't there.
  EXPECT_EQ(hostid_adapter_is_physical("{00000000-0000-0000-0000-000000000000}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical(""), 0);
}

}  // namespace
