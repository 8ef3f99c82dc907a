// What comes after a frame, for the clear picture of a file: a second engine is fed the clip backwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "enhance/engine_handle.h"
#include "enhance/enhancer_session.h"

namespace noxel::tool {

// The clip is taken in chunks. For each the second engine starts some frames behind its end, the lead, and goes back to its
// first frame; what it then knows of each frame's future is kept, and offered to the engine that makes the pictures. Neither
// reaches over a gap in the time stamps. One thread.
class LookAhead {
 public:
  // Of its own and of the frames that are read ahead.
  static constexpr size_t kMaxBytes = size_t{672} << 20;
  struct Reach {
    int chunk = 16;
    int lead = 12;
  };
  // As far as the memory goes for frames of this size; a chunk of 0: too large.
  static Reach reachFor(int width, int height);

  // Null when memory or a second engine cannot be had. What is given must outlive it, the clip of the settings too; the clock
  // is the one that both engines read.
  static std::unique_ptr<LookAhead> make(const EnhancerSettings& settings, const EngineHandle& engine,
                                         PresentationClock& clock);

  // Before each frame that goes through the engine, which is the clip's current one. It is left as it is.
  void offer(uint8_t* nv21);

 private:
  LookAhead(const EnhancerSettings& settings, const EngineHandle& engine, PresentationClock& clock, Reach reach);
  void goBack(uint8_t* nv21);

  ClipInput& clip_;
  const EngineHandle& engine_;
  PresentationClock& clock_;
  EngineHandle backwards_;
  const Reach reach_;
  std::vector<std::vector<uint16_t>> blends_;
  size_t next_ = 0;   // of the chunk's frames
  size_t count_ = 0;  // in this chunk
  bool begun_ = false;
};

}  // namespace noxel::tool
