// What the element noxelenhance adds to libnoxel: the same frames through both, in turns, and the pictures compared.
//
//   noxel_gstreamer_bench [number of frames]
//
// 300 frames unless given. Prints medians and the ratio, which is to be 1.05 or less.
#include <gst/check/gstharness.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/percentile.h"
#include "noxel/enhancer.h"

namespace {

constexpr int kWarmUpFrames = 20;
constexpr int kViews = 8;

double milliseconds() {
  return static_cast<double>(g_get_monotonic_time()) * 1e-3;
}

std::vector<std::vector<unsigned char>> darkNoise(size_t bytes) {
  std::minstd_rand random(7);
  std::vector<std::vector<unsigned char>> views(kViews, std::vector<unsigned char>(bytes));
  for (auto& view : views) {
    for (size_t i = 0; i < bytes; ++i)
      view[i] = static_cast<unsigned char>((i < bytes * 2 / 3 ? 24 + i / 24 % 23 : 120) + random() % 16);
  }
  return views;
}

bool compare(int width, int height, int frames) {
  const auto pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  const auto views = darkNoise(pixels * 3 / 2);

  noxel_config config;
  noxel_config_init(&config, sizeof config, width, height);
  config.lead_in = 0;
  config.frame_interval_us = 33333;
  noxel_enhancer* enhancer = nullptr;
  if (noxel_create(&config, &enhancer) != NOXEL_OK) return false;

  GstHarness* harness = gst_harness_new_parse("noxelenhance lead-in=false");
  gst_harness_set_live(harness, FALSE);
  const std::string size = "width=" + std::to_string(width) + ",height=" + std::to_string(height);
  gst_harness_set_src_caps_str(harness, ("video/x-raw,format=NV12,framerate=30/1," + size).c_str());

  std::vector<double> bare, element;
  std::vector<unsigned char> output(pixels * 3 / 2);
  bool same = true;
  for (int i = 0; i < kWarmUpFrames + frames; ++i) {
    const std::vector<unsigned char>& view = views[static_cast<size_t>(i % kViews)];
    GstBuffer* buffer = gst_buffer_new_memdup(view.data(), view.size());
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(i) * GST_SECOND / 30;
    GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;

    noxel_frame frame;
    noxel_frame_init(&frame, sizeof frame);
    frame.format = NOXEL_PLANES_NV12;
    frame.matrix = height > 576 ? NOXEL_MATRIX_BT709 : NOXEL_MATRIX_BT601;  // what GStreamer assumes
    frame.time_us = static_cast<int64_t>(GST_BUFFER_PTS(buffer) / GST_USECOND);
    frame.strides[0] = frame.strides[1] = width;
    frame.planes[0] = const_cast<unsigned char*>(view.data());  // only read
    frame.planes[1] = frame.planes[0] + pixels;
    const double start = milliseconds();
    bool ok = noxel_send(enhancer, &frame) == NOXEL_OK;
    frame.planes[0] = output.data();
    frame.planes[1] = output.data() + pixels;
    ok = ok && noxel_receive(enhancer, &frame, nullptr) == NOXEL_OK;
    const double between = milliseconds();
    ok = ok && gst_harness_push(harness, buffer) == GST_FLOW_OK;
    GstBuffer* enhanced = ok ? gst_harness_try_pull(harness) : nullptr;
    const double end = milliseconds();
    if (enhanced == nullptr) {
      std::fprintf(stderr, "frame %d did not come back\n", i);
      return false;
    }
    same = same && gst_buffer_memcmp(enhanced, 0, output.data(), output.size()) == 0;
    gst_buffer_unref(enhanced);
    if (i < kWarmUpFrames) continue;
    bare.push_back(between - start);
    element.push_back(end - between);
  }
  gst_harness_teardown(harness);
  noxel_free(&enhancer);
  const double bareMedian = noxel::tool::percentile(bare, 50);
  const double elementMedian = noxel::tool::percentile(element, 50);
  std::printf("%4d x %4d   libnoxel %6.2f ms   noxelenhance %6.2f ms   ratio %.3f   pictures %s\n", width, height,
              bareMedian, elementMedian, elementMedian / bareMedian, same ? "the same" : "DIFFER");
  return same;
}

}  // namespace

int main(int argc, char** argv) {
  const int frames = argc > 1 ? std::atoi(argv[1]) : 300;
  setenv("GST_PLUGIN_PATH", NOXEL_PLUGIN_DIRECTORY, 1);
  gst_init(nullptr, nullptr);
  const bool small = compare(640, 360, frames);
  const bool large = compare(1280, 720, frames);
  return small && large ? 0 : 1;
}
