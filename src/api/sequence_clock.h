// The time that an engine sees, made from presentation times.
#pragma once

#include <cstdint>

#include "platform/frame_clock.h"

namespace noxel {

// Tells cuts from slow or uneven clips, frame by frame in the order of presentation.
//
// A cut is a step back, a gap above five usual intervals, or one above 1 s and above two of them.
class CutFinder {
 public:
  // usualUs: 0, to be taken from the frames.
  explicit CutFinder(int64_t usualUs) : givenUs_(usualUs), usualUs_(usualUs) {}

  // Whether the frame at this time begins a sequence: the first one does.
  bool next(int64_t timeUs);
  // The next frame is a first one.
  void restart() { begins_ = true; }
  // From the frame before, of the frame that was given last.
  int64_t intervalUs() const { return intervalUs_; }
  bool isSlow() const { return usualUs_ >= kSlowUs; }

 private:
  static constexpr int64_t kSlowUs = 200'000;
  bool isGap(int64_t intervalUs) const;

  int64_t givenUs_;
  int64_t usualUs_;
  int64_t lastUs_ = 0;
  int64_t intervalUs_ = 0;
  bool begins_ = true;
};

// The engine restarts its sequence after a step of more than 200 ms, 1500 ms for its first two frames: only a cut is to do that.
class SequenceClock {
 public:
  // A step that begins a sequence.
  void cut() { nowUs_ += 1'600'000; }
  // A step to a frame of the same sequence, at this distance. In a slow clip as from a camera.
  void step(int64_t intervalUs, bool slow);
  // As from a camera.
  void stepOnce() { step(33'000, true); }

  // For EngineHost; `clock` is a SequenceClock.
  static platform::TimeOfDay read(void* clock);

 private:
  // Far from the engine's initial time of 0, so that the first frame is a break.
  int64_t nowUs_ = 1'000'000'000;
};

}  // namespace noxel
