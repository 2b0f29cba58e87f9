// The context and its record cache: lifetimes, the variable that sets them,
// which lookups hit and which read again, and the error codes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fake_port.h"

namespace {

using hostid_test::FakePort;

struct Context {
  HostIdContext* handle = nullptr;
  Context() { EXPECT_EQ(hostid_context_open(&handle), 0); }
  ~Context() { hostid_context_close(handle); }
};

std::string query(HostIdContext* context, int32_t type, int32_t* status = nullptr) {
  static char buffer[HOSTID_QUERY_BUFFER_SIZE];
  std::memset(buffer, 'x', sizeof buffer);
  buffer[0] = '\0';
  int32_t result = hostid_query(context, type, buffer);
  if (status != nullptr) *status = result;
  return buffer;
}

struct Machine : FakePort {
  Machine() {
    install_all_libraries();
    add_adapter("{A}", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f});
  }
};

TEST(HostidContext, OpenCloseAndTheTag) {
  FakePort machine;
  EXPECT_EQ(hostid_context_open(nullptr), HOSTID_ERR_NULL_HANDLE_SLOT);

  HostIdContext* context = reinterpret_cast<HostIdContext*>(0x1);
  ASSERT_EQ(hostid_context_open(&context), 0);
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(context->tag, 0x66);
  EXPECT_EQ(context->error_code, 0);
  EXPECT_EQ(context->records, nullptr);
  EXPECT_EQ(context->host_name_saved[0], '\0');
  hostid_context_close(context);
  hostid_context_close(nullptr);  // no error, nothing to do
  EXPECT_EQ(hostid_heap_live(), 0);

  // The first allocation is the context itself.
  hostid_heap_fail_at(1);
  context = reinterpret_cast<HostIdContext*>(0x1);
  EXPECT_EQ(hostid_context_open(&context), HOSTID_ERR_NO_MEMORY);
  EXPECT_EQ(context, nullptr);
}

TEST(HostidContext, CloseOfAWrongTagFreesNothingAndKeepsAnEarlierError) {
  FakePort machine;
  HostIdContext fake_context{};
  fake_context.tag = 0x65;
  hostid_context_close(&fake_context);
  EXPECT_EQ(fake_context.error_code, HOSTID_ERR_BAD_CONTEXT);
  EXPECT_EQ(fake_context.error_minor, 166);

  fake_context.error_code = -7;
  fake_context.error_minor = 3;
  hostid_context_close(&fake_context);
  EXPECT_EQ(fake_context.error_code, -7);
  EXPECT_EQ(fake_context.error_minor, 3);
}

TEST(HostidContext, UnknownTypesAreRefusedAndTheErrorIsResetByTheNextQuery) {
  Machine machine;
  Context c;
  for (int32_t type : {0, 1, 3, 5, 7, -2, 0x10006}) {
    int32_t status = 0;
    EXPECT_EQ(query(c.handle, type, &status), "") << type;
    EXPECT_EQ(status, HOSTID_ERR_TYPE_NOT_AVAILABLE);
    EXPECT_EQ(c.handle->error_code, -45);
    EXPECT_EQ(c.handle->error_minor, 285);
  }
  EXPECT_EQ(machine.adapter_calls + machine.host_name_reads, 0);  // no lookup made
  int32_t status = -1;
  EXPECT_EQ(query(c.handle, 6, &status), "HOSTNAME=alpha");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(c.handle->error_code, 0);
  EXPECT_EQ(c.handle->error_minor, 0);
}

TEST(HostidContext, CopyBounded) {
  char out[8];
  hostid_copy_bounded(nullptr, "abc", 3);  // nothing to write to

  std::memset(out, '#', sizeof out);
  hostid_copy_bounded(out, nullptr, 5);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(out[1], '#');

  std::memset(out, '#', sizeof out);
  hostid_copy_bounded(out, "abc", 0);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(out[1], '#');

  // A short source: its NUL, then untouched bytes, then the NUL at [limit].
  std::memset(out, '#', sizeof out);
  hostid_copy_bounded(out, "ab", 5);
  EXPECT_EQ(std::string(out, 6), std::string("ab\0##\0", 6));

  // A long source is cut at `limit` bytes.
  std::memset(out, '#', sizeof out);
  hostid_copy_bounded(out, "abcdefgh", 4);
  EXPECT_EQ(std::string(out, 6), std::string("abcd\0#", 6));
}

TEST(HostidLifetime, TheVariableIsReadAsASignedDecimalNumber) {
  // Each case: a value of HID_DEBUG_HOSTID and the lifetime it must give. In
  // range 1..30 the number itself; everything else the default of 30.
  const std::pair<const char*, int32_t> cases[] = {{nullptr, 30},
                                                   {"", 30},
                                                   {"0", 30},
                                                   {"31", 30},
                                                   {"-5", 30},
                                                   {"abc", 30},
                                                   {"1", 1},
                                                   {"30", 30},
                                                   {"12ab", 12},
                                                   {"  \t7", 7},
                                                   {"+9", 9},
                                                   {"-0", 30},
                                                   {"007", 7},
                                                   {"2 3", 2},
                                                   {"99999999999999999999", 30},
                                                   {"-99999999999999999999", 30},
                                                   {" x5", 30},
                                                   {"\n\v\f\r15", 15}};
  for (const auto& [text, lifetime] : cases) {
    EXPECT_EQ(hostid_lifetime_from_text(text), lifetime) << (text ? text : "(unset)");
  }
}

TEST(HostidLifetime, ReadOnceAtTheFirstLookup) {
  Machine machine;
  machine.environment["HID_DEBUG_HOSTID"] = "5";
  {
    Context c;
    query(c.handle, 2);
  }
  machine.environment["HID_DEBUG_HOSTID"] = "9";
  Context c;
  query(c.handle, 2);  // a miss, read at t0
  EXPECT_EQ(hostid_lifetime(), 5);
  int calls = machine.adapter_calls;
  machine.clock += 5;
  query(c.handle, 2);
  EXPECT_EQ(machine.adapter_calls, calls);  // 5 seconds old: still cached
}

TEST(HostidLifetime, ThirtySecondsStillCachedThirtyOneNot) {
  Machine machine;
  Context c;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  int64_t stamp = c.handle->records_time;
  HostIdRecord* first = c.handle->records;
  machine.clock += 30;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records, first);  // a hit: the same chain, the same stamp
  EXPECT_EQ(c.handle->records_time, stamp);
  machine.clock += 1;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records_time, stamp + 31);  // a miss: the stamp of this lookup
}

TEST(HostidLifetime, AClockSetBackCountsAsYoung) {
  Machine machine;
  machine.environment["HID_DEBUG_HOSTID"] = "1";
  Context c;
  query(c.handle, 2);
  HostIdRecord* first = c.handle->records;
  int64_t stamp = c.handle->records_time;
  machine.clock -= 3600;
  query(c.handle, -1);
  EXPECT_EQ(c.handle->records, first);
  EXPECT_EQ(c.handle->records_time, stamp);
  machine.clock = stamp + 1;
  query(c.handle, 2);
  EXPECT_EQ(c.handle->records, first);  // 1 second at lifetime 1: still a hit
  machine.clock = stamp + 2;
  query(c.handle, 2);
  EXPECT_EQ(c.handle->records_time, stamp + 2);  // a miss moved the stamp
}

TEST(HostidCache, EachOtherTypeIsAMissButTheNameIsReadOnce) {
  Machine machine;
  Context c;
  EXPECT_EQ(query(c.handle, 6), "HOSTNAME=alpha");
  EXPECT_EQ(c.handle->records->type, 6);
  machine.clock += 1;
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records->type, 2);
  EXPECT_EQ(c.handle->records_time, machine.clock);
  machine.clock += 1;
  EXPECT_EQ(query(c.handle, 6), "HOSTNAME=alpha");
  EXPECT_EQ(c.handle->records_time, machine.clock);
  EXPECT_EQ(machine.host_name_reads, 1);  // the third came from the saved name
  // A host name record never expires.
  HostIdRecord* name = c.handle->records;
  machine.clock += 100000;
  query(c.handle, 6);
  EXPECT_EQ(c.handle->records, name);
}

TEST(HostidCache, TheDefaultIsStoredAsType2) {
  Machine machine;
  Context c;
  EXPECT_EQ(query(c.handle, -1), "0a1b2c3d4e5f");
  HostIdRecord* chain = c.handle->records;
  EXPECT_EQ(chain->type, 2);
  EXPECT_EQ(query(c.handle, 2), "0a1b2c3d4e5f");
  EXPECT_EQ(query(c.handle, -1), "0a1b2c3d4e5f");
  EXPECT_EQ(c.handle->records, chain);
  EXPECT_EQ(machine.adapter_calls, 2);  // one enumeration: a size call and a fill
}

TEST(HostidCache, WithoutAdaptersEveryQueryReadsAgain) {
  FakePort machine;
  machine.install_all_libraries();
  Context c;
  EXPECT_EQ(query(c.handle, -1), "ffffffff");
  EXPECT_EQ(c.handle->records->type, 1);
  EXPECT_EQ(c.handle->records->value.number, 0xFFFFFFFFu);
  EXPECT_EQ(query(c.handle, 2), "ffffffff");
  EXPECT_EQ(query(c.handle, -1), "ffffffff");
  EXPECT_EQ(machine.adapter_calls, 3);
}

TEST(HostidCache, ANullBufferCopiesNothingAndStillSucceeds) {
  Machine machine;
  Context c;
  EXPECT_EQ(hostid_query(c.handle, 6, nullptr), 0);
  EXPECT_EQ(hostid_query(c.handle, -1, nullptr), 0);
}

TEST(HostidCache, AFailedRecordLeavesTheBufferAndReturnsZero) {
  Machine machine;
  Context c;
  query(c.handle, 6);
  hostid_heap_fail_at(1);  // the head record of the next miss
  char buffer[HOSTID_QUERY_BUFFER_SIZE];
  std::strcpy(buffer, "untouched");
  EXPECT_EQ(hostid_query(c.handle, -1, buffer), 0);
  EXPECT_STREQ(buffer, "untouched");
  EXPECT_EQ(c.handle->records, nullptr);  // the old chain was discarded first
  EXPECT_EQ(c.handle->error_code, 0);
  hostid_heap_fail_at(0);
  EXPECT_EQ(query(c.handle, -1), "0a1b2c3d4e5f");
}

TEST(HostidCache, TheLastByteOfTheBufferIsWrittenAndAnswersAreCopies) {
  Machine machine;
  machine.add_adapter("{B}", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x60});
  Context c;
  char ids[HOSTID_QUERY_BUFFER_SIZE];
  char name[HOSTID_QUERY_BUFFER_SIZE];
  std::memset(ids, 'x', sizeof ids);
  ASSERT_EQ(hostid_query(c.handle, 2, ids), 0);
  ASSERT_EQ(hostid_query(c.handle, 6, name), 0);
  EXPECT_EQ(ids[4095], '\0');
  EXPECT_STREQ(ids, "\"0a1b2c3d4e5f 0a1b2c3d4e60\"");
  EXPECT_STREQ(name, "HOSTNAME=alpha");
}

TEST(HostidCache, TwoContextsShareTheLifetimeButNotTheirChains) {
  Machine machine;
  Context a;
  Context b;
  query(a.handle, -1);
  query(b.handle, -1);
  EXPECT_NE(a.handle->records, b.handle->records);
  // The second context got its list from the 120-second cache.
  EXPECT_EQ(machine.adapter_calls, 2);
  hostid_context_close(a.handle);
  a.handle = nullptr;
  EXPECT_EQ(query(b.handle, -1), "0a1b2c3d4e5f");
}

}  // namespace
