#include "support/test_engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

namespace noxel {

TestClock::TestClock() : microseconds(int64_t{1'700'000'000} * 1'000'000) {
  platform::setFrameClock(
      [](void* self) {
        const int64_t now = static_cast<TestClock*>(self)->microseconds.load();
        return platform::TimeOfDay{now / 1'000'000, now % 1'000'000};
      },
      this);
}

TestClock::~TestClock() {
  platform::setFrameClock(nullptr, nullptr);
}

void TestClock::advance(double milliseconds) {
  microseconds += static_cast<int64_t>(milliseconds * 1000.0);
}

TestFrame::TestFrame(int columns, int rows, unsigned char luma, unsigned char v, unsigned char u)
    : width(columns), height(rows), bytes(frameSize(columns, rows), luma) {
  for (size_t i = static_cast<size_t>(width) * height; i + 1 < bytes.size(); i += 2) {
    bytes[i] = v;
    bytes[i + 1] = u;
  }
}

TestFrame::TestFrame(int columns, int rows, const std::vector<unsigned char>& luma) : TestFrame(columns, rows) {
  std::copy(luma.begin(), luma.end(), bytes.begin());
}

TestEngine::TestEngine(int width, int height, EngineSetUp setUp) {
  const int result = initializeEngine(width, height, setUp.mode, setUp.ringSlots, setUp.outputDelay,
                                      setUp.syncWithCaller, nullptr, &handle);
  EXPECT_EQ(result, 0);
}

TestEngine::~TestEngine() {
  if (handle != nullptr) {
    EXPECT_EQ(releaseEngine(&handle), 0);
  }
}

int TestEngine::process(TestFrame* frame) {
  clock.advance(33);
  return KRProcessFrame(frame->bytes.data(), handle);
}

void TestEngine::set(unsigned internalId, int value) {
  EXPECT_EQ(KRSetParameter(internalId, &value, handle), 0);
}

void TestEngine::setMotion(std::function<bool(bool, MotionEstimate*)> source) {
  motion = std::move(source);
  handle->registration.motionSourceContext = this;
  handle->registration.motionSource = [](void* self, const LumaImage&, bool first, MotionEstimate* estimate) {
    return static_cast<TestEngine*>(self)->motion(first, estimate);
  };
}

bool drains(const _KRSuperResEngine* engine) {
  for (int i = 0; i < 100'000 && engine->queuedFrames.load() > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return engine->queuedFrames.load() == 0;
}

double lumaPsnr(const TestFrame& a, const TestFrame& b, int margin) {
  double sum = 0.0;
  int count = 0;
  for (int y = margin; y < a.height - margin; ++y) {
    for (int x = margin; x < a.width - margin; ++x) {
      const double difference = a.luma(x, y) - b.luma(x, y);
      sum += difference * difference;
      ++count;
    }
  }
  return 10.0 * std::log10(255.0 * 255.0 * count / sum);
}

}  // namespace noxel
