// The time of day the engine is shown while it works through a file.
#pragma once

#include <cstdint>

#include "platform/frame_clock.h"

namespace noxel::tool {

// The engine takes a step of more than 200 ms for a break in the sequence (1500 ms for its first two frames) and starts
// afresh. A file is no camera: its frames come as late as the file says, and only a real hole shall be a break.
//
//   interval of two frames                             step of the clock
//   above five nominal intervals, or above 1 s where
//   that is no interval of the clip's own              the interval, at least 1600 ms: a break
//   else, nominal interval 200 ms or more              33 ms, as a camera's
//   else                                               the interval, at most 199 ms
//
// One thread.
class PresentationClock {
 public:
  static constexpr int64_t kCameraStepUs = 33'000;
  static constexpr int64_t kSlowClipUs = 200'000;
  static constexpr int64_t kLongestStepUs = 199'000;
  static constexpr int64_t kHoleUs = 1'000'000;
  static constexpr int kHoleIntervals = 5;
  static constexpr int64_t kBreakStepUs = 1'600'000;

  explicit PresentationClock(int64_t nominalIntervalUs) : nominalIntervalUs_(nominalIntervalUs) {}

  // The next frame, presented at this time of the clip. The first one starts a sequence.
  void show(int64_t presentationUs);
  // The frame shown last, once more.
  void repeat();
  // The next frame starts a sequence, whatever its time.
  void restart() { startsSequence_ = true; }

  int64_t stepFor(int64_t intervalUs) const;
  bool isHole(int64_t intervalUs) const;
  platform::TimeOfDay now() const;

  // For platform::setFrameClock; `clock` is a PresentationClock.
  static platform::TimeOfDay read(void* clock);

 private:
  int64_t nominalIntervalUs_;
  // Starts late enough for the first frame to be a break after "never" (0), whatever the engine's process did before.
  int64_t nowUs_ = 1'000'000'000;
  int64_t shownUs_ = 0;
  bool startsSequence_ = true;
};

}  // namespace noxel::tool
