// What libnoxel adds to its engine: the same frames through both, in turns, and the pictures compared.
//
//   noxel_library_bench [number of frames]
//
// 60 frames unless given. A frame is sent and received before the next one, so that nothing of it is hidden behind another
// frame's drawing. Medians in milliseconds. Aim: 1.03 of the engine's time or less.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "api/enhancer_engine.h"
#include "api/frame_planes.h"
#include "common/percentile.h"
#include "noxel/enhancer.h"
#include "platform/log.h"

namespace noxel {
namespace {

constexpr int kWarmUpFrames = 10;
constexpr int kViews = 8;
constexpr int64_t kIntervalUs = 33'333;
constexpr int kPadding = 64;  // bytes after each row of the padded layouts

[[noreturn]] void fail(const char* reason) {
  std::fprintf(stderr, "noxel_library_bench: %s\n", reason);
  std::exit(1);
}

double now() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Layout {
  const char* name;
  int format;
  int range;
  int padding;
};

// The first one is the engine's own.
constexpr Layout kLayouts[] = {{"NV21, full range", NOXEL_PLANES_NV21, NOXEL_RANGE_FULL, 0},
                               {"NV21, full range, padded", NOXEL_PLANES_NV21, NOXEL_RANGE_FULL, kPadding},
                               {"NV12, limited, padded", NOXEL_PLANES_NV12, NOXEL_RANGE_LIMITED, kPadding},
                               {"I420, limited", NOXEL_PLANES_I420, NOXEL_RANGE_LIMITED, 0}};

// A frame of a layout, with room of its own.
class Planes {
 public:
  Planes(const Layout& layout, int width, int height) {
    noxel_frame_init(&frame_, sizeof frame_);
    frame_.format = layout.format;
    frame_.range = layout.range;
    const bool pairs = layout.format <= NOXEL_PLANES_NV21;
    frame_.strides[0] = width + layout.padding;
    frame_.strides[1] = frame_.strides[2] = (pairs ? width : width / 2) + layout.padding;
    const auto luma = static_cast<size_t>(frame_.strides[0]) * static_cast<size_t>(height);
    const auto chroma = static_cast<size_t>(frame_.strides[1]) * static_cast<size_t>(height / 2);
    bytes_.resize(luma + 2 * chroma);
    frame_.planes[0] = bytes_.data();
    frame_.planes[1] = bytes_.data() + luma;
    if (!pairs) frame_.planes[2] = bytes_.data() + luma + chroma;
  }
  Planes(const Planes&) = delete;
  Planes& operator=(const Planes&) = delete;

  noxel_frame* frame() { return &frame_; }

 private:
  std::vector<unsigned char> bytes_;
  noxel_frame frame_;
};

// Dark views of soft blotches that pan, with noise.
std::vector<std::vector<unsigned char>> darkViews(int width, int height) {
  std::mt19937 random(7);
  std::normal_distribution<float> noise(0.0f, 4.0f);
  const auto byte = [&](int level) {
    return static_cast<unsigned char>(std::clamp(static_cast<float>(level) + noise(random), 0.0f, 255.0f));
  };
  std::vector<std::vector<unsigned char>> views(kViews);
  for (int i = 0; i < kViews; ++i) {
    const int pan = 2 * std::min(i, kViews - i);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) views[i].push_back(byte(24 + ((x + pan) / 24 * 7 + (y + pan) / 20 * 11) % 23));
    }
    for (int k = 0; k < width * height / 2; ++k) views[i].push_back(byte(128));
  }
  return views;
}

void compare(int width, int height, int mode, int frames) {
  const auto views = darkViews(width, height);
  noxel_config config;
  noxel_config_init(&config, sizeof config, width, height);
  config.mode = mode;
  config.lead_in = 0;
  config.frame_interval_us = kIntervalUs;
  platform::LogTarget log = {};
  EnhancerEngine engine;
  noxel_enhancer* enhancer = nullptr;
  if (engine.make(config, width, height, &log) != NOXEL_OK || noxel_create(&config, &enhancer) != NOXEL_OK)
    fail("no engine: is there an EGL driver with OpenGL ES 3.0?");
  double settings[kSettingCount];
  for (int id = 0; id < kSettingCount; ++id) noxel_get(enhancer, id, &settings[id]);

  // The layouts take turns on one enhancer: the engine gets the same frames of each.
  std::vector<double> engineMs[std::size(kLayouts)], libraryMs[std::size(kLayouts)];
  int64_t time = 0;
  for (size_t k = 0; k < std::size(kLayouts); ++k) {
    Planes planes(kLayouts[k], width, height);
    noxel_frame* frame = planes.frame();
    for (int i = 0; i < kWarmUpFrames + frames; ++i, time += kIntervalUs) {
      givePlanes(views[static_cast<size_t>(i % kViews)].data(), width, height, *frame);
      std::vector<unsigned char> nv21(views[0].size());
      takePlanes(*frame, width, height, nv21.data());
      engine.clock.step(kIntervalUs, false);
      engine.apply(settings);
      double start = now();
      if (!engine.process(nv21.data())) fail("a frame was refused");
      const double engineTime = now() - start;

      frame->time_us = time;
      start = now();
      if (noxel_send(enhancer, frame) != NOXEL_OK || noxel_receive(enhancer, frame, nullptr) != NOXEL_OK)
        fail("a frame did not come back");
      const double libraryTime = now() - start;

      std::vector<unsigned char> expected = nv21;
      if (k > 0) {  // codes of a limited range are fewer: there and back
        Planes there(kLayouts[k], width, height);
        givePlanes(nv21.data(), width, height, *there.frame());
        takePlanes(*there.frame(), width, height, expected.data());
      }
      takePlanes(*frame, width, height, nv21.data());
      if (nv21 != expected) fail("the library's picture is not the engine's");
      if (i < kWarmUpFrames) continue;
      engineMs[k].push_back(engineTime);
      libraryMs[k].push_back(libraryTime);
    }
    const double engineMedian = tool::percentile(engineMs[k], 50), libraryMedian = tool::percentile(libraryMs[k], 50);
    std::printf("%4d x %-4d  mode %d  %-26s %8.2f %8.2f %7.3f\n", width, height, mode, kLayouts[k].name, engineMedian,
                libraryMedian, libraryMedian / engineMedian);
    std::fflush(stdout);
  }
  noxel_free(&enhancer);
}

// The copies alone, out and in, against memcpy of the frame: medians of 200, in turns.
void copies(int width, int height) {
  const auto view = darkViews(width, height)[0];
  std::vector<unsigned char> nv21 = view;
  for (const Layout& layout : kLayouts) {
    Planes planes(layout, width, height);
    std::vector<double> taken, given, plain;
    for (int i = 0; i < 200; ++i) {
      const double start = now();
      givePlanes(nv21.data(), width, height, *planes.frame());
      const double between = now();
      takePlanes(*planes.frame(), width, height, nv21.data());
      const double end = now();
      std::memcpy(nv21.data(), view.data(), view.size());
      plain.push_back(now() - end);
      given.push_back(between - start);
      taken.push_back(end - between);
    }
    std::printf("%4d x %-4d  %-26s in %6.3f  out %6.3f  memcpy %6.3f\n", width, height, layout.name,
                tool::percentile(taken, 50), tool::percentile(given, 50), tool::percentile(plain, 50));
  }
}

int run(int frames) {
  if (std::getenv("NOXEL_LOG_LEVEL") == nullptr) platform::setLogLevel(8);  // silent: the tables stay readable
  std::printf("Copies, ms\n");
  copies(640, 360);
  copies(1280, 720);
  std::printf("\n%-12s %-7s %-26s %8s %8s %7s\n", "size", "", "layout", "engine", "libnoxel", "ratio");
  for (const int mode : {NOXEL_MODE_ENHANCE, NOXEL_MODE_CLEAR}) {
    compare(640, 360, mode, frames);
    compare(1280, 720, mode, frames);
  }
  return 0;
}

}  // namespace
}  // namespace noxel

int main(int count, char** arguments) {
  const int frames = count > 1 ? std::atoi(arguments[1]) : 60;
  if (frames < 1) {
    std::fprintf(stderr, "usage: noxel_library_bench [number of frames]\n");
    return 2;
  }
  return noxel::run(frames);
}
