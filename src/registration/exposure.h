// The exposure pair (gamma exponent, gain) that brightens a dark picture, smoothed over frames.
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
//   maxLevel  lowest level >= 1 with n * fraction samples at or below it; untouched when level 0 alone holds as many
//   minLevel  lowest level with more than n * (1 - fraction) samples at or below it; 255 without one
void lumaStatistics(const LumaImage& image, int* mean, int* maxLevel, int* minLevel, float fraction);

// Registration thread only.
struct ExposureState {
  float smoothedGamma = 1.0f;  // applied to the frame
  float smoothedGain = 1.0f;
  float lastGamma = 1.0f;  // before the second smoothing
  int maxLevel = 0;        // kept over frames that do not determine it
};

// One step towards the exposure of `image`: gamma maps the mean to half of the brightest level, gain maps that level to
// 255, both within limits; each moves by a fifth of the way per frame (gamma is smoothed twice).
//   mode       engine mode: 1 widens the limits by `strength`, 3 holds both at 1
//   strength   0..100
void updateExposure(ExposureState* state, const LumaImage& image, int mode, int strength);

// Tells from successive pairs when they have settled on a picture.
class ExposureSettling {
 public:
  static constexpr float kSmallChange = 0.001f;
  static constexpr int kQuietRounds = 5;
  static constexpr int kMinRounds = 10;  // easing starts slowly: no change this early does not mean settled
  static constexpr int kMaxRounds = 60;

  bool settled(float gamma, float gain);
  int rounds() const { return rounds_; }

 private:
  float gamma_ = 1.0f;
  float gain_ = 1.0f;
  int rounds_ = 0;
  int quiet_ = 0;
};

}  // namespace noxel
