#include "enhance/enhancer_session.h"

#include <cmath>
#include <new>
#include <vector>

#include "common/interrupt.h"
#include "media/nv21_frame.h"
#include "platform/frame_clock.h"

namespace noxel::tool {

bool ExposureSettling::settled(const FrameReport& report) {
  const bool quiet = std::fabs(report.gamma - gamma_) < kSmallChange && std::fabs(report.gain - gain_) < kSmallChange;
  gamma_ = report.gamma;
  gain_ = report.gain;
  quiet_ = quiet ? quiet_ + 1 : 0;
  ++rounds_;
  return rounds_ >= kMaxRounds || (rounds_ >= kMinRounds && quiet_ >= kQuietRounds);
}

EnhancerSession::EnhancerSession(const EnhancerSettings& settings)
    : settings_(settings),
      clock_(settings.nominalIntervalUs),
      engine_(settings.width, settings.height, settings.look.mode()) {
  setParameters(settings.look, engine_.get());
  if (settings.overlay && captureGhostMask(engine_.get(), true) != 0) throw std::bad_alloc();
  if (settings.noise && measureNoise(engine_.get(), true) != 0) throw std::bad_alloc();
  if (settings.ownTracks && measureOwnMotion(engine_.get()) != 0) throw std::bad_alloc();
  platform::setFrameClock(PresentationClock::read, &clock_);
}

EnhancerSession::~EnhancerSession() {
  platform::setFrameClock(nullptr, nullptr);
}

int EnhancerSession::warmUp(const uint8_t* nv21) {
  if (!followsExposure(settings_.look)) return 0;
  std::vector<uint8_t> copy(nv21Size(settings_.width, settings_.height));
  ExposureSettling settling;
  do {
    copy.assign(nv21, nv21 + copy.size());
    clock_.repeat();
    engine_.process(copy.data());
  } while (!settling.settled(lastFrameReport(engine_.get())) && !stopRequested());
  clock_.restart();
  return settling.rounds();
}

void EnhancerSession::enhance(uint8_t* nv21, int64_t presentationUs) {
  clock_.show(presentationUs);
  engine_.process(nv21);
}

FrameReport EnhancerSession::report() const {
  return lastFrameReport(engine_.get());
}

Overlay EnhancerSession::overlay() const {
  Overlay overlay;
  overlay.report = report();
  overlay.tracks.resize(kMaxPoints);
  overlay.tracks.resize(static_cast<size_t>(lastTracks(engine_.get(), overlay.tracks.data(), kMaxPoints)));
  const int blocks = settings_.ownTracks ? (settings_.width / 8 + 1) * (settings_.height / 8 + 1) : 0;
  overlay.ownTracks.resize(static_cast<size_t>(blocks));
  overlay.ownTracks.resize(static_cast<size_t>(lastOwnTracks(engine_.get(), overlay.ownTracks.data(), blocks)));
  overlay.mask.resize(static_cast<size_t>(settings_.width) * static_cast<size_t>(settings_.height));
  if (!lastGhostMask(engine_.get(), overlay.mask.data(), settings_.width * settings_.height, &overlay.maskWidth,
                     &overlay.maskHeight)) {
    overlay.mask.clear();
  }
  return overlay;
}

}  // namespace noxel::tool
