// Histograms of 8-bit levels. Any thread.
#pragma once

namespace noxel {

constexpr int kLevels = 256;

// Pixels per level: integers as counted (exact up to 2^53), any finite values >= 0 after smoothing.
struct Histogram {
  double bins[kLevels] = {};
};

// The sum of all bins, in pixels.
double histogramMass(const Histogram& histogram);

// Two box filters over 2 · radius + 1 levels, together a triangle with variance (2 / 3) · radius · (radius + 1)
// levels². Levels below 0 and above 255 are mirrored (-1 to 0, -2 to 1, 256 to 255): mass is kept to double precision,
// and a flat histogram stays flat.
//   radius   levels, clamped to 0..255; 0 copies
void smoothHistogram(const Histogram& histogram, int radius, Histogram* smoothed);

}  // namespace noxel
