// A suggested tone curve from a histogram: spreads the levels that a picture uses. Any thread.
#pragma once

#include "tonemapping/histogram.h"

namespace noxel {

constexpr double kMinSlope = 0.5;  // output levels per input level; below, detail is lost
constexpr double kMaxSlope = 3.0;  // above, noise and banding show

// Output level, 0..255, per input level. Initially the identity.
struct ToneCurve {
  ToneCurve();
  double level[kLevels];
};

// Limited histogram equalisation:
//
//   1. h = min(bin, 3 · mean bin); the excess is spread evenly over all bins.
//   2. The slope from level i - 1 to i is proportional to (h[i - 1] + h[i]) / 2; the 255 slopes sum to 255.
//   3. Blended with the identity: 1 + strength · (slope - 1).
// 4. Projected (least squares) onto slopes within kMinSlope..kMaxSlope that sum to 255: one common offset is added to
// all and
// the results are clamped. The offset exists, as 255 slopes of 0.5 sum to less than 255 and 255 slopes of 3 to more.
//
// The curve is strictly increasing, keeps 0 and 255, and depends on the shares of the levels, not on the number of
// pixels; a mirrored histogram gives the mirrored curve. All to double precision. A histogram without mass gives the
// identity; with all mass on one level, the neighbourhood of that level is spread.
//   strength   0 (identity) .. 1, clamped; NaN counts as 0
ToneCurve suggestToneCurve(const Histogram& histogram, double strength);

}  // namespace noxel
