#include "api/sequence_clock.h"

#include <algorithm>

namespace noxel {
namespace {

constexpr int64_t kMaxUsualUs = 2'000'000;  // of the first interval; a longer one is a pause
constexpr int64_t kCameraIntervalUs = 33'000;

}  // namespace

bool CutFinder::isGap(int64_t intervalUs) const {
  return intervalUs < 0 || intervalUs > 5 * usualUs_ || (intervalUs > 1'000'000 && intervalUs > 2 * usualUs_);
}

bool CutFinder::next(int64_t timeUs) {
  intervalUs_ = timeUs - lastUs_;
  lastUs_ = timeUs;
  if (begins_) {
    begins_ = false;
    return true;
  }
  if (usualUs_ == 0) usualUs_ = intervalUs_ > 0 && intervalUs_ <= kMaxUsualUs ? intervalUs_ : kCameraIntervalUs;
  if (isGap(intervalUs_)) return true;
  if (givenUs_ == 0) usualUs_ = std::max<int64_t>(1, usualUs_ + (intervalUs_ - usualUs_) / 8);
  return false;
}

void SequenceClock::step(int64_t intervalUs, bool slow) {
  nowUs_ += slow ? kCameraIntervalUs : std::clamp<int64_t>(intervalUs, 1, 199'000);
}

platform::TimeOfDay SequenceClock::read(void* clock) {
  const int64_t now = static_cast<const SequenceClock*>(clock)->nowUs_;
  return {now / 1'000'000, now % 1'000'000};
}

}  // namespace noxel
