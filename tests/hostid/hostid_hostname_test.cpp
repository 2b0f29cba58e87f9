// The host name through the network layer: which library is loaded, when,
// what is required of it, HID_NO_NETWORK, and the conversion to UTF-8.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "fake_port.h"

namespace {

using namespace hostid_test;
using Names = std::vector<std::string>;

constexpr uint32_t kNtLine = (19041u << 16) | 0x000Au;                    // 10.0
constexpr uint32_t kOlderFamily = 0x80000000u | (1998u << 16) | 0x0A04u;  // 4.10

// The version, a library that isn't there, the loads, the number of
// lookups, the WinSock version asked for. The layer's table: 29 common
// functions, 2 of WinSock 1 only, 7 of WinSock 2 only; each library is
// asked for its own and the common ones.
using LoadCase = std::tuple<uint32_t, const char*, Names, size_t, uint16_t>;
class HostidNetLayerLoad : public testing::TestWithParam<LoadCase> {};

TEST_P(HostidNetLayerLoad, WhichLibraryIsLoadedAndStartedOnce) {
  const auto& [version, absent, loads, lookups, startup] = GetParam();
  FakePort machine;
  machine.version = version;
  if (absent != nullptr) machine.libraries.erase(absent);
  machine.error_mode = 0x3;
  EXPECT_EQ(query(Context().handle, 6), "HOSTNAME=alpha");
  EXPECT_EQ(query(Context().handle, 6), "HOSTNAME=alpha");
  EXPECT_EQ(machine.loads, loads);
  EXPECT_EQ(machine.lookups.size(), lookups);
  EXPECT_EQ(std::count(machine.lookups.begin(), machine.lookups.end(), "EnumProtocolsA"), 1);
  EXPECT_EQ(machine.startups, 1);
  EXPECT_EQ(machine.startup_version, startup);
  EXPECT_EQ(machine.host_name_reads, 2);  // once per context
  // The mode switched once for the loading and restored behind it.
  EXPECT_EQ(machine.error_mode_sets, 2);
  EXPECT_EQ(machine.error_mode, 0x3u);
  EXPECT_EQ(machine.library_frees, 0);  // the library in use is kept to the end
}

INSTANTIATE_TEST_SUITE_P(
    Versions, HostidNetLayerLoad,
    testing::Values(LoadCase{kNtLine, nullptr, {"WS2_32.Dll"}, 29 + 2 + 7, 0x0002},
                    LoadCase{kNtLine, "WS2_32.Dll", {"WS2_32.Dll", "WSOCK32.Dll"}, 29 + 2, 0x0101},
                    LoadCase{kOlderFamily, nullptr, {"WSOCK32.Dll"}, 29 + 2, 0x0101}));

// The version, the library, the function it lacks, whether it loads.
using MissingCase = std::tuple<uint32_t, const char*, const char*, int32_t>;
class HostidNetLayerMissing : public testing::TestWithParam<MissingCase> {};

TEST_P(HostidNetLayerMissing, AMissingRequiredFunctionLeavesTheLayerUnusable) {
  const auto& [version, library, missing, loaded] = GetParam();
  FakePort machine;
  machine.version = version;
  machine.libraries[library] = {missing};
  EXPECT_EQ(netlayer_load(), loaded);
  EXPECT_EQ(netlayer_load(), loaded);  // never a call through an empty slot
  EXPECT_EQ(machine.startups, loaded);
  EXPECT_EQ(machine.loads.size(), 1u);
  char buffer[1024] = "before";
  EXPECT_EQ(hostname_read_utf8(buffer, 1024), loaded ? 0 : -1);
  EXPECT_STREQ(buffer, loaded ? "alpha" : "before");
}

INSTANTIATE_TEST_SUITE_P(
    Functions, HostidNetLayerMissing,
    testing::Values(MissingCase{kNtLine, "WS2_32.Dll", "gethostname", 0},
                    MissingCase{kNtLine, "WS2_32.Dll", "WSAStartup", 0},
                    MissingCase{kNtLine, "WS2_32.Dll", "__WSAFDIsSet", 0},
                    MissingCase{kNtLine, "WS2_32.Dll", "WSALookupServiceEnd", 0},
                    MissingCase{kNtLine, "WS2_32.Dll", "EnumProtocolsA", 1},  // not asked of 2
                    MissingCase{kOlderFamily, "WSOCK32.Dll", "EnumProtocolsA", 0},
                    MissingCase{kOlderFamily, "WSOCK32.Dll", "GetAddressByNameA", 0},
                    MissingCase{kOlderFamily, "WSOCK32.Dll", "recvfrom", 0},
                    MissingCase{kOlderFamily, "WSOCK32.Dll", "WSACreateEvent", 1}));  // nor of 1

TEST(HostidNetLayer, WithoutLibrariesTheLoadIsTriedAgainAtEachRead) {
  FakePort machine;
  machine.libraries.clear();
  Context c;
  EXPECT_EQ(query(c.handle, 6), "HOSTNAME=");
  EXPECT_STREQ(hostname_get(c.handle), "");  // empty names aren't saved: read again
  EXPECT_EQ(machine.loads, (Names{"WS2_32.Dll", "WSOCK32.Dll", "WS2_32.Dll", "WSOCK32.Dll"}));
  machine.libraries["WS2_32.Dll"];
  EXPECT_EQ(query(c.handle, 6), "HOSTNAME=");     // a host name record never expires
  EXPECT_STREQ(hostname_get(c.handle), "alpha");  // but the next read finds the library
  machine.host_name = "beta";
  EXPECT_STREQ(hostname_get(c.handle), "alpha");  // saved for the context's life
  EXPECT_EQ(query(Context().handle, 6), "HOSTNAME=beta");
}

class HostidNoNetwork : public testing::TestWithParam<bool> {};

TEST_P(HostidNoNetwork, IsReadOnceAndLoadsNothing) {
  const bool set_first = GetParam();
  FakePort machine;
  if (set_first) machine.environment["HID_NO_NETWORK"] = "";  // set, with any value
  EXPECT_EQ(query(Context().handle, 6), set_first ? "HOSTNAME=" : "HOSTNAME=alpha");
  if (set_first) {
    machine.environment.erase("HID_NO_NETWORK");
  } else {
    machine.environment["HID_NO_NETWORK"] = "1";
  }
  EXPECT_EQ(query(Context().handle, 6), set_first ? "HOSTNAME=" : "HOSTNAME=alpha");
  EXPECT_EQ(machine.loads.size(), set_first ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(SetFirst, HostidNoNetwork, testing::Bool());

TEST(HostidHostName, FailuresGiveAnEmptyOrRawName) {
  FakePort machine;
  machine.host_name_fails = true;
  EXPECT_EQ(query(Context().handle, 6), "HOSTNAME=");
  EXPECT_EQ(machine.startups, 1);  // the layer stays started
  // A failed conversion, or a failed allocation in it (the wide text, then
  // the UTF-8 text), leaves the bytes as the system gave them.
  machine.host_name_fails = false;
  machine.host_name = "caf\xe9";
  for (int fail = 0; fail <= 2; ++fail) {
    machine.conversion_fails = fail == 0;
    if (fail > 0) machine.fail_allocation(fail);
    char buffer[1024];
    EXPECT_EQ(netlayer_gethostname(buffer, 1024), -1) << fail;
    EXPECT_STREQ(buffer, "caf\xe9") << fail;
    EXPECT_EQ(machine.live_blocks, 0) << fail;
  }
  char buffer[4];
  EXPECT_EQ(hostname_read_utf8(nullptr, 4), -1);
  EXPECT_EQ(hostname_read_utf8(buffer, 0), -1);
}

TEST(HostidHostName, ConversionToUtf8AndItsCut) {
  FakePort machine;
  // The fake's code page is Latin-1: 0xE9 is U+00E9, two bytes in UTF-8.
  machine.host_name = "caf\xe9";
  EXPECT_EQ(query(Context().handle, 6), "HOSTNAME=caf\xc3\xa9");
  // 1022 ASCII bytes and one é: 1025 bytes with the NUL in UTF-8, more than
  // the 1024 of the buffer, so 1023 bytes stand, cutting the é in two.
  // With 1021 it fits exactly.
  for (size_t ascii : {1022u, 1021u}) {
    char buffer[1024];
    machine.host_name = std::string(ascii, 'a') + "\xe9";
    EXPECT_EQ(netlayer_gethostname(buffer, 1024), 0);
    EXPECT_EQ(std::strlen(buffer), 1023u);
    EXPECT_EQ(static_cast<uint8_t>(buffer[1022]), ascii == 1022 ? 0xC3 : 0xA9);
  }
}

}  // namespace
