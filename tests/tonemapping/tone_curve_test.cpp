#include "tonemapping/tone_curve.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace noxel {
namespace {

// A level is the sum of up to 255 slopes; each addition rounds by 2^-46 at most, and so, taken together, do the slopes
// themselves. Two curves may be off in opposite ways.
constexpr double kRounding = 2 * 2 * 256 * 0x1p-46;

Histogram histogramOf(const std::vector<std::pair<int, double>>& bins) {
  Histogram histogram;
  for (const auto& [level, count] : bins) histogram.bins[level] = count;
  return histogram;
}

// Of every kind that may come: random, sparse, peaked, and such that all but nothing is missing.
std::vector<Histogram> histograms() {
  std::vector<Histogram> result = {histogramOf({}),
                                   histogramOf({{0, 1}}),
                                   histogramOf({{255, 1e12}}),
                                   histogramOf({{128, 5}}),
                                   histogramOf({{0, 100}, {255, 100}}),
                                   histogramOf({{30, 1e-9}})};
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

// What the curve would have for slopes without any limit, as stated: clipped, spread, halves of two neighbours, blended.
std::vector<double> wantedSlopes(const Histogram& histogram, double strength) {
  double mass = 0, kept = 0;
  for (const double bin : histogram.bins) mass += bin;
  std::vector<double> clipped(histogram.bins, histogram.bins + kLevels);
  for (double& bin : clipped) kept += bin = std::min(bin, 3 * mass / 256);
  for (double& bin : clipped) bin += (mass - kept) / 256;
  const double sum = mass - (clipped.front() + clipped.back()) / 2;
  std::vector<double> slopes;
  for (size_t i = 1; i < clipped.size(); ++i) {
    slopes.push_back(1 - strength + strength * 255 * (clipped[i - 1] + clipped[i]) / 2 / sum);
  }
  return slopes;
}

TEST(ToneCurve, RisesWithinItsLimitsBetweenFixedEnds) {
  int limited = 0;
  for (const Histogram& histogram : histograms()) {
    for (const double strength : {0.0, 0.3, 1.0}) {
      const ToneCurve curve = suggestToneCurve(histogram, strength);
      ASSERT_EQ(curve.level[0], 0);
      ASSERT_EQ(curve.level[255], 255);
      for (int i = 1; i < kLevels; ++i) {
        const double slope = curve.level[i] - curve.level[i - 1];
        ASSERT_GE(slope, kLeastSlope - kRounding) << i;
        ASSERT_LE(slope, kMostSlope + kRounding) << i;
        limited += slope < kLeastSlope + kRounding || slope > kMostSlope - kRounding;
      }
    }
  }
  EXPECT_GT(limited, 1000) << "these histograms do not reach the limits";
}

// The nearest slopes within limits are the wanted ones plus one common amount, but where a limit stands in the way of it.
TEST(ToneCurve, IsTheNearestToEqualisation) {
  for (const Histogram& histogram : histograms()) {
    if (histogramMass(histogram) == 0) continue;
    for (const double strength : {0.3, 1.0}) {
      const ToneCurve curve = suggestToneCurve(histogram, strength);
      const std::vector<double> wanted = wantedSlopes(histogram, strength);
      double least = -1e9, most = 1e9;  // bounds of the common amount
      for (size_t i = 0; i < wanted.size(); ++i) {
        const double slope = curve.level[i + 1] - curve.level[i];
        if (slope > kLeastSlope + kRounding) least = std::max(least, slope - wanted[i]);
        if (slope < kMostSlope - kRounding) most = std::min(most, slope - wanted[i]);
      }
      ASSERT_LE(least, most + kRounding);
    }
  }
}

TEST(ToneCurve, OfOneLevelSpreadsItsNeighbourhood) {
  // A mass of 256 on one level: 3 stay, 253 are spread, 253/256 on each. All slopes are in proportion to that, but for the two
  // beside the level, which have 3/2 more; the sum is 256 less the halves at the ends, 253/256.
  const ToneCurve curve = suggestToneCurve(histogramOf({{100, 256}}), 1);
  const double even = 253.0 / 256;
  const double scale = 255 / (256 - even);
  EXPECT_NEAR(curve.level[99], 99 * even * scale, kRounding);
  EXPECT_NEAR(curve.level[100], (100 * even + 1.5) * scale, kRounding);
  EXPECT_NEAR(curve.level[101], (101 * even + 3) * scale, kRounding);
}

TEST(ToneCurve, SharesWhatALimitTakesAway) {
  // 64 on each of four levels: 3 stay on each, 61/64 are spread. The three slopes between the four would be 253/64 times the
  // scale, are held at 3, and the other 252 share alike what that leaves over.
  const ToneCurve curve = suggestToneCurve(histogramOf({{10, 64}, {11, 64}, {12, 64}, {13, 64}}), 1);
  const double even = 244.0 / 256;
  const double scale = 255 / (256 - even);
  const double amount = (255 - 3 * 3.0 - (252 * even + 2 * 1.5) * scale) / 252;
  const double plain = even * scale + amount;
  EXPECT_NEAR(curve.level[9], 9 * plain, kRounding);
  EXPECT_NEAR(curve.level[10], 10 * plain + 1.5 * scale, kRounding);
  EXPECT_NEAR(curve.level[13] - curve.level[10], 9, kRounding);
}

TEST(ToneCurve, MirrorsWithItsHistogramAndIgnoresItsScale) {
  for (const Histogram& histogram : histograms()) {
    Histogram mirrored, scaled;
    for (int i = 0; i < kLevels; ++i) {
      mirrored.bins[i] = histogram.bins[255 - i];
      scaled.bins[i] = 3 * histogram.bins[i];
    }
    const ToneCurve curve = suggestToneCurve(histogram, 0.8);
    const ToneCurve other = suggestToneCurve(mirrored, 0.8);
    const ToneCurve larger = suggestToneCurve(scaled, 0.8);
    for (int i = 0; i < kLevels; ++i) {
      ASSERT_NEAR(other.level[i], 255 - curve.level[255 - i], kRounding);
      ASSERT_NEAR(larger.level[i], curve.level[i], kRounding);
    }
  }
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
  EXPECT_TRUE(std::ranges::equal(suggestToneCurve(dark, 5).level, full.level)) << "more than all";
  EXPECT_EQ(meanLevelAfter({}, full), 0);
}

TEST(ToneCurve, OpensTheDarkAndTheMoreTheStronger) {
  Histogram dark;
  for (int level = 0; level < 60; ++level) dark.bins[level] = 60 - level;
  double before = meanLevel(dark);  // 19.7
  for (const double strength : {0.25, 0.5, 0.75, 1.0}) {
    const double after = meanLevelAfter(dark, suggestToneCurve(dark, strength));
    EXPECT_GT(after, before + 3) << strength;  // the last step is short: three times the mean, 59, is the most there is
    before = after;
  }
}

}  // namespace
}  // namespace noxel
