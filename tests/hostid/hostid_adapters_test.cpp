// The hardware addresses: the 120-second cache with its one stamp, the route
// that each system version takes, the filters of each route, the physical
// test and the limits of the lists.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_port.h"

namespace {

using hostid_test::FakePort;
using Bytes = std::vector<uint8_t>;

// GetVersion values: major in bits 0-7, minor 8-15, build 16-31, top bit
// for the older family.
constexpr uint32_t version_of(uint32_t major, uint32_t minor, uint32_t build, bool older = false) {
  return (older ? 0x80000000u : 0u) | (build << 16) | (minor << 8) | major;
}

// Reads the addresses as the lookup of a miss does, into a fresh head.
struct Read {
  HostIdContext context{};
  int32_t result = 0;
  Read() {
    context.tag = HOSTID_CONTEXT_TAG;
    context.records = hostid_record_new();
    context.records->type = HOSTID_TYPE_ETHER;
    result = hostid_read_adapter_addresses(&context);
  }
  ~Read() { hostid_records_free(context.records); }
  std::string text() const { return hostid_chain_to_text(nullptr, context.records); }
};

std::u16string transport(const char* digits) {
  std::u16string text;
  for (const char* c = digits; *c != 0; ++c) text += static_cast<char16_t>(*c);
  return text;
}

TEST(HostidAddressCache, OneEnumerationIn120SecondsAndTheEmptyListAlwaysRefreshes) {
  FakePort machine;
  machine.install_all_libraries();
  machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
  int64_t t0 = machine.clock;
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000001");
  }
  EXPECT_EQ(machine.adapter_calls, 2);  // the size, then the fill
  machine.adapters[0].address = {0x02, 0, 0, 0, 0, 0x02};
  machine.clock = t0 + 119;
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000001");
  }
  EXPECT_EQ(machine.adapter_calls, 2);
  machine.clock = t0 + 120;  // exactly 120 seconds old: read again
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000002");
  }
  EXPECT_EQ(machine.adapter_calls, 4);

  // A clock set back keeps the list in force.
  machine.clock = t0;
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000002");
  }
  EXPECT_EQ(machine.adapter_calls, 4);

  machine.adapters.clear();
  machine.clock = t0 + 1000;
  {
    Read r;
    EXPECT_EQ(r.result, 1);
  }  // the IP helper route kept its last list
  FakePort empty;
  empty.install_all_libraries();
  for (int i = 0; i < 3; ++i) {
    Read r;
    EXPECT_EQ(r.result, 0);
  }
  EXPECT_EQ(empty.adapter_calls, 3);  // no data: one call each time
}

TEST(HostidAddressCache, OneStampServesBothLists) {
  FakePort machine;
  machine.install_all_libraries();
  machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
  machine.class_entries = {{"0000", true, "{A}", true, 0x4}};
  int64_t t0 = machine.clock;
  { Read r; }  // all adapters, at t0
  EXPECT_EQ(machine.adapter_calls, 2);
  machine.clock = t0 + 100;
  hostid_set_physical_only(1);
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000001");
  }  // its list is empty: refresh
  EXPECT_EQ(machine.adapter_calls, 4);
  // The stamp moved to t0 + 100, which prolongs the list of all adapters.
  hostid_set_physical_only(0);
  machine.clock = t0 + 200;
  { Read r; }
  EXPECT_EQ(machine.adapter_calls, 4);
  machine.clock = t0 + 220;
  { Read r; }
  EXPECT_EQ(machine.adapter_calls, 6);
}

TEST(HostidVersions, WhichRouteRuns) {
  struct Case {
    uint32_t version;
    bool ip_helper;
    const char* why;
  };
  const Case cases[] = {
      {version_of(10, 0, 19041), true, "10.0"},
      {version_of(5, 0, 2195), true, "2000"},
      {version_of(5, 1, 1382), true, "build 1382"},
      {version_of(5, 1, 1381), false, "build 1381"},
      {version_of(4, 0, 1381), false, "NT 4.0"},
      {version_of(4, 0, 5000), false, "4.0 whatever the build"},
      {version_of(4, 90, 3000), true, "4.90 of the NT line"},
      {version_of(4, 90, 1000), true, "4.90 is never too old, even with a small build"},
      {version_of(6, 1, 0), false, "build 0"},
  };
  for (const Case& c : cases) {
    FakePort machine;
    machine.install_all_libraries();
    machine.version = c.version;
    machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
    machine.transports = {transport("020000000002")};
    Read r;
    EXPECT_EQ(r.text(), c.ip_helper ? "020000000001" : "020000000002") << c.why;
  }
}

TEST(HostidVersions, EnumerateJudgesTheOlderFamilyToo) {
  // The older family's own numbers: 4.90 passes, 4.10 doesn't, and the build
  // is read without the family bit.
  for (auto [version, ip_helper] : {std::pair{version_of(4, 90, 3000, true), true},
                                    std::pair{version_of(4, 10, 2222, true), false},
                                    std::pair{version_of(3, 95, 0x7FFF, true), true}}) {
    FakePort machine;
    machine.install_all_libraries();
    machine.version = version;
    machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
    machine.transports = {transport("020000000002")};
    HostIdContext context{};
    context.records = hostid_record_new();
    EXPECT_EQ(hostid_adapters_enumerate(&context), 1);
    EXPECT_EQ(context.records->value.address[5], ip_helper ? 1 : 2) << std::hex << version;
    hostid_records_free(context.records);
  }
}

TEST(HostidIpHelper, FiltersAndOrder) {
  FakePort machine;
  machine.install_all_libraries();
  machine.add_adapter("{1}", {0x0a, 0, 0, 0, 0, 0x01}, u"Intel Ethernet");
  machine.add_adapter("{2}", {0x0a, 0, 0, 0, 0, 0x02, 0, 0}, u"Intel Ethernet");  // length 8
  machine.add_adapter("{3}", {0x0a, 0, 0, 0, 0, 0x03}, u"MS LoopBack Driver");
  machine.add_adapter("{4}", {0x0a, 0, 0, 0, 0, 0x04}, u"Microsoft Loopback Adapter");
  machine.add_adapter("{5}", {0x0a, 0, 0, 0, 0, 0x05}, u"MS TCP Loopback interface");
  machine.add_adapter("{6}", {0x0a, 0, 0, 0, 0, 0x06}, u"Teredo Tunneling Pseudo-Interface");
  machine.add_adapter("{7}", {0x0a, 0, 0, 0, 0, 0x07}, u"Loopback Pseudo-Interface");
  machine.add_adapter("{8}", {0x0a, 0, 0, 0, 0, 0x08}, u"ms loopback driver");  // case differs
  machine.add_adapter("{9}", {0x0a, 0, 0, 0, 0, 0x09}, u"Loopback Pseudo-Interface 1");  // longer
  machine.add_adapter("{a}", {0, 0, 0, 0, 0, 0}, u"Zero");         // no test of the value
  machine.add_adapter("{b}", {0x0a, 0, 0, 0, 0, 0x01}, u"Again");  // a double stays
  machine.add_adapter("{c}", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, u"Ones");
  machine.add_adapter("{d}", {0x0a, 0, 0, 0x00, 0x00, 0x00}, u"Last three zero");
  machine.add_adapter("{e}", {}, u"No address");
  machine.add_adapter("{f}", {0x0a, 0, 0, 0, 0x0f}, u"Five bytes");
  Read r;
  EXPECT_EQ(r.text(),
            "\"0a0000000001 0a0000000008 0a0000000009 000000000000 0a0000000001 ffffffffffff "
            "0a0000000000\"");
  EXPECT_EQ(machine.mutex_names, std::vector<std::string>{"IPHelperMutex_4242"});
  EXPECT_EQ(machine.mutex_releases, 1);
  EXPECT_EQ(machine.mutex_closes, 1);
  EXPECT_EQ(machine.mutex_waits, 0);
  EXPECT_EQ(hostid_heap_live(), 7);  // the seven records of the chain; the buffer was freed
}

TEST(HostidIpHelper, FirstTenInOrderAndTheCacheListOfFive) {
  FakePort machine;
  machine.install_all_libraries();
  for (uint8_t i = 1; i <= 12; ++i)
    machine.add_adapter("{" + std::to_string(i) + "}", {2, 0, 0, 0, 0, i});
  std::string first_ten = "\"";
  for (int i = 1; i <= 10; ++i) {
    char group[16];
    std::snprintf(group, sizeof group, "0200000000%02x", i);
    first_ten += group;
    first_ten += i < 10 ? " " : "\"";
  }
  {
    Read r;
    EXPECT_EQ(r.text(), first_ten);
  }
  // Ten don't fit into a cache list of five: the next call reads again and
  // gives the same ten, never a shortened list.
  {
    Read r;
    EXPECT_EQ(r.text(), first_ten);
  }
  EXPECT_EQ(machine.adapter_calls, 4);

  // Five fit, and are delivered from the cache.
  machine.adapters.resize(5);
  machine.clock += 1;
  {
    Read r;
    EXPECT_EQ(r.text(), "\"020000000001 020000000002 020000000003 020000000004 020000000005\"");
  }
  machine.adapters.resize(1);
  {
    Read r;
    EXPECT_EQ(r.text(), "\"020000000001 020000000002 020000000003 020000000004 020000000005\"");
  }
  EXPECT_EQ(machine.adapter_calls, 6);
}

TEST(HostidIpHelper, FailuresKeepTheLastList) {
  FakePort machine;
  machine.install_all_libraries();
  machine.adapters_result = 8;  // not enough memory, before any list
  {
    Read r;
    EXPECT_EQ(r.result, 0);
  }
  machine.adapters_result = 0;
  machine.add_adapter("{A}", {0x02, 0, 0, 0, 0, 0x01});
  machine.clock += 1;
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000001");
  }
  machine.adapters[0].address = {0x02, 0, 0, 0, 0, 0x02};
  machine.adapters_result = 31;
  machine.clock += 120;
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000001");
  }  // the earlier result stands
  // The buffer can't be had: the same.
  machine.adapters_result = 0;
  machine.clock += 120;
  hostid_heap_fail_at(2);  // the head record is the first, the buffer the second
  {
    Read r;
    EXPECT_EQ(r.text(), "020000000001");
  }
  hostid_heap_fail_at(0);
}

TEST(HostidIpHelper, LoadedOnceUnderTheMutexOrNotAtAll) {
  {
    FakePort machine;
    machine.install_all_libraries();
    machine.mutex_exists = true;
    hostid_ip_helper_load();
    hostid_ip_helper_load();
    EXPECT_EQ(machine.mutex_waits, 1);
    EXPECT_EQ(machine.mutex_names.size(), 1u);
    EXPECT_EQ(std::count(machine.loads.begin(), machine.loads.end(), "iphlpapi.dll"), 1);
  }
  {
    // Without the mutex nothing is loaded and the next call tries again.
    FakePort machine;
    machine.install_all_libraries();
    machine.mutex_fails = true;
    hostid_ip_helper_load();
    hostid_ip_helper_load();
    EXPECT_EQ(machine.mutex_names.size(), 2u);
    EXPECT_TRUE(machine.loads.empty());
  }
  {
    // A library without the function: the transport route runs instead, and
    // the load isn't tried again.
    FakePort machine;
    machine.install_all_libraries();
    machine.libraries["iphlpapi.dll"].clear();
    machine.transports = {transport("020000000002")};
    {
      Read r;
      EXPECT_EQ(r.text(), "020000000002");
    }
    machine.clock += 120;
    { Read r; }
    EXPECT_EQ(std::count(machine.loads.begin(), machine.loads.end(), "iphlpapi.dll"), 1);
    EXPECT_EQ(machine.adapter_calls, 0);
  }
}

TEST(HostidTransport, ParserAndFilters) {
  uint8_t a[6];
  const uint16_t digits[] = {'0', 'A', '1', 'B', '2', 'C', '3', 'D', '4', 'E', '5', 'F', 0};
  EXPECT_EQ(hostid_transport_address_parse(digits, a), 1);
  EXPECT_EQ(Bytes(a, a + 6), (Bytes{0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}));
  // Only the low byte of each character counts; a non-digit is its code
  // less 0x37, so lower case gives other values than upper.
  const uint16_t wide[] = {0x130, 0x141, 'F', 'F', 'a', 'b', '0', '0', '0', '0', '0', '1', 0};
  EXPECT_EQ(hostid_transport_address_parse(wide, a), 1);
  EXPECT_EQ(a[0], 0x0a);  // '0', 'A'
  EXPECT_EQ(a[1], 0xff);
  EXPECT_EQ(a[2], static_cast<uint8_t>((0x61 - 0x37) * 16 + (0x62 - 0x37)));
  const uint16_t short_text[] = {'0', 'A', '1', 'B', 0};
  EXPECT_EQ(hostid_transport_address_parse(short_text, a), 0);
  EXPECT_EQ(hostid_transport_address_parse(nullptr, a), 0);

  FakePort machine;
  machine.install_all_libraries();
  machine.libraries.erase("iphlpapi.dll");
  machine.transports = {
      transport("0A1B2C3D4E5F"),
      transport("44455354AABB"),  // "DEST" in its first four bytes
      transport("0A1B2C000000"),  // last three bytes zero
      transport("000000000000"),
      transport("204C4F4F5020"),  // " LOOP "
      transport("0A1B2C3D4E5F"),  // a double: the first stays
      transport("FFFFFFFFFFFF"),
      transport("0A1B"),  // too short to name an adapter
      transport("0A1B2C3D4E60"),
  };
  Read r;
  EXPECT_EQ(r.text(), "\"0a1b2c3d4e5f ffffffffffff 0a1b2c3d4e60\"");
  EXPECT_EQ(machine.library_frees, 1);  // NETAPI32 is freed behind each use
}

TEST(HostidTransport, FailuresGiveTheZeroHeadAndNoCache) {
  for (int variant = 0; variant < 4; ++variant) {
    FakePort machine;
    machine.install_all_libraries();
    machine.libraries.erase("iphlpapi.dll");
    machine.transports = {transport("0A1B2C3D4E5F")};
    if (variant == 0) machine.libraries.erase("NETAPI32.Dll");
    if (variant == 1) machine.libraries["NETAPI32.Dll"].erase("NetApiBufferFree");
    if (variant == 2) machine.libraries["NETAPI32.Dll"].erase("NetWkstaTransportEnum");
    if (variant == 3) machine.transport_result = 234;
    {
      Read r;
      EXPECT_EQ(r.result, 1) << variant;
      EXPECT_EQ(r.text(), "000000000000") << variant;  // the head, type 2, all zero
      EXPECT_EQ(r.context.records->next, nullptr);
    }
    int loads = static_cast<int>(machine.loads.size());
    { Read r; }
    EXPECT_GT(static_cast<int>(machine.loads.size()), loads) << variant;  // nothing was cached
    EXPECT_EQ(machine.library_frees, variant == 0 ? 0 : 2) << variant;    // one per load
  }
}

TEST(HostidTransport, MoreThanTenKeepsTheFirstTen) {
  FakePort machine;
  machine.install_all_libraries();
  machine.libraries.erase("iphlpapi.dll");
  for (int i = 1; i <= 12; ++i) {
    char digits[13];
    std::snprintf(digits, sizeof digits, "0200000000%02X", i);
    machine.transports.push_back(transport(digits));
  }
  Read r;
  int count = 0;
  for (HostIdRecord* x = r.context.records; x != nullptr; x = x->next) {
    ++count;
    EXPECT_EQ(x->value.address[5], count);
  }
  EXPECT_EQ(count, 10);
}

TEST(HostidAddressAdd, RulesInOrder) {
  uint8_t list[HOSTID_MAX_ADDRESSES][6];
  int32_t count = 0;
  const uint8_t dest[6] = {'D', 'E', 'S', 'T', 1, 2};
  const uint8_t zero_tail[6] = {1, 2, 3, 0, 0, 0};
  const uint8_t loop[6] = {' ', 'L', 'O', 'O', 'P', ' '};
  const uint8_t ones[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  const uint8_t almost_loop[6] = {' ', 'L', 'O', 'O', 'P', '!'};
  EXPECT_EQ(hostid_address_add(list, &count, dest), 0);
  EXPECT_EQ(hostid_address_add(list, &count, zero_tail), 0);
  EXPECT_EQ(hostid_address_add(list, &count, loop), 0);
  EXPECT_EQ(hostid_address_add(list, &count, ones), 1);
  EXPECT_EQ(hostid_address_add(list, &count, almost_loop), 1);
  EXPECT_EQ(hostid_address_add(list, &count, ones), 0);
  EXPECT_EQ(count, 2);
  for (uint8_t i = 0; i < 12; ++i) {
    const uint8_t a[6] = {2, 0, 0, 0, 1, i};
    EXPECT_EQ(hostid_address_add(list, &count, a), i < 8 ? 1 : 0) << int{i};
  }
  EXPECT_EQ(count, 10);
  EXPECT_EQ(list[9][5], 7);
}

TEST(HostidPhysical, TheRegistryDecides) {
  FakePort machine;
  machine.class_entries = {
      {"0000", true, "{A}", true, 0x8001},
      {"0001", true, "{B}", true, 0x8000},
      {"0002", true, "{C}", true, 0x84},
      {"0003", true, "{D}", true, 0x1},
      {"0004", false, "", true, 0x4},   // no instance id
      {"0005", true, "{E}", false, 0},  // no characteristics: next subkey
      {"0006", true, "{E}", true, 0x4},
      {"0007", true, "{F}", true, 0x4, false},  // can't be opened
      {"0008", true, "{F}", true, 0x0},
      {"0009", true, "{G}", true, 0x0},
      {"0010", true, "{G}", true, 0x4},  // the first readable match decided
      {"0011", true, "{a}", true, 0x4},
  };
  EXPECT_EQ(hostid_adapter_is_physical("{A}"), 1);
  EXPECT_EQ(hostid_adapter_is_physical("{B}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{C}"), 1);
  EXPECT_EQ(hostid_adapter_is_physical("{D}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{E}"), 1);
  EXPECT_EQ(hostid_adapter_is_physical("{F}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{G}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{A"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{A}}"), 0);
  EXPECT_EQ(hostid_adapter_is_physical("{Z}"), 0);
  EXPECT_EQ(machine.registry_open_keys, 0);  // every key opened was closed
  machine.class_key_opens = false;
  EXPECT_EQ(hostid_adapter_is_physical("{A}"), 0);
  EXPECT_EQ(hostid_heap_live(), 0);
}

TEST(HostidPhysical, PhysicalOnlyKeepsRegistryPhysicalAndTheMultiplexor) {
  FakePort machine;
  machine.install_all_libraries();
  machine.add_adapter("{A}", {2, 0, 0, 0, 0, 1});
  machine.add_adapter("{B}", {2, 0, 0, 0, 0, 2});
  machine.add_adapter("{C}", {2, 0, 0, 0, 0, 3});
  machine.add_adapter("{M}", {2, 0, 0, 0, 0, 4},
                      u"Microsoft Network Adapter Multiplexor Driver #2");
  machine.add_adapter("{D}", {2, 0, 0, 0, 0, 5}, u"Microsoft Loopback Adapter");
  machine.class_entries = {{"0000", true, "{A}", true, 0x8001},
                           {"0001", true, "{B}", true, 0x8000},
                           {"0002", true, "{C}", true, 0x84},
                           {"0003", true, "{D}", true, 0x4}};
  hostid_set_physical_only(1);
  {
    Read r;
    EXPECT_EQ(r.text(), "\"020000000001 020000000003 020000000004\"");
  }
  hostid_set_physical_only(0);
  {
    Read r;
    EXPECT_EQ(r.text(), "\"020000000001 020000000002 020000000003 020000000004\"");
  }
}

TEST(HostidNetbios, TheOlderFamilyWalksTheLanAdapters) {
  FakePort machine;
  machine.install_all_libraries();
  machine.version = version_of(4, 10, 2222, true);
  machine.lanas = {3, 0, 7, 5};
  Bytes status3(600, 0), status0(600, 0), status7(600, 0);
  status3[0] = 0x0a;
  status3[5] = 0x03;
  status0 = status3;  // the same address twice: once
  status7[0] = 0x0a;
  status7[5] = 0x07;
  machine.lana_status = {{3, status3}, {0, status0}, {7, status7}};  // 5 fails: the walk ends
  {
    Read r;
    EXPECT_EQ(r.text(), "\"0a0000000003 0a0000000007\"");
  }
  EXPECT_EQ(machine.netbios_status_calls, 4);
  {
    Read r;
    EXPECT_EQ(r.text(), "\"0a0000000003 0a0000000007\"");
  }  // from the cache
  EXPECT_EQ(machine.netbios_status_calls, 4);
  EXPECT_EQ(machine.adapter_calls, 0);
}

TEST(HostidNetbios, NoNetbiosIsReadOnceAndOnlyOnTheOlderFamily) {
  {
    FakePort machine;
    machine.install_all_libraries();
    machine.version = version_of(4, 10, 2222, true);
    machine.environment["HID_NO_NETBIOS"] = "";
    machine.lanas = {0};
    machine.lana_status = {{0, Bytes{0x0a, 0, 0, 0, 0, 1}}};
    {
      Read r;
      EXPECT_EQ(r.result, 0);
    }
    machine.environment.erase("HID_NO_NETBIOS");
    {
      Read r;
      EXPECT_EQ(r.result, 0);
    }
    EXPECT_EQ(machine.netbios_status_calls, 0);
  }
  {
    FakePort machine;
    machine.install_all_libraries();
    machine.environment["HID_NO_NETBIOS"] = "1";
    machine.add_adapter("{A}", {2, 0, 0, 0, 0, 1});
    Read r;
    EXPECT_EQ(r.text(), "020000000001");
  }
}

TEST(HostidChain, AFailedRecordEndsTheChainWellFormed) {
  FakePort machine;
  machine.install_all_libraries();
  for (uint8_t i = 1; i <= 4; ++i) machine.add_adapter("{x}", {2, 0, 0, 0, 0, i});
  HostIdContext context{};
  context.records = hostid_record_new();
  // Allocations: the adapter buffer, then records for the 2nd, 3rd, 4th.
  hostid_heap_fail_at(3);
  EXPECT_EQ(hostid_read_adapter_addresses(&context), 1);
  hostid_heap_fail_at(0);
  EXPECT_EQ(std::string(hostid_chain_to_text(nullptr, context.records)),
            "\"020000000001 020000000002\"");
  hostid_records_free(context.records);
  EXPECT_EQ(hostid_heap_live(), 0);
  // The cache holds the whole list all the same.
  context.records = hostid_record_new();
  EXPECT_EQ(hostid_read_adapter_addresses(&context), 1);
  EXPECT_EQ(std::string(hostid_chain_to_text(nullptr, context.records)),
            "\"020000000001 020000000002 020000000003 020000000004\"");
  EXPECT_EQ(machine.adapter_calls, 2);
  hostid_records_free(context.records);
}

}  // namespace
