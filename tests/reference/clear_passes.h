// The passes of the clear picture in plain double precision, from their formulas: what the shaders are compared with.
//
// Pictures are planes of levels 0..255, clamped to the edge; nothing is rounded. Chroma and counts have one sample for 2 x 2
// pixels, as the shaders' cells have.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace noxel::reference {

class Plane {
 public:
  Plane() = default;
  Plane(int planeWidth, int planeHeight)
      : width(planeWidth), height(planeHeight), values_(static_cast<size_t>(width * height)) {}

  double& at(int x, int y) { return values_[static_cast<size_t>(y * width + x)]; }
  double at(int x, int y) const;       // clamped to the edge
  double atPixel(int x, int y) const;  // the same, but for whole cells: beyond the edge the outermost cell repeats
  double meanOfCell(int column, int row) const;

  int width = 0, height = 0;

 private:
  std::vector<double> values_;
};

// Row-major 2 x 3; the centre of the first pixel is (0.5, 0.5).
using Affine = std::array<double, 6>;
struct Place {
  double x, y;
};
Place mapped(const Affine& m, double x, double y);

// Variance by luma, an entry for eight levels.
using NoiseByLuma = std::array<double, 32>;
double noiseAt(const NoiseByLuma& curve, double level);

// Weights of the taps -2 to 3 (`taps` 6), -1 to 2 (4) or 0 and 1 (2, linear) for a place `fraction` right of tap 0.
std::array<double, 6> interpolatorWeights(int taps, double fraction);

struct Canvas {
  Plane luma, blue, red, count;
};

// A cell of the picture that a mapping sees; levels may overshoot.
struct Cell {
  std::array<double, 4> luma;  // two pixels above two
  double blue, red, count;     // count 0: a sample around it is unknown
};
struct Taps {
  int luma = 6, colour = 4;
};
Cell drawn(const Canvas& source, const Affine& sourceFromTarget, int column, int row, Taps taps);

struct Noise {
  NoiseByLuma luma, blue, red;
};

// In standard deviations: mean of a cell's luma, mean of the squares, U and V.
struct Difference {
  Plane mean, energy, blue, red;
};
Difference differenceOf(const Canvas& frame, const Canvas& past, const Noise& noise);

// How little noise explains the difference; from 2 on a cell is refused in part.
// fast: as the fast quality smooths, as in the next.
Plane refusalTest(const Difference& difference, bool fast);

// most: frames that a mean counts for. moved: 1 where a cell's history followed a motion of its own, which is trusted less.
Canvas blended(const Canvas& frame, const Canvas& past, const Plane& test, const Plane& moved, double most, bool fast);

// A blend with what comes after the frame.
Canvas merged(const Canvas& blend, const Canvas& offered, double most);

// Luma from patches alike, up to `reach` pixels off; strength: factor of the noise's variance.
Plane patchMeans(const Plane& luma, const Plane& count, const NoiseByLuma& noise, double strength, int reach);

struct Guide {
  Plane luma, blue, red;
};
Guide guideOf(const Canvas& blend, const Plane& denoised);

// Of one cell, U and V, from cells up to `reach` off, every `step`th: of the guide, with a step of 1 half as they are. fast:
// of its row and column alone.
std::array<double, 2> guidedColour(const Canvas& blend, const Guide& guide, const Noise& noise, double strength,
                                   int reach, int step, bool fast, int column, int row);

}  // namespace noxel::reference
