// The context and its record cache: lifetimes, the variable that sets them,
// which lookups hit and which read again, and the error codes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "fake_port.h"

namespace {

using namespace hostid_test;

struct Machine : FakePort {
  Machine() { add_adapter("{A}", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}); }
};

TEST(HostidContext, OpenCloseTagAndErrors) {
  Machine machine;
  EXPECT_EQ(hostid_context_open(nullptr), HOSTID_ERR_NULL_HANDLE_SLOT);
  // The first allocation is the context itself.
  machine.fail_allocation(1);
  HostIdContext* context = reinterpret_cast<HostIdContext*>(0x1);
  EXPECT_EQ(hostid_context_open(&context), HOSTID_ERR_NO_MEMORY);
  EXPECT_EQ(context, nullptr);
  hostid_context_close(nullptr);  // no error, nothing to do

  // A wrong tag: nothing freed, -42/166, and an earlier error is kept.
  HostIdContext other{};
  other.tag = 0x65;
  hostid_context_close(&other);
  EXPECT_EQ(other.error_code, HOSTID_ERR_BAD_CONTEXT);
  EXPECT_EQ(other.error_minor, 166);
  other.error_code = -7;
  hostid_context_close(&other);
  EXPECT_EQ(other.error_code, -7);
  EXPECT_EQ(other.error_minor, 166);

  // Unknown types: -45/285 and no lookup; the next good query resets it.
  Context c;
  EXPECT_EQ(c.handle->tag, 0x66);
  for (int32_t type : {0, 1, 3, 5, 7, -2, 0x10006}) {
    int32_t status = 0;
    EXPECT_EQ(query(c.handle, type, &status), "") << type;
    EXPECT_EQ(status, HOSTID_ERR_TYPE_NOT_AVAILABLE) << type;
    EXPECT_EQ(c.handle->error_code, -45);
    EXPECT_EQ(c.handle->error_minor, 285);
  }
  EXPECT_EQ(machine.adapter_calls + machine.host_name_reads, 0);
  EXPECT_EQ(hostid_query(c.handle, 6, nullptr), 0);  // no buffer: nothing copied, success
  EXPECT_EQ(c.handle->error_code, 0);
  EXPECT_EQ(c.handle->error_minor, 0);
}

TEST(HostidContext, CopyBounded) {
  // Source, limit, and the 6 bytes then in a buffer of '#': a short source
  // gets its NUL, untouched bytes, then the NUL at [limit]; a long one is cut.
  // clang-format off
  const std::tuple<const char*, int32_t, const char*> cases[] = {{nullptr, 5, "\0#####"}, {"abc", 0, "\0#####"}, {"ab", 5, "ab\0##\0"},
                        {"abcdefgh", 4, "abcd\0#"}};
  // clang-format on
  for (const auto& [source, limit, expected] : cases) {
    char out[8];
    std::memset(out, '#', sizeof out);
    hostid_copy_bounded(out, source, limit);
    EXPECT_EQ(std::string(out, 6), std::string(expected, 6)) << limit;
  }
  hostid_copy_bounded(nullptr, "abc", 3);  // nothing to write to
}

TEST(HostidLifetime, TheVariableIsReadAsASignedDecimalNumber) {
  // A value of HID_DEBUG_HOSTID and its lifetime: in 1..30 the number read
  // as strtol does, everything else the default of 30.
  // clang-format off
  const std::pair<const char*, int32_t> cases[] = {
      {nullptr, 30}, {"", 30}, {"0", 30}, {"31", 30}, {"-5", 30}, {"abc", 30}, {"-0", 30},
      {" x5", 30}, {"99999999999999999999", 30}, {"-99999999999999999999", 30},
      {"1", 1}, {"30", 30}, {"12ab", 12}, {"  \t7", 7}, {"+9", 9}, {"007", 7}, {"2 3", 2},
      {"\n\v\f\r15", 15}};
  // clang-format on
  for (const auto& [text, lifetime] : cases) {
    EXPECT_EQ(hostid_lifetime_from_text(text), lifetime) << (text ? text : "(unset)");
  }
}

TEST(HostidLifetime, ReadOnceAtTheFirstLookup) {
  Machine machine;
  machine.environment["HID_DEBUG_HOSTID"] = "5";
  Context c;
  query(c.handle, 2);
  const int64_t stamp = c.handle->records_time;
  machine.environment["HID_DEBUG_HOSTID"] = "9";  // too late: changes nothing
  machine.clock = stamp + 5;
  query(c.handle, 2);
  EXPECT_EQ(c.handle->records_time, stamp);  // 5 seconds old: a hit
  machine.clock = stamp + 6;
  query(c.handle, 2);
  EXPECT_EQ(c.handle->records_time, stamp + 6);  // a miss
}

TEST(HostidLifetime, ThirtySecondsStillCachedThirtyOneNotAndAClockSetBack) {
  Machine machine;
  Context c;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  HostIdRecord* first = c.handle->records;
  const int64_t stamp = c.handle->records_time;
  machine.clock -= 3600;  // set back: the chain counts as young
  EXPECT_EQ(query(c.handle, -1), "0a1b2c3d4e5f");
  machine.clock = stamp + 30;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records, first);  // hits: the same chain, the same stamp
  EXPECT_EQ(c.handle->records_time, stamp);
  machine.clock = stamp + 31;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records_time, stamp + 31);  // a miss: the stamp of this lookup
}

TEST(HostidCache, EachOtherTypeIsAMissButTheNameIsReadOnce) {
  Machine machine;
  Context c;
  EXPECT_EQ(query(c.handle, 6), "HOSTNAME=alpha");
  machine.clock += 1;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records_time, machine.clock);
  machine.clock += 1;
  EXPECT_EQ(query(c.handle, 6), "HOSTNAME=alpha");
  EXPECT_EQ(c.handle->records_time, machine.clock);
  EXPECT_EQ(machine.host_name_reads, 1);  // the second came from the saved name
  HostIdRecord* name = c.handle->records;
  machine.clock += 100000;  // a host name record never expires
  query(c.handle, 6);
  EXPECT_EQ(c.handle->records, name);
  // The default is stored as type 2 and served to both.
  EXPECT_EQ(query(c.handle, -1), "0a1b2c3d4e5f");
  HostIdRecord* chain = c.handle->records;
  EXPECT_EQ(chain->type, 2);
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records, chain);
}

TEST(HostidCache, WithoutAdaptersEveryQueryReadsAgain) {
  FakePort machine;
  Context c;
  EXPECT_EQ(query(c.handle, -1), "ffffffff");
  EXPECT_EQ(c.handle->records->type, 1);
  EXPECT_EQ(query(c.handle, 2), "ffffffff");
  EXPECT_EQ(machine.adapter_calls, 2);
}

TEST(HostidCache, AFailedRecordLeavesTheBufferAndReturnsZero) {
  Machine machine;
  Context c;
  query(c.handle, 6);
  machine.fail_allocation(1);  // the head record of the next miss
  char buffer[HOSTID_QUERY_BUFFER_SIZE] = "untouched";
  EXPECT_EQ(hostid_query(c.handle, -1, buffer), 0);
  EXPECT_STREQ(buffer, "untouched");
  EXPECT_EQ(c.handle->records, nullptr);  // the old chain was discarded first
  EXPECT_EQ(c.handle->error_code, 0);
  EXPECT_EQ(query(c.handle, -1), "0a1b2c3d4e5f");
}

TEST(HostidCache, ContextsShareTheAddressListNotTheirChains) {
  Machine machine;
  machine.add_adapter("{B}", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x60});
  Context a;
  Context b;
  EXPECT_EQ(query(a.handle, -1), "\"0a1b2c3d4e5f 0a1b2c3d4e60\"");
  EXPECT_EQ(query(b.handle, -1), "\"0a1b2c3d4e5f 0a1b2c3d4e60\"");
  EXPECT_NE(a.handle->records, b.handle->records);
  EXPECT_EQ(machine.adapter_calls, 2);  // one enumeration: its size, then the fill
  hostid_context_close(a.handle);
  a.handle = nullptr;
  EXPECT_EQ(query(b.handle, -1), "\"0a1b2c3d4e5f 0a1b2c3d4e60\"");
  EXPECT_EQ(machine.live_blocks, 2 + 1);  // b: its chain of two and its own block
}

}  // namespace
