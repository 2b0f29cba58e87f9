// cpuinfo-dump DIR
// Records the CPUID leaves of every processor of this machine into DIR, one
// file per processor, in the form cpuinfo-replay reads.
#include <cstdio>
#include <string>

#include "cpuinfo.h"
#include "cpuinfo_record.h"

int main(int argc, char** argv) {
  if (argc != 2 || argv[1][0] == '-') {
    std::fprintf(stderr, "usage: cpuinfo-dump DIR\n");
    return 2;
  }
  std::string error;
  if (!cpuid_dump_machine(cpuinfo_active_port(), argv[1], &error)) {
    std::fprintf(stderr, "cpuinfo-dump: %s\n", error.c_str());
    return 1;
  }
  return 0;
}
