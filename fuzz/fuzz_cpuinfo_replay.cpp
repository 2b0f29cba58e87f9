// The replay dump reader and the processor identification over whatever
// leaves a dump or raw bytes give: no crash, no undefined behaviour, no
// division by zero, whatever the values.
//
// Input: the first byte restricts the process mask (0: not at all); the
// second picks the form of the rest:
//   even: the text of up to 8 processor files separated by NUL bytes, read
//         by the dump reader;
//   odd:  one processor, raw: records of a byte choosing a leaf (below 0x80
//         leaves 0 to 7, else 0x80000000 to 0x8000001F) and the 16 bytes of
//         its results.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "cpuinfo.h"
#include "cpuinfo_record.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The traces go to standard output; nobody reads them here.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  ReplayMachine machine;
  std::string error;
  if ((data[1] & 1) != 0) {
    machine.processors.emplace_back();
    for (size_t i = 2; i + 17 <= size; i += 17) {
      const uint32_t leaf = data[i] < 0x80 ? data[i] % 8u : 0x80000000u + data[i] % 0x20u;
      CpuidEntry entry{1, {leaf, 0, 0, 0}, {}};
      std::memcpy(entry.out, data + i + 1, 16);
      machine.processors[0].entries.push_back(entry);
    }
  } else {
    std::string_view text(reinterpret_cast<const char*>(data + 2), size - 2);
    for (size_t end = 0; end != text.npos && machine.processors.size() < 8;) {
      end = text.find('\0');
      if (!cpuid_record_parse(text.substr(0, end), &machine.processors.emplace_back(), &error)) {
        return 0;
      }
      text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
  }
  replay_set_processors(&machine, machine.processors.size());
  if (data[0] != 0) replay_restrict_process(&machine, data[0], &error);

  replay_install(&machine);
  uint32_t logical = 0, cores = 0, sockets = 0;
  cpuinfo_count_cores(nullptr, &logical, &cores, &sockets, 1);
  CpuSystemInfo info;
  cpuinfo_system_info(1, &info);
  CpuIdSnapshot snapshot{};
  for (uint32_t query = 0; query <= 0x40; ++query) cpuinfo_query(query, &snapshot, 1);
  replay_install(nullptr);
  return 0;
}
