// The meter and the driver's strings, through libnoxel's headers alone.
#include "noxel/meter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "support/driver_required.h"
#include "support/faults.h"
#include "support/waves.h"

namespace noxel {
namespace {

constexpr int kWidth = 322, kHeight = 241;  // padded by the library
constexpr int64_t kIntervalUs = 33'333;
constexpr double kSigma = 5;

struct Metering {
  explicit Metering(double exposure = 50) {
    noxel_config config;
    noxel_config_init(&config, sizeof(config), kWidth, kHeight);
    EXPECT_EQ(noxel_meter_create(&config, &meter), NOXEL_OK);
    EXPECT_EQ(noxel_meter_set_exposure(meter, static_cast<int>(exposure)), NOXEL_OK);
  }
  ~Metering() { noxel_meter_free(&meter); }
  noxel_frame_info measureAsRgb(const std::vector<uint8_t>& luma, int64_t timeUs) {
    std::vector<uint8_t> grey;
    for (const uint8_t level : luma) grey.insert(grey.end(), 3, level);
    noxel_frame frame;
    noxel_frame_init(&frame, sizeof(frame));
    frame.format = NOXEL_PLANES_RGB;
    frame.planes[0] = grey.data();
    frame.strides[0] = ptrdiff_t{3} * kWidth;
    frame.time_us = timeUs;
    noxel_frame_info info;
    noxel_frame_info_init(&info, sizeof(info));
    EXPECT_EQ(noxel_meter_measure(meter, &frame, &info), NOXEL_OK);
    return info;
  }
  noxel_frame_info measure(std::vector<uint8_t> luma, int64_t timeUs) {
    std::vector<uint8_t> chroma(static_cast<size_t>((kWidth + 1) / 2 * ((kHeight + 1) / 2)), 128);
    noxel_frame frame;
    noxel_frame_init(&frame, sizeof(frame));
    frame.format = NOXEL_PLANES_I420;
    frame.range = NOXEL_RANGE_FULL;
    frame.planes[0] = luma.data();
    frame.planes[1] = frame.planes[2] = chroma.data();
    frame.strides[0] = kWidth;
    frame.strides[1] = frame.strides[2] = (kWidth + 1) / 2;
    frame.tag = 7;
    frame.time_us = timeUs;
    noxel_frame_info info;
    noxel_frame_info_init(&info, sizeof(info));
    EXPECT_EQ(noxel_meter_measure(meter, &frame, &info), NOXEL_OK);
    EXPECT_EQ(info.tag, 7u);
    EXPECT_EQ(info.enhanced, 0);
    return info;
  }

  noxel_meter* meter = nullptr;
};

TEST(Meter, FindsMotionAndNoiseAndForgetsThemAtACut) {
  const Waves scene(3, 6.0);
  Metering metering;
  const auto seen = [&](int i) {
    return scene.seen(kWidth, kHeight, shifted(1.25 * i, -0.5 * i), kSigma, static_cast<unsigned>(i) + 1);
  };
  for (int i = 0; i < 12; ++i) {
    const noxel_frame_info info = metering.measure(seen(i), i * kIntervalUs);
    EXPECT_EQ(info.starts_sequence, i == 0 ? 1 : 0);
    ASSERT_EQ(info.motion_known, i == 0 ? 0 : 1);
    if (i == 0) continue;
    EXPECT_GT(info.points_kept, 20);
    // A tenth of a pixel: noise of 5 levels on some 300 points.
    EXPECT_LT(cornerError(info.previous_from_current, shifted(1.25, -0.5), kWidth, kHeight), 0.1) << "frame " << i;
    if (i < 6) continue;
    EXPECT_EQ(info.noise_known, 1);
    EXPECT_NEAR(std::sqrt(info.noise_luma[110 / 8]), kSigma, 0.75);  // as the enhancer's own tests: 15 %
  }
  const noxel_frame_info after = metering.measure(seen(40), 12 * kIntervalUs + 3'000'000);
  EXPECT_EQ(after.starts_sequence, 1);
  EXPECT_EQ(after.motion_known, 0);
  EXPECT_EQ(after.previous_from_current[2], 0);
}

TEST(Meter, BrightensADarkPictureFromItsFirstFrameOnAsFarAsItIsAskedTo) {
  const Waves scene(5, 6.0);
  std::vector<uint8_t> dark = scene.seen(kWidth, kHeight, kStill);
  for (uint8_t& level : dark) level = static_cast<uint8_t>(level / 5);
  const auto first = [&](double exposure) { return Metering(exposure).measure(dark, 0); };
  const noxel_frame_info none = first(0), half = first(50), full = first(100);
  EXPECT_LT(none.gain, half.gain);
  EXPECT_LE(half.gain, full.gain);
  for (int level = 0; level < 256; ++level) EXPECT_FLOAT_EQ(none.tone[level], static_cast<float>(level));
  EXPECT_GT(half.tone[22], 40);  // mean luma 22 becomes watchable
  EXPECT_GT(full.tone[22], half.tone[22] + 5);

  Metering metering;  // a first frame starts where the following ones stay
  const float start = metering.measure(dark, 0).gain;
  for (int i = 1; i < 6; ++i) EXPECT_NEAR(metering.measure(dark, i * kIntervalUs).gain, start, 0.01);
}

TEST(Meter, FindsTheSameInPackedRgbAsInItsLuma) {
  const Waves scene(4, 6.0);
  Metering planes, packed;
  for (int i = 0; i < 4; ++i) {
    const std::vector<uint8_t> luma =
        scene.seen(kWidth, kHeight, shifted(0.75 * i, 1.5 * i), kSigma, static_cast<unsigned>(i) + 1);
    const noxel_frame_info wanted = planes.measure(luma, i * kIntervalUs);
    const noxel_frame_info found = packed.measureAsRgb(luma, i * kIntervalUs);
    EXPECT_EQ(found.points_kept, wanted.points_kept);
    EXPECT_EQ(found.gain, wanted.gain);
    EXPECT_TRUE(std::equal(std::begin(found.noise_luma), std::end(found.noise_luma), wanted.noise_luma));
    EXPECT_TRUE(std::equal(std::begin(found.tone), std::end(found.tone), wanted.tone));
    EXPECT_TRUE(std::equal(found.previous_from_current, found.previous_from_current + 9, wanted.previous_from_current));
    EXPECT_EQ(found.motion_known, i == 0 ? 0 : 1);
  }
}

TEST(Meter, RefusesWhatItCannotMeasure) {
  noxel_config config;
  noxel_config_init(&config, sizeof(config), kWidth, 0);
  noxel_meter* meter = nullptr;
  EXPECT_EQ(noxel_meter_create(nullptr, &meter), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(noxel_meter_create(&config, &meter), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(meter, nullptr);
  noxel_meter_free(nullptr);
  noxel_meter_free(&meter);

  Metering metering;
  noxel_frame frame;
  noxel_frame_info info;
  noxel_frame_init(&frame, sizeof(frame));
  noxel_frame_info_init(&info, sizeof(info));
  EXPECT_EQ(noxel_meter_measure(metering.meter, &frame, &info), NOXEL_ERROR_ARGUMENT) << "no planes";
  EXPECT_EQ(noxel_meter_measure(metering.meter, nullptr, &info), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(noxel_meter_measure(metering.meter, &frame, nullptr), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(noxel_meter_set_exposure(metering.meter, 101), NOXEL_ERROR_ARGUMENT);
  // Sizes of one pixel are measured like any other.
  noxel_config_init(&config, sizeof(config), 1, 1);
  ASSERT_EQ(noxel_meter_create(&config, &meter), NOXEL_OK);
  unsigned char pixel[3] = {100, 128, 128};
  frame.format = NOXEL_PLANES_I420;
  for (int plane = 0; plane < 3; ++plane) {
    frame.planes[plane] = &pixel[plane];
    frame.strides[plane] = 1;
  }
  for (int i = 0; i < 3; ++i) {
    frame.time_us = i * kIntervalUs;
    EXPECT_EQ(noxel_meter_measure(meter, &frame, &info), NOXEL_OK);
    EXPECT_EQ(info.motion_known, 0);
  }
  noxel_meter_free(&meter);
}

TEST(Meter, GivesBackWhatItHadWhicheverAllocationFails) {
  noxel_config config;
  noxel_config_init(&config, sizeof(config), kWidth, kHeight);
  const auto make = [&config] {
    noxel_meter* meter = nullptr;
    const int result = noxel_meter_create(&config, &meter);
    EXPECT_EQ(result == NOXEL_OK, meter != nullptr);
    noxel_meter_free(&meter);
    return result;
  };
  int calls;
  {
    const FaultInjection counting(Fault::kMemory, -1);
    ASSERT_EQ(make(), NOXEL_OK);
    calls = counting.calls();
  }
  ASSERT_GT(calls, 5);
  for (int nth = 0; nth < calls; ++nth) {
    SCOPED_TRACE(testing::Message() << "call " << nth << " of " << calls);
    const FaultInjection once(Fault::kMemory, nth, Lasting::kOnce);
    EXPECT_EQ(make(), NOXEL_ERROR_MEMORY);
    ASSERT_EQ(held(), Held{});
  }
}

TEST(SuggestedTone, RisesSpreadsADarkHistogramAndRefusesNonsense) {
  std::vector<double> histogram(256), smoothed(256), curve(256);
  for (int level = 0; level < 60; ++level) histogram[static_cast<size_t>(level)] = 60 - level;
  ASSERT_EQ(noxel_suggest_tone(histogram.data(), 1, smoothed.data(), curve.data()), NOXEL_OK);
  EXPECT_EQ(curve[0], 0);
  EXPECT_NEAR(curve[255], 255, 1e-9);
  EXPECT_TRUE(std::is_sorted(curve.begin(), curve.end()));
  EXPECT_GT(curve[30], 45);
  double before = 0, after = 0;
  for (size_t level = 0; level < 256; ++level) before += histogram[level], after += smoothed[level];
  EXPECT_NEAR(after, before, 1e-6);
  ASSERT_EQ(noxel_suggest_tone(histogram.data(), 0, nullptr, curve.data()), NOXEL_OK);
  EXPECT_NEAR(curve[30], 30, 1e-9);

  EXPECT_EQ(noxel_suggest_tone(nullptr, 1, nullptr, curve.data()), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(noxel_suggest_tone(histogram.data(), 1.5, nullptr, curve.data()), NOXEL_ERROR_ARGUMENT);
  histogram[3] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(noxel_suggest_tone(histogram.data(), 1, nullptr, curve.data()), NOXEL_ERROR_ARGUMENT);
}

TEST(Driver, IsNamedOrItsAbsenceIsLogged) {
  std::string log;
  const auto receive = [](void* text, int, const char* message) { *static_cast<std::string*>(text) += message; };
  noxel_driver driver = {};
  EXPECT_EQ(noxel_query_driver(&driver, receive, &log), NOXEL_ERROR_ARGUMENT) << "no size";
  driver.size = sizeof(driver);
  int result = 0;
  std::thread([&] { result = noxel_query_driver(&driver, receive, &log); }).join();
  EXPECT_STRNE(driver.display, "");
  if (result == NOXEL_OK) {
    EXPECT_NE(std::string(driver.gl_version).find("OpenGL ES 3"), std::string::npos) << driver.gl_version;
    EXPECT_STRNE(driver.gl_renderer, "");
  } else {
    EXPECT_FALSE(driverRequired()) << log;
    EXPECT_EQ(result, NOXEL_ERROR_NO_GL);
    EXPECT_STREQ(driver.gl_version, "");
    EXPECT_NE(log, "");
  }
}

}  // namespace
}  // namespace noxel
