#include "enhancer_session.h"

#include <cmath>
#include <new>
#include <string>
#include <vector>

#include "interrupt.h"
#include "nv21_frame.h"
#include "platform/frame_clock.h"
#include "tool_error.h"

namespace noxel::tool {

bool ExposureSettling::settled(const FrameReport& report) {
  const bool quiet = std::fabs(report.gamma - gamma_) < kSmallChange && std::fabs(report.gain - gain_) < kSmallChange;
  gamma_ = report.gamma;
  gain_ = report.gain;
  quiet_ = quiet ? quiet_ + 1 : 0;
  ++rounds_;
  return rounds_ >= kMostRounds || (rounds_ >= kFirstRounds && quiet_ >= kQuietRounds);
}

EnhancerSession::EnhancerSession(const EnhancerSettings& settings)
    : settings_(settings), clock_(settings.nominalIntervalUs) {
  const int mode = settings.neutralExposure ? kModeNeutralExposure : kModeEnhance;
  const std::string size = std::to_string(settings.width) + "x" + std::to_string(settings.height);
  if (initializeEngine(settings.width, settings.height, mode, 1, 1, 1, nullptr, &engine_) != 0) {
    throw ToolError(kExitFailed, "no engine can be made for frames of " + size + "; scale the clip down first");
  }
  if (!engineReady(engine_)) {
    releaseEngine(&engine_);
    throw ToolError(kExitNoGl, "no usable OpenGL ES 3.0 for frames of " + size + "; `noxel info` tells what was found");
  }
  platform::setFrameClock(PresentationClock::read, &clock_);
  const int lightMode = settings.spatialDenoise ? 1 : 0;
  const int stabilization = settings.stabilize ? 1 : 0;
  KRSetParameter(kParamLightMode, &lightMode, engine_);
  KRSetParameter(kParamNoiseReductionStrength, &settings.strength, engine_);
  KRSetParameter(kParamExposureStrength, &settings.exposure, engine_);
  KRSetParameter(kParamStabilization, &stabilization, engine_);
  if (settings.overlay && captureGhostMask(engine_, true) != 0) {
    releaseEngine(&engine_);
    platform::setFrameClock(nullptr, nullptr);
    throw std::bad_alloc();
  }
}

EnhancerSession::~EnhancerSession() {
  releaseEngine(&engine_);
  platform::setFrameClock(nullptr, nullptr);
}

void EnhancerSession::process(uint8_t* nv21) {
  if (KRProcessFrame(nv21, engine_) != 0) throw ToolError(kExitFailed, "the engine refused a frame");
}

int EnhancerSession::warmUp(const uint8_t* nv21) {
  if (settings_.neutralExposure) return 0;
  std::vector<uint8_t> copy(nv21Size(settings_.width, settings_.height));
  ExposureSettling settling;
  do {
    copy.assign(nv21, nv21 + copy.size());
    clock_.repeat();
    process(copy.data());
  } while (!settling.settled(lastFrameReport(engine_)) && !stopRequested());
  clock_.restart();
  return settling.rounds();
}

void EnhancerSession::enhance(uint8_t* nv21, int64_t presentationUs) {
  clock_.show(presentationUs);
  process(nv21);
}

FrameReport EnhancerSession::report() const {
  return lastFrameReport(engine_);
}

Overlay EnhancerSession::overlay() const {
  Overlay overlay;
  overlay.report = report();
  overlay.tracks.resize(kMaxPoints);
  overlay.tracks.resize(static_cast<size_t>(lastTracks(engine_, overlay.tracks.data(), kMaxPoints)));
  overlay.mask.resize(static_cast<size_t>(settings_.width) * static_cast<size_t>(settings_.height));
  if (!lastGhostMask(engine_, overlay.mask.data(), settings_.width * settings_.height, &overlay.maskWidth,
                     &overlay.maskHeight)) {
    overlay.mask.clear();
  }
  return overlay;
}

}  // namespace noxel::tool
