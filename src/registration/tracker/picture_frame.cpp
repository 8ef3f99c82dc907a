#include "registration/tracker/picture_frame.h"

#include <algorithm>
#include <cmath>

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
  const double a = 1.0 + motion.p[1] / radius_;
  const double b = motion.p[2] / radius_;
  const double c = motion.p[4] / radius_;
  const double d = 1.0 + motion.p[5] / radius_;
  const double determinant = a * d - b * c;
  const bool invertible = std::fabs(determinant) > 1e-6;
  const double inverse[4] = {invertible ? d / determinant : 1.0, invertible ? -b / determinant : 0.0,
                             invertible ? -c / determinant : 0.0, invertible ? a / determinant : 1.0};
  for (int i = 0; i < 2; ++i) {
    (*m)[3 * i] = inverse[2 * i];
    (*m)[3 * i + 1] = inverse[2 * i + 1];
    const double x = centreX_ + (invertible ? motion.p[0] : 0.0);
    const double y = centreY_ + (invertible ? motion.p[3] : 0.0);
    (*m)[3 * i + 2] = (i == 0 ? centreX_ : centreY_) - inverse[2 * i] * x - inverse[2 * i + 1] * y;
  }
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
