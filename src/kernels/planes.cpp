#include "kernels/planes.h"

#include <algorithm>
#include <cstring>

#if defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace noxel::kernels {
namespace {

// One 4 x 4 box over offsets first..first + 3 in both directions. Column sums first: each output then adds four of them.
void boxFour(const uint8_t* source, int width, int height, int first, uint8_t* destination) {
  const auto clampTo = [](int value, int limit) { return std::clamp(value, 0, limit - 1); };
  for (int y = 0; y < height; ++y) {
    const uint8_t* rows[4];
    for (int k = 0; k < 4; ++k) rows[k] = source + static_cast<size_t>(clampTo(y + first + k, height)) * width;
    const auto columnSum = [&](int x) {
      const int at = clampTo(x, width);
      return rows[0][at] + rows[1][at] + rows[2][at] + rows[3][at];
    };
    uint8_t* out = destination + static_cast<size_t>(y) * width;
    int sum = columnSum(first) + columnSum(first + 1) + columnSum(first + 2) + columnSum(first + 3);
    for (int x = 0; x < width; ++x) {
      out[x] = static_cast<uint8_t>((sum + 8) >> 4);
      sum += columnSum(x + first + 4) - columnSum(x + first);
    }
  }
}

// Running mean along one line of `count` samples that are `step` bytes apart.
void boxLine(uint8_t* line, int count, ptrdiff_t step, int radius, uint8_t* scratch) {
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

}  // namespace

void interleave(const uint8_t* first, const uint8_t* second, uint8_t* pairs, size_t count) {
  size_t i = 0;
#if defined(__ARM_NEON)
  for (; i + 16 <= count; i += 16) {
    const uint8x16x2_t both = {{vld1q_u8(first + i), vld1q_u8(second + i)}};
    vst2q_u8(pairs + 2 * i, both);
  }
#elif defined(__SSE2__)
  for (; i + 16 <= count; i += 16) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(first + i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(second + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pairs + 2 * i), _mm_unpacklo_epi8(a, b));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pairs + 2 * i + 16), _mm_unpackhi_epi8(a, b));
  }
#endif
  for (; i < count; ++i) {
    pairs[2 * i] = first[i];
    pairs[2 * i + 1] = second[i];
  }
}

void deinterleave(const uint8_t* pairs, uint8_t* first, uint8_t* second, size_t count) {
  size_t i = 0;
#if defined(__ARM_NEON)
  for (; i + 16 <= count; i += 16) {
    const uint8x16x2_t both = vld2q_u8(pairs + 2 * i);
    vst1q_u8(first + i, both.val[0]);
    vst1q_u8(second + i, both.val[1]);
  }
#elif defined(__SSE2__)
  const __m128i low = _mm_set1_epi16(0x00ff);
  for (; i + 16 <= count; i += 16) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pairs + 2 * i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pairs + 2 * i + 16));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(first + i),
                     _mm_packus_epi16(_mm_and_si128(a, low), _mm_and_si128(b, low)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(second + i),
                     _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8)));
  }
#endif
  for (; i < count; ++i) {
    first[i] = pairs[2 * i];
    second[i] = pairs[2 * i + 1];
  }
}

void downscaleByTwo(const uint8_t* source, int width, int height, uint8_t* destination) {
  for (int y = 0; y < height / 2; ++y) {
    const uint8_t* upper = source + static_cast<size_t>(2 * y) * width;
    const uint8_t* lower = upper + width;
    uint8_t* out = destination + static_cast<size_t>(y) * (width / 2);
    for (int x = 0; x < width / 2; ++x) {
      out[x] = static_cast<uint8_t>((upper[2 * x] + upper[2 * x + 1] + lower[2 * x] + lower[2 * x + 1] + 2) >> 2);
    }
  }
}

void downscaleByTwoDiagonal(const uint8_t* source, int width, int height, uint8_t* destination) {
  for (int y = 0; y < height / 2; ++y) {
    const uint8_t* upper = source + static_cast<size_t>(2 * y) * width;
    const uint8_t* lower = upper + width;
    uint8_t* out = destination + static_cast<size_t>(y) * (width / 2);
    for (int x = 0; x < width / 2; ++x) out[x] = static_cast<uint8_t>((upper[2 * x] + lower[2 * x + 1] + 1) >> 1);
  }
}

void smoothTwice(uint8_t* image, int width, int height, uint8_t* scratch) {
  boxFour(image, width, height, -2, scratch);
  boxFour(scratch, width, height, -1, image);
}

void smoothChroma(uint8_t* pairs, int width, int height, int radius, int iterations, uint8_t* scratch) {
  for (int component = 0; component < 2; ++component) {
    uint8_t* plane = pairs + component;
    for (int y = 0; y < height; ++y) {
      uint8_t* row = plane + static_cast<size_t>(y) * width * 2;
      for (int i = 0; i < iterations; ++i) boxLine(row, width, 2, radius, scratch);
    }
    for (int x = 0; x < width; ++x) {
      uint8_t* column = plane + static_cast<size_t>(x) * 2;
      for (int i = 0; i < iterations; ++i) boxLine(column, height, ptrdiff_t{2} * width, radius, scratch);
    }
  }
}

}  // namespace noxel::kernels
