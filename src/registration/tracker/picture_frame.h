// The picture's coordinates, as GlobalMotion uses them.
#pragma once

#include "registration/tracker/global_motion.h"

namespace noxel::tracker {

// Coordinates of the registration image: its corner is (0, 0), the centre of its first pixel (0.5, 0.5).
class PictureFrame {
 public:
  PictureFrame() = default;
  PictureFrame(int width, int height);

  float u(float x) const { return (x - centreX_) / radius_; }
  float v(float y) const { return (y - centreY_) / radius_; }

  // Displacement of the current frame's point (x, y) back to its position before `motion`.
  void backward(const GlobalMotion& motion, float x, float y, double* dx, double* dy) const;
  // The current frame's point (x, y) was at (m[0] x + m[1] y + m[2], m[3] x + m[4] y + m[5]) before `motion`. The
  // identity for a motion that has no inverse.
  void inverse(const GlobalMotion& motion, double (*m)[6]) const;
  // Rms over the four corners, pixels: difference of two motions, and expected error for a covariance.
  double cornerDistance(const GlobalMotion& a, const GlobalMotion& b) const;
  double cornerDeviation(const double (&covariance)[6][6]) const;

 private:
  float centreX_ = 0.0f;
  float centreY_ = 0.0f;
  float radius_ = 1.0f;  // half the diagonal
};

}  // namespace noxel::tracker
