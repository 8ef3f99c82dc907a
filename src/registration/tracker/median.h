// The median of values that may be put in another order.
#pragma once

#include <algorithm>

namespace noxel::tracker {

// The lower middle of an even count; 0 of none. No value may be a NaN.
inline float medianOf(float* values, int count) {
  if (count == 0) return 0.0f;
  float* middle = values + (count - 1) / 2;
  std::nth_element(values, middle, values + count);
  return *middle;
}

}  // namespace noxel::tracker
