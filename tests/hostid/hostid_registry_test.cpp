// The physical test against Wine's own registry: class entries written here,
// read back through the real port, and removed behind.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>
#include <vector>

#include "hostid_internal.h"

namespace {

TEST(Win32Registry, ClassEntriesDecidePhysical) {
  // An instance id and its subkeys' Characteristics (-1: none), in order:
  // the first subkey that has the value decides.
  // clang-format off
  const std::pair<const char*, std::vector<int64_t>> entries[] = {{"{HOSTKIT-8001}", {0x8001}},
      {"{HOSTKIT-8000}", {0x8000}}, {"{HOSTKIT-0084}", {0x84}}, {"{HOSTKIT-0001}", {0x1}},
      {"{HOSTKIT-DUP}", {0x1, 0x4}}, {"{HOSTKIT-NOCH}", {-1, 0x4}}};
  // clang-format on
  int number = 9000;
  for (const auto& [id, values] : entries) {
    for (int64_t characteristics : values) {
      const std::string key = HOSTID_ADAPTER_CLASS_KEY "\\" + std::to_string(++number);
      const auto value = static_cast<DWORD>(characteristics);
      EXPECT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, key.c_str(), "NetCfgInstanceId", REG_SZ, id,
                                static_cast<DWORD>(std::strlen(id) + 1)),
                0);
      if (characteristics >= 0) {
        RegSetKeyValueA(HKEY_LOCAL_MACHINE, key.c_str(), "Characteristics", REG_DWORD, &value, 4);
      }
    }
  }
  for (const char* id : {"{HOSTKIT-8001}", "{HOSTKIT-0084}", "{HOSTKIT-NOCH}"}) {
    EXPECT_EQ(hostid_adapter_is_physical(id), 1) << id;
  }
  for (const char* id : {"{HOSTKIT-8000}", "{HOSTKIT-0001}", "{HOSTKIT-DUP}", "{hostkit-8001}"}) {
    EXPECT_EQ(hostid_adapter_is_physical(id), 0) << id;
  }
  while (number > 9000) {
    RegDeleteKeyA(HKEY_LOCAL_MACHINE,
                  (HOSTID_ADAPTER_CLASS_KEY "\\" + std::to_string(number--)).c_str());
  }
}

}  // namespace
