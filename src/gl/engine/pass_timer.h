// What each pass of a frame takes, for whoever asks.
#pragma once

#include <cstdint>

#include "gl/runtime/egl_engine.h"
#include "gl/runtime/gl.h"

namespace noxel {

// Called on the GPU thread once for each pass of a frame, in the order in which they were drawn, before the frame is delivered.
// 0 nanoseconds: not known.
using PassObserver = void (*)(void* context, const char* pass, uint64_t nanoseconds);

// GPU timer queries where the driver has GL_EXT_disjoint_timer_query, else glFinish before and after each pass. Costs nothing
// unless a frame is observed; an observed frame waits for its passes. GPU thread only; the destructor deletes the queries.
class PassTimer {
 public:
  PassTimer() = default;
  ~PassTimer();
  PassTimer(const PassTimer&) = delete;
  PassTimer& operator=(const PassTimer&) = delete;

  void setUp(EGLEngine* egl);  // once, with the context current

  // A null observer: the frame is not observed, and the calls below do nothing.
  void beginFrame(PassObserver frameObserver, void* observerContext);
  void begin(const char* pass);
  void end();
  void report();  // tells the observer; once a frame

 private:
  static constexpr int kMaxPasses = 32;  // of a frame; more are not timed

  bool isTiming() const { return observer_ != nullptr && count_ < kMaxPasses; }

  bool hasQueries_ = false;
  PassObserver observer_ = nullptr;
  void* context_ = nullptr;
  int count_ = 0;
  const char* names_[kMaxPasses] = {};
  uint64_t nanoseconds_[kMaxPasses] = {};
  uint64_t start_ = 0;
  GLuint queries_[kMaxPasses] = {};  // made with the first frame that is observed
};

}  // namespace noxel
