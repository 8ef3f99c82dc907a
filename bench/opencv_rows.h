// Motion estimators built from OpenCV, for comparison. Compiled only when OpenCV is found.
#pragma once

#include <cstdint>

#include "scenes/scenes.h"

namespace noxel::scenes {

struct OpenCvRow {
  const char* name;
  // False: no motion was found. Frames are width x height bytes, tightly packed.
  bool (*measure)(const uint8_t* previous, const uint8_t* current, int width, int height, Affine* currentFromPrevious);
};

inline constexpr int kOpenCvRows = 3;
// Careful: 1000 corners tracked forward and back, affine by RANSAC. Similar: the same, rotation, scale and shift only.
// Quick: 300 corners in small windows, tracked forward only, affine by MAGSAC.
extern const OpenCvRow kOpenCvRow[kOpenCvRows];

// Limits OpenCV to one thread, as ours.
void prepareOpenCv();

}  // namespace noxel::scenes
