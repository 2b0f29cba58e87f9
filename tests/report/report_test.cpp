// The report driver's first step: flush-to-zero and denormals-are-zero set,
// every other bit of MXCSR kept.
#include <gtest/gtest.h>
#include <xmmintrin.h>

#include <thread>

#include "report.h"

namespace {

TEST(ReportFpMode, SetsBits15And6AndKeepsTheRest) {
  // A fresh thread starts from the default MXCSR; run each case there so the
  // test's own thread is left alone.
  for (unsigned start : {0x1F80u, 0x1F80u | 0x8000u, 0x0000u, 0x7F80u | 0x0040u, 0x3F80u}) {
    unsigned after = 0;
    std::thread([&] {
      _mm_setcsr(start);
      report_set_fp_mode();
      after = _mm_getcsr();
    }).join();
    EXPECT_EQ(after, start | 0x8040u) << std::hex << start;
  }
}

}  // namespace
