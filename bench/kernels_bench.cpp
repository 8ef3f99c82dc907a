// The plane kernels on one core: vector code beside the plain code and, where libyuv or OpenCV has the same kernel,
// theirs.
//
// Each iteration times all in turns, in processor time, so that other load slows all alike. Counters: plain_us,
// vector_us and peer_us, and the speed-up of the vectors over plain (of_plain) and peer (of_peer).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <random>
#include <vector>

#include "common/percentile.h"
#include "kernels/planes.h"
#include "kernels/row_kernels.h"

#if NOXEL_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif
#if NOXEL_BENCH_LIBYUV
#include <libyuv.h>
#endif

namespace {

namespace kernels = noxel::kernels;
using Run = std::function<void()>;

// Of this thread: wall time of a kernel of milliseconds would include other processes.
double processorSeconds() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double seconds(const Run& run) {
  const double start = processorSeconds();
  run();
  benchmark::ClobberMemory();
  return processorSeconds() - start;
}

// Other load only adds time: a low percentile is closest to the kernel's own.
double microseconds(const std::vector<double>& times) {
  return noxel::tool::percentile(times, 10) * 1e6;
}

void choose(const char* path) {
  setenv("NOXEL_KERNELS", path, 1);
  kernels::rereadKernelChoice();
}

std::vector<uint8_t> noise(size_t count) {
  static std::mt19937 random(1);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

// Buffers of the frame's size, and the planes in them that a kernel and its peer share.
struct Frame {
  explicit Frame(const benchmark::State& state)
      : width(static_cast<int>(state.range(0))), height(static_cast<int>(state.range(1))) {
    for (std::vector<uint8_t>* bytes : {&source, &destination, &scratch})
      *bytes = noise(static_cast<size_t>(width) * static_cast<size_t>(height));
  }

  kernels::Plane in() { return kernels::packed(source.data(), width, height); }
  kernels::Plane out() { return kernels::packed(destination.data(), width, height); }
  kernels::Plane halfOut() { return kernels::packed(destination.data(), width / 2, height / 2); }
  // Chroma: pairs, and the two components one after the other.
  kernels::Plane pairs() { return kernels::packed(source.data(), width / 2 * 2, height / 2); }
  kernels::Plane component(int index) {
    return kernels::packed(destination.data() + index * (width / 2) * (height / 2), width / 2, height / 2);
  }

  int width;
  int height;
  std::vector<uint8_t> source;
  std::vector<uint8_t> destination;
  std::vector<uint8_t> scratch;
};

void measure(benchmark::State& state, const Run& kernel, const Run& peer) {
  std::vector<double> plain;
  std::vector<double> vectors;
  std::vector<double> peers;
  for (auto _ : state) {
    choose("plain");
    plain.push_back(seconds(kernel));
    choose("vectors");
    vectors.push_back(seconds(kernel));
    if (peer) peers.push_back(seconds(peer));
    state.SetIterationTime(vectors.back());
  }
  const double mine = microseconds(vectors);
  state.counters["plain_us"] = microseconds(plain);
  state.counters["vector_us"] = mine;
  state.counters["of_plain"] = microseconds(plain) / mine;
  if (!peer) return;
  state.counters["peer_us"] = microseconds(peers);
  state.counters["of_peer"] = microseconds(peers) / mine;
}

void interleave(benchmark::State& state) {
  Frame frame(state);
  Run peer;
#if NOXEL_BENCH_LIBYUV
  peer = [&] {
    const int width = frame.width / 2;
    libyuv::MergeUVPlane(frame.component(0).pixels, width, frame.component(1).pixels, width, frame.pairs().pixels,
                         2 * width, width, frame.height / 2);
  };
#endif
  measure(
      state, [&] { kernels::interleave(frame.component(0), frame.component(1), frame.pairs()); }, peer);
}
void deinterleave(benchmark::State& state) {
  Frame frame(state);
  Run peer;
#if NOXEL_BENCH_LIBYUV
  peer = [&] {
    const int width = frame.width / 2;
    libyuv::SplitUVPlane(frame.pairs().pixels, 2 * width, frame.component(0).pixels, width, frame.component(1).pixels,
                         width, width, frame.height / 2);
  };
#endif
  measure(
      state, [&] { kernels::deinterleave(frame.pairs(), frame.component(0), frame.component(1)); }, peer);
}

void downscaleByTwo(benchmark::State& state) {
  Frame frame(state);
  Run peer;
#if NOXEL_BENCH_LIBYUV
  peer = [&] {
    libyuv::ScalePlane(frame.in().pixels, frame.width, frame.width, frame.height, frame.halfOut().pixels,
                       frame.width / 2, frame.width / 2, frame.height / 2, libyuv::kFilterBox);
  };
#endif
  measure(
      state, [&] { kernels::downscaleByTwo(frame.in(), frame.halfOut()); }, peer);
}

void downscaleByTwoDiagonal(benchmark::State& state) {
  Frame frame(state);
  measure(state, [&] { kernels::downscaleByTwoDiagonal(frame.in(), frame.halfOut()); }, {});
}

#if NOXEL_BENCH_OPENCV
cv::Mat matrix(const kernels::Plane& plane, int type = CV_8UC1) {
  return cv::Mat(plane.height, plane.width / CV_ELEM_SIZE(type), type, plane.pixels, static_cast<size_t>(plane.stride));
}
#endif

void boxFour(benchmark::State& state) {
  Frame frame(state);
  Run peer;
#if NOXEL_BENCH_OPENCV
  peer = [&] { cv::blur(matrix(frame.in()), matrix(frame.out()), {4, 4}, {2, 2}, cv::BORDER_REPLICATE); };
#endif
  measure(
      state, [&] { kernels::boxFour(frame.in(), -2, frame.out()); }, peer);
}

void gauss(benchmark::State& state, kernels::Gauss taps) {
  Frame frame(state);
  Run peer;
#if NOXEL_BENCH_OPENCV
  const int size = taps == kernels::Gauss::kThree ? 3 : 5;
  peer = [&, size] {
    cv::GaussianBlur(matrix(frame.in()), matrix(frame.out()), {size, size}, 0, 0, cv::BORDER_REPLICATE);
  };
#endif
  measure(
      state, [&] { kernels::gauss(frame.in(), taps, frame.out()); }, peer);
}

// OpenCV's in two calls, the usual way.
void sharpen(benchmark::State& state) {
  Frame frame(state);
  Run peer;
#if NOXEL_BENCH_OPENCV
  peer = [&] {
    const cv::Mat out = matrix(frame.out());
    cv::GaussianBlur(matrix(frame.in()), out, {5, 5}, 0, 0, cv::BORDER_REPLICATE);
    cv::addWeighted(matrix(frame.in()), 2.0, out, -1.0, 0.0, out);
  };
#endif
  measure(
      state, [&] { kernels::sharpen(frame.in(), kernels::Gauss::kFive, 16, frame.out()); }, peer);
}

void limitChange(benchmark::State& state) {
  Frame frame(state);
  measure(state, [&] { kernels::limitChange(frame.in(), 5, frame.out()); }, {});
}

// A frame's planes and packed RGB, in buffers of their own size.
struct RgbFrame {
  explicit RgbFrame(const benchmark::State& state)
      : width(static_cast<int>(state.range(0))),
        height(static_cast<int>(state.range(1))),
        rgb(noise(3 * area())),
        nv21(noise(area() * 3 / 2)) {}
  size_t area() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
  kernels::Plane packedRgb() { return kernels::packed(rgb.data(), 3 * width, height); }
  kernels::Plane luma() { return kernels::packed(nv21.data(), width, height); }
  kernels::Plane pairs() { return kernels::packed(nv21.data() + area(), width, height / 2); }

  int width;
  int height;
  std::vector<uint8_t> rgb;
  std::vector<uint8_t> nv21;
};

void planesFromRgb(benchmark::State& state) {
  RgbFrame frame(state);
  Run peer;
#if NOXEL_BENCH_LIBYUV
  peer = [&] {
    libyuv::RAWToJNV21(frame.rgb.data(), 3 * frame.width, frame.luma().pixels, frame.width, frame.pairs().pixels,
                       frame.width, frame.width, frame.height);
  };
#endif
  measure(
      state, [&] { kernels::planesFromRgb(frame.packedRgb(), kernels::RgbOrder::kRgb, frame.luma(), frame.pairs()); },
      peer);
}

// libyuv's takes limited range and repeats each chroma sample.
void rgbFromPlanes(benchmark::State& state) {
  RgbFrame frame(state);
  Run peer;
#if NOXEL_BENCH_LIBYUV
  peer = [&] {
    libyuv::NV21ToRAW(frame.luma().pixels, frame.width, frame.pairs().pixels, frame.width, frame.rgb.data(),
                      3 * frame.width, frame.width, frame.height);
  };
#endif
  measure(
      state, [&] { kernels::rgbFromPlanes(frame.luma(), frame.pairs(), kernels::RgbOrder::kRgb, frame.packedRgb()); },
      peer);
}

void smoothChroma(benchmark::State& state, int radius) {
  constexpr int kIterations = 4;
  Frame frame(state);
  Run peer;
#if NOXEL_BENCH_OPENCV
  peer = [&, radius] {
    const cv::Mat pairs = matrix(frame.pairs(), CV_8UC2);
    for (const cv::Size window : {cv::Size(2 * radius + 1, 1), cv::Size(1, 2 * radius + 1)}) {
      for (int i = 0; i < kIterations; ++i) cv::blur(pairs, pairs, window, {-1, -1}, cv::BORDER_REPLICATE);
    }
  };
#endif
  measure(
      state, [&] { kernels::smoothChroma(frame.pairs(), radius, kIterations, frame.scratch.data()); }, peer);
}

void atCameraSizes(benchmark::internal::Benchmark* bench) {
  bench->Args({640, 360})->Args({1280, 720})->Args({1920, 1080})->UseManualTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(interleave)->Apply(atCameraSizes);
BENCHMARK(deinterleave)->Apply(atCameraSizes);
BENCHMARK(downscaleByTwo)->Apply(atCameraSizes);
BENCHMARK(downscaleByTwoDiagonal)->Apply(atCameraSizes);
BENCHMARK(boxFour)->Apply(atCameraSizes);
BENCHMARK_CAPTURE(gauss, 3_taps, kernels::Gauss::kThree)->Apply(atCameraSizes);
BENCHMARK_CAPTURE(gauss, 5_taps, kernels::Gauss::kFive)->Apply(atCameraSizes);
BENCHMARK(sharpen)->Apply(atCameraSizes);
BENCHMARK(limitChange)->Apply(atCameraSizes);
BENCHMARK(planesFromRgb)->Apply(atCameraSizes);
BENCHMARK(rgbFromPlanes)->Apply(atCameraSizes);
BENCHMARK_CAPTURE(smoothChroma, radius_4, 4)->Apply(atCameraSizes);
BENCHMARK_CAPTURE(smoothChroma, radius_17, 17)->Apply(atCameraSizes);

}  // namespace

int main(int argc, char** argv) {
#if NOXEL_BENCH_OPENCV
  cv::setNumThreads(1);  // as ours
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
