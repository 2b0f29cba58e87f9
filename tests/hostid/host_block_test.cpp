// The report's host block over the fake machine, for what a real machine
// can't be made to show: an all-zero and an all-ones hardware address (the
// kernel refuses both on a veth interface), a name that can't be read, a
// context that can't be had.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "fake_port.h"
#include "report.h"

namespace {

using hostid_test::FakePort;

// The last two lines of the report, without the CR of Windows text mode.
std::string host_block_of_a_run() {
  testing::internal::CaptureStdout();
  EXPECT_EQ(report_run(), 0);
  std::fflush(stdout);
  std::string out = testing::internal::GetCapturedStdout();
  std::string lf;
  for (char c : out) {
    if (c != '\r') lf += c;
  }
  size_t heading = lf.rfind("HOSTkit information\n\n");
  return heading == std::string::npos ? "(no heading)\n" + lf : lf.substr(heading + 21);
}

// "%-*s : %s" with the width 30.
std::string line(const std::string& label, const std::string& value) {
  return label + std::string(30 - label.size(), ' ') + " : " + value + "\n";
}

TEST(HostBlock, AllZeroAndAllOnesAddressesStandOnTheIpHelperRoute) {
  FakePort machine;
  machine.install_all_libraries();
  machine.host_name = "alpha";
  machine.add_adapter("{0}", {0, 0, 0, 0, 0, 0});
  machine.add_adapter("{1}", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
  EXPECT_EQ(host_block_of_a_run(),
            line("Hostname", "HOSTNAME=alpha") + line("Hostid", "\"000000000000 ffffffffffff\""));
}

TEST(HostBlock, OnTheTransportRouteTheAllOnesAddressAloneStays) {
  FakePort machine;
  machine.install_all_libraries();
  machine.libraries.erase("iphlpapi.dll");
  machine.transports = {u"000000000000", u"FFFFFFFFFFFF"};
  EXPECT_EQ(host_block_of_a_run(),
            line("Hostname", "HOSTNAME=alpha") + line("Hostid", "ffffffffffff"));
}

TEST(HostBlock, NoNameNoAdaptersAndNoContext) {
  {
    FakePort machine;  // no libraries at all: no name, no adapter list
    EXPECT_EQ(host_block_of_a_run(),
              line("Hostname", "HOSTNAME=") + line("Hostid", "000000000000"));
  }
  {
    FakePort machine;
    machine.install_all_libraries();
    machine.host_name_fails = true;
    EXPECT_EQ(host_block_of_a_run(), line("Hostname", "HOSTNAME=") + line("Hostid", "ffffffff"));
  }
  {
    // The context is the first block the facility allocates.
    FakePort machine;
    machine.install_all_libraries();
    hostid_heap_fail_at(1);
    EXPECT_EQ(host_block_of_a_run(), "Hostkit error code: -40\n");
  }
}

}  // namespace
