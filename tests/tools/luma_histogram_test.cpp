#include "common/luma_histogram.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace noxel::tool {
namespace {

// Two rows of three with two bytes of padding, and one pixel more: 0, 10 three times, 20 twice, 255.
Histogram sevenPixels() {
  const std::vector<uint8_t> plane = {10, 20, 20, 99, 99, 255, 10, 0};
  Histogram histogram;
  addPlane(plane.data(), 3, 2, 5, &histogram);
  addPlane(plane.data(), 1, 1, 1, &histogram);
  return histogram;
}

TEST(Histogram, AddsUpPlanesWithoutTheirPadding) {
  const Histogram histogram = sevenPixels();
  EXPECT_EQ(histogramMass(histogram), 7);
  EXPECT_DOUBLE_EQ(meanLevel(histogram), (3 * 10 + 2 * 20 + 255) / 7.0);
  EXPECT_EQ(meanLevel({}), 0);
  double halved[kLevels];
  for (int level = 0; level < kLevels; ++level) halved[level] = level / 2.0;
  EXPECT_DOUBLE_EQ(meanLevelAfter(histogram, halved), meanLevel(histogram) / 2);
}

TEST(Histogram, FindsTheLevelAtAShare) {
  for (const auto& [share, level] : {std::pair{1 / 7.0, 0}, {0.15, 10}, {0.6, 20}, {1.0, 255}})
    EXPECT_EQ(levelAtShare(sevenPixels(), share), level);
  EXPECT_EQ(levelAtShare({}, 0.5), 0);
}

}  // namespace
}  // namespace noxel::tool
