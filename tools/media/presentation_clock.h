// The time of day that the engine sees while it processes a file.
#pragma once

#include <cstdint>

#include "platform/frame_clock.h"

namespace noxel::tool {

// The engine restarts its sequence after a step of more than 200 ms (1500 ms for its first two frames). In a file only a
// real gap should do that, not a low or uneven frame rate.
//
//   interval between frames                            clock step
//   a gap: above five nominal intervals, or
//   above 1 s and above two nominal intervals          the interval, min 1600 ms: a break
//   else, nominal interval 200 ms or more              33 ms, as from a camera
//   else                                               the interval, max 199 ms
//
// One thread.
class PresentationClock {
 public:
  static constexpr int64_t kCameraStepUs = 33'000;
  static constexpr int64_t kSlowClipUs = 200'000;
  static constexpr int64_t kMaxStepUs = 199'000;
  static constexpr int64_t kGapUs = 1'000'000;
  static constexpr int kGapIntervals = 5;
  static constexpr int64_t kBreakStepUs = 1'600'000;

  explicit PresentationClock(int64_t nominalIntervalUs) : nominalIntervalUs_(nominalIntervalUs) {}

  // Steps to the next frame, at this time in the clip. The first one starts a sequence.
  void show(int64_t presentationUs);
  // Steps by a camera's interval: the same frame again.
  void repeat();
  // Makes the next frame start a sequence.
  void restart() { startsSequence_ = true; }
  // The next frame to show follows what was repeated, whatever its time.
  void goOn() { followsRepeated_ = true; }

  int64_t stepFor(int64_t intervalUs) const;
  bool isGap(int64_t intervalUs) const;
  platform::TimeOfDay now() const;

  // For platform::setFrameClock; `clock` is a PresentationClock.
  static platform::TimeOfDay read(void* clock);

 private:
  int64_t nominalIntervalUs_;
  // Far from the engine's initial time of 0, so that the first frame is a break.
  int64_t nowUs_ = 1'000'000'000;
  int64_t shownUs_ = 0;
  bool startsSequence_ = true;
  bool followsRepeated_ = false;
};

}  // namespace noxel::tool
