// The platform's real port: its text conversions. What the port reads from
// the machine (adapters, host name) is checked by the host block system
// test against the namespaces it makes.
#include <gtest/gtest.h>

#include "hostid_internal.h"

namespace {

const HostidPort& p = *hostid_port_system();

TEST(RealPort, TextConversions) {
  // "aé€" and U+1F600 as a surrogate pair: 1 + 2 + 3 + 4 bytes and the NUL.
  const uint16_t text[] = {'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0};
  EXPECT_EQ(p.wide_to_utf8(p.handle, text, nullptr, 0), 11);
  char out[11];
  ASSERT_EQ(p.wide_to_utf8(p.handle, text, out, 11), 11);
  EXPECT_STREQ(out, "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
  EXPECT_EQ(p.wide_to_utf8(p.handle, text, out, 5), 0);  // too small
  const uint16_t lone[] = {'a', 0xDC00, 0};              // a lone surrogate becomes U+FFFD
  ASSERT_EQ(p.wide_to_utf8(p.handle, lone, out, 11), 5);
  EXPECT_STREQ(out, "a\xef\xbf\xbd");
  uint16_t ascii[8];
  EXPECT_EQ(p.ansi_to_wide(p.handle, "host-1", nullptr, 0), 7);
  ASSERT_EQ(p.ansi_to_wide(p.handle, "host-1", ascii, 8), 7);
  EXPECT_EQ(ascii[0], 'h');
  EXPECT_EQ(ascii[6], 0);
}

}  // namespace
