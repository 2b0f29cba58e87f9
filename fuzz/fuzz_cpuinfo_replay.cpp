// The replay dump reader and the processor identification over whatever
// leaves a dump or raw bytes give: no crash, no undefined behaviour, no
// division by zero, whatever the values.
//
// Input: the first byte picks the form.
//   even: the rest is text, up to 8 processor files separated by NUL bytes,
//         read by the dump reader.
//   odd:  the rest is raw: for up to 8 processors in turn, records of one
//         byte choosing a leaf and 16 bytes of results; a 0xFF byte starts
//         the next processor.
// The second byte, when present, restricts the process mask.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "cpuinfo.h"
#include "cpuinfo_record.h"

namespace {

constexpr uint32_t kLeaves[] = {0,          1,          2,          4,          0x80000000,
                                0x80000001, 0x80000002, 0x80000003, 0x80000004, 0x80000005,
                                0x80000006, 0x80000008, 0x8000001E};
constexpr size_t kMaxProcessors = 8;

bool from_text(std::string_view text, ReplayMachine* machine) {
  while (machine->processors.size() < kMaxProcessors) {
    const size_t end = text.find('\0');
    CpuidRecord record;
    std::string error;
    if (!cpuid_record_parse(text.substr(0, end), &record, &error)) return false;
    machine->processors.push_back(std::move(record));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return true;
}

void from_raw(const uint8_t* data, size_t size, ReplayMachine* machine) {
  machine->processors.emplace_back();
  size_t i = 0;
  while (i < size) {
    const uint8_t selector = data[i++];
    if (selector == 0xFF) {
      if (machine->processors.size() == kMaxProcessors) break;
      machine->processors.emplace_back();
      continue;
    }
    if (size - i < 16) break;
    CpuidEntry entry;
    entry.inmask = 1;
    entry.in[0] = kLeaves[selector % (sizeof kLeaves / sizeof kLeaves[0])];
    std::memcpy(entry.out, data + i, 16);
    i += 16;
    machine->processors.back().entries.push_back(entry);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The traces go to standard output; nobody reads them here.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  ReplayMachine machine;
  const uint8_t form = data[0];
  const uint8_t restriction = data[1];
  if ((form & 1) == 0) {
    if (!from_text(std::string_view(reinterpret_cast<const char*>(data + 2), size - 2), &machine)) {
      return 0;
    }
  } else {
    from_raw(data + 2, size - 2, &machine);
  }
  replay_set_processors(&machine, machine.processors.size());
  std::string error;
  if (restriction != 0) replay_restrict_process(&machine, restriction, &error);

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
