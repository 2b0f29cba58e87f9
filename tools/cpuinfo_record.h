// Recorded machines: the text form of a CPUID dump (one file per logical
// processor), a machine replayed from such a dump behind the processor
// identification's port, and the recording of the machine we run on.
#ifndef HOSTKIT_CPUINFO_RECORD_H
#define HOSTKIT_CPUINFO_RECORD_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cpuinfo_port.h"

// One line of a dump: which inputs are significant (bit 0 EAX, 1 EBX, 2 ECX,
// 3 EDX), the inputs and the four results.
struct CpuidEntry {
  uint32_t inmask = 0;
  uint32_t in[4] = {0, 0, 0, 0};
  uint32_t out[4] = {0, 0, 0, 0};
};

// The leaves of one logical processor.
struct CpuidRecord {
  std::vector<CpuidEntry> entries;
};

// Bounds on what a dump may hold, so that hostile input can't take the
// memory of the machine: larger files and longer lines are refused.
constexpr size_t kRecordMaxFileBytes = 16u << 20;
constexpr size_t kRecordMaxLineBytes = 1024;
constexpr size_t kRecordMaxEntries = 65536;

// Parses the text of one processor's file. On failure returns false and says
// why in `error` ("line N: ...").
bool cpuid_record_parse(std::string_view text, CpuidRecord* record, std::string* error);

// The results of CPUID(leaf, subleaf) on this processor: the first entry whose
// significant inputs match (EBX and EDX inputs are 0), else four zeros.
void cpuid_record_lookup(const CpuidRecord& record, uint32_t leaf, uint32_t subleaf,
                         uint32_t regs[4]);

// A line of a dump, as written by the recorder: lower-case hexadecimal.
std::string cpuid_record_line(const CpuidEntry& entry);

// A recorded machine as the port sees it. The system mask holds bits
// 0..min(N,64)-1 for N processors; CPUID runs on the lowest processor of the
// thread's mask; placing the thread on a mask without a processor of the
// system fails and changes nothing.
struct ReplayMachine {
  std::vector<CpuidRecord> processors;  // the first 64 at most
  size_t total_processors = 0;
  uint64_t system_mask = 0;
  uint64_t process_mask = 0;
  uint64_t thread_mask = 0;
  int yields = 0;
};

// Sets up the masks of a machine with `total` processors whose first
// min(total, 64) records are in `machine->processors`. The process and the
// thread stand on the whole system.
void replay_set_processors(ReplayMachine* machine, size_t total);

// Restricts the process (and the thread) to `mask`. Refuses an empty mask or
// one with processors the system doesn't have.
bool replay_restrict_process(ReplayMachine* machine, uint64_t mask, std::string* error);

// Loads DIR/pu0, DIR/pu1, ... up to the first missing file. Only regular
// files are read: anything else named puN is an error, as is a missing pu0.
bool replay_load(const char* dir, ReplayMachine* machine, std::string* error);

// Makes `machine` the one behind the active port; null puts the native port
// back. The machine must outlive its use.
void replay_install(ReplayMachine* machine);

// Parses a mask in hexadecimal, with or without "0x", 1 to 16 digits.
bool replay_parse_mask(const char* text, uint64_t* mask);

// Records every processor of the system mask that `port` reaches into DIR
// (created if needed), one file each, and the info file. The thread ends on
// the process mask. On failure returns false with the reason in `error`.
bool cpuid_dump_machine(const CpuinfoPort* port, const char* dir, std::string* error);

// The entries recorded for the processor the thread stands on.
CpuidRecord cpuid_record_current(const CpuinfoPort* port);

// Opens `path` read-only without waiting on it; a descriptor or -1 with
// errno set. One for each platform.
int record_open_nowait(const char* path);

#endif
