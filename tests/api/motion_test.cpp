// Whole frames through a whole engine with its own tracker.
#include <gtest/gtest.h>

#include <vector>

#include "support/test_engine.h"
#include "support/waves.h"

namespace noxel {
namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 96;

// Waves that the cubic's blur leaves as they are, to 40 dB and better.
const Waves& scene() {
  static const Waves waves(3, 24);
  return waves;
}

// A hand-held pan, to about 50 pixels off.
View poseOf(int n) {
  return turned(0.004 * n, 1, kWidth / 2.0, kHeight / 2.0, 3.25 * n, -1.5 * n);
}

TestFrame panned(const Waves& waves, int n, double sigma = 0.0) {
  return {kWidth, kHeight, waves.seen(kWidth, kHeight, poseOf(n), sigma, 100u + static_cast<unsigned>(n))};
}

struct Shown {
  std::vector<TestFrame> frames;
  std::vector<int> statuses;
};

// What an engine of its own makes of the frames. lightModes: of each frame; empty, all on the temporal path.
Shown shown(const std::vector<TestFrame>& frames, const std::vector<int>& lightModes = {},
            int mode = kModeNeutralExposure) {
  TestEngine engine(frames[0].width, frames[0].height, {.mode = mode});
  Shown result;
  if (!engineReady(engine.handle)) return result;
  for (size_t i = 0; i < frames.size(); ++i) {
    engine.set(kParamLightMode, lightModes.empty() ? 0 : lightModes[i]);
    result.frames.push_back(frames[i]);
    EXPECT_EQ(engine.process(&result.frames.back()), 0);
    result.statuses.push_back(lastFrameReport(engine.handle).status);
  }
  return result;
}

TEST(Motion, ACutLeavesNoTraceOfTheOldScene) {
  const TestEngine driver(16, 16);
  NOXEL_NEEDS_GL(driver);
  const Waves other(77, 24);
  std::vector<TestFrame> frames, after;
  for (int n = 0; n < 5; ++n) frames.push_back(panned(scene(), n, 4));
  for (int n = 5; n < 9; ++n) after.push_back(panned(other, n, 4));
  frames.insert(frames.end(), after.begin(), after.end());
  const Shown cut = shown(frames), fresh = shown(after);
  const Shown clearCut = shown(frames, {}, kModeClear), clearFresh = shown(after, {}, kModeClear);
  EXPECT_EQ(cut.statuses, (std::vector{0, 1, 1, 1, 1, 0, 1, 1, 1}));
  EXPECT_EQ(clearCut.statuses, cut.statuses);
  for (size_t i = 0; i < after.size(); ++i) {
    EXPECT_EQ(cut.frames[5 + i].bytes, fresh.frames[i].bytes) << i;
    // Mode 5 remembers how strong the noise is, and no more: 3 % of the scene before would leave 45 dB.
    EXPECT_GT(lumaPsnr(clearCut.frames[5 + i], clearFresh.frames[i], 0), 47) << i;
  }
}

TEST(Motion, ChangesOfLightModeShowNoStaleFrame) {
  const TestEngine driver(16, 16);
  NOXEL_NEEDS_GL(driver);
  std::vector<TestFrame> frames;
  for (int n = 0; n < 9; ++n) frames.push_back(panned(scene(), n, 4));
  const Shown mixed = shown(frames, {1, 1, 0, 0, 0, 1, 1, 0, 0});
  const Shown spatial = shown(frames, std::vector(9, 1));
  const std::vector<TestFrame> middle(frames.begin() + 2, frames.begin() + 5), last(frames.begin() + 7, frames.end());
  const Shown temporal[] = {shown(middle), shown(last)};
  EXPECT_EQ(mixed.statuses, (std::vector{-1, -1, 0, 1, 1, -1, -1, 0, 1}));
  for (const size_t i : {0, 1, 5, 6}) EXPECT_EQ(mixed.frames[i].bytes, spatial.frames[i].bytes) << i;
  for (const size_t i : {2, 3, 4}) EXPECT_EQ(mixed.frames[i].bytes, temporal[0].frames[i - 2].bytes) << i;
  for (const size_t i : {7, 8}) EXPECT_EQ(mixed.frames[i].bytes, temporal[1].frames[i - 7].bytes) << i;
}

TEST(Motion, NoiseIsThatOfTheFrameAtItsSizeAndMeasuringItChangesNothing) {
  for (const int width : {320, 1008}) {  // registered as it is, and at half size, which smooths noise
    TestEngine measuring(width, 96, {.mode = kModeNeutralExposure});
    TestEngine plain(width, 96, {.mode = kModeNeutralExposure});
    NOXEL_NEEDS_GL(measuring);
    ASSERT_EQ(measureNoise(measuring.handle, true), 0);
    for (TestEngine* engine : {&measuring, &plain}) engine->set(kParamLightMode, 0);
    for (int n = 0; n < 6; ++n) {
      const View pose = shifted(2.4 * n, -1.5 * n);
      TestFrame frames[2] = {{width, 96, scene().seen(width, 96, pose, 6.0, 50u + static_cast<unsigned>(n))}, {1, 1}};
      frames[1] = frames[0];
      measuring.process(&frames[0]);
      plain.process(&frames[1]);
      EXPECT_EQ(frames[0].bytes, frames[1].bytes) << n;
    }
    EXPECT_FALSE(lastFrameReport(plain.handle).noise.known);
    const FrameReport report = lastFrameReport(measuring.handle);
    ASSERT_EQ(report.status, 1);
    ASSERT_TRUE(report.noise.known);
    EXPECT_NEAR(report.noise.variance[128 / 8], 36, 0.2 * 36) << width;
    ASSERT_EQ(measureNoise(measuring.handle, false), 0);
    TestFrame last(width, 96);
    measuring.process(&last);
    EXPECT_FALSE(lastFrameReport(measuring.handle).noise.known);
  }
  TestEngine synchronous(16, 16, {.mode = kModeSynchronousRgba});
  EXPECT_EQ(measureNoise(synchronous.handle, true), 1);
}

// A pan, and a frame of another scene in it: cropped and shifted as the frame before it, or cropped only.
TEST(Motion, AnEasedLossIsDrawnWhereThePictureWas) {
  for (const int mode : {kModeThreeFrames, kModeNeutralExposure}) {
    for (const bool eases : {true, false}) {
      SCOPED_TRACE(testing::Message() << "mode " << mode << ", eased " << eases);
      TestEngine engine(kWidth, kHeight, {.mode = mode});
      NOXEL_NEEDS_GL(engine);
      engine.set(kParamLightMode, 0);
      engine.set(kParamStabilization, 1);
      engine.set(kParamContrast, 0);
      engine.set(kParamSharpening, 0);
      ASSERT_EQ(easeLosses(engine.handle, eases), 0);
      const Waves other(77, 24);
      FrameReport before;
      for (int n = 0; n < 21; ++n) {
        if (n == 20) before = lastFrameReport(engine.handle);
        TestFrame frame = n < 20 ? TestFrame(kWidth, kHeight, scene().seen(kWidth, kHeight, shifted(2 * n, 0)))
                                 : TestFrame(kWidth, kHeight, other.seen(kWidth, kHeight, kStill));
        engine.process(&frame);
        if (n < 20) continue;
        const FrameReport report = lastFrameReport(engine.handle);
        ASSERT_EQ(report.status, 0);
        const double offset = static_cast<double>(before.stabilizedFromCurrent[2]);
        ASSERT_NEAR(offset, 0.03 * kWidth, 0.2) << "at its limit";
        View stabilized;
        std::copy_n(report.stabilizedFromCurrent, 6, stabilized.begin());
        EXPECT_NEAR(stabilized[2], eases ? 0.95 * offset : 0.0, 0.05);
        const View crop = turned(0, 1 / static_cast<double>(report.zoom), kWidth / 2.0, kHeight / 2.0, 0, 0);
        const TestFrame expected(kWidth, kHeight, other.seen(kWidth, kHeight, composed(inverted(stabilized), crop)));
        // Interpolation alone leaves PSNR; an offset of 4.5 pixels gives 17 dB.
        EXPECT_GT(lumaPsnr(frame, expected, 16), 30);
      }
    }
  }
}

TEST(Motion, IsInFramePixelsAtEitherResolution) {
  for (const int width : {992, 1008}) {  // registered as it is, and at half size
    TestEngine engine(width, 96, {.mode = kModeNeutralExposure});
    NOXEL_NEEDS_GL(engine);
    engine.set(kParamLightMode, 0);
    const View step = shifted(6.5, -2.5);
    View pose = shifted(0, 0);
    for (int n = 0; n < 3; ++n, pose = composed(pose, step)) {
      TestFrame frame(width, 96, scene().seen(width, 96, pose));
      engine.process(&frame);
      if (n == 0) continue;
      const FrameReport report = lastFrameReport(engine.handle);
      EXPECT_EQ(report.status, 1);
      // A few hundredths of a pixel of the registration image; taken for frame pixels at half size, the step is 3.5 off.
      EXPECT_LT(cornerError(report.previousFromCurrent, step, width, 96), 0.1) << width;
    }
  }
}

TEST(Motion, ANoisyPanIsFilteredAlongItsPath) {
  const TestEngine driver(16, 16);
  NOXEL_NEEDS_GL(driver);
  std::vector<TestFrame> truth, noisy;
  for (int n = 0; n < 12; ++n) {
    truth.push_back(panned(scene(), n));
    noisy.push_back(panned(scene(), n, 6));
  }
  const Shown filtered = shown(noisy), clean = shown(truth);
  for (size_t i = 2; i < truth.size(); ++i) {
    SCOPED_TRACE(i);
    ASSERT_EQ(filtered.statuses[i], 1);
    constexpr int kMargin = 24;  // the pan brings in up to 4 new columns a frame
    const double single = lumaPsnr(shown({noisy[i]}).frames[0], truth[i], kMargin);
    // 38.5 dB alone and 44 with history; motion taken the wrong way gives 27. Without noise the history's resampling
    // leaves 48.8 dB, and of a filtered picture's distance to it, 43.4 dB, noise is all.
    EXPECT_GT(lumaPsnr(filtered.frames[i], truth[i], kMargin), single + 3);
    EXPECT_GT(lumaPsnr(clean.frames[i], truth[i], kMargin), 46);
    EXPECT_GT(lumaPsnr(filtered.frames[i], clean.frames[i], kMargin), 41);
  }
}

}  // namespace
}  // namespace noxel
