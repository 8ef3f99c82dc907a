// The noise of a picture as one figure.
#pragma once

#include <cmath>

#include "registration/noise_curve.h"
#include "tonemapping/histogram.h"

namespace noxel::tool {

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
