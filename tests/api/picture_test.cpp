// Whole frames through a whole engine.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "api/frame_conversion.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/test_engine.h"

namespace noxel {
namespace {

// A bright red corner mark on grey, in the upper left: nothing symmetric about it.
Frame markedFrame(int width, int height) {
  Frame frame(width, height, 70);
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
      const Frame marked = markedFrame(48, 32);
      Frame frame(48, 32);
      copyAndConvertOutput(frame.bytes.data(), marked.bytes.data(), 48, 32, format);
      ASSERT_EQ(engine.process(&frame), 0);
      Frame seen(48, 32);
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
  Frame frame(32, 16);
  for (int i = 0; i < 12; ++i) {
    frame = Frame(32, 16, 60);
    engine.process(&frame);
  }
  EXPECT_NEAR(frame.luma(4, 8), 60, 1);
  EXPECT_GT(frame.luma(28, 8), 90);

  ASSERT_EQ(KRSetParameter(kParamQuadA, nullptr, engine.handle), 0);
  engine.set(kParamEnabled, 0);
  frame = Frame(32, 16, 60);
  engine.process(&frame);
  EXPECT_EQ(frame.luma(28, 8), 0) << "with nothing to draw the target is cleared";
}

using Passes = std::vector<int>;

TEST(Passes, FollowTheFramesStatus) {
  TestEngine engine(32, 16);
  NOXEL_NEEDS_GL(engine);
  bool valid = false;
  engine.setMotion([&](bool, MotionEstimate*) { return valid; });
  takeDrawnPasses();
  struct Step {
    int lightMode;
    bool valid;
    int historyCount;
    Passes passes;
  };
  const Passes restart = {kPassBicubicYuv, kPassTone};
  const Passes temporal = {kPassBicubicYuv, kPassGhostMask,  kPassMaskErode,
                           kPassMaskDilate, kPassDeghostMix, kPassTone};
  const Passes spatial = {kPassPackedYuv};
  const Step steps[] = {{0, false, 0, restart}, {0, true, 1, temporal}, {0, true, 2, temporal}, {1, true, -1, spatial},
                        {0, true, 0, restart},  {0, true, 1, temporal}, {5, true, 2, temporal}, {0, false, 0, restart}};
  int number = 0;
  for (const Step& step : steps) {
    engine.set(kParamLightMode, step.lightMode);
    valid = step.valid;
    Frame frame(32, 16, 60);
    ASSERT_EQ(engine.process(&frame), 0);
    EXPECT_EQ(engine.handle->gpu.gpuEngine->historyCount, step.historyCount) << "frame " << number;
    EXPECT_EQ(takeDrawnPasses(), step.passes) << "frame " << number;
    ++number;
  }
}

TEST(Passes, AFrameThatWasNotDrawnRestartsHistory) {
  TestEngine engine(32, 16);
  NOXEL_NEEDS_GL(engine);
  engine.set(kParamLightMode, 0);
  engine.setMotion([](bool, MotionEstimate*) { return true; });
  Frame frame(32, 16, 60);
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

// Camera position of frame n: a pan with roll, so that a wrong side of the multiplication shows.
struct Pose {
  double angle;
  double x;
  double y;
};

Pose poseOf(int n) {
  return {0.004 * n, 3.25 * n, -1.5 * n};
}

// Smooth texture with detail in every direction, defined everywhere.
double texture(double x, double y) {
  return 110 + 35 * std::sin(0.11 * x + 0.05 * y) + 25 * std::sin(0.07 * y - 0.13 * x + 1) +
         15 * std::sin(0.31 * x) * std::cos(0.27 * y);
}

using Affine = std::array<double, 6>;  // row-major 2 x 3

Affine worldFromFrame(const Pose& pose) {
  const double c = std::cos(pose.angle), s = std::sin(pose.angle);
  return {c, -s, pose.x, s, c, pose.y};
}

Affine inverted(const Affine& a) {
  const double d = a[0] * a[4] - a[1] * a[3];
  const Affine r = {a[4] / d, -a[1] / d, 0, -a[3] / d, a[0] / d, 0};
  return {r[0], r[1], -(r[0] * a[2] + r[1] * a[5]), r[3], r[4], -(r[3] * a[2] + r[4] * a[5])};
}

Affine composed(const Affine& l, const Affine& r) {
  return {l[0] * r[0] + l[1] * r[3], l[0] * r[1] + l[1] * r[4], l[0] * r[2] + l[1] * r[5] + l[2],
          l[3] * r[0] + l[4] * r[3], l[3] * r[1] + l[4] * r[4], l[3] * r[2] + l[4] * r[5] + l[5]};
}

void store(float (&matrix)[9], const Affine& a) {
  for (int i = 0; i < 6; ++i) matrix[i] = static_cast<float>(a[i]);
}

// The texture seen from a pose. N(X) acts on texture coordinates, whose pixel (x, y) lies at (x + 1/2, y + 1/2).
Frame view(int width, int height, const Affine& worldFromPicture) {
  const Affine& m = worldFromPicture;
  Frame frame(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double px = x + 0.5, py = y + 0.5;
      const double value = texture(m[0] * px + m[1] * py + m[2], m[3] * px + m[4] * py + m[5]);
      frame.luma(x, y) = static_cast<unsigned char>(std::lround(value));
    }
  }
  return frame;
}

Frame noisy(Frame frame, std::mt19937* random, double sigma) {
  std::normal_distribution<double> noise(0, sigma);
  for (int i = 0; i < frame.width * frame.height; ++i) {
    frame.bytes[i] = static_cast<unsigned char>(std::clamp(std::lround(frame.bytes[i] + noise(*random)), 0L, 255L));
  }
  return frame;
}

TEST(Temporal, BlendedFramesBeatTheSingleOneUnderPanAndRoll) {
  constexpr int kWidth = 160, kHeight = 96, kFrames = 12;
  TestEngine engine(kWidth, kHeight, {.mode = kModeNeutralExposure});
  NOXEL_NEEDS_GL(engine);
  engine.set(kParamLightMode, 0);
  engine.set(kParamNoiseReductionStrength, 65);
  int n = 0;
  engine.setMotion([&](bool first, MotionEstimate* estimate) {
    const Affine previousFromCurrent = composed(inverted(worldFromFrame(poseOf(n - 1))), worldFromFrame(poseOf(n)));
    store(estimate->previousFromCurrent, previousFromCurrent);
    store(estimate->currentFromPrevious, inverted(previousFromCurrent));
    return !first;
  });
  std::mt19937 random(3);
  double single = 0, blended = 0;
  for (n = 0; n < kFrames; ++n) {
    const Frame truth = view(kWidth, kHeight, worldFromFrame(poseOf(n)));
    Frame frame = noisy(truth, &random, 6.0);
    engine.process(&frame);
    const double psnr = lumaPsnr(frame, truth, 24);  // the pan brings in up to 4 new columns a frame
    if (n == 0) single = psnr;
    blended = psnr;
  }
  // 38.5 dB for one frame and 43 dB for the blend in a reference of this scene; a wrong direction gives 27.
  EXPECT_GT(blended, single + 3.0) << "single " << single << " dB, blended " << blended << " dB";
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
    store(estimate->previousFromCurrent, {1, 0, step, 0, 1, 0});
    store(estimate->currentFromPrevious, {1, 0, -step, 0, 1, 0});
    store(estimate->stabilizedFromCurrent, {1, 0, shiftOf(n), 0, 1, 0});
    return !first;
  });
  for (n = 0; n < 8; ++n) {
    Frame frame = view(kWidth, kHeight, {1, 0, shiftOf(n), 0, 1, 0});
    engine.process(&frame);
    const double zoom = static_cast<double>(lastFrameReport(engine.handle).zoom);
    const double i = 1.0 / zoom;
    const Affine crop = {i, 0, kWidth * (0.5 - 0.5 * i), 0, i, kHeight * (0.5 - 0.5 * i)};
    // The cubic B-spline blurs this texture by 33 dB at most; a picture 4 px off is at 16 dB.
    if (n == 0) continue;
    EXPECT_GT(lumaPsnr(frame, view(kWidth, kHeight, crop), 12), 30.0) << "frame " << n;
  }
}

}  // namespace
}  // namespace noxel
