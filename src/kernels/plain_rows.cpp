// The row kernels, sample by sample: without vectors, and for the tail of a row with them.
#include <algorithm>

#include "kernels/row_kernels.h"

namespace noxel::kernels {
namespace {

void interleaveRow(const uint8_t* first, const uint8_t* second, int begin, int end, uint8_t* pairs) {
  for (int i = begin; i < end; ++i) {
    pairs[2 * i] = first[i];
    pairs[2 * i + 1] = second[i];
  }
}

void deinterleaveRow(const uint8_t* pairs, int begin, int end, uint8_t* first, uint8_t* second) {
  for (int i = begin; i < end; ++i) {
    first[i] = pairs[2 * i];
    second[i] = pairs[2 * i + 1];
  }
}

void halveRow(const uint8_t* upper, const uint8_t* lower, int begin, int end, uint8_t* out) {
  for (int x = begin; x < end; ++x) {
    out[x] = static_cast<uint8_t>((upper[2 * x] + upper[2 * x + 1] + lower[2 * x] + lower[2 * x + 1] + 2) >> 2);
  }
}

void halveRowDiagonal(const uint8_t* upper, const uint8_t* lower, int begin, int end, uint8_t* out) {
  for (int x = begin; x < end; ++x) out[x] = static_cast<uint8_t>((upper[2 * x] + lower[2 * x + 1] + 1) >> 1);
}

template <Separable kFilter>
void columnSums(const uint8_t* const* rows, int begin, int end, uint16_t* sums) {
  for (int x = begin; x < end; ++x) {
    int taps[kTaps[kFilter]];
    for (int k = 0; k < kTaps[kFilter]; ++k) taps[k] = rows[k][x];
    sums[x] = static_cast<uint16_t>(weighted<kFilter>(taps));
  }
}

template <Separable kFilter>
void rowMeans(const uint16_t* sums, int begin, int end, uint8_t* out) {
  for (int x = begin; x < end; ++x) {
    int taps[kTaps[kFilter]];
    for (int k = 0; k < kTaps[kFilter]; ++k) taps[k] = sums[x + k];
    constexpr int kHalf = 1 << (kWeightBits[kFilter] - 1);
    out[x] = static_cast<uint8_t>((weighted<kFilter>(taps) + kHalf) >> kWeightBits[kFilter]);
  }
}

void sharpenRow(const uint8_t* source, const uint8_t* blurred, int sixteenths, int begin, int end, uint8_t* out) {
  for (int x = begin; x < end; ++x) {
    const int change = (sixteenths * (source[x] - blurred[x]) + 8) >> 4;
    out[x] = static_cast<uint8_t>(std::clamp(source[x] + change, 0, 255));
  }
}

void limitRow(const uint8_t* original, int limit, int begin, int end, uint8_t* changed) {
  for (int x = begin; x < end; ++x) {
    const int low = std::max(original[x] - limit, 0);
    const int high = std::min(original[x] + limit, 255);
    changed[x] = static_cast<uint8_t>(std::clamp<int>(changed[x], low, high));
  }
}

void mapRow(const uint8_t* source, const CodeMap& map, int begin, int end, uint8_t* out) {
  for (int x = begin; x < end; ++x) out[x] = map(source[x]);
}

void swapRow(const uint8_t* source, int begin, int end, uint8_t* out) {
  for (int i = begin; i < end; ++i) {
    const uint8_t first = source[2 * i];
    out[2 * i] = source[2 * i + 1];
    out[2 * i + 1] = first;
  }
}

// Running mean along a line of `count` samples, `step` bytes apart.
void smoothLine(uint8_t* line, int count, ptrdiff_t step, int radius, uint8_t* scratch) {
  for (int i = 0; i < count; ++i) scratch[i] = line[i * step];
  const int taps = 2 * radius + 1;
  const auto sample = [&](int i) { return static_cast<int>(scratch[std::clamp(i, 0, count - 1)]); };
  int sum = 0;
  for (int i = -radius; i <= radius; ++i) sum += sample(i);
  for (int i = 0; i < count; ++i) {
    line[i * step] = static_cast<uint8_t>((sum + radius) / taps);
    sum += sample(i + radius + 1) - sample(i - radius);
  }
}

void smoothRows(const Plane& pairs, int begin, int end, int radius, int iterations, uint8_t* scratch) {
  for (int y = begin; y < end; ++y) {
    for (int component = 0; component < 2; ++component) {
      for (int i = 0; i < iterations; ++i) smoothLine(pairs.row(y) + component, pairs.width / 2, 2, radius, scratch);
    }
  }
}

void smoothColumns(const Plane& pairs, int begin, int end, int radius, int iterations, uint8_t* scratch) {
  for (int x = 2 * begin; x < 2 * end; ++x) {
    for (int i = 0; i < iterations; ++i) smoothLine(pairs.pixels + x, pairs.height, pairs.stride, radius, scratch);
  }
}

}  // namespace

const RowKernels kPlainRows = {
    interleaveRow,
    deinterleaveRow,
    halveRow,
    halveRowDiagonal,
    {columnSums<kBoxFour>, columnSums<kGaussThree>, columnSums<kGaussFive>},
    {rowMeans<kBoxFour>, rowMeans<kGaussThree>, rowMeans<kGaussFive>},
    sharpenRow,
    limitRow,
    mapRow,
    swapRow,
    smoothRows,
    smoothColumns,
};

}  // namespace noxel::kernels
