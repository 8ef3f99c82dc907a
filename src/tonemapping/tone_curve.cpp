#include "tonemapping/tone_curve.h"

#include <algorithm>

namespace noxel {
namespace {

constexpr int kSlopes = kLevels - 1;
constexpr double kClipLimit = 3.0;  // mean bins

// Steps 1 and 2. `mass` is above 0.
void equalisingSlopes(const Histogram& histogram, double mass, double (&slopes)[kSlopes]) {
  const double limit = kClipLimit * mass / kLevels;
  double clipped[kLevels];
  double excess = 0.0;
  for (int i = 0; i < kLevels; ++i) {
    clipped[i] = std::min(histogram.bins[i], limit);
    excess += histogram.bins[i] - clipped[i];
  }
  double sum = 0.0;
  for (int i = 0; i < kSlopes; ++i) {
    slopes[i] = (clipped[i] + clipped[i + 1]) / 2 + excess / kLevels;
    sum += slopes[i];
  }
  for (double& slope : slopes) slope *= kSlopes / sum;
}

double clamped(double slope) {
  return std::clamp(slope, kMinSlope, kMaxSlope);
}

// Step 4. The sum grows with the offset, from 255 · kMinSlope to 255 · kMaxSlope between the first two bounds:
// bisection.
void limitSlopes(double (&slopes)[kSlopes]) {
  const auto [min, max] = std::minmax_element(slopes, slopes + kSlopes);
  double low = kMinSlope - *max;
  double high = kMaxSlope - *min;
  for (int i = 0; i < 64; ++i) {
    const double offset = low + (high - low) / 2;
    double sum = 0.0;
    for (const double slope : slopes) sum += clamped(slope + offset);
    (sum < kSlopes ? low : high) = offset;
  }
  for (double& slope : slopes) slope = clamped(slope + high);
}

}  // namespace

ToneCurve::ToneCurve() {
  for (int i = 0; i < kLevels; ++i) level[i] = i;
}

ToneCurve suggestToneCurve(const Histogram& histogram, double strength) {
  ToneCurve curve;
  const double mass = histogramMass(histogram);
  if (!(mass > 0.0) || !(strength > 0.0)) return curve;

  double slopes[kSlopes];
  equalisingSlopes(histogram, mass, slopes);
  const double share = std::min(strength, 1.0);
  for (double& slope : slopes) slope = 1.0 + share * (slope - 1.0);
  limitSlopes(slopes);
  for (int i = 1; i < kSlopes; ++i) curve.level[i] = curve.level[i - 1] + slopes[i - 1];
  return curve;
}

}  // namespace noxel
