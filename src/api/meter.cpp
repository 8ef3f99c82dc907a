#include "api/meter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "api/engine_control.h"
#include "api/frame_planes.h"
#include "noxel/noxel.h"

namespace noxel {

Meter::Meter(const noxel_config& config)
    : width_(config.width),
      height_(config.height),
      log_(config.log, config.log_context),
      cuts_(config.frame_interval_us) {}

Meter::~Meter() {
  std::free(nv21_);
}

int Meter::make(const noxel_config& config, Meter** result) {
  auto* meter = new (std::nothrow) Meter(config);
  if (meter == nullptr) return NOXEL_ERROR_MEMORY;
  const platform::LogScope log(meter->log_.target());
  if (!meter->setUp()) {
    NOXEL_LOG_ERROR("no memory to measure frames of %d x %d", config.width, config.height);
    delete meter;
    return NOXEL_ERROR_MEMORY;
  }
  *result = meter;
  return NOXEL_OK;
}

bool Meter::setUp() {
  const int width = engineWidth(width_), height = engineHeight(height_);
  nv21_ = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2));
  return nv21_ != nullptr && registration_.create(width, height, false, nullptr) && registration_.enableNoise();
}

int Meter::measure(const noxel_frame& frame, noxel_frame_info* info) {
  if (!isUsable(frame, width_, height_, NOXEL_MODE_CLEAR)) return NOXEL_ERROR_ARGUMENT;
  const uint64_t start = KRTimeNow();
  takePlanes(frame, width_, height_, nv21_);
  const bool cut = cuts_.next(frame.time_us);
  if (cut) registration_.restart();
  noxel_frame_info reading = {};
  reading.motion_known = registration_.measure(nv21_) && !cut ? 1 : 0;
  follow(cut);

  reading.tag = frame.tag;
  reading.time_us = frame.time_us;
  reading.starts_sequence = cut ? 1 : 0;
  reading.points_tracked = cut ? 0 : registration_.state().trackedCount;
  reading.points_kept = reading.motion_known != 0 ? registration_.state().matchedCount : 0;
  for (const int diagonal : {0, 4, 8}) {
    reading.previous_from_current[diagonal] = 1;
    reading.stabilized_from_current[diagonal] = 1;
  }
  if (reading.motion_known != 0) std::copy_n(registration_.previousFromCurrent(), 9, reading.previous_from_current);
  reading.zoom = 1;
  reading.gamma = exposure_.smoothedGamma;
  reading.gain = exposure_.smoothedGain;
  reading.noise_known = registration_.noise().known ? 1 : 0;
  std::copy_n(registration_.noise().variance, NoiseCurve::kEntries, reading.noise_luma);
  std::copy_n(tone_.table().level, kLevels, reading.tone);
  reading.motion_ms = static_cast<double>(KRTimeDiff(start, KRTimeNow())) * 1e-6;
  const size_t size = info->size;
  std::memcpy(info, &reading, size);
  info->size = size;
  return NOXEL_OK;
}

// Gamma and gain ease from frame to frame: a sequence begins where they stand still on its first one, which then counts as any.
void Meter::follow(bool newSequence) {
  const int width = engineWidth(width_);
  tone_.update(nv21_, width, engineHeight(height_), width, exposureStrength_, newSequence);
  if (newSequence) {
    exposure_ = {};
    ExposureSettling settling;
    do {
      updateExposure(&exposure_, registration_.image(), kModeEnhance, exposureStrength_);
    } while (!settling.settled(exposure_.smoothedGamma, exposure_.smoothedGain));
  }
  updateExposure(&exposure_, registration_.image(), kModeEnhance, exposureStrength_);
}

}  // namespace noxel
