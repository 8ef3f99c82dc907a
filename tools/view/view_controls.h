// What the viewer's user can change, the keys for it, and when a clip's frames are due. No window, no engine.
#pragma once

#include <SDL_keycode.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace noxel::tool {

// The look that keys change while a clip plays.
struct LiveLook {
  bool spatial = false;  // else temporal
  int strength = 65;     // 0..100, as the next
  int exposure = 50;
  bool stabilize = false;  // has an effect on the temporal path
  bool split = false;      // left half enhanced, right half as it came
};

enum class Press { kNothing, kLookChanged, kPause, kQuit };

// Changes the look as the key says; pausing and quitting are the caller's. `repeated`: the key is being held, which
// counts for up and down alone.
Press press(SDL_Keycode key, bool repeated, LiveLook& look);

// "temporal, strength 65, exposure 50, stabilised, split"
std::string describe(const LiveLook& look);

// Where the times of a clip lie on the steady clock.
class PlaybackClock {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // From here on the frame of `clipUs` is due at `now`.
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
