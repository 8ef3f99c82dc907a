// State of the point tracker, and the point pairs it leaves for the fit.
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

// Registration thread only. Coordinates are pixels of the registration image; the centre of its first pixel is (0.5, 0.5).
struct _KROFRegistration {
  int width;
  int height;
  int pointCount;    // pairs in the arrays below: the tracked ones, after pruning the kept ones
  int matchedCount;  // the kept ones of the last frame
  int trackedCount;  // the ones before pruning
  int maxPoints;     // kMaxPoints
  int levels;        // of the image pyramid, 2..8
  float noiseScale;  // 1: a fit whose median residual reaches five times this is reported as poor

  KRPoint sourcePoints[kMaxPoints];   // in the previous frame
  KRPoint targetPoints[kMaxPoints];   // in the current frame
  KRPoint displacements[kMaxPoints];  // target - source
  float scores[kMaxPoints];           // normalised cross-correlation of the two patches, -1..1, 0 for a lost point
  float errors[kMaxPoints];     // forward-backward distance, pixels; 1e3 for a lost point or one that moves its own way
  int indices[kMaxPoints];      // place before pruning
  int identifiers[kMaxPoints];  // the same for a point as long as it is followed from frame to frame

  float medianScore;  // of the tracked points
  float medianError;

  PointTracker* tracker;  // owned
};

// Allocates everything the frame path will need for images of width x height with `channels` bytes a pixel, of which only 1
// is supported. 0, and *state set; 1 when memory ran out or a size is refused: *state is untouched then.
int createRegistration(int width, int height, int channels, _KROFRegistration** state);
void releaseRegistration(_KROFRegistration** state);  // null is allowed

}  // namespace noxel
