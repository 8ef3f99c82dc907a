#include "media/presentation_clock.h"

#include <algorithm>

namespace noxel::tool {

bool PresentationClock::isGap(int64_t intervalUs) const {
  // At one frame per second or less every interval is that long.
  const bool aboveSecond = intervalUs > kGapUs && intervalUs > 2 * nominalIntervalUs_;
  return aboveSecond || intervalUs > kGapIntervals * nominalIntervalUs_;
}

int64_t PresentationClock::stepFor(int64_t intervalUs) const {
  if (isGap(intervalUs)) return std::max(intervalUs, kBreakStepUs);
  if (nominalIntervalUs_ >= kSlowClipUs) return kCameraStepUs;
  return std::clamp<int64_t>(intervalUs, 1, kMaxStepUs);
}

void PresentationClock::show(int64_t presentationUs) {
  nowUs_ += startsSequence_ ? kBreakStepUs : followsRepeated_ ? kCameraStepUs : stepFor(presentationUs - shownUs_);
  shownUs_ = presentationUs;
  startsSequence_ = followsRepeated_ = false;
}

void PresentationClock::repeat() {
  nowUs_ += startsSequence_ ? kBreakStepUs : kCameraStepUs;
  startsSequence_ = false;
}

platform::TimeOfDay PresentationClock::now() const {
  return {nowUs_ / 1'000'000, nowUs_ % 1'000'000};
}

platform::TimeOfDay PresentationClock::read(void* clock) {
  return static_cast<const PresentationClock*>(clock)->now();
}

}  // namespace noxel::tool
