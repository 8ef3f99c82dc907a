// What is told of an enhanced frame.
#pragma once

#include "common/noise_curve.h"

namespace noxel::tool {

// Matrices are 3 x 3, row-major, in pixels, the first one's centre at (0.5, 0.5).
struct FrameReport {
  int status = 0;      // -1 each frame by itself, 0 drawn alone, 1 registered
  float gamma = 1.0f;  // exponent and gain of the tone step of mode 1
  float gain = 1.0f;
  float zoom = 1.0f;
  double uploadMs = 0.0;
  double registrationMs = 0.0;
  double gpuMs = 0.0;
  bool startsSequence = false;
  int pointsTracked = 0;
  int pointsKept = 0;
  float previousFromCurrent[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  float stabilizedFromCurrent[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // before the zoom
  float toneLevels[kLevels] = {};                                // mode 5: luma out by luma in
  NoiseCurve noise;                                              // of the frame as it came
};

}  // namespace noxel::tool
