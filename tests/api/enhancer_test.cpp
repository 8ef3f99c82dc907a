// libnoxel through its header alone, but for faults and what is counted.
#include "noxel/enhancer.h"

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/egl_display.h"
#include "support/driver_required.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "support/waves.h"

namespace noxel {
namespace {

constexpr int kWidth = 160, kHeight = 96;
constexpr int64_t kIntervalUs = 33'333;

bool isPackedRgb(int format) {
  return format == NOXEL_PLANES_RGB || format == NOXEL_PLANES_BGR;
}

// A frame of any format with rows that are longer than the picture and, if `upwards`, follow each other backwards.
struct Planes {
  noxel_frame frame = {};
  std::vector<unsigned char> bytes[3];

  Planes(int width, int height, int format, int range = NOXEL_RANGE_FULL, int padding = 0, bool upwards = false) {
    noxel_frame_init(&frame, sizeof(frame));
    frame.format = format;
    frame.range = range;
    const int columns = (width + 1) / 2, rows = (height + 1) / 2;
    const bool pairs = format == NOXEL_PLANES_NV12 || format == NOXEL_PLANES_NV21;
    const bool packedRgb = isPackedRgb(format);
    for (int plane = 0; plane < (packedRgb ? 1 : pairs ? 2 : 3); ++plane) {
      const int stride = (plane > 0 ? (pairs ? 2 * columns : columns) : packedRgb ? 3 * width : width) + padding;
      const int lines = plane == 0 ? height : rows;
      bytes[plane].assign(static_cast<size_t>(stride) * static_cast<size_t>(lines), 0xA5);
      frame.planes[plane] = bytes[plane].data() + (upwards ? stride * (lines - 1) : 0);
      frame.strides[plane] = upwards ? -stride : stride;
    }
  }
  unsigned char& luma(int x, int y) { return frame.planes[0][y * frame.strides[0] + x]; }
  // 0: red, 1: green, 2: blue.
  unsigned char& colour(int channel, int x, int y) {
    return luma(3 * x + (frame.format == NOXEL_PLANES_RGB ? channel : 2 - channel), y);
  }
  // 0: U, 1: V.
  unsigned char& chroma(int component, int x, int y) {
    switch (frame.format) {
      case NOXEL_PLANES_NV12:
        return frame.planes[1][y * frame.strides[1] + 2 * x + component];
      case NOXEL_PLANES_NV21:
        return frame.planes[1][y * frame.strides[1] + 2 * x + 1 - component];
      case NOXEL_PLANES_I420:
        return frame.planes[1 + component][y * frame.strides[1 + component] + x];
      default:
        return frame.planes[2 - component][y * frame.strides[2 - component] + x];
    }
  }
};

std::mutex logMutex;

struct Enhancement {
  explicit Enhancement(int columns = kWidth, int rows = kHeight) : width(columns), height(rows) {
    noxel_config_init(&config, sizeof(config), width, height);
    config.log = [](void* text, int, const char* message) {
      const std::lock_guard lock(logMutex);
      *static_cast<std::string*>(text) += std::string(message) + "\n";
    };
    config.log_context = &log;
  }
  ~Enhancement() { noxel_free(&enhancer); }

  // Failures but a missing driver are the test's.
  bool made() {
    const int result = noxel_create(&config, &enhancer);
    EXPECT_TRUE(result == NOXEL_OK || (result == NOXEL_ERROR_NO_GL && !driverRequired())) << result << log;
    if (result != NOXEL_OK) return false;
    EXPECT_EQ(noxel_set(enhancer, NOXEL_EXPOSURE, neutral ? 0 : 50), NOXEL_OK);
    return true;
  }
  int send(const std::vector<uint8_t>& luma, uint64_t tag, int64_t timeUs) {
    Planes planes(width, height, NOXEL_PLANES_NV12);
    std::copy(luma.begin(), luma.end(), planes.bytes[0].begin());
    std::fill(planes.bytes[1].begin(), planes.bytes[1].end(), 128);
    planes.frame.tag = tag;
    planes.frame.time_us = timeUs;
    return noxel_send(enhancer, &planes.frame);
  }
  int receive(Planes* planes, noxel_frame_info* info) {
    noxel_frame_info_init(info, sizeof(*info));
    return noxel_receive(enhancer, &planes->frame, info);
  }

  int width, height;
  bool neutral = true;
  noxel_config config = {};
  noxel_enhancer* enhancer = nullptr;
  std::string log;
};

double meanSquare(const std::vector<unsigned char>& a, const std::vector<uint8_t>& b) {
  double sum = 0;
  for (size_t i = 0; i < b.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return sum / static_cast<double>(b.size());
}

constexpr double kSigma = 6;

struct Result {
  std::vector<noxel_frame_info> infos;
  std::vector<double> meanSquares;
};

// Sends `count` noisy frames of a scene that stands still and receives what there is meanwhile, then the rest.
Result enhanceStill(Enhancement& enhancement, int count, uint64_t firstTag = 0) {
  static const Waves scene(7, 6.0);
  const std::vector<uint8_t> clean = scene.seen(enhancement.width, enhancement.height, kStill);
  Result result;
  Planes out(enhancement.width, enhancement.height, NOXEL_PLANES_NV12);
  noxel_frame_info info;
  const auto receiveAll = [&] {
    int got;
    while ((got = enhancement.receive(&out, &info)) == NOXEL_OK) {
      result.infos.push_back(info);
      result.meanSquares.push_back(meanSquare(out.bytes[0], clean));
    }
    return got;
  };
  for (int i = 0; i < count; ++i) {
    const auto noisy = scene.seen(enhancement.width, enhancement.height, kStill, kSigma, static_cast<unsigned>(i) + 1);
    EXPECT_EQ(enhancement.send(noisy, firstTag + static_cast<uint64_t>(i), i * kIntervalUs), NOXEL_OK);
    EXPECT_EQ(receiveAll(), NOXEL_AGAIN);
    const int held = i + 1 - static_cast<int>(result.infos.size());
    EXPECT_LE(held, noxel_latency_frames(enhancement.enhancer)) << "after frame " << i;
  }
  EXPECT_EQ(noxel_flush(enhancement.enhancer), NOXEL_OK);
  EXPECT_EQ(receiveAll(), NOXEL_END);
  return result;
}

TEST(Enhancer, EveryFrameComesBackInOrderAndCleaner) {
  for (const int quality : {NOXEL_QUALITY_FAST, NOXEL_QUALITY_BALANCED, NOXEL_QUALITY_BEST}) {
    SCOPED_TRACE(quality);
    Enhancement enhancement;
    enhancement.config.quality = quality;
    if (!enhancement.made()) GTEST_SKIP();
    for (int run = 0; run < 2; ++run) {  // what follows a flush is a sequence of its own
      const Result result = enhanceStill(enhancement, 36, 1000);
      ASSERT_EQ(result.infos.size(), 36u);
      for (size_t i = 0; i < 36; ++i) {
        const noxel_frame_info& info = result.infos[i];
        EXPECT_EQ(info.tag, 1000 + i);
        EXPECT_EQ(info.time_us, static_cast<int64_t>(i) * kIntervalUs);
        EXPECT_EQ(info.enhanced, 1);
        EXPECT_EQ(info.starts_sequence, i == 0 ? 1 : 0);
        // Of 16 frames a sixteenth of the noise is left at best; texture costs some of it. Frame 0 is as clean as the others.
        EXPECT_LT(result.meanSquares[i], kSigma * kSigma / 5) << "frame " << i;
      }
      const noxel_frame_info& late = result.infos[30];
      EXPECT_EQ(late.motion_known, 1);
      EXPECT_NEAR(late.previous_from_current[2], 0.0, 0.1);
      EXPECT_EQ(late.noise_known, 1);
      EXPECT_NEAR(std::sqrt(late.noise_luma[110 / 8]), kSigma, 1.0);
    }
  }
}

// Sends 16 frames of a moving scene in groups, receives each group before the next: with more than one in a group a frame is
// registered while the one before it is drawn. A setting changes, a cut comes and frames are forgotten on the way.
std::vector<std::pair<noxel_frame_info, std::vector<unsigned char>>> enhanceInGroups(Enhancement& enhancement,
                                                                                     int group) {
  // Made beforehand: the frames of a group are to arrive faster than they are enhanced.
  static const std::vector<std::vector<uint8_t>> views = [] {
    const Waves scene(9, 6.0);
    std::vector<std::vector<uint8_t>> made;
    for (int i = 0; i < 24; ++i) {
      made.push_back(scene.seen(kWidth, kHeight, shifted(1.5 * i, 0.75 * i), kSigma, static_cast<unsigned>(i) + 1));
      for (uint8_t& level : made.back()) level /= 4;  // as dark as needs brightening
    }
    return made;
  }();
  std::vector<std::pair<noxel_frame_info, std::vector<unsigned char>>> results;
  Planes out(kWidth, kHeight, NOXEL_PLANES_NV12);
  const auto send = [&](int i, int64_t timeUs) {
    EXPECT_EQ(enhancement.send(views[static_cast<size_t>(i)], static_cast<uint64_t>(i), timeUs), NOXEL_OK);
  };
  for (int i = 0; i < 16; ++i) {
    if (i == 6) noxel_set(enhancement.enhancer, NOXEL_EXPOSURE, 90);
    if (i == 9) noxel_set(enhancement.enhancer, NOXEL_PER_FRAME, 1);
    if (i == 11) noxel_set(enhancement.enhancer, NOXEL_PER_FRAME, 0);
    send(i, i * kIntervalUs + (i < 4 ? 0 : 5'000'000));
    if ((i + 1) % group != 0) continue;
    std::pair<noxel_frame_info, std::vector<unsigned char>> result;
    while (enhancement.receive(&out, &result.first) == NOXEL_OK) {
      result.second = out.bytes[0];
      results.push_back(result);
    }
    if (i + 1 != 12) continue;
    for (int k = 20; k < 20 + group; ++k) send(k, k * kIntervalUs + 5'000'000);
    EXPECT_EQ(noxel_reset(enhancement.enhancer), NOXEL_OK);
  }
  return results;
}

TEST(Enhancer, RegisteringAFrameWhileTheOneBeforeIsDrawnChangesNothing) {
  for (const int mode : {NOXEL_MODE_CLEAR, NOXEL_MODE_ENHANCE}) {
    SCOPED_TRACE(mode);
    Enhancement single, grouped;
    for (Enhancement* enhancement : {&single, &grouped}) {
      enhancement->config.mode = mode;
      enhancement->config.lead_in = 0;
      if (!enhancement->made()) GTEST_SKIP();
      noxel_set(enhancement->enhancer, NOXEL_STABILIZE, 1);
    }
    const auto one = enhanceInGroups(single, 1), more = enhanceInGroups(grouped, 4);
    ASSERT_EQ(one.size(), 16u);
    ASSERT_EQ(more.size(), 16u);
    for (size_t i = 0; i < one.size(); ++i) {
      SCOPED_TRACE(i);
      const noxel_frame_info &a = one[i].first, &b = more[i].first;
      EXPECT_EQ(b.tag, a.tag);
      EXPECT_EQ(b.starts_sequence, i == 0 || i == 4 || i == 11 || i == 12 ? 1 : 0);
      if (i >= 12)
        continue;  // how many of the forgotten frames had been enhanced before is chance; exposure goes on from them
      EXPECT_EQ(std::tie(b.starts_sequence, b.motion_known, b.points_kept, b.gain),
                std::tie(a.starts_sequence, a.motion_known, a.points_kept, a.gain));
      EXPECT_TRUE(std::equal(std::begin(a.noise_luma), std::end(a.noise_luma), b.noise_luma));
      EXPECT_TRUE(std::equal(a.stabilized_from_current, a.stabilized_from_current + 9, b.stabilized_from_current));
      EXPECT_EQ(more[i].second, one[i].second);
    }
  }
}

TEST(Enhancer, CutsSeekAndShortClipsLeaveNoTrace) {
  Enhancement enhancement;
  if (!enhancement.made()) GTEST_SKIP();
  const std::vector<uint8_t> before(kWidth * kHeight, 60), after(kWidth * kHeight, 90);
  int64_t time = 0;
  for (int i = 0; i < 6; ++i) EXPECT_EQ(enhancement.send(before, 1, time += kIntervalUs), NOXEL_OK);
  EXPECT_EQ(enhancement.send(after, 2, time += 2'000'000), NOXEL_OK);
  EXPECT_EQ(enhancement.send(before, 3, time - 500'000), NOXEL_OK);  // a step back
  EXPECT_EQ(noxel_flush(enhancement.enhancer), NOXEL_OK);
  EXPECT_EQ(enhancement.send(after, 4, time), NOXEL_AGAIN) << "the flush is not over";
  Planes out(kWidth, kHeight, NOXEL_PLANES_NV12);
  noxel_frame_info info;
  std::vector<uint64_t> tags;
  while (enhancement.receive(&out, &info) == NOXEL_OK) {
    const auto& wanted = info.tag == 2 ? after : before;
    EXPECT_LT(meanSquare(out.bytes[0], wanted), 0.3) << info.tag;
    EXPECT_EQ(info.starts_sequence, tags.empty() || info.tag != 1 ? 1 : 0);
    tags.push_back(info.tag);
  }
  EXPECT_EQ(tags, (std::vector<uint64_t>{1, 1, 1, 1, 1, 1, 2, 3}));

  for (int i = 0; i < 20; ++i) EXPECT_EQ(enhancement.send(before, 5, i * kIntervalUs), NOXEL_OK);
  EXPECT_EQ(noxel_reset(enhancement.enhancer), NOXEL_OK);
  EXPECT_EQ(enhancement.receive(&out, &info), NOXEL_AGAIN) << "what was sent is forgotten";
  EXPECT_EQ(enhancement.send(after, 6, 20 * kIntervalUs), NOXEL_OK);
  EXPECT_EQ(noxel_flush(enhancement.enhancer), NOXEL_OK);
  ASSERT_EQ(enhancement.receive(&out, &info), NOXEL_OK);
  EXPECT_EQ(info.tag, 6u);
  EXPECT_EQ(info.starts_sequence, 1);
  EXPECT_LT(meanSquare(out.bytes[0], after), 0.3);
  EXPECT_EQ(enhancement.receive(&out, &info), NOXEL_END);
}

TEST(Enhancer, CodesOfEveryFormatAndSizeSurvive) {
  for (const auto& [width, height] : {std::pair{1, 1}, {2, 3}, {33, 17}, {kWidth, kHeight}}) {
    for (int mode : {NOXEL_MODE_CLEAR, NOXEL_MODE_NEUTRAL_EXPOSURE}) {
      Enhancement enhancement(width, height);
      enhancement.config.mode = mode;
      enhancement.config.lead_in = 0;
      if (!enhancement.made()) GTEST_SKIP();
      EXPECT_EQ(noxel_latency_frames(enhancement.enhancer), 0);
      EXPECT_EQ(noxel_set(enhancement.enhancer, NOXEL_STRENGTH, 0), NOXEL_OK);
      for (int format = NOXEL_PLANES_NV12; format <= NOXEL_PLANES_YV12; ++format) {
        for (const int range : {NOXEL_RANGE_LIMITED, NOXEL_RANGE_FULL}) {
          SCOPED_TRACE(testing::Message()
                       << width << " x " << height << " mode " << mode << " format " << format << " range " << range);
          const int low = range == NOXEL_RANGE_LIMITED ? 16 : 0, high = range == NOXEL_RANGE_LIMITED ? 235 : 255;
          Planes given(width, height, format, range, 5, format == NOXEL_PLANES_I420);
          Planes back(width, height, NOXEL_PLANES_YV12 - format, range, 3);
          for (Planes* planes : {&given, &back}) planes->frame.matrix = NOXEL_MATRIX_BT709;
          for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x)
              given.luma(x, y) = static_cast<unsigned char>(low + (7 * x + 11 * y) % (high - low + 1));
          }
          // Mode 3 goes through RGB, where only moderate colours are inside.
          for (int y = 0; y < (height + 1) / 2; ++y) {
            for (int x = 0; x < (width + 1) / 2; ++x) {
              given.chroma(0, x, y) =
                  static_cast<unsigned char>(mode == NOXEL_MODE_CLEAR ? 16 + (13 * x + y) % 225 : 128);
              given.chroma(1, x, y) =
                  static_cast<unsigned char>(mode == NOXEL_MODE_CLEAR ? 240 - (x + 17 * y) % 225 : 128);
            }
          }
          const auto untouched = given.bytes[0];
          ASSERT_EQ(noxel_send(enhancement.enhancer, &given.frame), NOXEL_OK);
          noxel_frame_info info;
          ASSERT_EQ(enhancement.receive(&back, &info), NOXEL_OK);
          EXPECT_EQ(given.bytes[0], untouched);
          int worst = 0, worstChroma = 0;
          // Mode 3 smooths through its B-spline: only the mean of its luma is told here.
          double sums[2] = {};
          for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
              worst = std::max(worst, std::abs(back.luma(x, y) - given.luma(x, y)));
              sums[0] += given.luma(x, y);
              sums[1] += back.luma(x, y);
            }
          }
          for (int i = 0; i < 2 * ((width + 1) / 2) * ((height + 1) / 2); ++i) {
            const int x = i / 2 % ((width + 1) / 2), y = i / 2 / ((width + 1) / 2);
            worstChroma = std::max(worstChroma, std::abs(back.chroma(i % 2, x, y) - given.chroma(i % 2, x, y)));
          }
          if (mode == NOXEL_MODE_CLEAR) {
            EXPECT_EQ(worst, 0);
            EXPECT_EQ(worstChroma, 0);
          } else {
            EXPECT_NEAR(sums[0] / (width * height), sums[1] / (width * height), 3.0);
            EXPECT_LE(worstChroma, 2);
          }
          EXPECT_EQ(back.bytes[0].back(), 0xA5) << "beside the picture nothing is written";
        }
      }
    }
  }
}

// Y, U and V of full range, from the matrices' definitions.
std::array<double, 3> codedYuv(int matrix, const std::array<double, 3>& rgb) {
  const double weights[2][2] = {{0.299, 0.114}, {0.2126, 0.0722}};
  const auto& [red, blue] = weights[matrix];
  const double y = red * rgb[0] + (1 - red - blue) * rgb[1] + blue * rgb[2];
  return {y, 128 + (rgb[2] - y) / (2 * (1 - blue)), 128 + (rgb[0] - y) / (2 * (1 - red))};
}

// A colour whose brightness, and nothing else, changes from pixel to pixel: chroma is the same everywhere.
void drawShaded(const std::array<double, 3>& colour, int width, int height, Planes* planes) {
  const bool full = planes->frame.range == NOXEL_RANGE_FULL;
  const auto code = [full](double value, int middle, int limitedMiddle, int span) {
    return static_cast<unsigned char>(std::lround(full ? value : (value - middle) * span / 255 + limitedMiddle));
  };
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double added = (7 * x + 11 * y) % 40;
      const std::array<double, 3> rgb = {colour[0] + added, colour[1] + added, colour[2] + added};
      if (isPackedRgb(planes->frame.format)) {
        for (int k = 0; k < 3; ++k) planes->colour(k, x, y) = static_cast<unsigned char>(rgb[k]);
        continue;
      }
      const std::array<double, 3> yuv = codedYuv(planes->frame.matrix, rgb);
      planes->luma(x, y) = code(yuv[0], 0, 16, 219);
      for (int k = 0; k < 2; ++k) planes->chroma(k, x / 2, y / 2) = code(yuv[1 + k], 128, 128, 224);
    }
  }
}

TEST(Enhancer, PackedRgbGoesInAndComesOutBesideEveryOtherFormat) {
  constexpr int kFormats[] = {NOXEL_PLANES_NV12, NOXEL_PLANES_NV21, NOXEL_PLANES_I420,
                              NOXEL_PLANES_YV12, NOXEL_PLANES_RGB,  NOXEL_PLANES_BGR};
  for (const auto& [width, height] : {std::pair{1, 1}, {2, 3}, {33, 17}, {kWidth, kHeight}}) {
    Enhancement enhancement(width, height);
    enhancement.config.lead_in = 0;
    if (!enhancement.made()) GTEST_SKIP();
    EXPECT_EQ(noxel_set(enhancement.enhancer, NOXEL_STRENGTH, 0), NOXEL_OK);
    for (int run = 0; run < 36; ++run) {
      const int from = kFormats[run / 6], to = kFormats[run % 6];
      if (!isPackedRgb(from) && !isPackedRgb(to)) continue;
      SCOPED_TRACE(testing::Message() << width << " x " << height << " from " << from << " to " << to);
      const bool upwards = run % 5 == 0;
      Planes given(width, height, from, run % 2, 5, upwards);
      Planes back(width, height, to, run / 6 % 2, 5, upwards), wanted(width, height, to, run / 6 % 2, 5, upwards);
      given.frame.matrix = run / 2 % 2;
      back.frame.matrix = wanted.frame.matrix = run / 3 % 2;
      const std::array<double, 3> colour = {20.0 + 24 * (run % 8), 150.0 - 17 * (run % 7), 40.0 + 31 * (run % 4)};
      for (Planes* planes : {&given, &wanted}) drawShaded(colour, width, height, planes);
      for (Planes* planes : {&given, &back}) {
        if (!isPackedRgb(planes->frame.format)) continue;
        planes->frame.range = 77;  // neither is read
        planes->frame.matrix = run % 2 == 0 ? -1 : NOXEL_MATRIX_BT709;
      }
      given.frame.time_us = 10'000'000 * run;  // a cut: a picture of its own
      const auto untouched = given.bytes[0];
      ASSERT_EQ(noxel_send(enhancement.enhancer, &given.frame), NOXEL_OK);
      EXPECT_EQ(given.bytes[0], untouched);
      Planes& out = from == to ? given : back;  // in place
      noxel_frame_info info;
      ASSERT_EQ(enhancement.receive(&out, &info), NOXEL_OK);
      // Half a code of luma, half of chroma by 1.772, and a rounding: 1. Limited codes are coarser by 1.16 and matrices round
      // once more: 3. Red and blue exchanged, and another matrix's colours, are off by 10 and more.
      const int tolerance = isPackedRgb(from) && isPackedRgb(to) ? 1 : 3;
      for (int plane = 0; plane < 3; ++plane) {
        int worst = 0;  // of what is beside the picture, too
        for (size_t i = 0; i < wanted.bytes[plane].size(); ++i)
          worst = std::max(worst, std::abs(out.bytes[plane][i] - wanted.bytes[plane][i]));
        EXPECT_LE(worst, tolerance) << "plane " << plane;
      }
    }
  }
}

// Grey patches of pure colour, from the definitions of both matrices in RGB.
TEST(Enhancer, TurnsOneMatrixIntoTheOther) {
  Enhancement enhancement(16, 8);
  enhancement.config.lead_in = 0;
  if (!enhancement.made()) GTEST_SKIP();
  EXPECT_EQ(noxel_set(enhancement.enhancer, NOXEL_STRENGTH, 0), NOXEL_OK);
  for (const auto& rgb : {std::to_array<double>({200, 60, 90}), {40, 180, 70}, {90, 80, 210}, {100, 100, 100}}) {
    const auto from = codedYuv(NOXEL_MATRIX_BT709, rgb), to = codedYuv(NOXEL_MATRIX_BT601, rgb);
    Planes given(16, 8, NOXEL_PLANES_I420), back(16, 8, NOXEL_PLANES_NV21);
    given.frame.matrix = NOXEL_MATRIX_BT709;
    for (int plane = 0; plane < 3; ++plane) {
      std::fill(given.bytes[plane].begin(), given.bytes[plane].end(),
                static_cast<unsigned char>(std::lround(from[plane])));
    }
    given.frame.time_us += 10'000'000;  // a cut: a colour of its own
    ASSERT_EQ(noxel_send(enhancement.enhancer, &given.frame), NOXEL_OK);
    noxel_frame_info info;
    ASSERT_EQ(enhancement.receive(&back, &info), NOXEL_OK);
    // The input is rounded to codes, and so is the output.
    EXPECT_NEAR(back.luma(5, 5), to[0], 1.2);
    EXPECT_NEAR(back.chroma(0, 3, 3), to[1], 1.2);
    EXPECT_NEAR(back.chroma(1, 3, 3), to[2], 1.2);
  }
}

TEST(Enhancer, LiveNeverWaitsAndDropsInstead) {
  Enhancement enhancement;
  enhancement.config.delivery = NOXEL_LIVE;
  enhancement.config.quality = NOXEL_QUALITY_BEST;
  if (!enhancement.made()) GTEST_SKIP();
  const std::vector<uint8_t> luma(kWidth * kHeight, 70);
  Planes out(kWidth, kHeight, NOXEL_PLANES_NV12);
  noxel_frame_info info;
  EXPECT_EQ(enhancement.receive(&out, &info), NOXEL_AGAIN);
  uint64_t sent = 0;
  std::vector<uint64_t> dropped;
  {
    const StalledGpu stalled;
    EXPECT_EQ(enhancement.send(luma, sent++, 0), NOXEL_OK);
    ASSERT_TRUE(stalled.isHolding());
    const auto start = std::chrono::steady_clock::now();
    for (; sent < 10; ++sent) {
      if (enhancement.send(luma, sent, static_cast<int64_t>(sent) * kIntervalUs) == NOXEL_DROPPED)
        dropped.push_back(sent);
      EXPECT_EQ(enhancement.receive(&out, &info), NOXEL_AGAIN);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "while the GPU hangs";
  }
  EXPECT_EQ(dropped.size(), 8u) << "one is in the GPU, one waits";
  EXPECT_EQ(noxel_flush(enhancement.enhancer), NOXEL_OK);
  int result = NOXEL_AGAIN;
  std::vector<uint64_t> tags;
  for (int i = 0; i < 10'000 && result != NOXEL_END; ++i) {
    result = enhancement.receive(&out, &info);
    if (result == NOXEL_OK) tags.push_back(info.tag);
    if (result == NOXEL_AGAIN) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(result, NOXEL_END);
  ASSERT_FALSE(tags.empty());
  EXPECT_EQ(tags.back(), 1u) << "the newest one that was taken";
}

TEST(Enhancer, SettingsDescribeThemselvesAndAreChecked) {
  Enhancement enhancement;
  enhancement.neutral = false;
  if (!enhancement.made()) GTEST_SKIP();
  noxel_enhancer* const enhancer = enhancement.enhancer;
  size_t count = 0;
  const noxel_setting_info* settings = noxel_settings(&count);
  for (size_t i = 0; i < count; ++i) {
    const noxel_setting_info& setting = settings[i];
    SCOPED_TRACE(setting.name);
    EXPECT_EQ(noxel_setting(setting.name), &setting);
    double value = -1;
    EXPECT_EQ(noxel_get(enhancer, setting.id, &value), NOXEL_OK);
    EXPECT_EQ(value, setting.initial);
    for (const double edge : {setting.minimum, setting.maximum}) {
      EXPECT_EQ(noxel_set(enhancer, setting.id, edge), NOXEL_OK);
      EXPECT_EQ(noxel_get(enhancer, setting.id, &value), NOXEL_OK);
      EXPECT_EQ(value, edge);
    }
    for (const double wrong : {setting.minimum - 1, setting.maximum + 1, std::nan("")}) {
      EXPECT_EQ(noxel_set(enhancer, setting.id, wrong), NOXEL_ERROR_ARGUMENT);
    }
    EXPECT_EQ(noxel_set(enhancer, setting.id, setting.minimum + 0.5),
              setting.type == NOXEL_SETTING_FLOAT ? NOXEL_OK : NOXEL_ERROR_ARGUMENT);
  }
  double value = 0;
  for (const auto& [name, text, wanted] : {std::tuple{"quality", "best", 2.0},
                                           {"quality", "0", 0.0},
                                           {"stabilize", "true", 1.0},
                                           {"zoom", "1.25", 1.25}}) {
    EXPECT_EQ(noxel_set_text(enhancer, name, text), NOXEL_OK);
    EXPECT_EQ(noxel_get(enhancer, noxel_setting(name)->id, &value), NOXEL_OK);
    EXPECT_EQ(value, wanted);
  }
  for (const auto& [name, text] :
       {std::pair{"quality", "finest"}, {"strength", "12x"}, {"strength", ""}, {"hue", "1"}}) {
    EXPECT_EQ(noxel_set_text(enhancer, name, text), NOXEL_ERROR_ARGUMENT) << name << text;
  }
}

TEST(Enhancer, RefusesWhatMakesNoSense) {
  const auto created = [](auto change) {
    noxel_config config;
    EXPECT_EQ(noxel_config_init(&config, sizeof(config), 16, 8), NOXEL_OK);
    change(config);
    noxel_enhancer* enhancer = nullptr;
    const int result = noxel_create(&config, &enhancer);
    EXPECT_EQ(enhancer, nullptr);
    noxel_free(&enhancer);
    return result;
  };
  int window = 0;
  EXPECT_EQ(created([](noxel_config& config) { config.width = 0; }), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(created([](noxel_config& config) { config.width = config.height = 1 << 20; }), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(created([](noxel_config& config) { config.mode = 6; }), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(created([](noxel_config& config) { config.quality = 3; }), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(created([](noxel_config& config) { config.size = 3; }), NOXEL_ERROR_ARGUMENT);
  EXPECT_EQ(created([&](noxel_config& config) { config.window = &window; }), NOXEL_ERROR_UNSUPPORTED);
  {
    const FaultInjection noDriver(Fault::kEgl, 0);
    EXPECT_EQ(created([](noxel_config&) {}), NOXEL_ERROR_NO_GL);
  }
  Enhancement enhancement(16, 8);
  if (!enhancement.made()) GTEST_SKIP();
  for (int wrong = 0; wrong < 8; ++wrong) {
    Planes planes(16, 8, wrong < 6 ? NOXEL_PLANES_I420 : NOXEL_PLANES_RGB);
    if (wrong == 0) planes.frame.format = 9;
    if (wrong == 1) planes.frame.range = 2;
    if (wrong == 2) planes.frame.planes[2] = nullptr;
    if (wrong == 3) planes.frame.strides[1] = 7;
    if (wrong == 4) planes.frame.size = 8;
    if (wrong == 5) planes.frame.format = NOXEL_PLANES_RGBA;  // in mode 4 only
    if (wrong == 6) planes.frame.planes[0] = nullptr;
    if (wrong == 7) planes.frame.strides[0] = 3 * 16 - 1;
    EXPECT_EQ(noxel_send(enhancement.enhancer, &planes.frame), NOXEL_ERROR_ARGUMENT) << wrong;
    EXPECT_EQ(noxel_receive(enhancement.enhancer, &planes.frame, nullptr), NOXEL_ERROR_ARGUMENT) << wrong;
  }
  Enhancement picture(16, 8);
  picture.config.mode = NOXEL_MODE_PICTURE;
  ASSERT_TRUE(picture.made());
  Planes rgb(16, 8, NOXEL_PLANES_RGB);
  EXPECT_EQ(noxel_send(picture.enhancer, &rgb.frame), NOXEL_ERROR_ARGUMENT) << "mode 4 takes RGBA only";
  EXPECT_EQ(noxel_send(nullptr, nullptr), NOXEL_ERROR_ARGUMENT);
  EXPECT_STRNE(noxel_error_text(NOXEL_ERROR_NO_GL), noxel_error_text(12345));
}

TEST(Enhancer, EnhancersKnowNothingOfEachOther) {
  const LogCapture process;
  const TemporaryDirectory caches;
  Enhancement first, second(64, 32);
  const std::string firstCache = caches.file("first"), secondCache = caches.file("second");
  first.config.cache_directory = firstCache.c_str();
  second.config.cache_directory = secondCache.c_str();
  second.config.log = nullptr;
  if (!first.made() || !second.made()) GTEST_SKIP();
  // Their times have nothing to do with each other: taken together each frame would be a cut.
  Planes out(64, 32, NOXEL_PLANES_NV12);
  noxel_frame_info info;
  std::thread other([&] { enhanceStill(first, 24); });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(second.send(std::vector<uint8_t>(64 * 32, 80), 0, 1'000'000'000 + i * kIntervalUs), NOXEL_OK);
  }
  EXPECT_EQ(noxel_flush(second.enhancer), NOXEL_OK);
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(second.receive(&out, &info), NOXEL_OK);
    EXPECT_EQ(info.starts_sequence, i == 0 ? 1 : 0);
  }
  other.join();
  EXPECT_FALSE(std::filesystem::is_empty(firstCache));
  EXPECT_EQ(process.text(), "") << "the process's own log";
  EXPECT_NE(first.log, "");
}

// A context of the caller's, current on this thread.
class CallersContext {
 public:
  CallersContext() {
    const EGLint wanted[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_NONE};
    const EGLint version[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    const EGLint size[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint count = 0;
    display = platform::engineDisplay();
    if (!eglInitialize(display, nullptr, nullptr) || !eglBindAPI(EGL_OPENGL_ES_API)) return;
    if (!eglChooseConfig(display, wanted, &config, 1, &count) || count != 1) return;
    context = eglCreateContext(display, config, EGL_NO_CONTEXT, version);
    surface = eglCreatePbufferSurface(display, config, size);
    usable = eglMakeCurrent(display, surface, surface, context);
  }
  ~CallersContext() {
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    if (surface != EGL_NO_SURFACE) eglDestroySurface(display, surface);
    if (context != EGL_NO_CONTEXT) eglDestroyContext(display, context);
    eglReleaseThread();
  }
  CallersContext(const CallersContext&) = delete;
  CallersContext& operator=(const CallersContext&) = delete;

  EGLDisplay display = EGL_NO_DISPLAY;
  EGLContext context = EGL_NO_CONTEXT;
  EGLSurface surface = EGL_NO_SURFACE;
  bool usable = false;
};

TEST(Enhancer, DrawsIntoTheCallersTexture) {
  const CallersContext caller;
  if (!caller.usable && !driverRequired()) GTEST_SKIP();
  ASSERT_TRUE(caller.usable);
  for (const auto& [mode, format] : {std::pair{NOXEL_MODE_CLEAR, NOXEL_PLANES_I420},
                                     {NOXEL_MODE_CLEAR, NOXEL_PLANES_RGB},
                                     {NOXEL_MODE_NEUTRAL_EXPOSURE, NOXEL_PLANES_I420},
                                     {NOXEL_MODE_NEUTRAL_EXPOSURE, NOXEL_PLANES_BGR}}) {
    SCOPED_TRACE(testing::Message() << "mode " << mode << " format " << format);
    constexpr int kTextureWidth = 30, kTextureHeight = 20, kFrameWidth = 30, kFrameHeight = 10;
    Enhancement enhancement(kFrameWidth, kFrameHeight);
    enhancement.config.mode = mode;
    enhancement.config.lead_in = 0;
    enhancement.config.share_display = caller.display;
    enhancement.config.share_context = caller.context;
    if (!enhancement.made()) GTEST_SKIP();
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, kTextureWidth, kTextureHeight);
    // Dark above, light below, reddish: V is 150.
    Planes given(kFrameWidth, kFrameHeight, format);
    for (int i = 0; i < kFrameWidth * kFrameHeight; ++i) {
      const int x = i % kFrameWidth, y = i / kFrameWidth, luma = y < kFrameHeight / 2 ? 60 : 150;
      if (isPackedRgb(format)) {
        given.frame.matrix = NOXEL_MATRIX_BT709;  // not read
        for (const auto& [k, added] : {std::pair{0, 31}, {1, -16}, {2, 0}})
          given.colour(k, x, y) = static_cast<unsigned char>(luma + added);
      } else {
        given.luma(x, y) = static_cast<unsigned char>(luma);
        for (const auto& [k, code] : {std::pair{0, 128}, {1, 150}})
          given.chroma(k, x / 2, y / 2) = static_cast<unsigned char>(code);
      }
    }
    for (int frame = 0; frame < 3; ++frame) {
      given.frame.time_us += kIntervalUs;
      ASSERT_EQ(noxel_send(enhancement.enhancer, &given.frame), NOXEL_OK);
      noxel_frame_info info;
      noxel_frame_info_init(&info, sizeof(info));
      ASSERT_EQ(noxel_render_texture(enhancement.enhancer, texture, kTextureWidth, kTextureHeight, &info), NOXEL_OK)
          << enhancement.log;
      EXPECT_EQ(info.time_us, given.frame.time_us);
    }
    EXPECT_EQ(noxel_render_texture(enhancement.enhancer, texture, 1, 1, nullptr), NOXEL_AGAIN);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    for (const auto& [x, y, luma] : {std::tuple{0, 2, 60}, {kTextureWidth - 1, kTextureHeight - 3, 150}}) {
      unsigned char pixel[4] = {};
      glReadPixels(x, y, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixel);
      // BT.601; the filters of mode 3 cost a level.
      EXPECT_NEAR(pixel[0], luma + 1.402 * 22, 2.5);
      EXPECT_NEAR(pixel[1], luma - 0.714 * 22, 2.5);
      EXPECT_NEAR(pixel[2], luma, 2.5);
      EXPECT_EQ(pixel[3], 255);
    }
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(1, &texture);
  }
  Enhancement alone(16, 8);
  ASSERT_TRUE(alone.made());
  EXPECT_EQ(noxel_render_texture(alone.enhancer, 1, 16, 8, nullptr), NOXEL_ERROR_UNSUPPORTED);
}

TEST(Enhancer, GivesBackWhatItHadWhateverFails) {
  const auto life = [](int quality) {
    Enhancement enhancement(32, 16);
    enhancement.config.quality = quality;
    const int result = noxel_create(&enhancement.config, &enhancement.enhancer);
    if (result != NOXEL_OK) return result;
    for (int i = 0; i < 30; ++i) enhancement.send(std::vector<uint8_t>(32 * 16, 80), 0, i * kIntervalUs);
    noxel_flush(enhancement.enhancer);
    Planes out(32, 16, NOXEL_PLANES_NV12);
    noxel_frame_info info;
    int received = 0, got;
    while ((got = enhancement.receive(&out, &info)) == NOXEL_OK) ++received;
    EXPECT_EQ(got, NOXEL_END);
    EXPECT_EQ(received, 30) << enhancement.log;
    return result;
  };
  if (life(NOXEL_QUALITY_BEST) == NOXEL_ERROR_NO_GL && !driverRequired()) GTEST_SKIP();
  ASSERT_EQ(held(), Held{});
  int refused = 0;
  for (const Fault fault : {Fault::kMemory, Fault::kThread}) {
    int calls;
    {
      const FaultInjection counting(fault, -1);
      life(NOXEL_QUALITY_BEST);
      calls = counting.calls();
    }
    for (int i = 0; i < 24; ++i) {
      const int nth = i < 8 ? i : calls * i / 24;
      SCOPED_TRACE(testing::Message() << "call " << nth << " of " << calls);
      const FaultInjection once(fault, nth, Lasting::kOnce);
      refused += life(NOXEL_QUALITY_BEST) != NOXEL_OK ? 1 : 0;
      ASSERT_EQ(held(), Held{});
    }
  }
  EXPECT_GT(refused, 8) << "faults while it is made are told";
}

}  // namespace
}  // namespace noxel
