#include "api/sequence_clock.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "api/frames_ahead.h"
#include "registration/exposure.h"

namespace noxel {
namespace {

int64_t microseconds(SequenceClock* clock) {
  const platform::TimeOfDay time = SequenceClock::read(clock);
  EXPECT_GE(time.microseconds, 0);
  EXPECT_LT(time.microseconds, 1'000'000);
  return time.seconds * 1'000'000 + time.microseconds;
}

TEST(CutFinder, OnlyAGapOrAStepBackIsACut) {
  struct Row {
    int64_t usual, interval;
    bool cut;
  };
  constexpr Row kRows[] = {
      {40'000, 40'000, false},        //
      {40'000, 200'000, false},       // five intervals
      {40'000, 200'001, true},        //
      {40'000, 0, false},             // equal times
      {40'000, -1, true},             //
      {250'000, 1'000'000, false},    // four a second, one missing: no gap up to a second
      {250'000, 1'000'001, true},     //
      {3'000'000, 6'000'000, false},  // time lapse: every interval is above a second
      {3'000'000, 15'000'001, true},
  };
  for (const Row& row : kRows) {
    CutFinder cuts(row.usual);
    EXPECT_TRUE(cuts.next(-500)) << "the first frame";
    EXPECT_EQ(cuts.next(-500 + row.interval), row.cut) << row.usual << ' ' << row.interval;
    EXPECT_EQ(cuts.intervalUs(), row.interval);
    EXPECT_EQ(cuts.isSlow(), row.usual >= 200'000);
    cuts.restart();
    EXPECT_TRUE(cuts.next(row.interval));
  }
}

TEST(CutFinder, LearnsTheUsualIntervalFromTheFrames) {
  for (const int64_t usual : {int64_t{16'683}, int64_t{33'367}, int64_t{500'000}}) {
    CutFinder cuts(0);
    int64_t time = 7'000'000;
    EXPECT_TRUE(cuts.next(time));
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(cuts.next(time += usual * (i % 7 == 3 ? 2 : 1))) << usual << ' ' << i;
    EXPECT_TRUE(cuts.next(time + 8 * usual));
  }
}

TEST(SequenceClock, BreaksAtCutsAndNowhereElse) {
  constexpr int64_t kBreakUs = 1'500'000, kMaxStepUs = 200'000;  // the engine's
  SequenceClock clock;
  int64_t before = 0;
  const auto stepped = [&] { return microseconds(&clock) - std::exchange(before, microseconds(&clock)); };
  EXPECT_GT(stepped(), kBreakUs) << "the engine starts at 0";
  clock.cut();
  EXPECT_GT(stepped(), kBreakUs);
  for (const auto& [interval, slow, step] : {std::tuple{int64_t{33'367}, false, int64_t{33'367}},
                                             {0, false, 1},
                                             {500'000, false, kMaxStepUs - 1000},
                                             {500'000, true, 33'000}}) {
    clock.step(interval, slow);
    EXPECT_EQ(stepped(), step);
  }
  clock.stepOnce();
  EXPECT_EQ(stepped(), 33'000);
}

TEST(FramesAhead, ReachAsFarAsTheMemoryGoes) {
  const FramesAhead::Reach full = FramesAhead::reachFor(1920, 1080), less = FramesAhead::reachFor(3840, 2160);
  EXPECT_EQ(full.chunk, 16);
  EXPECT_EQ(full.lead, 12);
  EXPECT_TRUE(less.chunk >= 4 && less.chunk < 16 && less.lead >= 4) << less.chunk << ", " << less.lead;
  EXPECT_EQ(FramesAhead::reachFor(16384, 16384).chunk, 0);
}

TEST(ExposureSettling, EndsWhenGammaAndGainHaveSettledOrAfterTheMaximum) {
  ExposureSettling settling;
  // Eased twice by 0.2, as the engine does: slow, fast, slow.
  float gamma = 1.0f, eased = 1.0f;
  bool settled = false;
  while (!settled) {
    eased += 0.2f * (0.6f - eased);
    gamma += 0.2f * (eased - gamma);
    settled = settling.settled(gamma, 1.0f);
  }
  EXPECT_NEAR(gamma, 0.6f, 0.01f);  // steps below 0.001 at a rate of 0.2: less than 0.01 is left
  EXPECT_LT(settling.rounds(), ExposureSettling::kMaxRounds);

  ExposureSettling restless;
  int rounds = 0;
  do {
    ++rounds;
  } while (!restless.settled(gamma, rounds % 2 == 0 ? 1.0f : 1.1f) && rounds < 1000);
  EXPECT_EQ(rounds, 60);
}

}  // namespace
}  // namespace noxel
