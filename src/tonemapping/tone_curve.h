// A tone curve that spreads the levels a picture uses, from its histogram. Any thread.
#pragma once

#include "tonemapping/histogram.h"

namespace noxel {

constexpr double kMinSlope = 0.5;  // output levels per input level: below, detail is lost
constexpr double kMaxSlope = 3.0;  // above, noise and banding show

// Where each input level goes, 0..255. Starts as the identity.
struct ToneCurve {
  ToneCurve();
  double level[kLevels];
};

// Limited histogram equalisation:
//
//   1. h = min(bin, 3 · mean bin), and what that cuts off is spread evenly over all bins.
//   2. The slope from level i - 1 to i is in proportion to (h[i - 1] + h[i]) / 2; the 255 slopes add up to 255.
//   3. That is blended with the identity: 1 + strength · (slope - 1).
//   4. Of all sets of slopes within kMinSlope..kMaxSlope that add up to 255, the one nearest to these (least squares) is
//      taken: one and the same amount is added to each, and what leaves the limits is held there. As 255 slopes of 0.5 add
//      up to less and 255 of 3 to more than 255, such an amount always exists.
//
// So the curve rises with every level, keeps 0 and 255 where they are, and depends on the shares of the levels alone, not on
// the number of pixels; a mirrored histogram has the mirrored curve. Slopes and sums hold to the rounding of double precision.
// A histogram without mass has the identity; with all mass on one level, the neighbourhood of that level is spread.
//   strength   0 (identity) .. 1, limited to that; not a number counts as 0
ToneCurve suggestToneCurve(const Histogram& histogram, double strength);

// The mean level of a picture with this histogram after the curve; 0 without mass.
double meanLevelAfter(const Histogram& histogram, const ToneCurve& curve);

}  // namespace noxel
