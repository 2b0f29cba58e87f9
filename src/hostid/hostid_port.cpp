// The process-wide active port.
#include "hostid_port.h"

namespace {
const HostidPort* g_port = nullptr;
}

extern "C" const HostidPort* hostid_port(void) {
  return g_port != nullptr ? g_port : hostid_port_system();
}

extern "C" void hostid_port_set(const HostidPort* port) { g_port = port; }
