// cpuinfo-dump DIR
// Records the CPUID leaves of every processor of this machine into DIR, one
// file per processor, in the form cpuinfo-replay reads.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "cpuinfo.h"
#include "cpuinfo_record.h"

namespace {

constexpr char kUsage[] = "usage: cpuinfo-dump DIR\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::printf(
        "%s"
        "Records the CPUID leaves of every processor of this machine into DIR\n"
        "(made if needed), one file per logical processor, for cpuinfo-replay.\n\n"
        "  --help     show this help and exit\n"
        "  --version  show the version and exit\n",
        kUsage);
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("cpuinfo-dump (hostkit) %s\n", HOSTKIT_VERSION);
    return 0;
  }
  if (argc != 2 || argv[1][0] == '-') {
    const std::string why = argc < 2   ? "no folder given"
                            : argc > 2 ? "one folder only"
                                       : std::string("unknown option ") + argv[1];
    std::fprintf(stderr, "cpuinfo-dump: %s\n%s", why.c_str(), kUsage);
    return 2;
  }
  // A folder that can't be made is the caller's to fix, as a bad argument is.
  std::error_code code;
  std::filesystem::create_directories(argv[1], code);
  if (code || !std::filesystem::is_directory(argv[1], code)) {
    std::fprintf(stderr, "cpuinfo-dump: %s: cannot be made: %s\n", argv[1],
                 code ? code.message().c_str() : "not a folder");
    return 2;
  }
  std::string error;
  if (!cpuid_dump_machine(cpuinfo_active_port(), argv[1], &error)) {
    std::fprintf(stderr, "cpuinfo-dump: %s\n", error.c_str());
    return 1;
  }
  return 0;
}
