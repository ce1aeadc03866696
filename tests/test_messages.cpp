// The progress line's arithmetic.
#include <gtest/gtest.h>

#include "base/krxmsg.h"
#include "testsupport.h"

using krxtest::Message;
using krxtest::RecordingHost;

namespace {

double fake_now = 0.0;
double fake_clock() { return fake_now; }

struct Progress : ::testing::Test {
  void SetUp() override {
    fake_now = 100.0;
    krx::set_progress_clock(fake_clock);
  }
  void TearDown() override { krx::set_progress_clock(nullptr); }
  std::string tick_after(double seconds) {
    fake_now += seconds;
    ::testing::internal::CaptureStdout();
    krx::progress_tick();
    return ::testing::internal::GetCapturedStdout();
  }
};

// The peek counts a step like a tick but gives no estimate on the first. A step of 3 s after one
// of 1 s: fresh estimate 3 x 2 + 4 = 10, averaged with 4 gives 7, of which 4 are gone.
// Percentages are truncated.
TEST_F(Progress, FirstStepEstimatesFromItsOwnDurationAndLaterStepsAverage) {
  krx::progress_start(4);
  int percent = -1;
  double left = -1, total = -1;
  fake_now += 1.0;
  krx::progress_peek(&percent, &left, &total);
  EXPECT_TRUE(percent == 25 && left == 0.0 && total == 0.0) << percent << " " << left << " " << total;
  EXPECT_EQ(tick_after(3.0), "\r 50%,    3 seconds left of    7 estimated total         ");
  fake_now += 1.0;
  krx::progress_peek(&percent, &left, &total);
  EXPECT_TRUE(percent == 75 && left > 0.0 && total > 0.0) << percent << " " << left << " " << total;
  krx::progress_start(3);
  tick_after(1.0);
  EXPECT_EQ(tick_after(1.0).substr(0, 5), "\r 66%");
}

}  // namespace
