// State of the point tracker, and the point pairs it hands to the fit.
#pragma once

#include <cstdint>

namespace noxel {

inline constexpr int kMaxPoints = 1000;

struct KRPoint {
  float x;
  float y;
};

// One point correspondence, in pixels of the registration image.
struct _KRMatch {
  float sourceX;
  float sourceY;
  float targetX;
  float targetY;
};

class PointTracker;

// Registration thread only. Coordinates are pixels of the registration image; the centre of its first pixel is (0.5,
// 0.5).
struct _KROFRegistration {
  int width;
  int height;
  int pointCount;    // pairs in the arrays below: all tracked ones, after pruning those kept
  int matchedCount;  // kept in the last frame
  int trackedCount;  // before pruning
  int maxPoints;     // kMaxPoints
  int levels;        // of the image pyramid, 2..8
  float noiseScale;  // 1; a fit whose median residual reaches five times this is reported as poor

  KRPoint sourcePoints[kMaxPoints];   // in the previous frame
  KRPoint targetPoints[kMaxPoints];   // in the current frame
  KRPoint displacements[kMaxPoints];  // target - source
  float scores[kMaxPoints];           // normalised cross-correlation of the two patches, -1..1; 0: lost
  float errors[kMaxPoints];           // forward-backward distance, pixels; 1e3: lost, or an outlier
  int indices[kMaxPoints];            // index before pruning
  int identifiers[kMaxPoints];        // constant while a point is tracked from frame to frame

  float medianScore;  // of the tracked points
  float medianError;

  PointTracker* tracker;  // owned
};

// Allocates everything the frame path needs for width x height images with `channels` bytes per pixel; only 1 is
// supported. 0: *state is set. 1: out of memory or a size that is refused; *state is untouched.
int createRegistration(int width, int height, int channels, _KROFRegistration** state);
void releaseRegistration(_KROFRegistration** state);  // may be null

}  // namespace noxel
