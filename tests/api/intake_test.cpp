#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <thread>

#include "api/frame_conversion.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/test_engine.h"

namespace noxel {
namespace {

struct Size {
  int width;
  int height;
};

TEST(FrameConversion, GoesThereAndBackWithoutTouchingItsNeighbours) {
  std::mt19937 random(7);
  constexpr size_t kGuard = 32;
  for (const Size size : {Size{4, 2}, Size{6, 2}, Size{5, 5}, Size{1280, 720}}) {
    const size_t bytes = frameSize(size.width, size.height);
    const size_t luma = static_cast<size_t>(size.width) * size.height;
    const size_t q = luma / 4;
    const auto guarded = [&] { return std::vector<unsigned char>(bytes + 2 * kGuard, 0xa5); };
    for (const int format : {kFormatNv21, kFormatYv12, 35}) {
      auto caller = guarded();
      auto internal = guarded();
      auto returned = guarded();
      for (size_t i = 0; i < bytes; ++i) caller[kGuard + i] = static_cast<unsigned char>(random());
      copyAndConvertInput(&internal[kGuard], &caller[kGuard], size.width, size.height, format);
      copyAndConvertOutput(&returned[kGuard], &internal[kGuard], size.width, size.height, format);

      const size_t copied = format == 35 ? 0 : format == kFormatYv12 ? luma + 2 * q : bytes;
      auto expected = guarded();
      std::copy_n(&caller[kGuard], copied, &expected[kGuard]);
      EXPECT_EQ(returned, expected) << size.width << " x " << size.height << " format " << format;
      if (format == kFormatYv12) {
        for (size_t i = 0; i < q; ++i) {
          ASSERT_EQ(internal[kGuard + luma + 2 * i], caller[kGuard + luma + i]) << "V " << i;
          ASSERT_EQ(internal[kGuard + luma + 2 * i + 1], caller[kGuard + luma + q + i]) << "U " << i;
        }
      } else {
        EXPECT_EQ(internal, expected);
      }
    }
  }
}

// Milliseconds before the third frame of a sequence, and whether it counts as a break.
TEST(Intake, ABreakIsAGapBeyondTheThresholds) {
  struct Case {
    double secondGap;
    double thirdGap;
    int framesSinceReset;  // after the third
  };
  // The second frame is measured against 1500 ms alone; equality and a clock set back are no break.
  const Case cases[] = {{33, 33, 3},   {33, 200, 3},    {33, 200.1, 1},   {33, 1500, 1},  {200.1, 33, 3},
                        {1500, 33, 3}, {1500.1, 33, 2}, {1500.1, 201, 2}, {33, -5000, 3}, {1500.1, 1500.1, 1}};
  for (const Case& each : cases) {
    TestEngine engine(16, 8);
    NOXEL_NEEDS_GL(engine);
    TestFrame frame(16, 8);
    engine.clock.advance(5000);
    engine.process(&frame);
    engine.clock.advance(each.secondGap - 33);
    engine.process(&frame);
    engine.clock.advance(each.thirdGap - 33);
    engine.process(&frame);
    EXPECT_EQ(engine.handle->framesSinceReset, each.framesSinceReset) << each.secondGap << ", " << each.thirdGap;
  }
}

// The hand-offs are the same in each mode and on each path; a flat frame comes back as it was from all of these.
struct Road {
  int mode;
  int lightMode;
  int strength;

  void takenBy(TestEngine* engine) const {
    engine->set(kParamLightMode, lightMode);
    engine->set(kParamNoiseReductionStrength, strength);
    engine->set(kParamContrast, 0);
    engine->set(kParamExposureStrength, 0);  // mode 5's tone
  }
};

class Roads : public ::testing::TestWithParam<Road> {};

INSTANTIATE_TEST_SUITE_P(Modes, Roads,
                         ::testing::Values(Road{kModeNeutralExposure, 1, 0}, Road{kModeThreeFrames, 0, 65},
                                           Road{kModeThreeFrames, 1, 65}, Road{kModeStabilize, 0, 65},
                                           Road{kModeClear, 0, 50}, Road{kModeClear, 1, 50}),
                         [](const auto& road) {
                           return std::to_string(road.param.mode) +
                                  (road.param.lightMode == 1 ? "light" : "registered");
                         });

TEST_P(Roads, SynchronousFramesAreEachTheirOwnAcrossBreaks) {
  for (const int ringSlots : {1, 2, 3}) {
    TestEngine engine(16, 8, {.mode = GetParam().mode, .ringSlots = ringSlots, .outputDelay = 1});
    NOXEL_NEEDS_GL(engine);
    GetParam().takenBy(&engine);
    std::mt19937 random(11);
    std::vector<int> given;
    for (int i = 0; i < (ringSlots == 1 ? 120 : 40); ++i) {
      const bool reset = random() % 10 == 0;
      if (reset) engine.clock.advance(2000);
      if (reset || i == 0) given.clear();
      given.push_back(20 + 3 * i % 200);
      TestFrame frame(16, 8, static_cast<unsigned char>(given.back()));
      ASSERT_EQ(engine.process(&frame), 0);
      // Each slot beyond the first holds a copy of the sequence's first frame in front of it.
      const int behind = std::min<int>(ringSlots - 1, static_cast<int>(given.size()) - 1);
      ASSERT_NEAR(frame.luma(7, 3), given[given.size() - 1 - behind], 1) << "frame " << i << ", slots " << ringSlots;
      ASSERT_GE(engine.handle->queuedFrames.load(), 0);
      ASSERT_LE(engine.handle->queuedFrames.load(), ringSlots);
    }
  }
}

TEST_P(Roads, BreaksWhileTheGpuIsStalledLeaveTheRingWhole) {
  TestEngine engine(16, 8, {.mode = GetParam().mode, .ringSlots = 2, .outputDelay = 2, .syncWithCaller = 0});
  NOXEL_NEEDS_GL(engine);
  GetParam().takenBy(&engine);
  TestFrame first(16, 8, 200);
  engine.process(&first);
  {
    const StalledGpu stall;
    TestFrame second(16, 8, 201);
    engine.process(&second);
    ASSERT_TRUE(stall.isHolding());
    for (int i = 0; i < 50; ++i) {
      engine.clock.advance(2000);
      TestFrame frame(16, 8, static_cast<unsigned char>(20 + i));
      const TestFrame given = frame;
      ASSERT_EQ(engine.process(&frame), 0);
      ASSERT_EQ(frame.bytes, given.bytes) << "right after a break the caller's own frame comes back";
      ASSERT_GE(engine.handle->queuedFrames.load(), 0);
      ASSERT_LE(engine.handle->queuedFrames.load(), 2);
    }
  }
  // Drained, the output is the newest sequence's: nothing from before a break was written over it.
  EXPECT_TRUE(drains(engine.handle));
  TestFrame probe(16, 8, 150);
  engine.process(&probe);
  EXPECT_NEAR(probe.luma(3, 3), 69, 1);
}

TEST(Intake, SlotsAreReadInTurnAndNoneIsFilledWhileItIsRead) {
  TestEngine engine(16, 8, {.mode = kModeNeutralExposure, .ringSlots = 2, .outputDelay = 2, .syncWithCaller = 0});
  NOXEL_NEEDS_GL(engine);
  for (int i = 0; i < 7; ++i) {
    TestFrame frame(16, 8, static_cast<unsigned char>(20 + 30 * i));
    engine.process(&frame);
    ASSERT_TRUE(drains(engine.handle));
    // Two late, as the output delay is; one where the caller was held up on its way back.
    const int shown = (frame.luma(7, 3) - 19) / 30;
    EXPECT_TRUE(shown == std::max(i - 2, 0) || shown == std::max(i - 1, 0)) << "frame " << i << " shows " << shown;
  }
  engine.clock.advance(2000);  // the break goes back to the first slot, which a job of the old sequence may still read
  unsigned char* const read = engine.handle->frameBuffers[0];
  const std::vector<unsigned char> before(read, read + frameSize(16, 8));
  {
    Lock lock(frameMutex);
    engine.handle->bufferBeingRead = read;
  }
  TestFrame next(16, 8, 250);
  engine.process(&next);
  ASSERT_TRUE(drains(engine.handle));
  EXPECT_TRUE(std::equal(before.begin(), before.end(), read));
}

// A camera that starts, breaks off, or changes its light mode: while the GPU takes its time nothing stands still, and nothing
// from before comes back.
TEST(Intake, EachCallReturnsItsOwnFrameUntilOneIsEnhanced) {
  for (const bool stalled : {true, false}) {
    TestEngine engine(16, 8, {.mode = kModeNeutralExposure, .ringSlots = 2, .outputDelay = 2, .syncWithCaller = 0});
    NOXEL_NEEDS_GL(engine);
    engine.set(kParamNoiseReductionStrength, 0);
    engine.setMotion([](bool, MotionEstimate*) { return true; });
    int level = 20;
    const std::function<void()> causes[] = {[] {}, [&] { engine.clock.advance(2000); },
                                            [&] { engine.set(kParamLightMode, 0); },
                                            [&] { engine.set(kParamLightMode, 1); }};
    for (const auto& cause : causes) {
      const int firstLevel = level;
      cause();
      for (std::optional<StalledGpu> stall; level < firstLevel + 25; level += 5) {
        if (stalled && !stall) stall.emplace();
        TestFrame frame(16, 8, static_cast<unsigned char>(level));
        const TestFrame given = frame;
        engine.process(&frame);
        if (stalled) {
          EXPECT_EQ(frame.bytes, given.bytes) << "level " << level;
          ASSERT_TRUE(stall->isHolding());
        } else {
          EXPECT_GE(frame.luma(7, 3), firstLevel - 1);
        }
        ASSERT_TRUE(stalled || drains(engine.handle));
      }
      ASSERT_TRUE(drains(engine.handle));
      TestFrame frame(16, 8, static_cast<unsigned char>(level));
      engine.process(&frame);
      EXPECT_GE(frame.luma(7, 3), firstLevel - 1);
      EXPECT_LE(frame.luma(7, 3), level - 4) << "an enhanced frame comes back";
      ASSERT_TRUE(drains(engine.handle));
      level += 5;
    }
  }
}

TEST(Intake, ReleaseWakesACallerThatWaitsForItsFrame) {
  TestEngine engine(16, 8);
  NOXEL_NEEDS_GL(engine);
  std::atomic<bool> returned = false;
  std::thread release;
  {
    const StalledGpu stall;
    std::thread caller([&] {
      TestFrame frame(16, 8);
      EXPECT_EQ(KRProcessFrame(frame.bytes.data(), engine.handle), 0);
      returned = true;
    });
    ASSERT_TRUE(stall.isHolding());
    EXPECT_FALSE(returned);
    release = std::thread([&] { EXPECT_EQ(releaseEngine(&engine.handle), 0); });
    caller.join();  // while the GPU still stands
    EXPECT_TRUE(returned);
  }
  release.join();
  engine.handle = nullptr;
}

// The frame clock is read in the middle of a call: release begins there.
TEST(Intake, AFrameOverWhichReleaseBeginsComesBackAndStartsNothing) {
  for (const int sync : {0, 1}) {
    TestEngine engine(16, 8, {.syncWithCaller = sync});
    NOXEL_NEEDS_GL(engine);
    TestFrame first(16, 8, 40);
    engine.process(&first);
    ASSERT_TRUE(drains(engine.handle));
    const LogCapture log;
    struct Releaser {
      _KRSuperResEngine* engine;
      std::thread thread;
    } releaser{engine.handle, {}};
    platform::setFrameClock(
        [](void* context) {
          auto* self = static_cast<Releaser*>(context);
          self->thread = std::thread([self] { EXPECT_EQ(releaseEngine(&self->engine), 0); });
          while (self->engine->initialized.load() == 1) std::this_thread::yield();
          return platform::TimeOfDay{1'700'000'000, 40'000};
        },
        &releaser);
    TestFrame frame(16, 8, 50);
    const TestFrame given = frame;
    EXPECT_EQ(KRProcessFrame(frame.bytes.data(), engine.handle), 0);
    releaser.thread.join();
    engine.handle = nullptr;
    EXPECT_EQ(frame.bytes, given.bytes);
    for (const LogLine& line : log.lines()) {
      EXPECT_NE(line.message.find("the EGL display stays"), std::string::npos) << line.message;  // once a process
    }
  }
}

TEST(Intake, AFailedMapLosesOneFrameAndManyTheContext) {
  TestEngine engine(16, 8, {.mode = kModeNeutralExposure});
  NOXEL_NEEDS_GL(engine);
  engine.set(kParamNoiseReductionStrength, 0);
  TestFrame good(16, 8, 60);
  engine.process(&good);
  {
    const FaultInjection fault(Fault::kMap, 0);
    for (int i = 0; i < 5; ++i) {
      TestFrame lost(16, 8, 120);
      ASSERT_EQ(engine.process(&lost), 0);
      EXPECT_EQ(lost.luma(2, 2), 120) << "a caller that waits for its frame gets no other";
      EXPECT_EQ(lastFrameReport(engine.handle).number, 1u) << "it was not delivered";
    }
  }
  TestFrame next(16, 8, 90);
  ASSERT_EQ(engine.process(&next), 0);
  EXPECT_NEAR(next.luma(2, 2), 90, 1);
  EXPECT_EQ(lastFrameReport(engine.handle).number, 2u);
  EXPECT_EQ(engine.handle->queuedFrames.load(), 0);

  // A context that is lost never comes back, and neither do its frames: the caller keeps its own.
  const FaultInjection fault(Fault::kMap, 0);
  for (int i = 0; i < 20; ++i) {
    TestFrame frame(16, 8, 120);
    ASSERT_EQ(engine.process(&frame), 0);
    EXPECT_EQ(frame.luma(2, 2), 120) << "frame " << i;
    EXPECT_EQ(engineReady(engine.handle), i < 7) << "frame " << i;
  }
}

TEST(Intake, AnUnknownModeStillReturns) {
  TestEngine engine(16, 8, {.mode = 7});
  NOXEL_NEEDS_GL(engine);
  TestFrame frame(16, 8, 77);
  const TestFrame given = frame;
  ASSERT_EQ(engine.process(&frame), 0);
  EXPECT_EQ(frame.bytes, given.bytes);
  EXPECT_EQ(engine.handle->queuedFrames.load(), 0);
}

}  // namespace
}  // namespace noxel
