// A machine made of plain data for the host identification rules: a clock the
// test sets, an environment, a version number, a heap that fails on demand,
// libraries, adapters, transports, NetBIOS adapters and a registry. The calls
// the rules make are counted. The facility keeps process-wide state, so a
// process makes one machine: each test case runs in a process of its own
// (ctest starts them one by one).
#ifndef HOSTKIT_TESTS_HOSTID_FAKE_PORT_H
#define HOSTKIT_TESTS_HOSTID_FAKE_PORT_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "hostid_internal.h"
#include "hostid_windata.h"

namespace hostid_test {

struct FakeAdapter {
  std::string name;
  std::u16string description;
  std::vector<uint8_t> address;
};

struct FakePort {
  // The machine. Every library exports every function asked of it except
  // those listed with it; the usual machine has both socket libraries,
  // iphlpapi and NETAPI32, with nothing missing.
  int64_t clock = 1'700'000'000;
  std::map<std::string, std::string> environment;
  uint32_t version = (19041u << 16) | 0x000Au;  // 10.0 build 19041, the NT line
  std::map<std::string, std::set<std::string>> libraries = {
      {"WS2_32.Dll", {}}, {"WSOCK32.Dll", {}}, {"iphlpapi.dll", {}}, {"NETAPI32.Dll", {}}};
  std::string host_name = "alpha";
  bool host_name_fails = false, conversion_fails = false;
  std::vector<FakeAdapter> adapters;
  uint32_t adapters_result = 0;  // a failure status the list gives instead, when non-zero
  std::vector<std::u16string> transports;
  uint32_t transport_result = 0;
  std::vector<uint8_t> lanas;
  std::map<uint8_t, std::vector<uint8_t>> lana_status;  // missing: the status fails
  bool class_key_opens = true;
  std::vector<WindataClassEntry> class_entries;
  WindataClassKey class_key{};
  bool mutex_exists = false, mutex_fails = false;
  int fail_at = 0;  // the allocation of this number fails (counted from 1), 0 none

  // What the rules did.
  std::vector<std::string> loads, lookups, mutex_names;
  uint32_t error_mode = 0;
  uint16_t startup_version = 0;
  int library_frees = 0, error_mode_sets = 0, startups = 0, host_name_reads = 0;
  int adapter_calls = 0, netbios_status_calls = 0, mutex_waits = 0, mutex_releases = 0;
  int mutex_closes = 0, registry_open_keys = 0;  // the keys open now
  int allocations = 0, live_blocks = 0;

  // Installs this machine as the active port; the destructor puts the real
  // port back.
  FakePort();
  ~FakePort();
  FakePort(const FakePort&) = delete;
  FakePort& operator=(const FakePort&) = delete;

  void add_adapter(const std::string& name, const std::vector<uint8_t>& address,
                   const std::u16string& description = u"Ethernet adapter") {
    adapters.push_back({name, description, address});
  }
  // Makes the Nth allocation from now fail.
  void fail_allocation(int n) { fail_at = allocations + n; }

  HostidPort port{};
};

// A context opened for the length of a scope.
struct Context {
  HostIdContext* handle = nullptr;
  Context() { hostid_context_open(&handle); }
  ~Context() { hostid_context_close(handle); }
};

// The text of a query, its status in *status.
std::string query(HostIdContext* context, int32_t type, int32_t* status = nullptr);

// The addresses as the lookup of a miss reads them into a fresh head, as
// text; the route's result in *result.
std::string read_ids(int32_t* result = nullptr);

}  // namespace hostid_test

#endif
