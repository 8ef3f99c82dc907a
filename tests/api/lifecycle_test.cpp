#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "api/properties.h"
#include "platform/cache_directory.h"
#include "platform/log.h"
#include "platform/properties.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "support/test_engine.h"

namespace noxel {
namespace {

TEST(Lifecycle, ReleasedAndForeignHandlesAreRefused) {
  const LogCapture log;
  TestFrame frame(16, 8, 50);
  const TestFrame untouched = frame;
  int value = 1;
  EXPECT_EQ(Noxel_ProcessFrame(frame.bytes.data(), nullptr), 1);
  EXPECT_EQ(Noxel_SetParameter(0, &value, nullptr), 1);
  EXPECT_EQ(Noxel_SetParameter(5, &value, nullptr), 1);
  EXPECT_EQ(Noxel_Release(nullptr), 1);
  _KRSuperResEngine* engine = nullptr;
  EXPECT_EQ(Noxel_Release(&engine), 1);

  ASSERT_EQ(Noxel_Initialize(16, 8, &engine), 0);
  EXPECT_EQ(Noxel_ProcessFrame(nullptr, engine), 1);
  EXPECT_EQ(Noxel_SetParameter(0, nullptr, engine), 1);
  ASSERT_EQ(Noxel_Release(&engine), 0);
  EXPECT_EQ(Noxel_ProcessFrame(frame.bytes.data(), engine), 1);
  EXPECT_EQ(Noxel_SetParameter(0, &value, engine), 1);
  EXPECT_EQ(Noxel_Release(&engine), 1);
  EXPECT_EQ(frame.bytes, untouched.bytes);
  EXPECT_TRUE(log.contains("Engine NULL"));
  EXPECT_TRUE(log.contains("Engine not initialized"));
  EXPECT_TRUE(log.contains("setparam eng == NULL"));
  EXPECT_TRUE(log.contains("eng not initialized"));
}

TEST(Lifecycle, AReleasedHandleIsNoLaterEngine) {
  const LogCapture log;
  std::vector<_KRSuperResEngine*> released;
  int value = 1;
  for (int i = 0; i < 8; ++i) {
    TestEngine engine(16, 8);
    for (_KRSuperResEngine* stale : released) {
      EXPECT_EQ(Noxel_SetParameter(0, &value, stale), 1);
      EXPECT_EQ(Noxel_Release(&stale), 1);
    }
    TestFrame frame(16, 8);
    EXPECT_EQ(engine.process(&frame), 0);
    released.push_back(engine.handle);
  }
}

TEST(Lifecycle, SizesOutOfRangeLeaveTheHandleAlone) {
  const LogCapture log;
  auto* const marker = reinterpret_cast<_KRSuperResEngine*>(uintptr_t{8});
  const int sizes[][2] = {{0, 8}, {8, 0}, {-16, 8}, {65536, 65536}, {32768, 16385}, {INT32_MAX, 1}};
  for (const auto& size : sizes) {
    _KRSuperResEngine* engine = marker;
    EXPECT_EQ(Noxel_Initialize(size[0], size[1], &engine), 1) << size[0] << " x " << size[1];
    EXPECT_EQ(engine, marker);
  }
  EXPECT_EQ(Noxel_Initialize(16, 8, nullptr), 1);
  EXPECT_TRUE(log.contains("failed to initialize engine"));
}

TEST(Lifecycle, WithoutEglFramesComeBackAsTheyCameAndTheLogSaysSo) {
  const LogCapture log;
  const FaultInjection everyCall(Fault::kEgl, 0);
  TestEngine engine(16, 8);
  const TestFrame given(16, 8, 40);
  TestFrame frame = given;
  EXPECT_EQ(engine.process(&frame), 0);
  EXPECT_EQ(frame.bytes, given.bytes);
  EXPECT_TRUE(log.contains("the GPU engine is not usable: frames are returned as they came"));
}

// What a frame becomes with the programs of this cache directory.
TestFrame enhancedWith(const std::string& directory) {
  platform::setProgramCacheDirectory(directory.c_str());
  TestFrame frame(32, 16, 60, 150, 100);
  {
    TestEngine engine(32, 16);
    engine.process(&frame);
  }
  platform::setProgramCacheDirectory(nullptr);
  return frame;
}

TEST(Lifecycle, ProgramsOfAnotherBuildAreCompiledAnew) {
  const LogCapture log;
  const TemporaryDirectory cache;
  const TestFrame expected = enhancedWith(cache.path());
  EXPECT_FALSE(log.contains("Unable to open file")) << "an empty cache is no error";
  const std::vector<std::string> names = cache.names();
  if (names.size() < 2) {
    ASSERT_FALSE(driverRequired()) << log.text();
    GTEST_SKIP() << "no usable GL driver, or one that keeps no program binaries";
  }
  // Sound files with another program in each: the luma is packed as chroma and the chroma as luma.
  std::filesystem::rename(cache.file("kr_r1"), cache.file("swapped"));
  std::filesystem::rename(cache.file("kr_r2"), cache.file("kr_r1"));
  std::filesystem::rename(cache.file("swapped"), cache.file("kr_r2"));
  std::ofstream(cache.file("fingerprint"), std::ios::trunc) << "of another build";
  EXPECT_EQ(enhancedWith(cache.path()).bytes, expected.bytes);
  EXPECT_EQ(cache.names(), names);
  EXPECT_EQ(enhancedWith(cache.path()).bytes, expected.bytes);
}

TEST(Lifecycle, ACacheOutOfReachIsOneLogLine) {
  const TemporaryDirectory cache;
  const LogCapture log;
  enhancedWith(cache.path() + "/missing/below");
  const std::vector<LogLine> lines = log.lines();
  EXPECT_LE(std::count_if(lines.begin(), lines.end(),
                          [&](const LogLine& line) { return line.message.find(cache.path()) != std::string::npos; }),
            1)
      << log.text();
}

// More frames than failed read-backs would take to count as a lost context.
constexpr int kFramesPerSize = 12;
constexpr int kRunUp = 4;  // calls until each brings a picture of its own

// An asynchronous call returns the newest picture finished: that of the call before, or, when the GPU thread overtakes the
// caller, already its own, which the next call then brings again. Two calls on it is another one in any case.
constexpr int kCallsToAnother = 2;

TEST(Lifecycle, FramesOfAnySizeAreEnhancedOrComeBackAsTheyCame) {
  const std::pair<int, int> enhanced[] = {{4, 2}, {12, 6}, {16384, 16}};
  const std::pair<int, int> returned[] = {{1, 1},  {2, 2},    {3, 3},    {3, 16}, {5, 3},    {4, 1},
                                          {13, 8}, {1001, 1}, {1, 1001}, {8, 7},  {32768, 2}};
  const auto run = [](int width, int height, int mode, int lightMode, bool isEnhanced) {
    SCOPED_TRACE(testing::Message() << width << " x " << height << ", mode " << mode << ", light mode " << lightMode);
    const LogCapture log;
    TestClock clock;
    _KRSuperResEngine* engine = nullptr;
    ASSERT_EQ(initializeEngine(width, height, mode, 2, 2, 0, nullptr, &engine), 0);
    const bool usable = engineReady(engine);
    EXPECT_TRUE(usable == isEnhanced || (isEnhanced && !driverRequired())) << log.text();
    EXPECT_EQ(KRSetParameter(kParamLightMode, &lightMode, engine), 0);
    const int exposure = mode == kModeClear ? 0 : 50;  // its tone may take two levels to one
    EXPECT_EQ(KRSetParameter(kParamExposureStrength, &exposure, engine), 0);
    std::vector<TestFrame> returnedFrames;
    for (int i = 0; i < kFramesPerSize; ++i) {
      const TestFrame given(width, height, static_cast<unsigned char>(40 + 4 * i));
      TestFrame frame = given;
      clock.advance(33);
      EXPECT_EQ(Noxel_ProcessFrame(frame.bytes.data(), engine), 0);
      EXPECT_TRUE(drains(engine));
      if (i >= (usable ? kRunUp : kCallsToAnother)) {
        EXPECT_NE(frame.bytes, returnedFrames[i - kCallsToAnother].bytes) << "frame " << i << "\n" << log.text();
      }
      if (!usable || i == kFramesPerSize - 1) {
        EXPECT_EQ(frame.bytes == given.bytes, !usable) << "frame " << i;
      }
      returnedFrames.push_back(frame);
    }
    EXPECT_FALSE(log.contains("lost")) << log.text();
    EXPECT_EQ(log.contains("frames are returned as they came"), !usable) << log.text();
    EXPECT_EQ(Noxel_Release(&engine), 0);
  };
  for (const auto& [mode, lightMode] : {std::pair{kModeEnhance, 0}, {kModeEnhance, 1}, {kModeClear, 0}}) {
    for (const auto& [width, height] : enhanced) run(width, height, mode, lightMode, true);
    for (const auto& [width, height] : returned) run(width, height, mode, lightMode, false);
  }
}

TEST(Lifecycle, AWindowTakesFramesOfAnySize) {
  const LogCapture log;
  for (const auto& [width, height] : {std::pair{1, 1}, {2, 2}, {3, 5}, {6, 2}, {5, 5}, {13, 7}, {4, 2}}) {
    for (const auto& [mode, lightMode] : {std::pair{kModeEnhance, 1}, {kModeEnhance, 0}, {kModeClear, 0}}) {
      FakeWindow window(16, 8);
      TestClock clock;
      _KRSuperResEngine* engine = nullptr;
      ASSERT_EQ(initializeEngine(width, height, mode, 2, 2, 0, window.native(), &engine), 0);
      EXPECT_TRUE(engineReady(engine) || !driverRequired()) << log.text();
      EXPECT_EQ(KRSetParameter(kParamLightMode, &lightMode, engine), 0);
      for (int i = 0; i < 3; ++i) {
        TestFrame frame(width, height, 40);
        clock.advance(33);
        EXPECT_EQ(Noxel_ProcessFrame(frame.bytes.data(), engine), 0);
        EXPECT_TRUE(drains(engine));
      }
      EXPECT_EQ(Noxel_Release(&engine), 0);
    }
  }
  EXPECT_FALSE(log.contains("as they came")) << log.text();
}

TEST(Properties, AFailedLookupIsTriedAgainAndAGoodOneKept) {
  const LogCapture log;
  static int opened;
  static bool symbolKnown;
  opened = 0;
  symbolKnown = false;
  const platform::DynamicLibraries libraries = {
      [](const char*) -> void* { return opened++ == 0 ? nullptr : &opened; },
      [](void*, const char*) -> void* {
        if (!symbolKnown) return nullptr;
        return reinterpret_cast<void*>(+[](const char* key, char* value, const char*) {
          EXPECT_STREQ(key, "persist.camera.rtsp.log");
          value[0] = '1';
          value[1] = '\0';
          return 1;
        });
      },
      [] { return "for the test"; }};
  platform::setDynamicLibraries(&libraries);
  forgetPropertyInterface();
  readDebugProperty();
  EXPECT_TRUE(log.contains("ERROR: could not dlopen libcutils.so: for the test"));
  readDebugProperty();
  EXPECT_TRUE(log.contains("ERROR: could not dlsym Link_property_get: for the test"));
  EXPECT_TRUE(log.contains("INITIALIZING INTERFACE FAILED"));
  EXPECT_EQ(debugLog.load(), 0);
  symbolKnown = true;
  readDebugProperty();
  EXPECT_EQ(debugLog.load(), 1);
  const int lookups = opened;
  readDebugProperty();
  EXPECT_EQ(opened, lookups);

  platform::setDynamicLibraries(nullptr);
  forgetPropertyInterface();
  readDebugProperty();
  EXPECT_EQ(debugLog.load(), 0);
}

}  // namespace
}  // namespace noxel
