// Registration of plain luma planes, one after the other, exactly as the engine does it with its frames: what
// libnoxel's meter, noxel-register and the benches measure with.
#pragma once

#include <cstdint>

#include "kernels/worker_pool.h"
#include "registration/camera_path.h"
#include "registration/exposure.h"
#include "registration/video_noise.h"
#include "registration/point_tracker.h"
#include "registration/registration_state.h"

namespace noxel {

// One thread.
class PlaneRegistration {
 public:
  PlaneRegistration() = default;
  ~PlaneRegistration();
  PlaneRegistration(const PlaneRegistration&) = delete;
  PlaneRegistration& operator=(const PlaneRegistration&) = delete;

  // Call once. full: at full size however large the planes are. pool: may be null, and outlives this. False: out of
  // memory, or a size below 1.
  bool create(int width, int height, bool full, WorkerPool* pool);

  // The noise is measured with every plane from the next one on. False: out of memory.
  bool enableNoise();
  // A lost plane does not reset the camera path: see registerFrameCoasting.
  void coastOverLosses() { coasts_ = true; }

  // The next plane begins a sequence.
  void restart() { firstFrame_ = 1; }

  // True when the motion since the previous plane is known.
  bool measure(const uint8_t* luma);

  // Motion at the last plane: 2 x 3, row-major, from pixels of the previous plane to pixels of this one, both at full
  // size with the centre of the first pixel at (0, 0).
  void currentFromPrevious(double (&affine)[6]) const;
  // The inverse, 3 x 3, with the centre of the first pixel at (0.5, 0.5). Of the last plane whose motion is known.
  const float* previousFromCurrent() const { return motion_; }

  // The last plane as it was registered.
  LumaImage image() const { return {width_ / factor_, height_ / factor_, luminance_}; }

  // Call after create: measures the motion field with every plane from the next on. False: out of memory.
  bool enableField() { return enableMotionField(registration_); }
  // At the last plane; in pixels of the registration image, `factor()` pixels of the plane each.
  MotionField field() const { return motionField(*registration_); }
  int factor() const { return factor_; }

  const NoiseCurve& noise() const { return noise_.curve(); }

  const _KROFRegistration& state() const { return *registration_; }
  _KRStabilizationParameters* stabilization() { return &path_; }

 private:
  int width_ = 0;
  int height_ = 0;
  int factor_ = 1;  // plane pixels per registration pixel
  uint8_t* luminance_ = nullptr;
  uint8_t* scratch_ = nullptr;
  _KROFRegistration* registration_ = nullptr;
  _KRStabilizationParameters path_ = {};
  _KRMatch matches_[kMaxPoints];
  float motion_[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  float inverseMotion_[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  int firstFrame_ = 1;
  VideoNoise noise_;
  bool measuresNoise_ = false;
  bool coasts_ = false;
};

}  // namespace noxel
