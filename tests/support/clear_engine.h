// The GPU side of the clear picture alone, on this thread: motion and noise are what a test says, and every image that a
// frame was drawn through can be read.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <vector>

#include "gl/engine/gpu_engine.h"
#include "reference/clear_passes.h"
#include "support/test_engine.h"
#include "support/waves.h"

namespace noxel {

class ClearEngine {
 public:
  ClearEngine(int width, int height);
  ~ClearEngine() { DestroyGPUEngine(&gpu); }
  ClearEngine(const ClearEngine&) = delete;
  ClearEngine& operator=(const ClearEngine&) = delete;

  bool isReady() const { return gpu != nullptr && gpu->ready; }

  // previousFromCurrent: null for a frame whose motion is not known.
  const TestFrame& draw(const TestFrame& given, const View* previousFromCurrent, const View& stabilized = kStill);

  // What the newest frame was drawn through. kNextCanvas is the canvas before it.
  reference::Canvas read(Image image);  // one whose colour lies beside it: levels, and counts where there are any
  reference::Plane cells(Image image);  // luma alone
  std::vector<reference::Plane> channels(Image image);  // the four values of a texel as they are stored

  _KRGPUEngine* gpu = nullptr;
  Frame frame;  // settings, noise and tone of the next one
  TestFrame output;
  DeliveryNotes notes;  // what is asked of the next frame

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<int> queued_ = 0;
  std::atomic<uint32_t> sequence_ = 0;
  std::atomic<int> initialized_ = 1;
  std::atomic<int> ready_ = 1;
  _KRSignal callerSignal_;
};

}  // namespace noxel
