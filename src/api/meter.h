// What is behind noxel_meter: registration, noise and tone of frames that nobody draws.
#pragma once

#include <cstdint>

#include "api/caller_log.h"
#include "api/sequence_clock.h"
#include "noxel/meter.h"
#include "registration/exposure.h"
#include "registration/plane_registration.h"
#include "tonemapping/clear_tone.h"

namespace noxel {

// The calls are those of meter.h, with arguments that are not null.
class Meter {
 public:
  static int make(const noxel_config& config, Meter** result);
  ~Meter();
  Meter(const Meter&) = delete;
  Meter& operator=(const Meter&) = delete;

  void setExposure(int strength) { exposureStrength_ = strength; }
  int measure(const noxel_frame& frame, noxel_frame_info* info);
  platform::LogTarget* log() { return log_.target(); }

 private:
  explicit Meter(const noxel_config& config);
  bool setUp();
  void follow(bool newSequence);

  const int width_;
  const int height_;
  CallerLog log_;
  CutFinder cuts_;
  int exposureStrength_ = 50;
  unsigned char* nv21_ = nullptr;  // the frame, padded
  PlaneRegistration registration_;
  ExposureState exposure_;
  ClearTone tone_;
};

}  // namespace noxel
