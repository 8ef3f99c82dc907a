// 8-bit RGBA pictures: compared, and written as PNG when they differ.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace noxel {

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgba;  // row 0 first, no padding

  Picture() = default;
  Picture(int columns, int rows) : width(columns), height(rows), rgba(static_cast<size_t>(columns * rows) * 4) {}

  uint8_t& at(int x, int y, int channel) { return rgba[static_cast<size_t>(y * width + x) * 4 + channel]; }
  uint8_t at(int x, int y, int channel) const { return rgba[static_cast<size_t>(y * width + x) * 4 + channel]; }
};

std::vector<uint8_t> noisyBytes(size_t count, unsigned seed);

// Noise and hard edges, so that a filter tap off by one texel shows. Deterministic.
Picture noisyPicture(int width, int height, unsigned seed);

// Every sample within `max` codes and at least `share` of them within `bound`. On failure <test>_actual.png,
// _expected.png and _difference.png (times 16) are left in the working directory.
::testing::AssertionResult closeTo(const Picture& actual, const Picture& expected, int max, double share = 1.0,
                                   int bound = 0);

}  // namespace noxel
