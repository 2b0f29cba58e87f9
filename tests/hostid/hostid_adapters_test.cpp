// The hardware addresses: the 120-second cache with its one stamp, the route
// that each system version takes, the filters of each route, the physical
// test and the limits of the lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "fake_port.h"

namespace {

using namespace hostid_test;
using Bytes = std::vector<uint8_t>;
using Names = std::vector<std::string>;

// GetVersion values: major in bits 0-7, minor 8-15, build 16-31, top bit
// for the older family.
constexpr uint32_t version_of(uint32_t major, uint32_t minor, uint32_t build, bool older = false) {
  return (older ? 0x80000000u : 0u) | (build << 16) | (minor << 8) | major;
}

std::u16string wide(const std::string& text) { return {text.begin(), text.end()}; }

// "02000000000N" for N in first..last, quoted when more than one.
std::string numbered(int first, int last) {
  std::string text;
  for (int i = first; i <= last; ++i) {
    char group[16];
    std::snprintf(group, sizeof group, "%s0200000000%02x", i > first ? " " : "", i);
    text += group;
  }
  return last > first ? "\"" + text + "\"" : text;
}

TEST(HostidAddressCache, OneEnumerationIn120Seconds) {
  FakePort machine;
  int32_t result = -1;
  machine.adapters_result = 8;  // not enough memory, before any list
  EXPECT_EQ(read_ids(&result), "000000000000");
  EXPECT_EQ(result, 0);
  machine.adapters_result = 0;
  EXPECT_EQ(read_ids(&result), "000000000000");  // no data: an empty list is read again
  EXPECT_EQ(result, 0);
  EXPECT_EQ(machine.adapter_calls, 2);
  machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
  const int64_t t0 = machine.clock;
  EXPECT_EQ(read_ids(), "020000000001");
  EXPECT_EQ(machine.adapter_calls, 4);  // the size, then the fill
  machine.adapters[0].address = {0x02, 0, 0, 0, 0, 0x02};
  machine.clock = t0 + 119;
  EXPECT_EQ(read_ids(), "020000000001");
  machine.clock = t0 + 120;  // exactly 120 seconds old: read again
  EXPECT_EQ(read_ids(), "020000000002");
  machine.clock = t0;  // a clock set back keeps the list in force
  machine.adapters[0].address = {0x02, 0, 0, 0, 0, 0x03};
  EXPECT_EQ(read_ids(), "020000000002");
  EXPECT_EQ(machine.adapter_calls, 6);
  // Failures keep the last list: no data, another status, no buffer.
  machine.adapters.clear();
  machine.clock = t0 + 1000;
  EXPECT_EQ(read_ids(&result), "020000000002");
  EXPECT_EQ(result, 1);
  machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x04});
  machine.adapters_result = 31;
  machine.clock += 120;
  EXPECT_EQ(read_ids(), "020000000002");
  machine.adapters_result = 0;
  machine.clock += 120;
  machine.fail_allocation(2);  // the head record is the first block, the buffer the second
  EXPECT_EQ(read_ids(), "020000000002");
}

TEST(HostidAddressCache, OneStampServesBothLists) {
  FakePort machine;
  machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
  machine.class_entries = {{"0000", "{A}", 0x4}};
  const int64_t t0 = machine.clock;
  read_ids();  // all adapters, at t0
  machine.clock = t0 + 100;
  hostid_set_physical_only(1);
  EXPECT_EQ(read_ids(), "020000000001");  // its list is empty: refresh
  EXPECT_EQ(machine.adapter_calls, 4);
  // The stamp moved to t0 + 100, which prolongs the list of all adapters.
  hostid_set_physical_only(0);
  machine.clock = t0 + 200;
  read_ids();
  EXPECT_EQ(machine.adapter_calls, 4);
  machine.clock = t0 + 220;
  read_ids();
  EXPECT_EQ(machine.adapter_calls, 6);
}

TEST(HostidVersions, WhichRouteRuns) {
  // The IP helper route from Windows 2000 (5.0) on, and on 4.90; not on NT
  // 4.0 nor at build 1381 and below. The older family's own numbers are
  // judged by the enumeration, with the build read without the family bit.
  const std::tuple<uint32_t, bool, const char*> cases[] = {
      {version_of(10, 0, 19041), true, "10.0"},
      {version_of(5, 0, 2195), true, "2000"},
      {version_of(5, 1, 1382), true, "build 1382"},
      {version_of(5, 1, 1381), false, "build 1381"},
      {version_of(4, 0, 1381), false, "NT 4.0"},
      {version_of(4, 0, 5000), false, "4.0 whatever the build"},
      {version_of(4, 90, 3000), true, "4.90 of the NT line"},
      {version_of(4, 90, 1000), true, "4.90 is never too old, even with a small build"},
      {version_of(6, 1, 0), false, "build 0"},
      {version_of(4, 90, 3000, true), true, "older 4.90"},
      {version_of(4, 10, 2222, true), false, "older 4.10"},
      {version_of(3, 95, 0x7FFF, true), true, "older, build 0x7FFF"},
  };
  FakePort machine;
  machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
  machine.transports = {u"020000000002"};
  for (const auto& [version, ip_helper, why] : cases) {
    machine.version = version;
    HostIdContext context{};
    context.records = hostid_record_new();
    EXPECT_EQ(hostid_adapters_enumerate(&context), 1) << why;
    EXPECT_EQ(context.records->value.address[5], ip_helper ? 1 : 2) << why;
    hostid_records_free(context.records);
  }
}

TEST(HostidIpHelper, FiltersTheNameTableAndOrder) {
  FakePort machine;
  const std::pair<Bytes, const char*> adapters[] = {
      {{0x0a, 0, 0, 0, 0, 0x01}, "Intel Ethernet"},
      {{0x0a, 0, 0, 0, 0, 0x02, 0, 0}, "Intel Ethernet"},  // length 8
      {{0x0a, 0, 0, 0, 0, 0x03}, "MS LoopBack Driver"},
      {{0x0a, 0, 0, 0, 0, 0x04}, "Microsoft Loopback Adapter"},
      {{0x0a, 0, 0, 0, 0, 0x05}, "MS TCP Loopback interface"},
      {{0x0a, 0, 0, 0, 0, 0x06}, "Teredo Tunneling Pseudo-Interface"},
      {{0x0a, 0, 0, 0, 0, 0x07}, "Loopback Pseudo-Interface"},
      {{0x0a, 0, 0, 0, 0, 0x08}, "ms loopback driver"},           // case differs
      {{0x0a, 0, 0, 0, 0, 0x09}, "Loopback Pseudo-Interface 1"},  // longer
      {{0, 0, 0, 0, 0, 0}, "Zero"},                               // no test of the value
      {{0x0a, 0, 0, 0, 0, 0x01}, "Again"},                        // a double stays
      {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, "Ones"},
      {{0x0a, 0, 0, 0, 0, 0}, "Last three zero"},
      {{}, "No address"},
      {{0x0a, 0, 0, 0, 0x0f}, "Five bytes"},
  };
  for (const auto& [address, description] : adapters) {
    machine.add_adapter("{x}", address, wide(description));
  }
  EXPECT_EQ(read_ids(),
            "\"0a0000000001 0a0000000008 0a0000000009 000000000000 0a0000000001 ffffffffffff "
            "0a0000000000\"");
  EXPECT_EQ(machine.mutex_names, Names{"IPHelperMutex_4242"});
  EXPECT_EQ(machine.mutex_waits, 0);  // created, so owned: no wait
  EXPECT_EQ(machine.mutex_releases + machine.mutex_closes, 2);
  EXPECT_EQ(machine.live_blocks, 0);  // the buffer was freed
}

TEST(HostidIpHelper, FirstTenInOrderAndTheCacheListOfFive) {
  FakePort machine;
  for (uint8_t i = 1; i <= 12; ++i) machine.add_adapter("{x}", {2, 0, 0, 0, 0, i});
  // Ten don't fit into a cache list of five: the next call reads again and
  // gives the same ten, never a shortened list.
  EXPECT_EQ(read_ids(), numbered(1, 10));
  EXPECT_EQ(read_ids(), numbered(1, 10));
  EXPECT_EQ(machine.adapter_calls, 4);
  // Five fit, and are delivered from the cache.
  machine.adapters.resize(5);
  machine.clock += 1;
  EXPECT_EQ(read_ids(), numbered(1, 5));
  machine.adapters.resize(1);
  EXPECT_EQ(read_ids(), numbered(1, 5));
  EXPECT_EQ(machine.adapter_calls, 6);
}

TEST(HostidIpHelper, LoadedOnceUnderTheMutex) {
  FakePort machine;
  machine.mutex_exists = true;
  hostid_ip_helper_load();
  hostid_ip_helper_load();
  EXPECT_EQ(machine.mutex_waits, 1);
  EXPECT_EQ(machine.loads, Names{"iphlpapi.dll"});
}

TEST(HostidIpHelper, WithoutTheMutexNothingIsLoaded) {
  FakePort machine;
  machine.mutex_fails = true;
  hostid_ip_helper_load();
  hostid_ip_helper_load();  // and the next call tries again
  EXPECT_EQ(machine.mutex_names.size(), 2u);
  EXPECT_TRUE(machine.loads.empty());
}

TEST(HostidIpHelper, WithoutTheFunctionTheTransportRouteRuns) {
  // The load isn't tried again.
  FakePort machine;
  machine.libraries["iphlpapi.dll"] = {"GetAdaptersAddresses"};
  machine.transports = {u"020000000002"};
  EXPECT_EQ(read_ids(), "020000000002");
  machine.clock += 120;
  read_ids();
  EXPECT_EQ(std::count(machine.loads.begin(), machine.loads.end(), "iphlpapi.dll"), 1);
  EXPECT_EQ(machine.adapter_calls, 0);
}

TEST(HostidTransport, ParserFiltersAndTheFirstTen) {
  EXPECT_EQ(hostid_transport_address_parse(nullptr, nullptr), 0);
  FakePort machine;
  machine.libraries.erase("iphlpapi.dll");
  machine.transports = {u"0A1B2C3D4E5F", u"44455354AABB",  // "DEST" in its first four bytes
                        u"0A1B2C000000",                   // last three bytes zero
                        u"000000000000", u"204C4F4F5020",  // " LOOP "
                        u"0A1B2C3D4E5F",                   // a double: the first stays
                        u"FFFFFFFFFFFF", u"0A1B",          // too short to name an adapter
                        u"0A1B2C3D4E60",
                        // Only the low byte of each character counts; a non-digit
                        // is its code less 0x37, so 'a' 'b' make 0x2A * 16 + 0x2B.
                        u"\u0130\u0141FFab000001",
                        // Near misses of each rule stay.
                        u"444553AAAAAA", u"0A1B2C3D0000", u"204C4F4F5021"};
  EXPECT_EQ(read_ids(),
            "\"0a1b2c3d4e5f ffffffffffff 0a1b2c3d4e60 0affcb000001 444553aaaaaa 0a1b2c3d0000 "
            "204c4f4f5021\"");
  EXPECT_EQ(machine.library_frees, 1);  // NETAPI32 is freed behind each use
  machine.transports.clear();
  for (int i = 1; i <= 12; ++i) {
    std::string digits = numbered(i, i);  // the system writes them upper case
    std::transform(digits.begin(), digits.end(), digits.begin(), ::toupper);
    machine.transports.push_back(wide(digits));
  }
  machine.clock += 120;
  EXPECT_EQ(read_ids(), numbered(1, 10));
}

TEST(HostidTransport, FailuresGiveTheZeroHeadAndNoCache) {
  // No NETAPI32, each of its functions missing, the enumeration failing.
  FakePort machine;
  machine.libraries.erase("iphlpapi.dll");
  machine.transports = {u"0A1B2C3D4E5F"};
  for (int variant = 0; variant < 4; ++variant) {
    machine.libraries["NETAPI32.Dll"] = {variant == 1 ? "NetApiBufferFree" : "",
                                         variant == 2 ? "NetWkstaTransportEnum" : ""};
    if (variant == 0) machine.libraries.erase("NETAPI32.Dll");
    machine.transport_result = variant == 3 ? 234 : 0;
    const int frees = machine.library_frees;
    for (int read = 0; read < 2; ++read) {
      int32_t result = 0;
      EXPECT_EQ(read_ids(&result), "000000000000") << variant;  // the head, type 2, all zero
      EXPECT_EQ(result, 1) << variant;
    }
    // Nothing was cached: each read loaded the library, and freed it.
    EXPECT_EQ(std::count(machine.loads.begin(), machine.loads.end(), "NETAPI32.Dll"),
              2 * (variant + 1));
    EXPECT_EQ(machine.library_frees - frees, variant == 0 ? 0 : 2) << variant;
  }
}

TEST(HostidPhysical, TheRegistryDecides) {
  FakePort machine;
  // Physical: Characteristics with 0x4, or with 0x8000 and 0x1 both.
  machine.class_entries = {{"0000", "{A}", 0x8001}, {"0001", "{B}", 0x8000},
                           {"0002", "{C}", 0x84},   {"0003", "{D}", 0x1},
                           {"0004", nullptr, 0x4},  // no instance id
                           {"0005", "{E}", -1},     // no characteristics: next subkey
                           {"0006", "{E}", 0x4},    {"0007", "{F}", 0x4, true},  // can't be opened
                           {"0008", "{F}", 0x0},    {"0009", "{G}", 0x0},
                           {"0010", "{G}", 0x4},  // the first readable match decided
                           {"0011", "{a}", 0x4}};
  for (const char* name : {"{A}", "{C}", "{E}"}) EXPECT_EQ(hostid_adapter_is_physical(name), 1);
  for (const char* name : {"{B}", "{D}", "{F}", "{G}", "{A", "{A}}", "{Z}"}) {
    EXPECT_EQ(hostid_adapter_is_physical(name), 0) << name;
  }
  EXPECT_EQ(machine.registry_open_keys, 0);  // every key opened was closed
  machine.class_key_opens = false;
  EXPECT_EQ(hostid_adapter_is_physical("{A}"), 0);
  EXPECT_EQ(machine.live_blocks, 0);
}

TEST(HostidPhysical, PhysicalOnlyKeepsRegistryPhysicalAndTheMultiplexor) {
  FakePort machine;
  for (const char* name : {"{A}", "{B}", "{C}"}) {
    machine.add_adapter(name, {2, 0, 0, 0, 0, static_cast<uint8_t>(name[1] - 'A' + 1)});
  }
  machine.add_adapter("{M}", {2, 0, 0, 0, 0, 4},
                      u"Microsoft Network Adapter Multiplexor Driver #2");
  machine.add_adapter("{D}", {2, 0, 0, 0, 0, 5}, u"Microsoft Loopback Adapter");
  machine.class_entries = {{"0000", "{A}", 0x8001},
                           {"0001", "{B}", 0x8000},
                           {"0002", "{C}", 0x84},
                           {"0003", "{D}", 0x4}};
  hostid_set_physical_only(1);
  EXPECT_EQ(read_ids(), "\"020000000001 020000000003 020000000004\"");
  hostid_set_physical_only(0);
  EXPECT_EQ(read_ids(), numbered(1, 4));
}

TEST(HostidNetbios, TheOlderFamilyWalksTheLanAdapters) {
  FakePort machine;
  machine.version = version_of(4, 10, 2222, true);
  machine.lanas = {3, 0, 7, 5};
  Bytes status3(600, 0), status7(600, 0);
  status3[0] = status7[0] = 0x0a;
  status3[5] = 0x03;
  status7[5] = 0x07;
  // 0 has the same address as 3: once; 5 fails: the walk ends.
  machine.lana_status = {{3, status3}, {0, status3}, {7, status7}};
  EXPECT_EQ(read_ids(), "\"0a0000000003 0a0000000007\"");
  EXPECT_EQ(machine.netbios_status_calls, 4);
  EXPECT_EQ(read_ids(), "\"0a0000000003 0a0000000007\"");  // from the cache
  EXPECT_EQ(machine.netbios_status_calls, 4);
  EXPECT_EQ(machine.adapter_calls, 0);
}

TEST(HostidNetbios, NoNetbiosIsReadOnceAndOnlyOnTheOlderFamily) {
  FakePort machine;
  machine.version = version_of(4, 10, 2222, true);
  machine.environment["HID_NO_NETBIOS"] = "";
  machine.lanas = {0};
  machine.lana_status = {{0, Bytes{0x0a, 0, 0, 0, 0, 1}}};
  EXPECT_EQ(read_ids(), "000000000000");
  machine.environment.erase("HID_NO_NETBIOS");
  EXPECT_EQ(read_ids(), "000000000000");
  EXPECT_EQ(machine.netbios_status_calls, 0);
  machine.version = version_of(10, 0, 19041);  // the NT line takes no notice
  machine.add_adapter("{A}", {2, 0, 0, 0, 0, 1});
  EXPECT_EQ(read_ids(), "020000000001");
}

TEST(HostidChain, AFailedRecordEndsTheChainWellFormed) {
  FakePort machine;
  for (uint8_t i = 1; i <= 4; ++i) machine.add_adapter("{x}", {2, 0, 0, 0, 0, i});
  // Allocations: the head, the adapter buffer, then records for the 2nd,
  // 3rd, 4th.
  machine.fail_allocation(4);
  EXPECT_EQ(read_ids(), numbered(1, 2));
  EXPECT_EQ(machine.live_blocks, 0);
  // The cache holds the whole list all the same.
  EXPECT_EQ(read_ids(), numbered(1, 4));
  EXPECT_EQ(machine.adapter_calls, 2);
}

}  // namespace
