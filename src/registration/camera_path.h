// The camera path: accumulated motion, its smoothed version, and the matrix from one to the other. Registration thread
// only.
#pragma once

namespace noxel {

// In the order x, y, angle, scale: pixels of the registration image, radians, 1.
inline constexpr int kPathValues = 4;

struct PathFilterComponent {
  float trend;    // change per frame
  float level;    // the smoothed value
  float initial;  // raw value at set-up
  float limit;    // max distance between smoothed and raw value
};

// Double-exponential smoothing of `count` values, each kept within its limit of the raw one.
struct PathFilter {
  PathFilterComponent* components;  // owned
  int count;
  float alpha;  // weight of a new value in the level; three times this for the third value and later
  float beta;   // its weight in the trend
};

struct _KRStabilizationParameters {
  float rawPath[kPathValues];
  float smoothedPath[kPathValues];
  PathFilter pathFilter;
  float stabilizationMatrix[9];  // 3 x 3, row-major; identity when unknown
};

// Resets the filter to rest at `values`. Reuses the components when their number is the same, so that only the first
// call allocates. False when out of memory; the filter is then empty.
bool initPathFilter(PathFilter* filter, const float* values, const float* limits, int count, float alpha, float beta);

// One step of every component: smoothed[i] follows raw[i].
void updatePathFilter(PathFilter* filter, const float* raw, float* smoothed);

// One step of double-exponential smoothing towards x. Returns the new level, updates the trend.
float holtStep(float level, float* trend, float x, float alpha, float beta);

// Resets columns x rows records to rest: both paths (0, 0, 0, 1), the stabilisation matrix the identity. Allocates for
// zero-filled records only. False when out of memory. width, height: of the registration image; stabilisation may shift
// the picture by 3 % of them.
bool initStabilization(_KRStabilizationParameters* stabilization, int columns, int rows, int width, int height);
void releaseStabilization(_KRStabilizationParameters* stabilization, int columns, int rows);

// Advances by one frame: `similarity` = (tx, ty, a, b), current from previous, as refineAffine writes it. False when
// the path has to be reset: its scale is above 1000 or below 1/1000, a matrix entry is not finite, or it was never set
// up.
bool stepStabilization(_KRStabilizationParameters* stabilization, const float* similarity);

// A path at one moment.
struct PathState {
  float rawPath[kPathValues];
  PathFilterComponent components[kPathValues];
};

// Of a record that was set up.
PathState pathState(const _KRStabilizationParameters& stabilization);

// Goes on from `state` by one frame of unknown motion, as if the camera had kept to its smoothed path: the distance
// between the two paths, and with it the stabilisation, falls by 1/20 (angle and scale: 3/20). False as above.
bool coastStabilization(_KRStabilizationParameters* stabilization, const PathState& state);

}  // namespace noxel
