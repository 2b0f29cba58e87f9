// The physical test against Wine's own registry: class entries written here,
// read back through the real port, and removed behind.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>
#include <tuple>

#include "hostid_internal.h"

namespace {

TEST(Win32Registry, ClassEntriesDecidePhysical) {
  // Subkey, instance id, Characteristics (-1: none), and whether the id is
  // physical: the first of its subkeys that has the value decides.
  // clang-format off
  const std::tuple<const char*, const char*, int64_t, int32_t> entries[] = {
      {"9001", "{HOSTKIT-8001}", 0x8001, 1}, {"9002", "{HOSTKIT-8000}", 0x8000, 0},
      {"9003", "{HOSTKIT-0084}", 0x84, 1}, {"9004", "{HOSTKIT-0001}", 0x1, 0},
      {"9005", "{HOSTKIT-DUP}", 0x1, 0}, {"9006", "{HOSTKIT-DUP}", 0x4, 0},
      {"9007", "{HOSTKIT-NOCH}", -1, 1}, {"9008", "{HOSTKIT-NOCH}", 0x4, 1}};
  // clang-format on
  for (const auto& [subkey, id, characteristics, physical] : entries) {
    const std::string key = HOSTID_ADAPTER_CLASS_KEY "\\" + std::string(subkey);
    const auto value = static_cast<DWORD>(characteristics);
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, key.c_str(), "NetCfgInstanceId", REG_SZ, id,
                    static_cast<DWORD>(std::strlen(id) + 1));
    if (characteristics >= 0) {
      RegSetKeyValueA(HKEY_LOCAL_MACHINE, key.c_str(), "Characteristics", REG_DWORD, &value, 4);
    }
  }
  for (const auto& [subkey, id, characteristics, physical] : entries) {
    EXPECT_EQ(hostid_adapter_is_physical(id), physical) << id;
  }
  EXPECT_EQ(hostid_adapter_is_physical("{hostkit-8001}"), 0);  // with case
  for (const auto& entry : entries) {
    RegDeleteKeyA(HKEY_LOCAL_MACHINE,
                  (HOSTID_ADAPTER_CLASS_KEY "\\" + std::string(std::get<0>(entry))).c_str());
  }
}

}  // namespace
