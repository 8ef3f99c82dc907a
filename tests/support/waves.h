// An endless scene and a camera's views of it: the motion between two views is exact to any fraction of a pixel.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace noxel {

// Row-major 2 x 3, on pixel coordinates; the centre of the first pixel is (0.5, 0.5).
using View = std::array<double, 6>;

inline constexpr View kStill = {1, 0, 0, 0, 1, 0};
View shifted(double x, double y);
// By `angleRad` and `scale` about (x, y), then shifted.
View turned(double angleRad, double scale, double x, double y, double shiftX, double shiftY);
// First `right`, then `left`.
View composed(const View& left, const View& right);
View inverted(const View& view);
// Into the first two rows of a 3 x 3 matrix.
void store(float (&matrix)[9], const View& view);
// Rms over the corners of a width x height picture of the distance between their two images. `matrix`: 2 x 3 or 3 x 3.
template <typename T>
double cornerError(const T* matrix, const View& truth, int width, int height) {
  double squares = 0;
  for (int corner = 0; corner < 4; ++corner) {
    const double x = corner % 2 * width, y = corner / 2 * height;
    for (int row = 0; row < 2; ++row) {
      const T* m = &matrix[3 * row];
      const double* t = &truth[static_cast<size_t>(3 * row)];
      const double off = (m[0] - t[0]) * x + (m[1] - t[1]) * y + m[2] - t[2];
      squares += off * off;
    }
  }
  return std::sqrt(squares / 4);
}

// Levels are a sum of 32 plane waves, the longest strongest, as in photos; mean 110, standard deviation 35.
class Waves {
 public:
  Waves(unsigned seed, double shortestPixels, double longestPixels = 90.0);

  double at(double x, double y) const;
  // 8-bit view of the scene through sceneFromFrame, with Gaussian noise of `sigma` levels from `noiseSeed`.
  std::vector<uint8_t> seen(int width, int height, const View& sceneFromFrame, double sigma = 0.0,
                            unsigned noiseSeed = 1) const;

 private:
  struct Wave {
    double amplitude, x, y, phase;
  };
  std::array<Wave, 32> waves_;
};

}  // namespace noxel
