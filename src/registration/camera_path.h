// The camera's path: the motions summed up, smoothed as they come, and the matrix that leads from one to the other.
// Registration thread only.
#pragma once

namespace noxel {

// In the order x, y, angle, scale: pixels of the registration image, radians, 1.
inline constexpr int kPathValues = 4;

struct PathFilterComponent {
  float trend;    // a frame
  float level;    // the smoothed value
  float initial;  // the raw value at set-up
  float limit;    // largest distance between smoothed and raw value
};

// Double-exponential smoothing of `count` values, each kept within its limit of the raw one.
struct PathFilter {
  PathFilterComponent* components;  // owned
  int count;
  float alpha;  // share of a new value that goes into the level; three times this from the third value on
  float beta;   // share that goes into the trend
};

struct _KRStabilizationParameters {
  float rawPath[kPathValues];
  float smoothedPath[kPathValues];
  PathFilter pathFilter;
  float stabilizationMatrix[9];  // 3 x 3, row-major; identity when nothing is known
};

// Puts the filter at rest at `values`. Components that it has in that number are used again, so a filter that was set up once
// is set back without allocating. False when memory ran out: the filter is empty then.
bool initPathFilter(PathFilter* filter, const float* values, const float* limits, int count, float alpha, float beta);

// One step of every component: smoothed[i] follows raw[i].
void updatePathFilter(PathFilter* filter, const float* raw, float* smoothed);

// One step of double-exponential smoothing towards x. Returns the new level and updates the trend.
float holtStep(float level, float* trend, float x, float alpha, float beta);

// Sets columns x rows records to rest: both paths (0, 0, 0, 1), the stabilisation matrix the identity. Allocates for records
// that come zero-filled, and not again. False when memory ran out. width, height: of the registration image; the picture may
// be moved by 3 % of them.
bool initStabilization(_KRStabilizationParameters* stabilization, int columns, int rows, int width, int height);
void releaseStabilization(_KRStabilizationParameters* stabilization, int columns, int rows);

// Goes one frame on: `similarity` = (tx, ty, a, b), current from previous, as refineAffine writes it. False when the path
// left what it can be smoothed in (a scale beyond 1000 or below 1/1000, a matrix that is no number) or was never set up: it
// has to be set to rest.
bool stepStabilization(_KRStabilizationParameters* stabilization, const float* similarity);

}  // namespace noxel
