#include "registration/plane_registration.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "registration/luminance.h"
#include "registration/point_tracker.h"
#include "registration/register_frame.h"

namespace noxel {

PlaneRegistration::~PlaneRegistration() {
  releaseStabilization(&path_, 1, 1);
  releaseRegistration(&registration_);
  std::free(luminance_);
  std::free(scratch_);
}

bool PlaneRegistration::create(int width, int height, bool full, WorkerPool* pool) {
  width_ = width;
  height_ = height;
  factor_ = full ? 1 : resolutionFactor(width, height);
  const int reducedWidth = width / factor_;
  const int reducedHeight = height / factor_;
  if (createRegistration(reducedWidth, reducedHeight, 1, &registration_) != 0) return false;
  setTrackerWorkers(registration_, pool);
  const size_t size = static_cast<size_t>(reducedWidth) * static_cast<size_t>(reducedHeight);
  luminance_ = static_cast<uint8_t*>(std::malloc(size));
  scratch_ = static_cast<uint8_t*>(std::malloc(size));
  return luminance_ != nullptr && scratch_ != nullptr && initStabilization(&path_, 1, 1, reducedWidth, reducedHeight);
}

bool PlaneRegistration::enableNoise() {
  measuresNoise_ = measuresNoise_ || noise_.allocate(width_, height_);
  return measuresNoise_;
}

bool PlaneRegistration::measure(const uint8_t* luma) {
  prepareLuminance({width_, height_, luma}, factor_, false, luminance_, scratch_);
  if (firstFrame_ == 1) noise_.restart();
  int valid = 0;
  float motion[9];
  const auto registerPlane = coasts_ ? registerFrameCoasting : registerFrame;
  registerPlane(luminance_, motion, inverseMotion_, matches_, &valid, registration_, &firstFrame_, &path_);
  if (valid == 1) {
    std::copy_n(motion, 9, motion_);
    motion_[2] *= static_cast<float>(factor_);
    motion_[5] *= static_cast<float>(factor_);
  }
  if (measuresNoise_) noise_.measure(luma, valid == 1 ? motion_ : nullptr);
  return valid == 1;
}

void PlaneRegistration::currentFromPrevious(double (&affine)[6]) const {
  for (int row = 0; row < 2; ++row) {
    const double a = static_cast<double>(inverseMotion_[3 * row]);
    const double b = static_cast<double>(inverseMotion_[3 * row + 1]);
    affine[3 * row] = a;
    affine[3 * row + 1] = b;
    // Registration has the centre of the first pixel at (0.5, 0.5).
    affine[3 * row + 2] = factor_ * static_cast<double>(inverseMotion_[3 * row + 2]) + 0.5 * (a + b) - 0.5;
  }
}

}  // namespace noxel
