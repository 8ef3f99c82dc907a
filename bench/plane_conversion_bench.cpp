// The copies between the caller's layout and ours, against memcpy of the same size.
//
// Each iteration times one conversion and one memcpy between the same buffers, so that other load slows both. of_memcpy
// is the median memcpy over the median conversion: 1 is memcpy's speed. Goals: NV21 1, YV12 at least 0.7.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "api/engine.h"
#include "api/frame_conversion.h"

namespace {

using Convert = void (*)(unsigned char* destination, const unsigned char* source, int width, int height, int format);

template <typename Copy>
double seconds(const Copy& copy) {
  const auto start = std::chrono::steady_clock::now();
  copy();
  benchmark::ClobberMemory();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void planeConversion(benchmark::State& state, Convert convert, int format) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  const size_t size = noxel::frameSize(width, height);
  std::vector<unsigned char> source(size);
  std::vector<unsigned char> destination(size);
  std::mt19937 random(1);
  for (unsigned char& byte : source) byte = static_cast<unsigned char>(random());

  std::vector<double> conversions;
  std::vector<double> copies;
  bool conversionFirst = true;  // alternates: the second finds warmer caches
  for (auto _ : state) {
    const auto timeConversion = [&] {
      conversions.push_back(seconds([&] { convert(destination.data(), source.data(), width, height, format); }));
    };
    const auto timeCopy = [&] {
      copies.push_back(seconds([&] { std::memcpy(destination.data(), source.data(), size); }));
    };
    if (conversionFirst) timeConversion();
    timeCopy();
    if (!conversionFirst) timeConversion();
    conversionFirst = !conversionFirst;
    state.SetIterationTime(conversions.back());
  }
  state.SetBytesProcessed(static_cast<int64_t>(size) * static_cast<int64_t>(state.iterations()));
  state.counters["of_memcpy"] = median(copies) / median(conversions);
}

void atCameraSizes(benchmark::internal::Benchmark* bench) {
  bench->Args({640, 360})->Args({1280, 720})->Args({1920, 1080})->UseManualTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(planeConversion, NV21_in, noxel::copyAndConvertInput, noxel::kFormatNv21)->Apply(atCameraSizes);
BENCHMARK_CAPTURE(planeConversion, NV21_out, noxel::copyAndConvertOutput, noxel::kFormatNv21)->Apply(atCameraSizes);
BENCHMARK_CAPTURE(planeConversion, YV12_in, noxel::copyAndConvertInput, noxel::kFormatYv12)->Apply(atCameraSizes);
BENCHMARK_CAPTURE(planeConversion, YV12_out, noxel::copyAndConvertOutput, noxel::kFormatYv12)->Apply(atCameraSizes);

}  // namespace

BENCHMARK_MAIN();
