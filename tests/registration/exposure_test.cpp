#include "registration/exposure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "support/log_capture.h"

namespace noxel {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kUntouched = -7;

struct Statistics {
  int mean = kUntouched, maxLevel = kUntouched, minLevel = kUntouched;
  bool operator==(const Statistics&) const = default;
};

Statistics statisticsOf(const LumaImage& image, float share = 0.9999f) {
  Statistics result;
  lumaStatistics(image, &result.mean, &result.maxLevel, &result.minLevel, share);
  return result;
}

// Of a row whose samples are exactly `levels`; all other pixels alternate between white and black.
Statistics statisticsOfSamples(const Bytes& levels, float share = 0.9999f) {
  Bytes pixels(levels.size() * 16);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = i % 2 == 0 ? 255 : 0;
  for (size_t i = 0; i < levels.size(); ++i) pixels[i / 2 * 32 + i % 2] = levels[i];
  return statisticsOf({static_cast<int>(pixels.size()), 1, pixels.data()}, share);
}

TEST(LumaStatistics, APixelWithoutNeighbourCountsTwice) {
  Bytes pixels(34, 255);  // the byte behind the picture is not part of it
  pixels[0] = 10;
  pixels[1] = 20;
  pixels[32] = 100;
  EXPECT_EQ(statisticsOf({11, 3, pixels.data()}), (Statistics{57, 100, 10}));  // (10 + 20 + 100 + 100) / 4
  EXPECT_EQ(statisticsOf({1, 1, pixels.data() + 32}), (Statistics{100, 100, 100}));
}

TEST(LumaStatistics, EmptyAndBlackPicturesKeepTheBrightestLevel) {
  EXPECT_EQ(statisticsOf({0, 5, nullptr}), (Statistics{0, kUntouched, 255}));
  EXPECT_EQ(statisticsOfSamples(Bytes(40, 0)), (Statistics{0, kUntouched, 0}));
}

TEST(LumaStatistics, IgnoreASmallShareOfOutliers) {
  // Half of four samples is two: the two darkest suffice for maxLevel, minLevel needs more than two.
  EXPECT_EQ(statisticsOfSamples({40, 10, 30, 20}, 0.5f), (Statistics{25, 20, 30}));
  Bytes levels(20000, 100);
  levels[5] = levels[6000] = 255;
  levels[7] = levels[19999] = 3;
  EXPECT_EQ(statisticsOfSamples(levels), (Statistics{100, 100, 100}));
  levels[11] = 250;
  levels[12] = 4;
  EXPECT_EQ(statisticsOfSamples(levels), (Statistics{100, 250, 4}));
}

// The exposure's formulas in double precision.
struct Twin {
  double smoothedGamma = 1.0, smoothedGain = 1.0, lastGamma = 1.0, maxLevel = 0.0;

  void update(const Bytes& pixels, int mode, int strength) {
    Bytes samples;
    for (size_t at = 0; at + 1 < pixels.size(); at += 32) samples.insert(samples.end(), {pixels[at], pixels[at + 1]});
    std::sort(samples.begin(), samples.end());
    double sum = 0.0;
    for (const uint8_t level : samples) sum += level;
    const double mean = std::floor(sum / static_cast<double>(samples.size()));
    const auto rank = static_cast<size_t>(std::ceil(0.9999 * static_cast<double>(samples.size())));
    if (samples[rank - 1] > 0) maxLevel = samples[rank - 1];

    double gamma = 1.0;
    if (mean > 0.0 && maxLevel > 0.0 && mean < maxLevel)
      gamma = std::min(std::log(0.5) / std::log(mean / maxLevel), 1.0);
    double gain = maxLevel > 0.0 ? 255.0 / maxLevel : 1.0;
    const double s = mode == 1 ? strength : 0.0;
    const double floor = 0.75 - 0.001 * s;
    gamma = std::max(gamma - 0.0005 * s, floor);
    gain = std::min(gain + 0.0015 * s, 1.75 + 0.01 * s);
    lastGamma = std::max(lastGamma + (gamma - lastGamma) / 5.0, floor);
    smoothedGamma = mode == 3 ? 1.0 : smoothedGamma + (lastGamma - smoothedGamma) / 5.0;
    smoothedGain = mode == 3 ? 1.0 : smoothedGain + (gain - smoothedGain) / 5.0;
  }
};

// Noise between two levels, more of it near the lower.
Bytes picture(int minLevel, int maxLevel, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> share(0, 1);
  Bytes pixels(64 * 48);
  for (uint8_t& pixel : pixels)
    pixel = static_cast<uint8_t>(std::lround(minLevel + (maxLevel - minLevel) * std::pow(share(random), 2)));
  return pixels;
}

TEST(Exposure, FollowsItsFormulas) {
  // Dark, black (no brightest level), flat (gamma undefined), nearly black, and bright with a mean above half of the
  // brightest level (gamma would exceed 1).
  constexpr std::pair<int, int> kLevels[12] = {{0, 0}, {0, 40}, {0, 40},    {0, 60}, {180, 255}, {0, 0},
                                               {0, 0}, {0, 12}, {200, 200}, {0, 1},  {0, 90},    {130, 160}};
  for (const auto& [mode, strength] : {std::pair{1, 0}, {1, 50}, {1, 100}, {2, 100}, {3, 50}}) {
    ExposureState state;
    Twin twin;
    unsigned seed = 0;
    for (const auto& [minLevel, maxLevel] : kLevels) {
      SCOPED_TRACE(testing::Message() << "mode " << mode << ", strength " << strength << ", step " << seed);
      const Bytes pixels = picture(minLevel, maxLevel, ++seed);
      updateExposure(&state, {64, 48, pixels.data()}, mode, strength);
      twin.update(pixels, mode, strength);
      // A step rounds about four times, by half of 2^-22 for a gain below 4; smoothing sums the errors of five steps.
      constexpr double kTolerance = 4 * 5 * 0x1p-23;
      EXPECT_NEAR(state.lastGamma, twin.lastGamma, kTolerance);
      EXPECT_NEAR(state.smoothedGamma, twin.smoothedGamma, kTolerance);
      EXPECT_NEAR(state.smoothedGain, twin.smoothedGain, kTolerance);
      EXPECT_EQ(state.maxLevel, twin.maxLevel);
    }
  }
}

TEST(Exposure, ANarrowerLimitAppliesAtOnce) {
  Bytes pixels(64 * 48, 1);
  pixels[0] = 20;
  ExposureState state;
  for (int i = 0; i < 100; ++i) updateExposure(&state, {64, 48, pixels.data()}, 1, 100);
  ASSERT_LT(state.lastGamma, 0.7f);
  updateExposure(&state, {64, 48, pixels.data()}, 1, 0);
  EXPECT_EQ(state.lastGamma, 0.75f);
}

TEST(Exposure, LogsAGammaOutOfRange) {
  const LogCapture log;
  const Bytes pixels(64 * 48, 50);
  ExposureState state;
  state.lastGamma = 1000.0f;
  updateExposure(&state, {64, 48, pixels.data()}, 2, 50);
  updateExposure(&state, {64, 48, pixels.data()}, 3, 50);
  ASSERT_EQ(log.lines().size(), 2u) << log.text();
  EXPECT_EQ(log.lines()[0].priority, platform::kLogInfo);
  EXPECT_EQ(log.lines()[0].message.rfind("kusee: gamma = 800.2", 0), 0u) << log.text();
  EXPECT_TRUE(log.contains("lastgamma = 1000.000000, meany = 50, maxy = 50")) << log.text();
  state.lastGamma = 1.0f;
  updateExposure(&state, {64, 48, pixels.data()}, 2, 50);
  EXPECT_EQ(log.lines().size(), 2u) << log.text();
}

}  // namespace
}  // namespace noxel
