// The Windows routes of the Win32 port, for real under Wine: the workstation
// transports and NetBIOS from NETAPI32. The port is the real one with only
// its version number changed, so that the system takes those routes. What
// they find must be addresses of the kernel's interfaces (read from
// Z:\sys\class\net), in the forms the routes expect.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "hostid_internal.h"

namespace {

std::set<std::string> kernel_addresses() {
  std::set<std::string> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("Z:/sys/class/net", error)) {
    std::ifstream in(entry.path().string() + "/address");
    std::string text, digits;
    std::getline(in, text);
    for (char c : text) {
      if (c != ':') digits += c;
    }
    if (digits.size() == 12 && digits != "000000000000") found.insert(digits);
  }
  return found;
}

uint32_t g_version;

// Reads the addresses with the real port reporting `version`; each must be
// one of the kernel's. Returns the route's result.
int32_t route_finds_kernel_addresses(uint32_t version) {
  HostidPort port = *hostid_port_system();
  g_version = version;
  port.version = [](void*) { return g_version; };
  hostid_process_reset();
  hostid_port_set(&port);
  HostIdContext context{};
  context.records = hostid_record_new();
  context.records->type = HOSTID_TYPE_ETHER;
  int32_t found = hostid_read_adapter_addresses(&context);
  std::set<std::string> kernel = kernel_addresses();
  for (const HostIdRecord* r = context.records; found == 1 && r != nullptr; r = r->next) {
    char text[16];
    EXPECT_EQ(kernel.count(hostid_record_to_text(r, text)), 1u) << text;
  }
  hostid_records_free(context.records);
  hostid_port_set(nullptr);
  hostid_process_reset();
  return found;
}

TEST(Win32Port, TheTransportRouteFindsKernelAddresses) {
  const HostidPort& p = *hostid_port_system();
  std::set<std::string> kernel = kernel_addresses();
  void* library = p.load_library(p.handle, "NETAPI32.Dll");
  ASSERT_NE(library, nullptr);
  HostidProc enumerate = p.get_function(p.handle, library, "NetWkstaTransportEnum");
  HostidProc free_buffer = p.get_function(p.handle, library, "NetApiBufferFree");
  ASSERT_NE(enumerate, nullptr);
  ASSERT_NE(free_buffer, nullptr);
  void* buffer = nullptr;
  uint32_t entries = 0;
  ASSERT_EQ(p.transport_enum(p.handle, enumerate, 0x1000, &buffer, &entries), 0u);
  for (uint32_t i = 0; i < entries; ++i) {
    // The transport address is 12 upper-case hexadecimal digits.
    std::string text;
    for (const uint16_t* c = p.transport_address(p.handle, buffer, i); *c != 0; ++c) {
      text += static_cast<char>(std::tolower(*c));
    }
    EXPECT_EQ(kernel.count(text), 1u) << "[" << text << "] " << i << " of " << entries;
  }
  p.transport_free(p.handle, free_buffer, buffer);
  p.free_library(p.handle, library);
  // The whole route, as on NT 4.0: something found exactly when listed.
  EXPECT_EQ(route_finds_kernel_addresses((1381u << 16) | 0x0004u), entries == 0 ? 0 : 1);
}

TEST(Win32Port, TheNetbiosRouteOfTheOlderFamily) {
  if (route_finds_kernel_addresses(0x80000000u | (2222u << 16) | 0x0A04u) != 1) {
    std::printf("NetBIOS found no adapter here\n");
  }
}

}  // namespace
