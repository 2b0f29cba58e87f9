// The text forms of records and chains, as the report prints them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_port.h"

namespace {

HostIdRecord ether(std::vector<uint8_t> bytes) {
  HostIdRecord r{};
  r.type = HOSTID_TYPE_ETHER;
  std::memcpy(r.value.address, bytes.data(), 6);
  return r;
}

HostIdRecord name(const std::string& text) {
  HostIdRecord r{};
  r.type = HOSTID_TYPE_HOSTNAME;
  hostid_copy_bounded(r.value.text, text.c_str(), HOSTID_NAME_TEXT_LIMIT);
  return r;
}

// Links the records in the order given.
const HostIdRecord* link(std::vector<HostIdRecord>& records) {
  for (size_t i = 0; i + 1 < records.size(); ++i) records[i].next = &records[i + 1];
  return records.empty() ? nullptr : &records[0];
}

std::string text_of(std::vector<HostIdRecord> records) {
  return hostid_chain_to_text(nullptr, link(records));
}

TEST(HostidText, RecordForms) {
  char out[1100];
  // Each byte as two lower-case digits with its leading zero; no sign
  // extension for bytes of 0x80 and above.
  HostIdRecord r = ether({0x0a, 0x00, 0xff, 0x80, 0x09, 0x10});
  EXPECT_STREQ(hostid_record_to_text(&r, out), "0a00ff800910");
  r = ether({0, 0, 0, 0, 0, 0});
  EXPECT_STREQ(hostid_record_to_text(&r, out), "000000000000");

  HostIdRecord n{};
  n.type = HOSTID_TYPE_NUMBER;
  n.value.number = 0xFFFFFFFF;
  EXPECT_STREQ(hostid_record_to_text(&n, out), "ffffffff");
  n.value.number = 0x00ABC;
  EXPECT_STREQ(hostid_record_to_text(&n, out), "abc");  // no leading zeros
  n.value.number = 0;
  EXPECT_STREQ(hostid_record_to_text(&n, out), "0");

  HostIdRecord h = name("alpha");
  EXPECT_STREQ(hostid_record_to_text(&h, out), "HOSTNAME=alpha");
  h = name("");
  EXPECT_STREQ(hostid_record_to_text(&h, out), "HOSTNAME=");

  for (int16_t type : {int16_t{-1}, int16_t{0}, int16_t{3}, int16_t{7}}) {
    HostIdRecord other = ether({1, 2, 3, 4, 5, 6});
    other.type = type;
    std::strcpy(out, "junk");
    EXPECT_STREQ(hostid_record_to_text(&other, out), "") << type;
  }
  std::strcpy(out, "junk");
  EXPECT_STREQ(hostid_record_to_text(nullptr, out), "");
}

TEST(HostidText, ChainForms) {
  EXPECT_EQ(std::string(hostid_chain_to_text(nullptr, nullptr)), "");
  // One record: bare. Two: one pair of quotes, one blank between, 27 chars.
  EXPECT_EQ(text_of({ether({0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f})}), "0a1b2c3d4e5f");
  std::string two = text_of(
      {ether({0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}), ether({0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x60})});
  EXPECT_EQ(two, "\"0a1b2c3d4e5f 0a1b2c3d4e60\"");
  EXPECT_EQ(two.size(), 27u);
  EXPECT_EQ(text_of({ether({1, 2, 3, 4, 5, 6}), ether({1, 2, 3, 4, 5, 6}),
                     ether({0xff, 0xff, 0xff, 0xff, 0xff, 0xff})}),
            "\"010203040506 010203040506 ffffffffffff\"");

  // An unknown type in a chain still takes its place between blanks.
  HostIdRecord odd = ether({1, 1, 1, 1, 1, 1});
  odd.type = 9;
  EXPECT_EQ(text_of({ether({1, 2, 3, 4, 5, 6}), odd, ether({6, 5, 4, 3, 2, 1})}),
            "\"010203040506  060504030201\"");

  // Ten addresses, the most a route gives: 2 + 120 + 9 characters.
  std::vector<HostIdRecord> ten;
  for (uint8_t i = 0; i < 10; ++i) ten.push_back(ether({0, 0, 0, 0, 0, i}));
  EXPECT_EQ(text_of(ten).size(), 131u);
}

TEST(HostidText, TheLongestNameAndAChainThatWouldOverflow) {
  std::string longest(1023, 'n');
  std::string text = text_of({name(longest)});
  EXPECT_EQ(text.size(), 1032u);
  EXPECT_EQ(text, "HOSTNAME=" + longest);

  // Five names of 1024 bytes would need 5 * 1033 + 6 bytes: the text stops
  // at the end of the 4096-byte buffer, without its closing quote.
  std::vector<HostIdRecord> names(5, name(std::string(1024, 'm')));
  std::string cut = text_of(names);
  EXPECT_EQ(cut.size(), 4095u);
  EXPECT_EQ(cut.substr(0, 10), "\"HOSTNAME=");
}

TEST(HostidText, EachQueryBufferKeepsItsOwnCopy) {
  hostid_test::FakePort machine;
  machine.install_all_libraries();
  machine.add_adapter("{A}", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f});
  HostIdContext* context = nullptr;
  ASSERT_EQ(hostid_context_open(&context), 0);
  char ids[HOSTID_QUERY_BUFFER_SIZE];
  char host[HOSTID_QUERY_BUFFER_SIZE];
  hostid_query(context, 2, ids);
  hostid_query(context, 6, host);
  EXPECT_STREQ(ids, "0a1b2c3d4e5f");
  EXPECT_STREQ(host, "HOSTNAME=alpha");
  hostid_context_close(context);
}

}  // namespace
