// How often each 8-bit level occurs. Plain memory in, plain memory out; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel {

constexpr int kLevels = 256;

// Pixels of each level: whole numbers as counted (exact up to 2^53 of them), any finite ones >= 0 once smoothed.
struct Histogram {
  double bins[kLevels] = {};
};

// Counts the width * height samples of a plane with rows of `stride` bytes on top of what is there already, so that planes and
// frames add up.
void addPlane(const uint8_t* plane, int width, int height, ptrdiff_t stride, Histogram* histogram);

void addHistogram(const Histogram& more, Histogram* histogram);

// The sum of all bins, in pixels.
double histogramMass(const Histogram& histogram);

// Σ level · bin / mass, 0..255; 0 without mass.
double meanLevel(const Histogram& histogram);

// The lowest level that the share `share` (above 0, at most 1) of the mass does not exceed; 0 without mass.
int levelAtShare(const Histogram& histogram, double share);

// Two passes of a box over 2 · radius + 1 levels: a triangle in effect, variance (2 / 3) · radius · (radius + 1) levels². What a
// box would carry below level 0 or above 255 is folded back at that edge (-1 to 0, -2 to 1, 256 to 255), so no mass is lost,
// but for the rounding of double precision, and a flat histogram stays flat.
//   radius   levels, limited to 0..255; 0 copies
void smoothHistogram(const Histogram& histogram, int radius, Histogram* smoothed);

}  // namespace noxel
