// The noise of a picture: by luma, and as one figure.
#pragma once

#include <algorithm>
#include <cmath>
#include <iterator>

#include "common/luma_histogram.h"
#include "noxel/enhancer.h"

namespace noxel::tool {

// Variance in squared levels, by luma: entry i is for levels 8 i to 8 i + 7.
struct NoiseCurve {
  static constexpr int kEntries = static_cast<int>(std::size(decltype(noxel_frame_info::noise_luma){}));
  bool known = false;
  float variance[kEntries] = {};

  NoiseCurve() = default;
  explicit NoiseCurve(const noxel_frame_info& info) : known(info.noise_known != 0) {
    std::copy_n(info.noise_luma, kEntries, variance);
  }
};

// Of a pixel on average: the root of the curve's mean over the picture's luma, in levels. 0 without pixels.
inline double noiseSigma(const NoiseCurve& curve, const Histogram& luma) {
  double sum = 0;
  for (int level = 0; level < kLevels; ++level) {
    sum += luma.bins[level] * static_cast<double>(curve.variance[level * NoiseCurve::kEntries / kLevels]);
  }
  const double mass = histogramMass(luma);
  return mass > 0 ? std::sqrt(sum / mass) : 0;
}

}  // namespace noxel::tool
