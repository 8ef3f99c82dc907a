#include "registration/camera_path.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#include "support/waves.h"

namespace noxel {
namespace {

constexpr int kWidth = 320, kHeight = 180;
constexpr double kLimits[kPathValues] = {0.03 * kWidth, 0.03 * kHeight, 0.1, 0.02};

// A record at rest.
struct Path : _KRStabilizationParameters {
  Path() : _KRStabilizationParameters{} { EXPECT_TRUE(initStabilization(this, 1, 1, kWidth, kHeight)); }
  ~Path() { releaseStabilization(this, 1, 1); }
  Path(const Path&) = delete;
  Path& operator=(const Path&) = delete;
};

// One value's smoothing in double precision, and which of its branches were taken.
struct Twin {
  double alpha, limit, level, trend = 0;
  int clamped[2] = {}, bands[4] = {};

  double step(double raw) {
    double predicted = level + trend;
    // The step ends at raw + (1 - alpha) (predicted - raw), which must stay within the limit.
    const double farthest = limit / (1 - alpha);
    if (std::fabs(predicted - raw) > farthest) {
      ++clamped[predicted > raw];
      predicted = raw + std::copysign(farthest, predicted - raw);
    }
    level = predicted + alpha * (raw - predicted);
    trend += 0.02 * (raw - predicted);
    const double share = std::fabs(level - raw) / limit;
    ++bands[share < 1.0 / 32 ? 0 : share < 0.25 ? 1 : share < 0.5 ? 2 : 3];
    trend *= share < 1.0 / 32 ? 0.9 * 0.9 * 0.6 : share < 0.25 ? 0.9 * 0.9 : share < 0.5 ? 0.9 : 1.0;
    return level;
  }
};

TEST(PathFilter, SmoothsAsTheFormulasSay) {
  Path path;
  Twin twins[kPathValues] = {
      {0.05, kLimits[0], 0}, {0.05, kLimits[1], 0}, {0.15, kLimits[2], 0}, {0.15, kLimits[3], 1}};
  std::mt19937 random(7);
  std::normal_distribution<double> step(0, 1);
  float raw[kPathValues] = {0, 0, 0, 1}, smoothed[kPathValues];
  for (int frame = 0; frame < 1000; ++frame) {
    // A hundred calm frames and a hundred shaky ones in turns; each value drifts back to its start.
    const double unrest = frame / 100 % 2 == 0 ? 0.03 : 0.6;
    for (int i = 0; i < kPathValues; ++i) {
      raw[i] += static_cast<float>(unrest * kLimits[i] * step(random) - 0.02 * (raw[i] - (i == 3 ? 1 : 0)));
    }
    updatePathFilter(&path.pathFilter, raw, smoothed);
    for (int i = 0; i < kPathValues; ++i) {
      // Single precision of the stored state, for a value near 1 with a limit of 0.02, over the twenty frames or so of
      // memory.
      EXPECT_NEAR(smoothed[i], twins[i].step(raw[i]), 1e-4 * kLimits[i]) << "value " << i << ", frame " << frame;
    }
  }
  for (const Twin& twin : twins) {
    for (const int count : twin.clamped) EXPECT_GT(count, 10);
    for (const int count : twin.bands) EXPECT_GT(count, 10);
  }
}

TEST(PathFilter, ResetsWithoutAllocating) {
  Path path, rested;
  PathFilterComponent* const components = path.pathFilter.components;
  const float similarity[4] = {3, 4, 0.01f, 0.02f};
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(stepStabilization(&path, similarity));
  for (Path* each : {&path, &rested}) ASSERT_TRUE(initStabilization(each, 1, 1, 2 * kWidth, kHeight));
  EXPECT_EQ(path.pathFilter.components, components);
  EXPECT_EQ(std::memcmp(components, rested.pathFilter.components, kPathValues * sizeof(*components)), 0);
  EXPECT_FLOAT_EQ(components[0].limit, static_cast<float>(2 * kLimits[0]));
  EXPECT_EQ(std::to_array(path.rawPath), (std::array{0.0f, 0.0f, 0.0f, 1.0f}));
  EXPECT_EQ(std::to_array(path.smoothedPath), (std::array{0.0f, 0.0f, 0.0f, 1.0f}));
  EXPECT_EQ(std::to_array(path.stabilizationMatrix), std::to_array(rested.stabilizationMatrix));
}

TEST(CameraPath, RefusesSimilaritiesOutOfBounds) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float refused[][4] = {{nan, 0, 0, 0}, {0, nan, 0, 0},      {0, 0, nan, 0},  {0, 0, 0, nan},
                              {0, 0, -1, 0},  {0, 0, -0.9991f, 0}, {0, 0, 1000, 0}, {INFINITY, 0, 0, 0}};
  for (const auto& similarity : refused) EXPECT_FALSE(stepStabilization(std::make_unique<Path>().get(), similarity));
  Path path;
  const float large[4] = {0, 0, 998, 0}, small[4] = {0, 0, -0.9989f, 0};
  EXPECT_TRUE(stepStabilization(&path, large) && stepStabilization(&path, small));
  _KRStabilizationParameters empty = {};
  EXPECT_FALSE(stepStabilization(&empty, small));
}

// The camera's pose under hand tremor: four sines between 2 and 9 Hz in each path value.
View tremor(int frame) {
  constexpr double kFramesPerSecond = 30;
  constexpr double kFrequencies[4] = {2.1, 3.7, 5.9, 8.7};
  constexpr double kAmplitudes[kPathValues] = {0.8, 0.8, 0.0015, 0.0005};
  double values[kPathValues] = {0, 0, 0, 1};
  for (int i = 0; i < kPathValues; ++i) {
    for (int k = 0; k < 4; ++k) {
      const double turns = kFrequencies[k] * (1 + 0.03 * i) * frame / kFramesPerSecond;
      values[i] += kAmplitudes[i] * std::sin(2 * std::numbers::pi * turns + 1.7 * i + 0.9 * k);
    }
  }
  const auto& [x, y, angle, scale] = values;
  return turned(-angle, scale, 0, 0, x, y);
}

// Share of the tremor, rms of its second differences, left in the stabilised picture.
TEST(CameraPath, RemovesTremorFromThePicture) {
  Path path;
  std::vector<std::array<double, kPathValues>> shaken, stabilized;
  const auto valuesOf = [](const View& m) {
    return std::array{m[2], m[5], std::atan2(m[1], m[0]), std::hypot(m[0], m[1])};
  };
  for (int frame = 0; frame < 600; ++frame) {
    const View now = tremor(frame), step = composed(now, inverted(tremor(frame - 1)));
    const double similarity[4] = {step[2], step[5], step[0] - 1, step[1]};
    float rounded[4];
    std::copy_n(similarity, 4, rounded);
    EXPECT_TRUE(stepStabilization(&path, rounded));
    View correction;
    std::copy_n(path.stabilizationMatrix, 6, correction.begin());
    shaken.push_back(valuesOf(now));
    stabilized.push_back(valuesOf(composed(correction, now)));
  }
  for (size_t i = 0; i < kPathValues; ++i) {
    const auto shake = [i](const std::vector<std::array<double, kPathValues>>& values) {
      double squares = 0;
      for (size_t k = 31; k + 1 < values.size(); ++k)  // after a second of settling
        squares += std::pow(values[k + 1][i] - 2 * values[k][i] + values[k - 1][i], 2);
      return std::sqrt(squares);
    };
    // Smoothing passes about alpha / (2 sin(pi f / 30 Hz)) of a sine: for x and y 0.12 at 2 Hz and 0.03 at 9 Hz, which
    // dominates second differences; three times that for the others. A wrong sign gives more than 1.
    EXPECT_LT(shake(stabilized) / shake(shaken), i < 2 ? 0.05 : 0.25) << "value " << i;
  }
}

}  // namespace
}  // namespace noxel
