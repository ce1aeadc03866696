// The message channel: levels and texts as the host receives them, the quiet inquiry, the
// allocation-failure convention and the progress line's arithmetic.
#include <gtest/gtest.h>

#include "base/krxmsg.h"
#include "testsupport.h"

using krxtest::Message;
using krxtest::RecordingHost;

namespace {

// Texts reach the host with their level and nothing added, an overlong one cut; the quiet
// inquiry is asked afresh each time.
TEST(Messages, ReachTheHostWithTheirLevelAndNothingAdded) {
  RecordingHost host;
  krx::note("Title: %s", "beam");
  krx::warning("I5(%d, %d) is not zero.", 1, 2);
  KRX_REPORT_ALLOC("..\\krxset");
  const std::string line = std::to_string(__LINE__ - 1), big(100000, 'x');
  krx::error("%s", big.c_str());
  ASSERT_EQ(host.messages.size(), 4u);
  EXPECT_EQ(std::vector<Message>(host.messages.begin(), host.messages.begin() + 3),
            (std::vector<Message>{{0, "Title: beam"}, {2, "I5(1, 2) is not zero."},
                                  {3, "Failed to allocate memory at line " + line + " in file ..\\krxset.\n"}}));
  EXPECT_TRUE(host.messages[3].text.size() < big.size() && host.messages[3].text.find_first_not_of('x') == std::string::npos);
  for (int quiet : {1, 0, -2}) {
    host.quiet = quiet;
    EXPECT_EQ(krx::host_is_quiet(), quiet == 1) << quiet;
  }
  EXPECT_EQ(host.inquiries, 3);
}

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
