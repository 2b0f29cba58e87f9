// The host identification rules over the fake machine: the context, its two
// caches and the three routes to the adapters against a plain model, the
// report's host block with each allocation failing in turn, the error codes
// and the text of chains that no query makes.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>

#include "fake_port.h"
#include "report.h"

namespace {

using namespace hostid_test;
using Bytes = std::vector<uint8_t>;

// The bytes in hexadecimal, two digits each.
std::string hex(const Bytes& bytes, const char* format = "%02x") {
  std::string text;
  for (uint8_t byte : bytes) {
    char two[3];
    std::snprintf(two, sizeof two, format, byte);
    text += two;
  }
  return text;
}

// clang-format off
// Descriptions, and whether the IP helper's name table leaves the adapter
// out (whole names, with case).
const std::pair<std::u16string, bool> kDescriptions[] = {{u"Ethernet", false},
    {u"MS LoopBack Driver", true}, {u"Microsoft Loopback Adapter", true},
    {u"MS TCP Loopback interface", true}, {u"Teredo Tunneling Pseudo-Interface", true},
    {u"Loopback Pseudo-Interface", true}, {u"ms loopback driver", false},
    {u"Loopback Pseudo-Interface 1", false}};
// Addresses: those the transports and NetBIOS leave out ("DEST", three zero
// bytes at the end, " LOOP ") and their near misses, 8 bytes long (the IP
// helper leaves it out, the others take its first six), none (NetBIOS'
// status fails, the transport's text is too short).
const Bytes kAddresses[] = {{2, 0, 0, 0, 0, 1}, {2, 0, 0, 0, 0, 2}, {0x0a, 0x1b, 0, 0, 0, 0x80},
    {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, {0, 0, 0, 0, 0, 0}, {2, 0x11, 0x22, 0, 0, 0},
    {'D', 'E', 'S', 'T', 1, 2}, {'D', 'E', 'S', 'U', 1, 2}, {' ', 'L', 'O', 'O', 'P', ' '},
    {' ', 'L', 'O', 'O', 'P', '!'}, {2, 0, 0, 0, 0, 3, 0, 0}, {}};
// Host names in the fake's code page, Latin-1, and in UTF-8, cut to 1023
// bytes within a character if need be.
const std::pair<std::string, std::string> kNames[] = {
    {"alpha", "alpha"}, {"b", "b"}, {"", ""}, {"caf\xe9", "caf\xc3\xa9"},
    {std::string(1021, 'a') + "\xe9", std::string(1021, 'a') + "\xc3\xa9"},
    {std::string(1022, 'a') + "\xe9", std::string(1022, 'a') + "\xc3"}};
// The types asked for: the address's two, the name's, and two no query takes.
constexpr int32_t kTypes[] = {-1, -1, 2, 2, 6, 6, 1, 7};
// clang-format on

enum class Route { kIpHelper, kTransports, kNetbios };

// A value of HID_DEBUG_HOSTID (null: unset) and the lifetime it gives, the
// version Windows reports, whether iphlpapi lacks GetAdaptersAddresses, and
// the route that reads the adapters there.
struct Machine {
  const char* variable;
  int64_t lifetime;
  uint32_t version;
  bool no_ip_helper;
  Route route;
};

void PrintTo(const Machine& m, std::ostream* os) {
  *os << (m.variable ? testing::PrintToString(std::string(m.variable)) : "unset") << " " << std::hex
      << m.version << (m.no_ip_helper ? " without GetAdaptersAddresses" : "");
}

class HostidModel : public testing::TestWithParam<Machine> {};

// Queries of every type at random times, while the adapters and the host name
// change and the routes fail now and then. Each answer, status, IP helper call
// and host name read is the model's. The context keeps its answer for the
// lifetime (addresses) or for ever (the name), and any miss replaces it; it
// reads the name until it has one. Below it, a list of addresses in force for
// less than 120 seconds after its refresh, never when empty, never cached
// with more than five. The IP helper keeps every adapter with 6 bytes whose
// description isn't in the name table, the first ten, and a failure leaves
// its last list; the transports and NetBIOS (until a status fails) keep ten
// addresses that pass their filter, and transports that can't be read leave
// the head record all zero, uncached.
TEST_P(HostidModel, AgreesWithThePlainModel) {
  const Machine machine = GetParam();
  FakePort m;
  if (machine.variable != nullptr) m.environment["HID_DEBUG_HOSTID"] = machine.variable;
  m.version = machine.version;
  if (machine.no_ip_helper) m.libraries["iphlpapi.dll"] = "GetAdaptersAddresses";
  std::mt19937 random(machine.version);
  auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  std::vector<Bytes> listed, ip_helper, cached;  // what the IP helper keeps, its list, the cache
  int64_t cache_time = 0, held_time = 0;
  int held_type = 0, adapter_calls = 0, name_reads = 0;  // held: the context's answer
  std::string name = "alpha", saved_name, held_text;

  auto route = [&]() -> std::optional<std::vector<Bytes>> {
    if (machine.route == Route::kIpHelper) {
      const bool fails = m.adapters_result != 0 || m.adapters.empty();
      adapter_calls += fails ? 1 : 2;  // the size, then the list
      if (!fails) ip_helper = listed;
      if (ip_helper.size() > 10) ip_helper.resize(10);
      return ip_helper;
    }
    const std::string lacks = m.libraries["NETAPI32.Dll"];
    if (machine.route == Route::kTransports &&
        (m.transport_result != 0 || lacks == "NetWkstaTransportEnum")) {
      return std::nullopt;
    }
    std::vector<Bytes> kept;
    if (machine.route == Route::kNetbios && lacks == "Netbios") return kept;
    for (size_t i = 0; i < m.lanas.size(); ++i) {
      if (m.lanas[i].empty() && machine.route == Route::kNetbios) break;
      if (m.lanas[i].empty()) continue;
      const Bytes six(m.lanas[i].begin(), m.lanas[i].begin() + 6);
      if (std::equal(six.begin(), six.begin() + 4, "DEST") || (six[3] | six[4] | six[5]) == 0 ||
          six == Bytes{' ', 'L', 'O', 'O', 'P', ' '} ||
          std::find(kept.begin(), kept.end(), six) != kept.end() || kept.size() == 10) {
        continue;
      }
      kept.push_back(six);
    }
    return kept;
  };
  auto addresses = [&]() -> std::vector<Bytes> {
    if (!cached.empty() && m.clock - 120 < cache_time) return cached;
    cached.clear();
    cache_time = m.clock;
    const std::optional<std::vector<Bytes>> found = route();
    if (!found) return {Bytes(6, 0)};  // the head record as it was made
    if (found->size() <= 5) cached = *found;
    return *found;
  };
  auto answer = [&](int32_t type) -> std::string {
    if (type != -1 && type != 2 && type != 6) return "";
    const int wanted = type == 6 ? 6 : 2;
    if (held_type == wanted && (wanted == 6 || m.clock - held_time <= machine.lifetime)) {
      return held_text;
    }
    held_type = wanted;
    held_time = m.clock;
    if (wanted == 6) {
      name_reads += saved_name.empty() ? 1 : 0;
      if (saved_name.empty() && !m.host_name_fails) saved_name = name;
      return held_text = "HOSTNAME=" + saved_name;
    }
    const std::vector<Bytes> list = addresses();
    held_type = list.empty() ? 1 : 2;
    std::string text;
    for (const Bytes& a : list) text += (text.empty() ? "" : " ") + hex(a);
    return held_text = list.empty() ? "ffffffff" : list.size() == 1 ? text : "\"" + text + "\"";
  };

  HostIdContext* context = nullptr;
  ASSERT_EQ(hostid_context_open(&context), 0);
  for (int step = 0; step < 6000; ++step) {
    switch (pick(7)) {
      case 0: {  // other adapters, each also a transport (the low byte of each
                 // character counts) and a LAN adapter
        const size_t n = pick(16);
        m.adapters.resize(n);
        m.transports.assign(n, u"");
        m.lanas.resize(n);
        listed.clear();
        for (size_t i = 0; i < n; ++i) {
          const auto& [text, skipped] = kDescriptions[pick(2) * pick(std::size(kDescriptions))];
          const Bytes& address = kAddresses[pick(std::size(kAddresses))];
          m.adapters[i] = {"{x}", text, address};
          for (char c : hex(address, "%02X")) {
            m.transports[i] += static_cast<char16_t>(pick(2) * 0x100 + static_cast<size_t>(c));
          }
          m.lanas[i] = address;
          if (address.size() == 6 && !skipped) listed.push_back(address);
        }
        break;
      }
      case 1:  // the routes fail, or don't
        m.adapters_result = pick(3) == 0 ? 31 : 0;
        m.transport_result = pick(3) == 0 ? 234 : 0;
        m.libraries["NETAPI32.Dll"] = pick(3) == 0 ? "Netbios" : "";
        if (pick(4) == 0) m.libraries["NETAPI32.Dll"] = "NetWkstaTransportEnum";
        break;
      case 2:
        std::tie(m.host_name, name) = kNames[pick(std::size(kNames))];
        m.host_name_fails = pick(4) == 0;
        break;
      case 3:  // to the edge of the context's lifetime or of the list's 120 seconds
        m.clock = (pick(2) == 0 ? held_time + machine.lifetime : cache_time + 119) +
                  static_cast<int64_t>(pick(2));
        break;
      case 4:  // a small step, or a jump forwards or back
        m.clock +=
            pick(4) == 0 ? static_cast<int64_t>(pick(140)) - 12 : static_cast<int64_t>(pick(3));
        break;
      default: {
        const int32_t type = kTypes[pick(std::size(kTypes))];
        const int32_t status = type == -1 || type == 2 || type == 6 ? 0 : -45;
        int32_t got = 0;
        EXPECT_EQ(query(context, type, &got), answer(type));
        EXPECT_EQ(got, status);
        EXPECT_EQ(context->error_code, status);
        EXPECT_EQ(m.adapter_calls, adapter_calls);
        EXPECT_EQ(m.host_name_reads, name_reads);
        // The lifetime was read at the first lookup: this changes nothing.
        if (status == 0) m.environment["HID_DEBUG_HOSTID"] = "3";
      }
    }
    ASSERT_FALSE(HasFailure()) << "at step " << step;
  }
  hostid_context_close(context);
  EXPECT_TRUE(m.blocks.empty());
}

// HID_DEBUG_HOSTID is read as a signed decimal number after white space, up
// to the first character that can't continue it: 1 to 30 is the lifetime,
// anything else 30. The IP helper route runs from 2000 (5.0) on and on 4.90,
// not on 4.0 nor at build 1381 and below, nor without GetAdaptersAddresses:
// the transports do; the older family's route is NetBIOS.
constexpr auto kIp = Route::kIpHelper, kNt4 = Route::kTransports, kNb = Route::kNetbios;
// clang-format off
INSTANTIATE_TEST_SUITE_P(Machines, HostidModel, testing::Values(
    Machine{nullptr, 30, version_of(10, 0, 19041), false, kIp},
    Machine{"", 30, version_of(5, 1, 1382), false, kIp},
    Machine{"0", 30, version_of(5, 1, 1381), false, kNt4},
    Machine{"31", 30, version_of(4, 0, 5000), false, kNt4},
    Machine{"-5", 30, version_of(4, 90, 1000), false, kIp},
    Machine{"abc", 30, version_of(6, 1, 0), false, kNt4},
    Machine{"1", 1, version_of(4, 10, 2222, true), false, kNb},
    Machine{"30", 30, version_of(4, 90, 3000, true), false, kNb},
    Machine{"12ab", 12, version_of(10, 0, 19041), true, kNt4},
    Machine{"  \t\n\v\f\r7", 7, version_of(5, 0, 2195), false, kIp},
    Machine{"+9", 9, version_of(4, 0, 1381), false, kNt4},
    Machine{"99999999999", 30, version_of(10, 0, 22631), false, kIp}));
// clang-format on

// The lines of the report after its heading, without the CR of Windows' text
// mode; the two lines that the host block is made of.
std::string host_block_of_a_run() {
  testing::internal::CaptureStdout();
  EXPECT_EQ(report_run(), 0);
  std::fflush(stdout);
  std::string lf;
  for (char c : testing::internal::GetCapturedStdout()) {
    if (c != '\r') lf += c;
  }
  return lf.substr(lf.rfind("HOSTkit information\n\n") + 21);
}

std::string lines(const std::string& name, const std::string& id) {
  return "Hostname" + std::string(22, ' ') + " : " + name + "\nHostid" + std::string(24, ' ') +
         " : " + id + "\n";
}

// The report's host block, with only physical adapters asked for, while each
// allocation of the facility fails in turn: no context gives the error line
// alone, a record that can't be had an empty value, a conversion's buffer the
// name's raw bytes, the adapter list's buffer the list of the last
// enumeration (the same adapters here), the buffer of the class key's subkey
// names an adapter that isn't physical (unless it is the multiplexor), a
// record behind the first a shorter chain. Nothing stays allocated. The
// machine has no WS2_32: the name comes through WSOCK32, version 1.1.
TEST(HostidFaults, EachAllocationFailsInTurn) {
  FakePort m;
  m.libraries.erase("WS2_32.Dll");
  m.host_name = "caf\xe9";
  m.adapters = {{"{1}", u"Ethernet", {2, 0, 0, 0, 0, 1}},
                {"{2}", u"Ethernet", {2, 0, 0, 0, 0, 2}},
                {"{3}", u"Microsoft Network Adapter Multiplexor #2", {2, 0, 0, 0, 0, 3}},
                {"{4}", u"Ethernet", {2, 0, 0, 0, 0, 4}}};
  // 0x4, or 0x8000 with 0x1, is physical; the first readable entry decides.
  m.class_entries = {{"0", "{1}", 0x84},
                     {"1", "{2}", 0x8001},
                     {"2", "{3}", 0x1},
                     {"3", "{4}", 0x8000},
                     {"4", "{4}", 0x4}};
  hostid_set_physical_only(1);
  const std::string name = "HOSTNAME=caf\xc3\xa9", raw = "HOSTNAME=caf\xe9";
  const std::string all = "\"020000000001 020000000002 020000000003\"";
  // clang-format off
  const std::string expected[] = {
      "Hostkit error code: -40\n",                       // the context
      lines("", all), lines(raw, all), lines(raw, all),  // the name's record, UTF-16, UTF-8
      lines(name, ""), lines(name, all),                 // the first address, the list
      lines(name, "\"020000000002 020000000003\""),      // a subkey name for each adapter
      lines(name, "\"020000000001 020000000003\""), lines(name, all), lines(name, all),
      lines(name, "020000000001"),                       // the record of each further address
      lines(name, "\"020000000001 020000000002\""),
      lines(name, all)};                                 // none: every allocation was reached
  // clang-format on
  for (size_t n = 0; n < std::size(expected); ++n) {
    m.clock += 1000;  // past both caches
    m.fail_at = m.allocations + static_cast<int>(n) + 1;
    EXPECT_EQ(host_block_of_a_run(), expected[n]) << "allocation " << n + 1;
    EXPECT_TRUE(m.blocks.empty()) << "allocation " << n + 1;
  }
  EXPECT_GT(m.fail_at, m.allocations);
  EXPECT_EQ(m.started, 0x0101);
}

// A socket library without a function it needs (here WSAStartup) gives no
// name and isn't loaded again, and nothing is called through the empty slot.
// A null slot for the context, a pointer that isn't a live context (an
// earlier error stands), a query without a buffer (nothing is copied). The
// bounded copy always writes destination[limit]: its source, limit, and the
// bytes from the one before the destination on.
TEST(HostidContext, ErrorsAndTheBoundedCopy) {
  FakePort m;
  m.libraries["WS2_32.Dll"] = "WSAStartup";
  EXPECT_EQ(query(nullptr, 6), "HOSTNAME=");
  EXPECT_EQ(query(nullptr, 6), "HOSTNAME=");
  EXPECT_EQ(m.loads, std::vector<std::string>{"WS2_32.Dll"});
  EXPECT_EQ(hostid_context_open(nullptr), -130);
  HostIdContext other{};
  other.tag = 0x65;
  hostid_context_close(&other);
  EXPECT_EQ(other.error_code, -42);
  EXPECT_EQ(other.error_minor, 166);
  other.error_code = -7;
  hostid_context_close(&other);
  EXPECT_EQ(other.error_code, -7);
  HostIdContext* context = nullptr;
  ASSERT_EQ(hostid_context_open(&context), 0);
  EXPECT_EQ(hostid_query(context, 2, nullptr), 0);
  hostid_context_close(context);
  // clang-format off
  const std::tuple<const char*, int32_t, const char*> copies[] = {{nullptr, 5, "#\0#####"},
      {"abc", 0, "#\0#####"}, {"abc", -1, "#\0#####"}, {"ab", 5, "#ab\0##\0"}, {"abcdefgh", 4, "#abcd\0#"}};
  // clang-format on
  for (const auto& [source, limit, bytes] : copies) {
    char out[8] = "#######";
    hostid_copy_bounded(out + 1, source, limit);
    EXPECT_EQ(std::string(out, 7), std::string(bytes, 7)) << limit;
  }
  hostid_copy_bounded(nullptr, "abc", 3);
}

// Forms no query makes: a number other than ffffffff (no leading zeros), a
// record of an unknown type (nothing, in its place between blanks), and a
// chain too long for the 4096-byte result, which stops at its end.
TEST(HostidText, ANumberAnUnknownTypeAndAChainTooLong) {
  std::vector<HostIdRecord> chain(7, HostIdRecord{});
  std::string text = "\"abc ";
  chain[0].type = 1;
  chain[0].value.number = 0xABC;
  chain[1].type = 3;
  for (size_t i = 2; i < chain.size(); ++i) {
    chain[i].type = 6;
    std::memset(chain[i].value.text, 'm', 1024);
    text += " HOSTNAME=" + std::string(1024, 'm');
  }
  for (size_t i = 0; i + 1 < chain.size(); ++i) chain[i].next = &chain[i + 1];
  EXPECT_EQ(hostid_chain_to_text(nullptr, &chain[0]), text.substr(0, 4095));
}

}  // namespace
