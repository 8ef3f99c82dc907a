// What comes after a frame, for the best quality: a second engine is fed the frames backwards.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "api/enhancer_engine.h"

namespace noxel {

// The frames are taken in chunks. For each the second engine starts some frames behind its end, the lead, and goes back to its
// first frame; what it then knows of each frame's future is kept, and offered to the engine that makes the pictures. Neither
// reaches over a cut. One thread.
class FramesAhead {
 public:
  // Of the blends and of the frames that wait.
  static constexpr size_t kMaxBytes = size_t{672} << 20;
  struct Reach {
    int chunk = 16;
    int lead = 12;
    int frames() const { return chunk + lead; }
  };
  // As far as the memory goes for frames of this padded size; a chunk of 0: too large.
  static Reach reachFor(int width, int height);

  FramesAhead() = default;
  ~FramesAhead();
  FramesAhead(const FramesAhead&) = delete;
  FramesAhead& operator=(const FramesAhead&) = delete;

  // False, and not to be used: memory or a second engine cannot be had.
  bool make(const noxel_config& config, int width, int height, platform::LogTarget* log, const EnhancerEngine& forward);
  // The next frame begins a chunk.
  bool chunkIsDone() const { return next_ == count_; }
  void restart() { next_ = count_ = 0; }
  // Begins a chunk: `frames` are the next one and those that follow it without a cut. They are left as they are. Ends early when
  // `stop` becomes true.
  void lookBack(unsigned char* const* frames, int count, const double* settings, const std::atomic<bool>& stop);
  // Offers the next frame's future to the engine, which is to draw that frame now.
  void offer(const EnhancerEngine& forward);

 private:
  Reach reach_;
  size_t words_ = 0;            // of a blend
  uint16_t* blends_ = nullptr;  // one a frame of the chunk
  EnhancerEngine backwards_;
  int next_ = 0;   // of the chunk's frames
  int count_ = 0;  // in this chunk
};

}  // namespace noxel
