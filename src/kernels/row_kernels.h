// Kernels for one row: one table in plain C++, one in SSE2 or NEON. Internal to src/kernels, its tests and its bench.
//
// Spans are [begin, end) of the rows; nothing outside is read or written, so that a vector loop leaves the tail of a
// row to the plain kernel.
#pragma once

#include <cstdint>

#include "kernels/planes.h"

namespace noxel::kernels {

// Separable filters: weighted sums down the columns, then along the row, then a rounded shift.
enum Separable { kBoxFour, kGaussThree, kGaussFive, kSeparableCount };

inline constexpr int kMaxTaps = 5;
inline constexpr int kTaps[kSeparableCount] = {4, 3, 5};
// log2 of the sum of weights; 255 times that sum fits 16 bits.
inline constexpr int kWeightBits[kSeparableCount] = {4, 4, 8};

// The taps' weighted sum, for one sample or a vector of them.
template <Separable kFilter, class Number>
Number weighted(const Number* tap) {
  if constexpr (kFilter == kBoxFour) {
    return (tap[0] + tap[1]) + (tap[2] + tap[3]);
  } else if constexpr (kFilter == kGaussThree) {
    return (tap[0] + tap[2]) + (tap[1] << 1);
  } else {
    return (tap[0] + tap[4]) + ((tap[1] + tap[2] + tap[3]) << 2) + (tap[2] << 1);
  }
}

struct RowKernels {
  void (*interleave)(const uint8_t* first, const uint8_t* second, int begin, int end, uint8_t* pairs);
  void (*deinterleave)(const uint8_t* pairs, int begin, int end, uint8_t* first, uint8_t* second);

  // From two source rows; the span is the destination's.
  void (*halve)(const uint8_t* upper, const uint8_t* lower, int begin, int end, uint8_t* out);
  void (*halveDiagonal)(const uint8_t* upper, const uint8_t* lower, int begin, int end, uint8_t* out);

  // sums[x]: the weighted sum of rows[0][x], rows[1][x], ...
  void (*columnSums[kSeparableCount])(const uint8_t* const* rows, int begin, int end, uint16_t* sums);
  // out[x]: the weighted sum of sums[x], sums[x + 1], ..., shifted by the weights' bits, rounded half up.
  void (*rowMeans[kSeparableCount])(const uint16_t* sums, int begin, int end, uint8_t* out);

  void (*sharpen)(const uint8_t* source, const uint8_t* blurred, int sixteenths, int begin, int end, uint8_t* out);

  void (*limitChange)(const uint8_t* original, int limit, int begin, int end, uint8_t* changed);

  // `out` may be `source`; the span of swapPairs is in pairs.
  void (*mapCodes)(const uint8_t* source, const CodeMap& map, int begin, int end, uint8_t* out);
  void (*swapPairs)(const uint8_t* source, int begin, int end, uint8_t* out);

  // smoothChroma's two halves, on rows [begin, end) and on columns of pairs [begin, end). `scratch`: one byte per pair.
  void (*smoothRows)(const Plane& pairs, int begin, int end, int radius, int iterations, uint8_t* scratch);
  void (*smoothColumns)(const Plane& pairs, int begin, int end, int radius, int iterations, uint8_t* scratch);
};

extern const RowKernels kPlainRows;
extern const RowKernels* const kVectorRows;  // null without SSE2 and NEON

// The table in use: plain when there is no other, or when NOXEL_KERNELS was "plain" at the first call.
const RowKernels& rowKernels();

// Reads NOXEL_KERNELS again. For tests; not while a kernel runs.
void rereadKernelChoice();

}  // namespace noxel::kernels
