// Registration of luma planes, one after the other, exactly as the engine does it with its frames: for programs that measure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "registration/camera_path.h"
#include "registration/luminance.h"
#include "registration/point_tracker.h"
#include "registration/register_frame.h"
#include "registration/registration_state.h"

namespace noxel {

// One thread.
class PlaneRegistration {
 public:
  PlaneRegistration() = default;
  ~PlaneRegistration() {
    releaseStabilization(&path, 1, 1);
    releaseRegistration(&registration);
    std::free(luminance);
    std::free(scratch);
  }
  PlaneRegistration(const PlaneRegistration&) = delete;
  PlaneRegistration& operator=(const PlaneRegistration&) = delete;

  // Once. full: not at half size, however large the planes are. pool: may be null, and outlives this. False: no memory, or a
  // size below 1.
  bool create(int planeWidth, int planeHeight, bool full, WorkerPool* pool) {
    width = planeWidth;
    height = planeHeight;
    factor = full ? 1 : resolutionFactor(width, height);
    const int reducedWidth = width / factor;
    const int reducedHeight = height / factor;
    if (createRegistration(reducedWidth, reducedHeight, 1, &registration) != 0) return false;
    setTrackerWorkers(registration, pool);
    const size_t size = static_cast<size_t>(reducedWidth) * static_cast<size_t>(reducedHeight);
    luminance = static_cast<uint8_t*>(std::malloc(size));
    scratch = static_cast<uint8_t*>(std::malloc(size));
    return luminance != nullptr && scratch != nullptr && initStabilization(&path, 1, 1, reducedWidth, reducedHeight);
  }

  // The next plane begins a sequence.
  void restart() { firstFrame = 1; }

  // True when the motion from the plane before is known.
  bool measure(const uint8_t* luma) {
    prepareLuminance({width, height, luma}, factor, false, luminance, scratch);
    int valid = 0;
    float motion[9];
    registerFrame(luminance, motion, inverseMotion, matches, &valid, registration, &firstFrame, &path);
    return valid == 1;
  }

  // Of the last plane: 2 x 3, row-major, from pixels of the plane before to pixels of this one, both of the full size and
  // with the centre of the first pixel at (0, 0).
  void currentFromPrevious(double (&affine)[6]) const {
    for (int row = 0; row < 2; ++row) {
      const double a = static_cast<double>(inverseMotion[3 * row]);
      const double b = static_cast<double>(inverseMotion[3 * row + 1]);
      // Registration has that centre at (0.5, 0.5).
      const double shift = factor * static_cast<double>(inverseMotion[3 * row + 2]) + 0.5 * (a + b) - 0.5;
      affine[3 * row] = a;
      affine[3 * row + 1] = b;
      affine[3 * row + 2] = shift;
    }
  }
  const _KROFRegistration& state() const { return *registration; }
  _KRStabilizationParameters* stabilization() { return &path; }

 private:
  int width = 0;
  int height = 0;
  int factor = 1;
  uint8_t* luminance = nullptr;
  uint8_t* scratch = nullptr;
  _KROFRegistration* registration = nullptr;
  _KRStabilizationParameters path = {};
  _KRMatch matches[kMaxPoints];
  float inverseMotion[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  int firstFrame = 1;
};

}  // namespace noxel
