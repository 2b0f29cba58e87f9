// A machine made of plain data for the host identification rules: a clock the
// test sets, an environment, a version number, libraries with the functions
// they export, adapters, transports, NetBIOS adapters and a registry. Every
// call the rules make is counted.
#ifndef HOSTKIT_TESTS_HOSTID_FAKE_PORT_H
#define HOSTKIT_TESTS_HOSTID_FAKE_PORT_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "hostid_internal.h"

namespace hostid_test {

struct FakeAdapter {
  std::string name;
  std::u16string description;
  std::vector<uint8_t> address;
};

struct FakeRegistryEntry {
  std::string subkey;
  bool has_instance = true;
  std::string instance;
  bool has_characteristics = true;
  uint32_t characteristics = 0;
  bool opens = true;
};

struct FakePort {
  // The machine.
  int64_t clock = 1'700'000'000;
  std::map<std::string, std::string> environment;
  uint32_t version = (19041u << 16) | 0x000Au;  // 10.0 build 19041, the NT line
  int32_t pid = 4242;
  std::map<std::string, std::set<std::string>> libraries;  // by name, exported functions
  std::string host_name = "alpha";
  bool host_name_fails = false;
  bool conversion_fails = false;
  std::vector<FakeAdapter> adapters;
  uint32_t adapters_result = 0;  // a failure status the list gives instead, when non-zero
  std::vector<std::u16string> transports;
  uint32_t transport_result = 0;
  std::vector<uint8_t> lanas;
  std::map<uint8_t, std::vector<uint8_t>> lana_status;  // missing: the status fails
  bool class_key_opens = true;
  std::vector<FakeRegistryEntry> class_entries;
  bool mutex_exists = false;
  bool mutex_fails = false;

  // What the rules did.
  std::vector<std::string> loads;
  std::set<void*> open_libraries;
  int library_frees = 0;
  std::vector<std::string> lookups;
  int error_mode_sets = 0;
  uint32_t error_mode = 0;
  int startups = 0;
  uint16_t startup_version = 0;
  int host_name_reads = 0;
  int adapter_calls = 0;
  int transport_calls = 0;
  int netbios_status_calls = 0;
  std::vector<std::string> mutex_names;
  int mutex_waits = 0;
  int mutex_releases = 0;
  int mutex_closes = 0;
  int registry_opens = 0;
  int registry_open_keys = 0;  // open now

  // Installs this machine as the active port and starts the process afresh;
  // the destructor puts the real port back.
  FakePort();
  ~FakePort();
  FakePort(const FakePort&) = delete;
  FakePort& operator=(const FakePort&) = delete;

  // The usual machine: both socket libraries, iphlpapi and NETAPI32 with
  // all their functions.
  void install_all_libraries();
  void add_adapter(const std::string& name, const std::vector<uint8_t>& address,
                   const std::u16string& description = u"Ethernet adapter");

  HostidPort port{};
};

// The full function table of the socket libraries.
std::set<std::string> winsock2_functions();
std::set<std::string> winsock1_functions();

}  // namespace hostid_test

#endif
