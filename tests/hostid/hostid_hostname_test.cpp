// The host name through the network layer: which library is loaded, when,
// what is required of it, HID_NO_NETWORK, and the conversion to UTF-8.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "fake_port.h"

namespace {

using hostid_test::FakePort;

constexpr uint32_t kOlderFamily = 0x80000000u | (1998u << 16) | 0x0A04u;  // 4.10

std::string host_line(HostIdContext* context) {
  char buffer[HOSTID_QUERY_BUFFER_SIZE];
  buffer[0] = '\0';
  hostid_query(context, 6, buffer);
  return buffer;
}

struct Context {
  HostIdContext* handle = nullptr;
  Context() { EXPECT_EQ(hostid_context_open(&handle), 0); }
  ~Context() { hostid_context_close(handle); }
};

int count(const std::vector<std::string>& list, const std::string& item) {
  return static_cast<int>(std::count(list.begin(), list.end(), item));
}

TEST(HostidNetLayer, TheNtLineLoadsWinsock2AndStartsVersion2Once) {
  FakePort machine;
  machine.install_all_libraries();
  machine.error_mode = 0x3;
  {
    Context a;
    EXPECT_EQ(host_line(a.handle), "HOSTNAME=alpha");
  }
  Context b;
  EXPECT_EQ(host_line(b.handle), "HOSTNAME=alpha");
  EXPECT_EQ(machine.loads, std::vector<std::string>{"WS2_32.Dll"});
  EXPECT_EQ(machine.startups, 1);
  EXPECT_EQ(machine.startup_version, 0x0002);
  EXPECT_EQ(machine.host_name_reads, 2);  // once per context
  // The mode was switched for the load and restored behind it.
  EXPECT_EQ(machine.error_mode_sets, 2);
  EXPECT_EQ(machine.error_mode, 0x3u);
  // Every function of both kinds was looked up in WS2_32; nothing is freed.
  EXPECT_EQ(machine.lookups.size(), 29u + 2u + 7u);
  EXPECT_EQ(count(machine.lookups, "WSALookupServiceEnd"), 1);
  EXPECT_EQ(count(machine.lookups, "EnumProtocolsA"), 1);
  EXPECT_EQ(machine.library_frees, 0);
}

TEST(HostidNetLayer, FallsBackToWinsock1AndTheOlderLineGoesStraightThere) {
  {
    FakePort machine;
    machine.install_all_libraries();
    machine.libraries.erase("WS2_32.Dll");
    EXPECT_EQ(netlayer_load(), 1);
    EXPECT_EQ(machine.loads, (std::vector<std::string>{"WS2_32.Dll", "WSOCK32.Dll"}));
    EXPECT_EQ(machine.startup_version, 0x0101);
    // The WinSock 2 names are looked up only in WinSock 2.
    EXPECT_EQ(count(machine.lookups, "WSACreateEvent"), 0);
    EXPECT_EQ(machine.lookups.size(), 29u + 2u);
  }
  {
    FakePort machine;
    machine.install_all_libraries();
    machine.version = kOlderFamily;
    EXPECT_EQ(netlayer_load(), 1);
    EXPECT_EQ(machine.loads, std::vector<std::string>{"WSOCK32.Dll"});
    EXPECT_EQ(machine.startup_version, 0x0101);
  }
}

TEST(HostidNetLayer, WithoutLibrariesTheLoadIsTriedAgainAtEachRead) {
  FakePort machine;
  Context c;
  EXPECT_EQ(host_line(c.handle), "HOSTNAME=");
  EXPECT_STREQ(hostname_get(c.handle), "");  // empty names aren't saved: read again
  EXPECT_EQ(machine.loads,
            (std::vector<std::string>{"WS2_32.Dll", "WSOCK32.Dll", "WS2_32.Dll", "WSOCK32.Dll"}));
  EXPECT_EQ(machine.error_mode_sets, 4);  // the mode put back each time
  EXPECT_EQ(machine.error_mode, 0u);
  machine.install_all_libraries();
  EXPECT_EQ(host_line(c.handle), "HOSTNAME=");    // a host name record never expires
  EXPECT_STREQ(hostname_get(c.handle), "alpha");  // but the next read finds the library
  Context d;
  EXPECT_EQ(host_line(d.handle), "HOSTNAME=alpha");
}

TEST(HostidNetLayer, AMissingRequiredFunctionLeavesTheLayerUnusable) {
  // Each library kind with one of its required functions missing.
  for (const char* missing : {"gethostname", "WSAStartup", "__WSAFDIsSet", "WSALookupServiceEnd"}) {
    FakePort machine;
    machine.install_all_libraries();
    machine.libraries["WS2_32.Dll"].erase(missing);
    EXPECT_EQ(netlayer_load(), 0) << missing;
    EXPECT_EQ(netlayer_load(), 0) << missing;  // never a call through an empty slot
    EXPECT_EQ(machine.startups, 0) << missing;
    EXPECT_EQ(machine.loads.size(), 1u) << missing;
    char buffer[1024] = "before";
    EXPECT_EQ(hostname_read_utf8(buffer, 1024), -1);
    EXPECT_STREQ(buffer, "before");
  }
  for (const char* missing : {"EnumProtocolsA", "GetAddressByNameA", "recvfrom"}) {
    FakePort machine;
    machine.install_all_libraries();
    machine.version = kOlderFamily;
    machine.libraries["WSOCK32.Dll"].erase(missing);
    EXPECT_EQ(netlayer_load(), 0) << missing;
    EXPECT_EQ(machine.startups, 0) << missing;
  }
  // The WinSock 1 names aren't required of WinSock 2.
  FakePort machine;
  machine.install_all_libraries();
  machine.libraries["WS2_32.Dll"].erase("EnumProtocolsA");
  machine.libraries["WS2_32.Dll"].erase("GetAddressByNameA");
  EXPECT_EQ(netlayer_load(), 1);
}

TEST(HostidNetLayer, NoNetworkIsReadOnceAndLoadsNothing) {
  FakePort machine;
  machine.install_all_libraries();
  machine.environment["HID_NO_NETWORK"] = "";  // set, with any value
  Context c;
  EXPECT_EQ(host_line(c.handle), "HOSTNAME=");
  machine.environment.erase("HID_NO_NETWORK");
  Context d;
  EXPECT_EQ(host_line(d.handle), "HOSTNAME=");
  EXPECT_TRUE(machine.loads.empty());
  EXPECT_EQ(machine.host_name_reads, 0);

  // And unset at the first read, setting it later changes nothing.
  FakePort other;
  other.install_all_libraries();
  EXPECT_EQ(netlayer_load(), 1);
  other.environment["HID_NO_NETWORK"] = "1";
  EXPECT_EQ(netlayer_load(), 1);
}

TEST(HostidHostName, FailuresGiveAnEmptyOrRawName) {
  {
    FakePort machine;
    machine.install_all_libraries();
    machine.host_name_fails = true;
    Context c;
    EXPECT_EQ(host_line(c.handle), "HOSTNAME=");
    EXPECT_EQ(machine.startups, 1);  // the layer stays started
  }
  {
    // A failed conversion leaves the bytes as the system gave them.
    FakePort machine;
    machine.install_all_libraries();
    machine.host_name = "caf\xe9";
    machine.conversion_fails = true;
    char buffer[1024];
    EXPECT_EQ(netlayer_gethostname(buffer, 1024), -1);
    EXPECT_STREQ(buffer, "caf\xe9");
    Context c;
    EXPECT_EQ(host_line(c.handle), "HOSTNAME=caf\xe9");
  }
  {
    // Each allocation of the conversion failing: the raw name again.
    for (int n = 1; n <= 2; ++n) {
      FakePort machine;
      machine.install_all_libraries();
      machine.host_name = "caf\xe9";
      EXPECT_EQ(netlayer_load(), 1);
      hostid_heap_fail_at(n);
      char buffer[1024];
      EXPECT_EQ(netlayer_gethostname(buffer, 1024), -1) << n;
      EXPECT_STREQ(buffer, "caf\xe9") << n;
      EXPECT_EQ(hostid_heap_live(), 0) << n;
    }
  }
  char buffer[4];
  EXPECT_EQ(hostname_read_utf8(nullptr, 4), -1);
  EXPECT_EQ(hostname_read_utf8(buffer, 0), -1);
}

TEST(HostidHostName, ConversionToUtf8AndItsCut) {
  FakePort machine;
  machine.install_all_libraries();
  // The fake's code page is Latin-1: 0xE9 is U+00E9, two bytes in UTF-8.
  machine.host_name = "caf\xe9";
  Context c;
  EXPECT_EQ(host_line(c.handle), "HOSTNAME=caf\xc3\xa9");

  int32_t size = -1;
  char* text = text_ansi_to_utf8("plain", &size);
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "plain");
  EXPECT_EQ(size, 6);  // its length and the NUL
  hostid_heap_free(text);

  // 1022 ASCII bytes and one é: 1025 bytes with the NUL in UTF-8, more than
  // the 1024 of the buffer, so 1023 bytes stand, cutting the é in two.
  char buffer[1024];
  machine.host_name = std::string(1022, 'a') + "\xe9";
  EXPECT_EQ(netlayer_gethostname(buffer, 1024), 0);
  EXPECT_EQ(std::strlen(buffer), 1023u);
  EXPECT_EQ(static_cast<uint8_t>(buffer[1022]), 0xC3);

  // Exactly fitting: 1021 + 2 bytes and the NUL.
  machine.host_name = std::string(1021, 'a') + "\xe9";
  EXPECT_EQ(netlayer_gethostname(buffer, 1024), 0);
  EXPECT_EQ(std::strlen(buffer), 1023u);
  EXPECT_EQ(static_cast<uint8_t>(buffer[1022]), 0xA9);
}

TEST(HostidHostName, TheSavedNameOutlivesTheCacheNotTheContext) {
  FakePort machine;
  machine.install_all_libraries();
  Context c;
  EXPECT_STREQ(hostname_get(c.handle), "alpha");
  EXPECT_STREQ(c.handle->host_name_saved, "alpha");
  machine.host_name = "beta";
  EXPECT_STREQ(hostname_get(c.handle), "alpha");
  EXPECT_EQ(machine.host_name_reads, 1);
  Context d;
  EXPECT_STREQ(hostname_get(d.handle), "beta");
}

}  // namespace
