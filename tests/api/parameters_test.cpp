#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "platform/log.h"
#include "support/log_capture.h"
#include "support/test_engine.h"

namespace noxel {
namespace {

int setFloat(TestEngine* engine, unsigned id, float value) {
  return KRSetParameter(id, &value, engine->handle);
}

TEST(Parameters, ZoomsAreLimitedAndKeptApart) {
  TestEngine engine(16, 8);
  GpuThreadContext& gpu = engine.handle->gpu;
  struct Case {
    float given;
    float stored;
  };
  for (const Case& each : {Case{0.5f, 1.0f}, Case{2.5f, 2.5f}, Case{40.0f, 32.0f}, Case{NAN, 32.0f}}) {
    for (const unsigned id : {kParamZoom, kParamZoomAlias}) {
      EXPECT_EQ(setFloat(&engine, id, each.given), 0);
      EXPECT_EQ(gpu.zoom.load(), each.stored);
      EXPECT_EQ(gpu.currentZoom.load(), each.stored);
    }
  }
  EXPECT_EQ(gpu.totalzoom.load(), -1.0f);
  EXPECT_EQ(setFloat(&engine, kParamTotalZoom, 1.5f), 0);
  EXPECT_EQ(gpu.totalzoom.load(), 1.5f);
  EXPECT_EQ(gpu.zoom.load(), 32.0f);
}

TEST(Parameters, QuadsSwitchOffWithNullAndKeepTheirCorners) {
  TestEngine engine(16, 8);
  GpuThreadContext& gpu = engine.handle->gpu;
  const float corners[8] = {-1, 1, -1, -1, 0, 1, 0, -1};
  EXPECT_EQ(KRSetParameter(kParamQuadA, corners, engine.handle), 0);
  EXPECT_EQ(gpu.quadAEnabled.load(), 1);
  EXPECT_EQ(KRSetParameter(kParamQuadA, nullptr, engine.handle), 0);
  EXPECT_EQ(gpu.quadAEnabled.load(), 0);
  EXPECT_EQ(gpu.quadA[4].load(), 0.0f);
  EXPECT_EQ(KRSetParameter(kParamQuadB, nullptr, engine.handle), 0);
  EXPECT_EQ(gpu.quadBEnabled.load(), 0);
  EXPECT_EQ(KRSetParameter(kParamForceStabilization, nullptr, engine.handle), 0);
  EXPECT_EQ(gpu.useStabilization.load(), 1);
  EXPECT_EQ(gpu.stabilizationForced.load(), 1);
  for (const unsigned id : {13u, 14u, 15u, 21u, 4096u}) EXPECT_EQ(KRSetParameter(id, corners, engine.handle), 1) << id;
}

TEST(Parameters, ThePublicIdsReachTheirWords) {
  TestEngine engine(16, 8);
  const GpuThreadContext& gpu = engine.handle->gpu;
  const auto set = [&](unsigned id, int value) { return Noxel_SetParameter(id, &value, engine.handle); };
  EXPECT_EQ(set(NOXEL_PARAMETER_STABILIZATION, 1), 0);
  EXPECT_EQ(set(NOXEL_PARAMETER_NOISE_REDUCTION, 112), 0);
  EXPECT_EQ(set(NOXEL_PARAMETER_LIGHT_MODE, 0), 0);
  EXPECT_EQ(set(NOXEL_PARAMETER_IMAGE_FORMAT, NOXEL_FORMAT_YV12), 0);
  EXPECT_EQ(gpu.useStabilization.load(), 1);
  EXPECT_EQ(gpu.noiseReductionStrength.load(), 112);
  EXPECT_EQ(gpu.lightMode.load(), 0);
  EXPECT_EQ(engine.handle->imageFormat.load(), NOXEL_FORMAT_YV12);
  EXPECT_EQ(gpu.imageFormatCopy.load(), NOXEL_FORMAT_YV12);
  struct Case {
    int given;
    int stored;
  };
  for (const Case& each : {Case{-5, 0}, Case{37, 37}, Case{100, 100}, Case{250, 100}}) {
    EXPECT_EQ(set(NOXEL_PARAMETER_EXPOSURE, each.given), 0);
    EXPECT_EQ(engine.handle->registration.exposureStrength.load(), each.stored);
  }
  EXPECT_EQ(set(5, 1), 1);
}

TEST(Parameters, VerboseNamesWhatWasGiven) {
  const LogCapture log;
  TestEngine engine(16, 8);
  engine.set(kParamContrast, 12);
  EXPECT_FALSE(log.contains("KRSetParameter"));
  debugLog = 1;
  engine.set(kParamContrast, 12);
  engine.set(kParamLightMode, 0);
  setFloat(&engine, kParamZoom, 1.25f);
  debugLog = 0;
  EXPECT_TRUE(log.contains("KRSetParameter contrast value given = 12\n"));
  EXPECT_TRUE(log.contains("Light mode parameter = 0"));
  EXPECT_TRUE(log.contains("KRSetParameter zoom value given = 1.250000\n"));
}

// 0.01 a frame in single precision until 1.16 is passed, and back.
TEST(Parameters, StabilizationEasesTheZoomInAndOut) {
  TestEngine engine(16, 8);
  NOXEL_NEEDS_GL(engine);
  engine.set(kParamStabilization, 1);
  engine.set(kParamLightMode, 0);
  TestFrame frame(16, 8);
  for (int i = 0; i < 25; ++i) {
    engine.process(&frame);
    EXPECT_NEAR(lastFrameReport(engine.handle).zoom, std::min(1.0 + 0.01 * (i + 1), 1.17), 1e-5) << i;
  }
  EXPECT_FLOAT_EQ(lastFrameReport(engine.handle).zoom, 1.1699998f);
  engine.set(kParamStabilization, 0);
  for (int i = 0; i < 18; ++i) engine.process(&frame);
  EXPECT_EQ(lastFrameReport(engine.handle).zoom, 1.0f);
}

TEST(Version, NamesTheReleaseAndTheBuild) {
  const char* version = Noxel_GetVersion();
  EXPECT_EQ(version, Noxel_GetVersion());
  char month[4] = {};
  int day = 0, year = 0, hour = 0, minute = 0, second = 0;
  EXPECT_EQ(std::sscanf(version, "Version: " NOXEL_VERSION ", Build date: %3s %d %d %d:%d:%d", month, &day, &year,
                        &hour, &minute, &second),
            6)
      << version;
}

TEST(Timer, MeasuresSpans) {
  EXPECT_EQ(KRTimeDiff(5, 9), 4u);
  EXPECT_EQ(KRTimeDiff(9, 5), 4u);
  KRTimer timer;
  KRTimerStart(&timer);
  const uint64_t running = KRTimerElapsed(&timer);
  while (KRTimerElapsed(&timer) == running) {
  }
  KRTimerStop(&timer);
  const uint64_t stopped = KRTimerElapsed(&timer);
  EXPECT_GT(stopped, running);
  EXPECT_EQ(KRTimerElapsed(&timer), stopped);
  KRTimerReset(&timer);
  EXPECT_GE(KRTimerElapsed(&timer), stopped) << "a timer that was reset runs from time 0";
}

}  // namespace
}  // namespace noxel
