// The text forms of records and chains, as the report prints them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_port.h"

namespace {

HostIdRecord ether(std::vector<uint8_t> bytes, int16_t type = HOSTID_TYPE_ETHER) {
  HostIdRecord r{};
  r.type = type;
  std::memcpy(r.value.address, bytes.data(), 6);
  return r;
}

HostIdRecord number(uint32_t value) {
  HostIdRecord r{};
  r.type = HOSTID_TYPE_NUMBER;
  r.value.number = value;
  return r;
}

HostIdRecord name(const std::string& text) {
  HostIdRecord r{};
  r.type = HOSTID_TYPE_HOSTNAME;
  hostid_copy_bounded(r.value.text, text.c_str(), HOSTID_NAME_TEXT_LIMIT);
  return r;
}

// The text of the records linked in the order given.
std::string text_of(std::vector<HostIdRecord> records) {
  for (size_t i = 0; i + 1 < records.size(); ++i) records[i].next = &records[i + 1];
  return hostid_chain_to_text(nullptr, records.empty() ? nullptr : &records[0]);
}

TEST(HostidText, RecordAndChainForms) {
  const HostIdRecord a = ether({0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f});
  const HostIdRecord b = ether({0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x60});
  const HostIdRecord ones = ether({0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
  const struct {
    std::vector<HostIdRecord> chain;
    std::string text;
    const char* why;
  } cases[] = {
      // Each byte as two lower-case digits with its leading zero, no sign
      // extension from 0x80 on.
      {{ether({0x0a, 0x00, 0xff, 0x80, 0x09, 0x10})}, "0a00ff800910", "one address, bare"},
      {{ether({0, 0, 0, 0, 0, 0})}, "000000000000", "all zero"},
      {{number(0xFFFFFFFF)}, "ffffffff", "no address at all"},
      {{number(0xABC)}, "abc", "a number without leading zeros"},
      {{number(0)}, "0", "zero"},
      {{name("alpha")}, "HOSTNAME=alpha", "a name"},
      {{name("")}, "HOSTNAME=", "the name alone"},
      {{}, "", "no chain"},
      {{ether({1, 2, 3, 4, 5, 6}, 3)}, "", "an unknown type alone"},
      {{a, b}, "\"0a1b2c3d4e5f 0a1b2c3d4e60\"", "two: one pair of quotes, one blank between"},
      {{a, a, ones}, "\"0a1b2c3d4e5f 0a1b2c3d4e5f ffffffffffff\"", "a double stays"},
      {{a, ether({1, 1, 1, 1, 1, 1}, 9), b},
       "\"0a1b2c3d4e5f  0a1b2c3d4e60\"",
       "an unknown type still takes its place between blanks"},
  };
  for (const auto& c : cases) EXPECT_EQ(text_of(c.chain), c.text) << c.why;
  char out[32] = "junk";
  EXPECT_STREQ(hostid_record_to_text(nullptr, out), "");
  for (int16_t type : {int16_t{-1}, int16_t{0}, int16_t{7}}) {
    std::strcpy(out, "junk");
    HostIdRecord other = ether({1, 2, 3, 4, 5, 6}, type);
    EXPECT_STREQ(hostid_record_to_text(&other, out), "") << type;
  }
}

TEST(HostidText, LongChainsAndNames) {
  // Ten addresses, the most a route gives: 2 quotes + 10 * 12 + 9 blanks.
  EXPECT_EQ(text_of(std::vector<HostIdRecord>(10, ether({0, 0, 0, 0, 0, 1}))).size(), 131u);
  std::string longest(1023, 'n');
  EXPECT_EQ(text_of({name(longest)}), "HOSTNAME=" + longest);
  // Five names of 1024 bytes would need 5 * 1033 + 6 bytes: the text stops
  // at the end of the 4096-byte buffer, without its closing quote.
  std::string cut = text_of(std::vector<HostIdRecord>(5, name(std::string(1024, 'm'))));
  EXPECT_EQ(cut.size(), 4095u);
  EXPECT_EQ(cut.substr(0, 10), "\"HOSTNAME=");
}

}  // namespace
