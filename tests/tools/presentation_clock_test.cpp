#include "media/presentation_clock.h"

#include <gtest/gtest.h>

#include "enhance/enhancer_session.h"

namespace noxel::tool {
namespace {

int64_t microseconds(const PresentationClock& clock) {
  const platform::TimeOfDay time = clock.now();
  EXPECT_GE(time.microseconds, 0);
  EXPECT_LT(time.microseconds, 1'000'000);
  return time.seconds * 1'000'000 + time.microseconds;
}

TEST(PresentationClock, OnlyAGapInTheClipBreaksTheSequence) {
  struct Row {
    int64_t nominal, interval, step;
  };
  constexpr Row kRows[] = {
      {40'000, 40'000, 40'000},         // no change
      {40'000, 200'000, 199'000},       // five intervals: shortened
      {40'000, 200'001, 1'600'000},     // a gap: lengthened to a break
      {40'000, 7'000'000, 7'000'000},   //
      {100'000, 199'000, 199'000},      // max step
      {100'000, 500'000, 199'000},      //
      {199'999, 199'999, 199'000},      // just not a slow clip
      {200'000, 200'000, 33'000},       // slow clips step like a camera
      {250'000, 1'000'000, 33'000},     // exactly one second is not a gap
      {250'000, 1'000'001, 1'600'000},  //
      {3'000'000, 6'000'000, 33'000},   // time lapse: every interval is above a second
      {3'000'000, 15'000'001, 15'000'001},
      {40'000, 0, 1},  // equal time stamps still step
  };
  for (const Row& row : kRows) {
    EXPECT_EQ(PresentationClock(row.nominal).stepFor(row.interval), row.step) << row.nominal << ' ' << row.interval;
  }
}

TEST(PresentationClock, FollowsTheClipWithoutDrift) {
  PresentationClock clock(33'367);
  clock.show(-500);
  const int64_t start = microseconds(clock);
  for (int64_t i = 1; i <= 300; ++i) clock.show(i * 1'001'000 / 30 - 500);
  EXPECT_EQ(microseconds(clock) - start, 10'010'000);
}

TEST(PresentationClock, FirstFrameAndRestartBreakTheSequence) {
  constexpr int64_t kEngineBreakUs = 1'500'000;
  PresentationClock clock(40'000);
  const int64_t before = microseconds(clock);
  EXPECT_GT(before, kEngineBreakUs);  // the engine starts at 0
  clock.repeat();
  const int64_t first = microseconds(clock);
  EXPECT_GT(first - before, kEngineBreakUs);
  clock.repeat();
  EXPECT_EQ(microseconds(clock) - first, 33'000);
  clock.restart();
  clock.show(0);
  EXPECT_GT(microseconds(clock) - first - 33'000, kEngineBreakUs);
  const platform::TimeOfDay read = PresentationClock::read(&clock);
  EXPECT_EQ(read.seconds, clock.now().seconds);
}

TEST(ExposureSettling, EndsWhenGammaAndGainHaveSettledOrAfterTheMaximum) {
  ExposureSettling settling;
  FrameReport report = {};
  report.gamma = report.gain = 1.0f;
  // Eased twice by 0.2, as the engine does: slow, fast, slow.
  float eased = 1.0f;
  bool settled = false;
  while (!settled) {
    eased += 0.2f * (0.6f - eased);
    report.gamma += 0.2f * (eased - report.gamma);
    settled = settling.settled(report);
  }
  EXPECT_NEAR(report.gamma, 0.6f, 0.01f);  // steps below 0.001 at a rate of 0.2: less than 0.01 is left
  EXPECT_LT(settling.rounds(), ExposureSettling::kMaxRounds);

  ExposureSettling restless;
  int rounds = 0;
  do {
    ++rounds;
    report.gain = rounds % 2 == 0 ? 1.0f : 1.1f;
  } while (!restless.settled(report) && rounds < 1000);
  EXPECT_EQ(rounds, 60);
}

}  // namespace
}  // namespace noxel::tool
