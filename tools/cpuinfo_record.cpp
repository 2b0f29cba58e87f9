// Reading, replaying and writing recorded machines.
#include "cpuinfo_record.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "cpuinfo.h"

namespace {

ReplayMachine* g_machine = nullptr;

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A 32-bit hexadecimal number, leading zeros allowed.
bool parse_hex32(std::string_view token, uint32_t* value) {
  if (token.empty()) return false;
  uint64_t v = 0;
  for (char c : token) {
    const int d = hex_digit(c);
    if (d < 0) return false;
    v = v * 16 + static_cast<uint64_t>(d);
    if (v > 0xFFFFFFFFu) return false;
  }
  *value = static_cast<uint32_t>(v);
  return true;
}

bool fail(std::string* error, size_t line, const char* why) {
  if (error != nullptr) *error = "line " + std::to_string(line) + ": " + why;
  return false;
}

bool parse_line(std::string_view line, CpuidEntry* entry, const char** why) {
  std::string_view tokens[11];
  size_t count = 0;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && is_blank(line[i])) ++i;
    if (i == line.size()) break;
    const size_t start = i;
    while (i < line.size() && !is_blank(line[i])) ++i;
    if (count == 11) {
      *why = "too many fields";
      return false;
    }
    tokens[count++] = line.substr(start, i - start);
  }
  if (count != 10 || tokens[5] != "=>") {
    *why = "expected INMASK EAX EBX ECX EDX => EAX EBX ECX EDX";
    return false;
  }
  uint32_t values[9];
  for (size_t t = 0, v = 0; t < 10; ++t) {
    if (t == 5) continue;
    if (!parse_hex32(tokens[t], &values[v++])) {
      *why = "not a 32-bit hexadecimal number";
      return false;
    }
  }
  entry->inmask = values[0];
  for (int r = 0; r < 4; ++r) {
    entry->in[r] = values[1 + r];
    entry->out[r] = values[5 + r];
  }
  return true;
}

// Opens `path` for reading if it is a regular file. The open itself never
// waits (a FIFO or a device opens at once), and the descriptor is checked
// rather than the name, so nothing can be swapped in between. On failure
// returns -1 with the reason in `why`; `missing` says the name isn't there.
int open_regular(const char* path, bool* missing, std::string* why) {
  const int fd = record_open_nowait(path);
  if (fd < 0) {
    *missing = errno == ENOENT;
    *why = std::strerror(errno);
    return -1;
  }
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(fd);
    *missing = false;
    *why = "not a regular file";
    return -1;
  }
  return fd;
}

bool read_file(int fd, std::string* text, std::string* why) {
  text->clear();
  char buffer[8192];
  for (;;) {
    const auto n = read(fd, buffer, sizeof buffer);
    if (n == 0) return true;
    if (n < 0) {
      *why = std::strerror(errno);
      return false;
    }
    if (text->size() + static_cast<size_t>(n) > kRecordMaxFileBytes) {
      *why = "larger than a dump can be";
      return false;
    }
    text->append(buffer, static_cast<size_t>(n));
  }
}

std::string processor_path(const char* dir, size_t index) {
  return std::string(dir) + "/pu" + std::to_string(index);
}

int lowest_bit(uint64_t mask) {
  for (int i = 0; i < 64; ++i) {
    if ((mask >> i) & 1) return i;
  }
  return -1;
}

void replay_cpuid(uint32_t leaf, uint32_t subleaf, uint32_t regs[4]) {
  regs[0] = regs[1] = regs[2] = regs[3] = 0;
  if (g_machine == nullptr) return;
  const int p = lowest_bit(g_machine->thread_mask & g_machine->system_mask);
  if (p < 0 || static_cast<size_t>(p) >= g_machine->processors.size()) return;
  cpuid_record_lookup(g_machine->processors[static_cast<size_t>(p)], leaf, subleaf, regs);
}

int32_t replay_process_affinity(uint64_t* process_mask, uint64_t* system_mask) {
  *process_mask = g_machine->process_mask;
  *system_mask = g_machine->system_mask;
  return 1;
}

uint64_t replay_set_thread_affinity(uint64_t mask) {
  if ((mask & g_machine->system_mask) == 0) return 0;
  const uint64_t previous = g_machine->thread_mask;
  g_machine->thread_mask = mask;
  return previous;
}

void replay_yield() { ++g_machine->yields; }

constexpr CpuinfoPort kReplayPort = {replay_cpuid, replay_process_affinity,
                                     replay_set_thread_affinity, replay_yield};

}  // namespace

bool cpuid_record_parse(std::string_view text, CpuidRecord* record, std::string* error) {
  record->entries.clear();
  if (text.size() > kRecordMaxFileBytes) return fail(error, 0, "larger than a dump can be");
  size_t line_number = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    ++line_number;
    if (line.size() > kRecordMaxLineBytes) return fail(error, line_number, "line too long");
    const size_t hash = line.find('#');
    if (hash != std::string_view::npos) line = line.substr(0, hash);
    bool blank = true;
    for (char c : line) blank = blank && is_blank(c);
    if (blank) continue;
    CpuidEntry entry;
    const char* why = "";
    if (!parse_line(line, &entry, &why)) return fail(error, line_number, why);
    if (record->entries.size() == kRecordMaxEntries) {
      return fail(error, line_number, "more entries than a dump can hold");
    }
    record->entries.push_back(entry);
  }
  return true;
}

void cpuid_record_lookup(const CpuidRecord& record, uint32_t leaf, uint32_t subleaf,
                         uint32_t regs[4]) {
  const uint32_t in[4] = {leaf, 0, subleaf, 0};
  for (const CpuidEntry& e : record.entries) {
    bool match = true;
    for (int r = 0; r < 4; ++r) {
      if (((e.inmask >> r) & 1) != 0 && e.in[r] != in[r]) match = false;
    }
    if (match) {
      for (int r = 0; r < 4; ++r) regs[r] = e.out[r];
      return;
    }
  }
  regs[0] = regs[1] = regs[2] = regs[3] = 0;
}

std::string cpuid_record_line(const CpuidEntry& e) {
  char line[160];
  std::snprintf(line, sizeof line,
                "%" PRIx32 " %" PRIx32 " %" PRIx32 " %" PRIx32 " %" PRIx32 " => %" PRIx32
                " %" PRIx32 " %" PRIx32 " %" PRIx32 "\n",
                e.inmask, e.in[0], e.in[1], e.in[2], e.in[3], e.out[0], e.out[1], e.out[2],
                e.out[3]);
  return line;
}

void replay_set_processors(ReplayMachine* machine, size_t total) {
  machine->total_processors = total;
  machine->system_mask = total >= 64 ? ~uint64_t{0} : (uint64_t{1} << total) - 1;
  machine->process_mask = machine->system_mask;
  machine->thread_mask = machine->system_mask;
  machine->yields = 0;
}

bool replay_restrict_process(ReplayMachine* machine, uint64_t mask, std::string* error) {
  if (mask == 0 || (mask & ~machine->system_mask) != 0) {
    *error = "the process mask must be a non-empty part of the system mask";
    return false;
  }
  machine->process_mask = mask;
  machine->thread_mask = mask;
  return true;
}

bool replay_load(const char* dir, ReplayMachine* machine, std::string* error) {
  machine->processors.clear();
  // Only the first 64 processors can be reached through a 64-bit mask; the
  // rest only count. The list ends at the first name that isn't there; an
  // entry that can't be read or isn't a regular file is an error.
  constexpr size_t kMaxProcessors = 1u << 20;
  size_t total = 0;
  for (; total < kMaxProcessors; ++total) {
    const std::string path = processor_path(dir, total);
    bool missing = false;
    std::string why;
    const int fd = open_regular(path.c_str(), &missing, &why);
    if (fd < 0 && missing) {
      if (total > 0) break;
      why += " (a recorded machine is a folder of pu0, pu1, ...)";
    }
    bool ok = fd >= 0;
    if (ok && total < 64) {
      std::string text;
      CpuidRecord record;
      ok = read_file(fd, &text, &why) && cpuid_record_parse(text, &record, &why);
      machine->processors.push_back(std::move(record));
    }
    if (fd >= 0) close(fd);
    if (!ok) {
      *error = path + ": " + why;
      return false;
    }
  }
  replay_set_processors(machine, total);
  return true;
}

void replay_install(ReplayMachine* machine) {
  g_machine = machine;
  cpuinfo_set_port(machine != nullptr ? &kReplayPort : nullptr);
}

bool replay_parse_mask(const char* text, uint64_t* mask) {
  std::string_view t(text);
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) t.remove_prefix(2);
  if (t.empty() || t.size() > 16) return false;
  uint64_t v = 0;
  for (char c : t) {
    const int d = hex_digit(c);
    if (d < 0) return false;
    v = v * 16 + static_cast<uint64_t>(d);
  }
  *mask = v;
  return true;
}

namespace {

void add_entry(CpuidRecord* record, const CpuinfoPort* port, uint32_t leaf, uint32_t subleaf,
               bool with_subleaf, uint32_t regs[4]) {
  CpuidEntry e;
  e.inmask = with_subleaf ? 5 : 1;
  e.in[0] = leaf;
  e.in[2] = with_subleaf ? subleaf : 0;
  port->cpuid(leaf, subleaf, e.out);
  for (int r = 0; r < 4; ++r) regs[r] = e.out[r];
  record->entries.push_back(e);
}

bool all_zero(const uint32_t regs[4]) { return (regs[0] | regs[1] | regs[2] | regs[3]) == 0; }

// The leaves of a range, with the subleaves of those that have them: cache
// and topology leaves up to their terminating subleaf, the state leaf 0xD
// whole, the rest up to their first empty subleaf.
void record_range(CpuidRecord* record, const CpuinfoPort* port, uint32_t first, uint32_t last) {
  constexpr uint32_t kMaxSubleaves = 64;
  for (uint32_t leaf = first; leaf <= last; ++leaf) {
    uint32_t regs[4];
    switch (leaf) {
      case 4:
      case 0x8000001D:
        for (uint32_t sub = 0; sub < kMaxSubleaves; ++sub) {
          add_entry(record, port, leaf, sub, true, regs);
          if ((regs[0] & 0x1F) == 0) break;
        }
        break;
      case 0xB:
      case 0x1F:
        for (uint32_t sub = 0; sub < kMaxSubleaves; ++sub) {
          add_entry(record, port, leaf, sub, true, regs);
          if (((regs[2] >> 8) & 0xFF) == 0) break;
        }
        break;
      case 0xD:
        for (uint32_t sub = 0; sub < kMaxSubleaves; ++sub)
          add_entry(record, port, leaf, sub, true, regs);
        break;
      case 7:
      case 0xF:
      case 0x10:
      case 0x12:
      case 0x14:
      case 0x17:
      case 0x18:
      case 0x1D:
      case 0x20:
      case 0x23:
      case 0x24:
      case 0x80000020:
        for (uint32_t sub = 0; sub < kMaxSubleaves; ++sub) {
          add_entry(record, port, leaf, sub, true, regs);
          if (sub > 0 && all_zero(regs)) break;
        }
        break;
      default:
        add_entry(record, port, leaf, 0, false, regs);
        break;
    }
  }
}

}  // namespace

CpuidRecord cpuid_record_current(const CpuinfoPort* port) {
  CpuidRecord record;
  uint32_t regs[4];
  port->cpuid(0, 0, regs);
  const uint32_t basic = regs[0] < 0x40 ? regs[0] : 0x3F;
  record_range(&record, port, 0, basic);
  port->cpuid(0x80000000, 0, regs);
  uint32_t extended = regs[0];
  if (extended < 0x80000000 || extended > 0x80000040) extended = 0x80000000;
  record_range(&record, port, 0x80000000, extended);
  return record;
}

bool cpuid_dump_machine(const CpuinfoPort* port, const char* dir, std::string* error) {
  std::error_code code;
  std::filesystem::create_directories(dir, code);
  if (code) {
    *error = std::string(dir) + ": cannot be created: " + code.message();
    return false;
  }
  uint64_t process_mask = 0, system_mask = 0;
  if (port->process_affinity(&process_mask, &system_mask) == 0 || system_mask == 0) {
    *error = "the processors of the system cannot be read";
    return false;
  }
  bool ok = true;
  size_t index = 0;
  for (int bit = 0; bit < 64 && ok; ++bit) {
    const uint64_t mask = uint64_t{1} << bit;
    if ((system_mask & mask) == 0) continue;
    if (port->set_thread_affinity(mask) == 0) {
      *error = "cannot run on processor " + std::to_string(bit);
      ok = false;
      break;
    }
    port->yield();
    const CpuidRecord record = cpuid_record_current(port);
    const std::string path = processor_path(dir, index++);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
      *error = path + ": cannot be written";
      ok = false;
      break;
    }
    std::fputs("# mask e[abcd]x => e[abcd]x\n", file);
    for (const CpuidEntry& e : record.entries) std::fputs(cpuid_record_line(e).c_str(), file);
    if (std::fclose(file) != 0) {
      *error = path + ": cannot be written";
      ok = false;
    }
  }
  port->set_thread_affinity(process_mask);
  port->yield();
  if (!ok) return false;
  const std::string info = std::string(dir) + "/hwloc-cpuid-info";
  std::FILE* file = std::fopen(info.c_str(), "wb");
  if (file == nullptr) {
    *error = info + ": cannot be written";
    return false;
  }
  const bool written = std::fputs("Architecture: x86\n", file) >= 0;
  if (std::fclose(file) != 0 || !written) {
    *error = info + ": cannot be written";
    return false;
  }
  return true;
}
