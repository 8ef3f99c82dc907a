// Histograms of 8-bit levels. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel {

constexpr int kLevels = 256;

// Pixels per level: integers as counted (exact up to 2^53), any finite values >= 0 after smoothing.
struct Histogram {
  double bins[kLevels] = {};
};

// Adds the width * height samples of a plane, rows `stride` bytes apart, to the counts.
void addPlane(const uint8_t* plane, int width, int height, ptrdiff_t stride, Histogram* histogram);

void addHistogram(const Histogram& more, Histogram* histogram);

// The sum of all bins, in pixels.
double histogramMass(const Histogram& histogram);

// Σ level · bin / mass, 0..255; 0 without mass.
double meanLevel(const Histogram& histogram);

// The lowest level with at least `share` (above 0, at most 1) of the mass at or below it; 0 without mass.
int levelAtShare(const Histogram& histogram, double share);

// Two box filters over 2 · radius + 1 levels, together a triangle with variance (2 / 3) · radius · (radius + 1)
// levels². Levels below 0 and above 255 are mirrored (-1 to 0, -2 to 1, 256 to 255): mass is kept to double precision,
// and a flat histogram stays flat.
//   radius   levels, clamped to 0..255; 0 copies
void smoothHistogram(const Histogram& histogram, int radius, Histogram* smoothed);

}  // namespace noxel
