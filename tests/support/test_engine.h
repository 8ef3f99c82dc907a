// An engine under test: its frames, its clock, its motion.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "api/engine.h"
#include "platform/frame_clock.h"
#include "support/driver_required.h"

namespace noxel {

// The frame clock of the process while it lives: stands still but for advance.
class TestClock {
 public:
  TestClock();
  ~TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  void advance(double milliseconds);

 private:
  std::atomic<int64_t> microseconds;  // since 1970
};

// NV21.
struct TestFrame {
  int width;
  int height;
  std::vector<unsigned char> bytes;

  TestFrame(int columns, int rows, unsigned char luma = 16, unsigned char v = 128, unsigned char u = 128);
  TestFrame(int columns, int rows, const std::vector<unsigned char>& luma);  // grey
  unsigned char& luma(int x, int y) { return bytes[static_cast<size_t>(y * width + x)]; }
  unsigned char luma(int x, int y) const { return bytes[static_cast<size_t>(y * width + x)]; }
  unsigned char& v(int x, int y) { return bytes[chromaAt(x, y)]; }
  unsigned char& u(int x, int y) { return bytes[chromaAt(x, y) + 1]; }

 private:
  size_t chromaAt(int x, int y) const { return static_cast<size_t>(width * height + y / 2 * width + x / 2 * 2); }
};

// How the engine is run: by default as a file is enhanced, each call returning its own frame.
struct EngineSetUp {
  int mode = kModeEnhance;
  int ringSlots = 1;
  int outputDelay = 1;
  int syncWithCaller = 1;
};

class TestEngine {
 public:
  TestEngine(int width, int height, EngineSetUp setUp = {});
  ~TestEngine();
  TestEngine(const TestEngine&) = delete;
  TestEngine& operator=(const TestEngine&) = delete;

  // 33 ms after the frame before.
  int process(TestFrame* frame);
  void set(unsigned internalId, int value);
  // The registration's result for each frame from here on. Before the first frame, or between synchronous ones.
  void setMotion(std::function<bool(bool first, MotionEstimate*)> source);

  _KRSuperResEngine* handle = nullptr;
  TestClock clock;

 private:
  std::function<bool(bool, MotionEstimate*)> motion;
};

// Waits until no frame is queued, for 20 seconds at most.
bool drains(const _KRSuperResEngine* engine);

// A picture test needs a driver: skipped without one, or failed where the environment says NOXEL_REQUIRE_GL=1.
#define NOXEL_NEEDS_GL(engine)                                      \
  if (!::noxel::engineReady((engine).handle)) {                     \
    if (::noxel::driverRequired()) FAIL() << "no usable GL driver"; \
    GTEST_SKIP() << "no usable GL driver";                          \
  }                                                                 \
  static_assert(true, "a semicolon follows")

// 10 log10(255^2 / mean squared luma difference), `margin` pixels at each edge left out.
double lumaPsnr(const TestFrame& a, const TestFrame& b, int margin);

}  // namespace noxel
