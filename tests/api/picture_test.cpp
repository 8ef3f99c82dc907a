// Whole frames through a whole engine.
#include <gtest/gtest.h>

#include "api/frame_conversion.h"
#include "support/test_engine.h"
#include "support/waves.h"

namespace noxel {
namespace {

// A bright red corner mark on grey, in the upper left: nothing symmetric about it.
TestFrame markedFrame(int width, int height) {
  TestFrame frame(width, height, 70);
  for (int y = 2; y < 10; ++y) {
    for (int x = 4; x < 20; ++x) {
      frame.luma(x, y) = 110;
      frame.v(x, y) = 190;
      frame.u(x, y) = 100;
    }
  }
  return frame;
}

TEST(Picture, AMarkKeepsItsPlaceAndColour) {
  for (const int format : {kFormatNv21, kFormatYv12}) {
    for (const int lightMode : {1, 0}) {
      TestEngine engine(48, 32, {.mode = kModeNeutralExposure});
      NOXEL_NEEDS_GL(engine);
      engine.set(kParamImageFormat, format);
      engine.set(kParamLightMode, lightMode);
      engine.set(kParamNoiseReductionStrength, 0);
      const TestFrame marked = markedFrame(48, 32);
      TestFrame frame(48, 32);
      copyAndConvertOutput(frame.bytes.data(), marked.bytes.data(), 48, 32, format);
      ASSERT_EQ(engine.process(&frame), 0);
      TestFrame seen(48, 32);
      copyAndConvertInput(seen.bytes.data(), frame.bytes.data(), 48, 32, format);
      // Two codes: one for each conversion's rounding. Away from edges, which the cubic and the chroma's bilinear blur.
      EXPECT_NEAR(seen.luma(10, 6), 110, 2);
      EXPECT_NEAR(seen.v(10, 6), 190, 2);
      EXPECT_NEAR(seen.u(10, 6), 100, 2);
      for (const auto& [x, y] : {std::pair{10, 25}, {40, 6}, {40, 25}}) {
        EXPECT_NEAR(seen.luma(x, y), 70, 2) << x << ", " << y;
        EXPECT_NEAR(seen.v(x, y), 128, 2) << x << ", " << y;
      }
    }
  }
}

TEST(Picture, TheUntouchedViewCoversTheEnhancedOneWhereTheyOverlap) {
  TestEngine engine(32, 16);
  NOXEL_NEEDS_GL(engine);
  // Off-screen the first row of the picture is at y = -1; the left half is left either way.
  const float leftHalf[8] = {-1, 1, -1, -1, 0, 1, 0, -1};
  ASSERT_EQ(KRSetParameter(kParamQuadA, leftHalf, engine.handle), 0);
  TestFrame frame(32, 16);
  for (int i = 0; i < 12; ++i) {
    frame = TestFrame(32, 16, 60);
    engine.process(&frame);
  }
  EXPECT_NEAR(frame.luma(4, 8), 60, 1);
  EXPECT_GT(frame.luma(28, 8), 90);

  ASSERT_EQ(KRSetParameter(kParamQuadA, nullptr, engine.handle), 0);
  engine.set(kParamEnabled, 0);
  frame = TestFrame(32, 16, 60);
  engine.process(&frame);
  EXPECT_EQ(frame.luma(28, 8), 0) << "with nothing to draw the target is cleared";
}

TEST(Passes, AFrameThatWasNotDrawnRestartsHistory) {
  TestEngine engine(32, 16);
  NOXEL_NEEDS_GL(engine);
  engine.set(kParamLightMode, 0);
  engine.setMotion([](bool, MotionEstimate*) { return true; });
  TestFrame frame(32, 16, 60);
  const auto historyAfter = [&](int enabled) {
    engine.set(kParamEnabled, enabled);
    engine.process(&frame);
    return engine.handle->gpu.gpuEngine->historyCount;
  };
  EXPECT_EQ(historyAfter(1), 0);
  EXPECT_EQ(historyAfter(1), 1);
  EXPECT_EQ(historyAfter(0), -1);
  EXPECT_EQ(historyAfter(1), 0);
  EXPECT_EQ(historyAfter(1), 1);
}

// Waves that the cubic's blur leaves as they are, to 40 dB and better.
const Waves& scene() {
  static const Waves waves(3, 24);
  return waves;
}

TEST(Temporal, StabilizationUndoesAShiftAndKeepsHistoryAligned) {
  constexpr int kWidth = 160, kHeight = 96;
  TestEngine engine(kWidth, kHeight, {.mode = kModeNeutralExposure});
  NOXEL_NEEDS_GL(engine);
  engine.set(kParamLightMode, 0);
  engine.set(kParamStabilization, 1);
  // The camera jerks 4 px to and fro; the stabilised picture stays where frame 0 was.
  int n = 0;
  const auto shiftOf = [](int frame) { return frame % 2 == 1 ? 4.0 : 0.0; };
  engine.setMotion([&](bool first, MotionEstimate* estimate) {
    const double step = shiftOf(n) - shiftOf(n - 1);
    store(estimate->previousFromCurrent, shifted(step, 0));
    store(estimate->currentFromPrevious, shifted(-step, 0));
    store(estimate->stabilizedFromCurrent, shifted(shiftOf(n), 0));
    return !first;
  });
  for (n = 0; n < 8; ++n) {
    TestFrame frame(kWidth, kHeight, scene().seen(kWidth, kHeight, shifted(shiftOf(n), 0)));
    engine.process(&frame);
    const double zoom = static_cast<double>(lastFrameReport(engine.handle).zoom);
    const View crop = turned(0, 1 / zoom, kWidth / 2.0, kHeight / 2.0, 0, 0);
    // 48.4 dB and more; history along the motion the wrong way round leaves 45, a picture that is 4 px off far less.
    if (n == 0) continue;
    EXPECT_GT(lumaPsnr(frame, {kWidth, kHeight, scene().seen(kWidth, kHeight, crop)}, 12), 46.5) << "frame " << n;
  }
}

}  // namespace
}  // namespace noxel
