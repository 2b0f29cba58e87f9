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

// The lines after the heading, without the CR of Windows text mode.
std::string host_block_of_a_run() {
  testing::internal::CaptureStdout();
  EXPECT_EQ(report_run(), 0);
  std::fflush(stdout);
  std::string lf;
  for (char c : testing::internal::GetCapturedStdout()) {
    if (c != '\r') lf += c;
  }
  size_t heading = lf.rfind("HOSTkit information\n\n");
  return heading == std::string::npos ? "(no heading)\n" + lf : lf.substr(heading + 21);
}

// "%-*s : %s" with the width 30.
std::string lines(const std::string& name, const std::string& id) {
  return "Hostname" + std::string(22, ' ') + " : " + name + "\nHostid" + std::string(24, ' ') +
         " : " + id + "\n";
}

TEST(HostBlock, WhatTheRoutesAndFailuresPrint) {
  hostid_test::FakePort machine;
  machine.host_name_fails = true;
  EXPECT_EQ(host_block_of_a_run(), lines("HOSTNAME=", "ffffffff"));
  machine.host_name_fails = false;
  machine.add_adapter("{0}", {0, 0, 0, 0, 0, 0});  // the IP helper route keeps both
  machine.add_adapter("{1}", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
  EXPECT_EQ(host_block_of_a_run(), lines("HOSTNAME=alpha", "\"000000000000 ffffffffffff\""));
  machine.fail_allocation(1);  // the context is the first block the facility allocates
  EXPECT_EQ(host_block_of_a_run(), "Hostkit error code: -40\n");
}

}  // namespace
