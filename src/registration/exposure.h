// The exposure pair (gamma exponent, gain) that opens a dark picture, eased over frames.
#pragma once

#include <cstdint>

namespace noxel {

struct LumaImage {
  int width;
  int height;
  const uint8_t* pixels;  // tightly packed
};

// Histogram of two adjacent pixels at every 32nd position in raster order, n samples in all.
//   mean      sum of levels / n, truncated; 0 without samples
//   maxLevel  lowest level >= 1 that the share `fraction` of the samples does not exceed; left as it is when level 0 alone
//             holds that share
//   minLevel  lowest level that more than the share 1 - fraction does not exceed; 255 without one
void lumaStatistics(const LumaImage& image, int* mean, int* maxLevel, int* minLevel, float fraction);

// Registration thread only.
struct ExposureState {
  float smoothedGamma = 1.0f;  // what the frame is toned with
  float smoothedGain = 1.0f;
  float lastGamma = 1.0f;  // before the second smoothing
  int maxLevel = 0;        // survives frames that say nothing about it
};

// One step towards what `image` asks for: gamma brings the mean to half of the brightest level, gain brings that level to
// 255, both within limits and each eased by a fifth a frame (gamma twice).
//   mode       engine mode: 1 widens the limits by `strength`, 3 holds both at 1
//   strength   0..100
void updateExposure(ExposureState* state, const LumaImage& image, int mode, int strength);

}  // namespace noxel
