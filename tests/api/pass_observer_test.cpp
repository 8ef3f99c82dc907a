// Who observes an engine's passes is told each of them and what it took.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/faults.h"
#include "support/test_engine.h"

namespace noxel {
namespace {

struct Observed {
  std::vector<std::string> passes;
  uint64_t total = 0;  // nanoseconds, as the next
  uint64_t longest = 0;

  static void note(void* self, const char* pass, uint64_t nanoseconds) {
    auto* observed = static_cast<Observed*>(self);
    observed->passes.push_back(pass);
    observed->total += nanoseconds;
    observed->longest = std::max(observed->longest, nanoseconds);
  }
};

TEST(PassObserver, IsToldWhatEachPassTookUntilItIsSwitchedOff) {
  TestEngine engine(320, 180);
  NOXEL_NEEDS_GL(engine);
  Observed observed;
  TestFrame frame(320, 180, 60);
  engine.process(&frame);
  EXPECT_TRUE(observed.passes.empty());

  ASSERT_EQ(observePasses(engine.handle, Observed::note, &observed), 0);
  const auto start = std::chrono::steady_clock::now();
  engine.process(&frame);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(observed.passes.size(), 5u);
  EXPECT_GT(observed.total, 0u);
  // The call waited for them all. Together they may take longer: a software driver draws two at once.
  EXPECT_LT(observed.longest, static_cast<uint64_t>(std::chrono::nanoseconds(elapsed).count()));
  const FrameReport report = lastFrameReport(engine.handle);
  const double callMs = std::chrono::duration<double, std::milli>(elapsed).count();
  for (const double part : {report.uploadMs, report.registrationMs, report.gpuMs}) {
    EXPECT_GT(part, 0.0);
    EXPECT_LT(part, callMs);
  }

  ASSERT_EQ(observePasses(engine.handle, nullptr, nullptr), 0);
  observed = {};
  engine.process(&frame);
  EXPECT_TRUE(observed.passes.empty());
  EXPECT_EQ(observePasses(nullptr, Observed::note, &observed), 1);
}

TEST(PassObserver, SeesPicturesInPlaceAndFramesOfAWindow) {
  using Passes = std::vector<std::string>;
  Observed observed;
  TestEngine inPlace(32, 16, {.mode = kModeSynchronousRgba});
  NOXEL_NEEDS_GL(inPlace);
  ASSERT_EQ(observePasses(inPlace.handle, Observed::note, &observed), 0);
  std::vector<unsigned char> rgba(32 * 16 * 4, 90);
  ASSERT_EQ(KRProcessFrame(rgba.data(), inPlace.handle), 0);
  EXPECT_EQ(std::exchange(observed.passes, {}), (Passes{"reduce", "halve", "smooth", "detail"}));

  FakeWindow window(32, 16);
  _KRSuperResEngine* engine = nullptr;
  ASSERT_EQ(initializeEngine(32, 16, kModeEnhance, 1, 1, 1, window.native(), &engine), 0);
  ASSERT_EQ(observePasses(engine, Observed::note, &observed), 0);
  TestFrame frame(32, 16, 60);
  EXPECT_EQ(KRProcessFrame(frame.bytes.data(), engine), 0);
  EXPECT_EQ(observed.passes, (Passes{"smooth luma", "refine luma", "light frame to RGB"}));  // nothing is packed
  EXPECT_EQ(releaseEngine(&engine), 0);
}

}  // namespace
}  // namespace noxel
