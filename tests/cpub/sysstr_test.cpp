// The bounded text routines.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "sysenv.h"

namespace {

TEST(SysStr, LengthCountsToTerminatorAndNullIsEmpty) {
  EXPECT_EQ(sysstr_len(nullptr), 0u);
  EXPECT_EQ(sysstr_len(""), 0u);
  EXPECT_EQ(sysstr_len("hostkit"), 7u);
}

TEST(SysStr, CopyIsBoundedAndAlwaysTerminated) {
  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(sysstr_copy(sizeof buffer, buffer, "abc"), buffer);
  EXPECT_STREQ(buffer, "abc");

  std::memset(buffer, 'x', sizeof buffer);
  sysstr_copy(4, buffer, "abcdefgh");  // 3 letters and the terminator
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(buffer[4], 'x');

  sysstr_copy(sizeof buffer, buffer, nullptr);
  EXPECT_STREQ(buffer, "");

  buffer[0] = 'q';
  EXPECT_EQ(sysstr_copy(0, buffer, "abc"), nullptr);
  EXPECT_EQ(buffer[0], 'q');

  sysstr_copy(1, buffer, "abc");
  EXPECT_STREQ(buffer, "");
}

TEST(SysStr, FormatCountsOrSaysMinusOneAndStaysTerminated) {
  char buffer[8];
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%d-%s", 42, "ab"), 5);
  EXPECT_STREQ(buffer, "42-ab");
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%s", "1234567"), 7);  // exactly fits
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%s", "12345678"), -1);
  EXPECT_STREQ(buffer, "1234567");
  EXPECT_EQ(sysstr_format(sizeof buffer, buffer, "%s", "a much longer text"), -1);
  EXPECT_EQ(std::strlen(buffer), 7u);
  EXPECT_EQ(sysstr_format(0, buffer, "x"), -1);
}

TEST(SysStr, FormatPrintsSixtyFourBitValuesAlikeOnBothPlatforms) {
  char buffer[64];
  sysstr_format(sizeof buffer, buffer, "%llu %lld %zu", 18446744073709551615ull, -5ll,
                static_cast<size_t>(1) << 40);
  EXPECT_STREQ(buffer, "18446744073709551615 -5 1099511627776");
}

}  // namespace
