// The median of values that may be reordered.
#pragma once

#include <algorithm>

namespace noxel::tracker {

// The lower middle value; 0 of none. No NaNs.
inline float medianOf(float* values, int count) {
  if (count == 0) return 0.0f;
  float* middle = values + (count - 1) / 2;
  std::nth_element(values, middle, values + count);
  return *middle;
}

}  // namespace noxel::tracker
