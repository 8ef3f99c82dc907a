// The viewer's settings, keys and playback clock. No window, no engine.
#pragma once

#include <SDL_keycode.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "enhance/look.h"

namespace noxel::tool {

// What the keys change during playback.
struct LiveLook {
  int engineMode = kDefaultMode;                 // fixed once the engine stands
  int quality = kBalanced;                       // mode 5
  bool spatial = false;                          // else temporal
  int strength = defaultStrength(kDefaultMode);  // 0..100, as the next
  int exposure = 50;
  bool stabilize = false;  // temporal only
  bool split = false;      // left half enhanced, right half original
};

enum class Press { kNothing, kLookChanged, kPause, kQuit };

// Applies a key to the look; pausing and quitting are the caller's. `repeated`: auto-repeat, which only up and down take.
Press press(SDL_Keycode key, bool repeated, LiveLook& look);

// "temporal, balanced, strength 50, exposure 50, stabilised, split"
std::string describe(const LiveLook& look);

// Maps the clip's time to the steady clock.
class PlaybackClock {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // The frame at `clipUs` is due `now`.
  void start(Time now, int64_t clipUs) {
    start_ = now;
    startUs_ = clipUs;
  }
  Time due(int64_t clipUs) const { return start_ + std::chrono::microseconds(clipUs - startUs_); }

 private:
  Time start_;
  int64_t startUs_ = 0;
};

}  // namespace noxel::tool
