// Eight 16-bit lanes: SSE2, NEON, or plain C++, for other processors and as the reference for both. Integers, so all
// three give the same bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace noxel::tracker {

struct PlainLanes {
  int16_t lane[8];

  static PlainLanes load(const int16_t* from) {
    PlainLanes result;
    std::memcpy(result.lane, from, sizeof(result.lane));
    return result;
  }
  // Four samples each.
  static PlainLanes loadFours(const int16_t* low, const int16_t* high) {
    PlainLanes result;
    std::memcpy(result.lane, low, sizeof(result.lane) / 2);
    std::memcpy(result.lane + 4, high, sizeof(result.lane) / 2);
    return result;
  }
  // Sum of absolute differences over 8 x 8 bytes.
  static int32_t differenceOf(const uint8_t* a, const uint8_t* b, ptrdiff_t stride) {
    int32_t sum = 0;
    for (int y = 0; y < 8; ++y, a += stride, b += stride) {
      for (int x = 0; x < 8; ++x) sum += a[x] > b[x] ? a[x] - b[x] : b[x] - a[x];
    }
    return sum;
  }
  static PlainLanes loadBytes(const uint8_t* from) {
    PlainLanes result;
    for (int i = 0; i < 8; ++i) result.lane[i] = from[i];
    return result;
  }
  PlainLanes plus(const PlainLanes& other) const {
    PlainLanes result;
    for (int i = 0; i < 8; ++i) result.lane[i] = static_cast<int16_t>(lane[i] + other.lane[i]);
    return result;
  }
  void store(int16_t* to) const { std::memcpy(to, lane, sizeof(lane)); }
  PlainLanes minus(const PlainLanes& other) const {
    PlainLanes result;
    for (int i = 0; i < 8; ++i) result.lane[i] = static_cast<int16_t>(lane[i] - other.lane[i]);
    return result;
  }
  // (this * (16 - sixteenths) + other * sixteenths + 8) / 16, for lanes of 0..4095.
  PlainLanes mixed(const PlainLanes& other, int sixteenths) const {
    PlainLanes result;
    for (int i = 0; i < 8; ++i) {
      result.lane[i] = static_cast<int16_t>((lane[i] * (16 - sixteenths) + other.lane[i] * sixteenths + 8) >> 4);
    }
    return result;
  }

  // Sums of products; the caller keeps them within 32 bits.
  struct Sum {
    int32_t value = 0;
    void addProducts(const PlainLanes& a, const PlainLanes& b) {
      for (int i = 0; i < 8; ++i) value += int32_t{a.lane[i]} * b.lane[i];
    }
    int32_t total() const { return value; }
  };
};

#if defined(__SSE2__)

struct SseLanes {
  __m128i lanes;

  static SseLanes load(const int16_t* from) {
    return {_mm_loadu_si128(static_cast<const __m128i*>(static_cast<const void*>(from)))};
  }
  static SseLanes loadFours(const int16_t* low, const int16_t* high) {
    const auto four = [](const int16_t* from) {
      return _mm_loadl_epi64(static_cast<const __m128i*>(static_cast<const void*>(from)));
    };
    return {_mm_unpacklo_epi64(four(low), four(high))};
  }
  static int32_t differenceOf(const uint8_t* a, const uint8_t* b, ptrdiff_t stride) {
    const auto two = [stride](const uint8_t* from) {
      const auto eight = [](const uint8_t* at) {
        return _mm_loadl_epi64(static_cast<const __m128i*>(static_cast<const void*>(at)));
      };
      return _mm_unpacklo_epi64(eight(from), eight(from + stride));
    };
    __m128i sum = _mm_sad_epu8(two(a), two(b));
    for (int y = 2; y < 8; y += 2) sum = _mm_add_epi32(sum, _mm_sad_epu8(two(a + y * stride), two(b + y * stride)));
    return _mm_cvtsi128_si32(_mm_add_epi32(sum, _mm_unpackhi_epi64(sum, sum)));
  }
  static SseLanes loadBytes(const uint8_t* from) {
    const __m128i bytes = _mm_loadl_epi64(static_cast<const __m128i*>(static_cast<const void*>(from)));
    return {_mm_unpacklo_epi8(bytes, _mm_setzero_si128())};
  }
  SseLanes plus(const SseLanes& other) const { return {_mm_add_epi16(lanes, other.lanes)}; }
  void store(int16_t* to) const { _mm_storeu_si128(static_cast<__m128i*>(static_cast<void*>(to)), lanes); }
  SseLanes minus(const SseLanes& other) const { return {_mm_sub_epi16(lanes, other.lanes)}; }
  SseLanes mixed(const SseLanes& other, int sixteenths) const {
    const __m128i mine = _mm_mullo_epi16(lanes, _mm_set1_epi16(static_cast<int16_t>(16 - sixteenths)));
    const __m128i theirs = _mm_mullo_epi16(other.lanes, _mm_set1_epi16(static_cast<int16_t>(sixteenths)));
    return {_mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(mine, theirs), _mm_set1_epi16(8)), 4)};
  }

  struct Sum {
    __m128i sums = _mm_setzero_si128();
    void addProducts(const SseLanes& a, const SseLanes& b) {
      sums = _mm_add_epi32(sums, _mm_madd_epi16(a.lanes, b.lanes));
    }
    int32_t total() const {
      const __m128i halves = _mm_add_epi32(sums, _mm_shuffle_epi32(sums, _MM_SHUFFLE(1, 0, 3, 2)));
      return _mm_cvtsi128_si32(_mm_add_epi32(halves, _mm_shuffle_epi32(halves, _MM_SHUFFLE(2, 3, 0, 1))));
    }
  };
};
using NativeLanes = SseLanes;

#elif defined(__ARM_NEON)

struct NeonLanes {
  int16x8_t lanes;

  static NeonLanes load(const int16_t* from) { return {vld1q_s16(from)}; }
  static NeonLanes loadFours(const int16_t* low, const int16_t* high) {
    return {vcombine_s16(vld1_s16(low), vld1_s16(high))};
  }
  static int32_t differenceOf(const uint8_t* a, const uint8_t* b, ptrdiff_t stride) {
    uint16x8_t sums = vdupq_n_u16(0);
    for (int y = 0; y < 8; ++y, a += stride, b += stride) sums = vabal_u8(sums, vld1_u8(a), vld1_u8(b));
    const uint64x2_t halves = vpaddlq_u32(vpaddlq_u16(sums));
    return static_cast<int32_t>(vgetq_lane_u64(halves, 0) + vgetq_lane_u64(halves, 1));
  }
  static NeonLanes loadBytes(const uint8_t* from) { return {vreinterpretq_s16_u16(vmovl_u8(vld1_u8(from)))}; }
  NeonLanes plus(const NeonLanes& other) const { return {vaddq_s16(lanes, other.lanes)}; }
  void store(int16_t* to) const { vst1q_s16(to, lanes); }
  NeonLanes minus(const NeonLanes& other) const { return {vsubq_s16(lanes, other.lanes)}; }
  NeonLanes mixed(const NeonLanes& other, int sixteenths) const {
    const uint16x8_t mine = vmulq_n_u16(vreinterpretq_u16_s16(lanes), static_cast<uint16_t>(16 - sixteenths));
    const uint16x8_t both = vmlaq_n_u16(mine, vreinterpretq_u16_s16(other.lanes), static_cast<uint16_t>(sixteenths));
    return {vreinterpretq_s16_u16(vrshrq_n_u16(both, 4))};
  }

  struct Sum {
    int32x4_t sums = vdupq_n_s32(0);
    void addProducts(const NeonLanes& a, const NeonLanes& b) {
      sums = vmlal_s16(sums, vget_low_s16(a.lanes), vget_low_s16(b.lanes));
      sums = vmlal_s16(sums, vget_high_s16(a.lanes), vget_high_s16(b.lanes));
    }
    int32_t total() const {
      const int32x2_t halves = vadd_s32(vget_low_s32(sums), vget_high_s32(sums));
      return vget_lane_s32(vpadd_s32(halves, halves), 0);
    }
  };
};
using NativeLanes = NeonLanes;

#else
using NativeLanes = PlainLanes;
#endif

}  // namespace noxel::tracker
