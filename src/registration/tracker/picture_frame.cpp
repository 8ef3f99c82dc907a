#include "registration/tracker/picture_frame.h"

#include <algorithm>
#include <cmath>

#include "math/inverse.h"

namespace noxel::tracker {

PictureFrame::PictureFrame(int width, int height)
    : centreX_(0.5f * static_cast<float>(width)),
      centreY_(0.5f * static_cast<float>(height)),
      radius_(std::hypot(centreX_, centreY_)) {}

void PictureFrame::backward(const GlobalMotion& motion, float x, float y, double* dx, double* dy) const {
  // Fixed point of x' = x + D(x): three steps are exact to 1e-4 pixels for motions that the fit accepts.
  *dx = 0.0;
  *dy = 0.0;
  for (int i = 0; i < 3; ++i) {
    const double atU = u(x + static_cast<float>(*dx));
    const double atV = v(y + static_cast<float>(*dy));
    *dx = -motion.dx(atU, atV);
    *dy = -motion.dy(atU, atV);
  }
}

void PictureFrame::inverse(const GlobalMotion& motion, double (*m)[6]) const {
  const double x = motion.dx(static_cast<double>(u(0.0f)), static_cast<double>(v(0.0f)));
  const double y = motion.dy(static_cast<double>(u(0.0f)), static_cast<double>(v(0.0f)));
  const double forward[9] = {1.0 + motion.p[1] / radius_,
                             motion.p[2] / radius_,
                             x,
                             motion.p[4] / radius_,
                             1.0 + motion.p[5] / radius_,
                             y,
                             0.0,
                             0.0,
                             1.0};
  double backward[9];
  invert3x3(forward, backward);
  std::copy_n(backward, 6, *m);
}

// The corners are symmetric about the centre, so that mixed terms cancel.
double PictureFrame::cornerDistance(const GlobalMotion& a, const GlobalMotion& b) const {
  const double u2 = centreX_ * centreX_ / (radius_ * radius_);
  const double v2 = centreY_ * centreY_ / (radius_ * radius_);
  const double parts[6] = {1.0, u2, v2, 1.0, u2, v2};
  double square = 0.0;
  for (int i = 0; i < 6; ++i) square += parts[i] * (a.p[i] - b.p[i]) * (a.p[i] - b.p[i]);
  return std::sqrt(square);
}

double PictureFrame::cornerDeviation(const double (&covariance)[6][6]) const {
  const double u2 = centreX_ * centreX_ / (radius_ * radius_);
  const double v2 = centreY_ * centreY_ / (radius_ * radius_);
  const double parts[6] = {1.0, u2, v2, 1.0, u2, v2};
  double variance = 0.0;
  for (int i = 0; i < 6; ++i) variance += parts[i] * covariance[i][i];
  return std::sqrt(std::max(variance, 0.0));
}

}  // namespace noxel::tracker
