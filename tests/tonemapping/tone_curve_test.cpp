#include "tonemapping/tone_curve.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace noxel {
namespace {

// A level is the sum of up to 255 slopes; each addition rounds by at most 2^-46, as do the slopes together. Two curves
// may be off in opposite directions.
constexpr double kRounding = 2 * 2 * 256 * 0x1p-46;

Histogram histogramOf(const std::vector<std::pair<int, double>>& bins) {
  Histogram histogram;
  for (const auto& [level, count] : bins) histogram.bins[level] = count;
  return histogram;
}

// Random, sparse, peaked and almost empty ones.
std::vector<Histogram> histograms() {
  std::vector<Histogram> result;
  for (const auto& bins : std::vector<std::vector<std::pair<int, double>>>{{},
                                                                           {{0, 1}},
                                                                           {{255, 1e12}},
                                                                           {{128, 5}},
                                                                           {{0, 100}, {255, 100}},
                                                                           {{10, 64}, {11, 64}, {12, 64}, {13, 64}},
                                                                           {{30, 1e-9}}})
    result.push_back(histogramOf(bins));
  std::mt19937 random(7);
  std::uniform_real_distribution<double> uniform(0, 1);
  for (int i = 0; i < 60; ++i) {
    Histogram histogram;
    const double centre = 255 * uniform(random);
    const double width = 1 + 60 * uniform(random);
    for (int level = 0; level < kLevels; ++level) {
      const double bell = std::exp(-std::pow((level - centre) / width, 2));
      const bool gap = i % 3 == 1 && random() % 8 != 0;
      if (!gap) histogram.bins[level] = std::floor(1e6 * (i % 3 == 2 ? bell : bell * uniform(random)));
    }
    result.push_back(histogram);
  }
  return result;
}

// The curve's slopes before they are limited: clipped, spread, means of two neighbours, blended.
std::vector<double> wantedSlopes(const Histogram& histogram, double strength) {
  double mass = 0, kept = 0;
  for (const double bin : histogram.bins) mass += bin;
  std::vector<double> clipped(histogram.bins, histogram.bins + kLevels);
  for (double& bin : clipped) kept += bin = std::min(bin, 3 * mass / 256);
  for (double& bin : clipped) bin += (mass - kept) / 256;
  const double sum = mass - (clipped.front() + clipped.back()) / 2;
  std::vector<double> slopes;
  for (size_t i = 1; i < clipped.size(); ++i) {
    const double equalised = strength == 0 ? 0 : 255 * (clipped[i - 1] + clipped[i]) / 2 / sum;
    slopes.push_back(1 - strength + strength * equalised);
  }
  return slopes;
}

// The nearest slopes within the limits are the wanted ones plus one common offset, except where a limit clamps them.
TEST(ToneCurve, IsNearestToEqualisationWithinItsLimits) {
  int limited = 0;
  for (const Histogram& histogram : histograms()) {
    for (const double strength : {0.0, 0.3, 1.0}) {
      const ToneCurve curve = suggestToneCurve(histogram, strength);
      const std::vector<double> wanted = wantedSlopes(histogram, histogramMass(histogram) == 0 ? 0 : strength);
      double min = -1e9, max = 1e9;  // bounds of the common offset
      ASSERT_EQ(curve.level[0], 0);
      ASSERT_EQ(curve.level[255], 255);
      for (size_t i = 0; i < wanted.size(); ++i) {
        const double slope = curve.level[i + 1] - curve.level[i];
        ASSERT_GE(slope, kMinSlope - kRounding) << i;
        ASSERT_LE(slope, kMaxSlope + kRounding) << i;
        limited += slope < kMinSlope + kRounding || slope > kMaxSlope - kRounding;
        if (slope > kMinSlope + kRounding) min = std::max(min, slope - wanted[i]);
        if (slope < kMaxSlope - kRounding) max = std::min(max, slope - wanted[i]);
      }
      ASSERT_LE(min, max + kRounding);
    }
  }
  EXPECT_GT(limited, 1000) << "these histograms do not reach the limits";
}

TEST(ToneCurve, IsTheIdentityWithoutStrengthOrPixels) {
  const Histogram dark = histogramOf({{5, 100}, {20, 300}});
  Histogram flat;
  for (double& bin : flat.bins) bin = 10;
  for (const ToneCurve& curve : {suggestToneCurve(dark, 0), suggestToneCurve(dark, -1), suggestToneCurve({}, 1),
                                 suggestToneCurve(dark, std::nan("")), suggestToneCurve(flat, 1)}) {
    for (int i = 0; i < kLevels; ++i) ASSERT_NEAR(curve.level[i], i, kRounding);
  }
  const ToneCurve full = suggestToneCurve(dark, 1);
  EXPECT_TRUE(std::ranges::equal(suggestToneCurve(dark, 5).level, full.level)) << "the strength is clamped";
}

}  // namespace
}  // namespace noxel
