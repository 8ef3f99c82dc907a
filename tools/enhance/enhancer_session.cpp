#include "enhance/enhancer_session.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>
#include <vector>

#include "common/interrupt.h"
#include "enhance/look_ahead.h"
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
  if (settings.look.quality != kBest || settings.look.mode() != kModeClear || settings.clip == nullptr) return;
  lookAhead_ = LookAhead::make(settings_, engine_, clock_);
  if (lookAhead_ == nullptr) note_ = "not enough memory to look ahead: the quality is that of a live picture";
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

void EnhancerSession::leadIn(uint8_t* nv21) {
  clock_.repeat();
  engine_.process(nv21);
  clock_.goOn();
  restartCameraPath(engine_.get());
  ++ledIn_;
  isLedInto_ = true;
}

void EnhancerSession::enhance(uint8_t* nv21, int64_t presentationUs) {
  if (lookAhead_ != nullptr) lookAhead_->offer(nv21);
  clock_.show(presentationUs);
  engine_.process(nv21);
  isFirst_ = std::exchange(isLedInto_, false);
}

// To the caller the first frame has no frame before it.
FrameReport EnhancerSession::report() const {
  FrameReport report = lastFrameReport(engine_.get());
  report.number -= ledIn_;
  if (!isFirst_) return report;
  report.startsSequence = true;
  report.pointsTracked = report.pointsKept = 0;
  std::copy_n(FrameReport().previousFromCurrent, 9, report.previousFromCurrent);
  return report;
}

Overlay EnhancerSession::overlay() const {
  Overlay overlay;
  overlay.report = report();
  overlay.maskInFrame = settings_.look.mode() == kModeClear;
  overlay.tracks.resize(kMaxPoints);
  overlay.tracks.resize(static_cast<size_t>(lastTracks(engine_.get(), overlay.tracks.data(), kMaxPoints)));
  const int blocks = settings_.ownTracks ? (settings_.width / 8 + 1) * (settings_.height / 8 + 1) : 0;
  overlay.ownTracks.resize(static_cast<size_t>(blocks));
  overlay.ownTracks.resize(static_cast<size_t>(lastOwnTracks(engine_.get(), overlay.ownTracks.data(), blocks)));
  if (isFirst_) {
    overlay.tracks.clear();
    overlay.ownTracks.clear();
  }
  overlay.mask.resize(static_cast<size_t>(settings_.width) * static_cast<size_t>(settings_.height));
  if (!lastGhostMask(engine_.get(), overlay.mask.data(), settings_.width * settings_.height, &overlay.maskWidth,
                     &overlay.maskHeight)) {
    overlay.mask.clear();
  }
  return overlay;
}

}  // namespace noxel::tool
