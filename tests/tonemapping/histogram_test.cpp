#include "tonemapping/histogram.h"

#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

namespace noxel {
namespace {

TEST(SmoothedHistogram, IsATriangleMirroredAtTheEnds) {
  // Radius 1 twice is 1 2 3 2 1 of 9. From level 0 each box mirrors one of three back (2 1 of 3): level 0 gets 2 + 2 +
  // 1 of 9.
  Histogram histogram, smoothed;
  histogram.bins[0] = histogram.bins[254] = 9;
  histogram.bins[100] = 18;
  smoothHistogram(histogram, 1, &smoothed);
  constexpr std::pair<int, double> kExpected[] = {{0, 5},   {1, 3},   {2, 1},   {3, 0},   {97, 0},  {98, 2},
                                                  {99, 4},  {100, 6}, {101, 4}, {102, 2}, {103, 0}, {251, 0},
                                                  {252, 1}, {253, 2}, {254, 3}, {255, 3}};
  for (const auto& [level, bin] : kExpected) EXPECT_DOUBLE_EQ(smoothed.bins[level], bin) << level;
}

TEST(SmoothedHistogram, KeepsMassAndFlatness) {
  std::mt19937 random(1);
  for (const int radius : {0, 1, 3, 40, 255, 1000, -1}) {
    SCOPED_TRACE(radius);
    Histogram flat, wild, smoothed;
    for (double& bin : flat.bins) bin = 7;
    for (double& bin : wild.bins) bin = random() % 4 == 0 ? random() % 100000 : 0;
    wild.bins[255] = 1e6;
    smoothHistogram(wild, radius, &smoothed);
    // 2 x 511 roundings of partial sums, each by at most 2^-53 of the mass, with room for the quotients.
    EXPECT_NEAR(histogramMass(smoothed), histogramMass(wild), histogramMass(wild) * 2048 * 0x1p-53);
    for (const double bin : smoothed.bins) EXPECT_GE(bin, 0);
    EXPECT_EQ(smoothed.bins[255] == 1e6, radius <= 0) << "no radius, no change";
    EXPECT_TRUE(radius <= 0 || smoothed.bins[255] < 0.8e6);
    smoothHistogram(flat, radius, &smoothed);
    for (const double bin : smoothed.bins) EXPECT_DOUBLE_EQ(bin, 7);
  }
}

}  // namespace
}  // namespace noxel
