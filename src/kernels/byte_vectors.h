// Sixteen bytes or eight 16-bit words at a time, in SSE2 or NEON. NOXEL_BYTE_VECTORS is 0 without either.
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#define NOXEL_BYTE_VECTORS 1
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#define NOXEL_BYTE_VECTORS 1
#else
#define NOXEL_BYTE_VECTORS 0
#endif

namespace noxel::kernels {

#if defined(__SSE2__)

inline __m128i loadVector(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

struct Words {
  __m128i lanes;

  static Words load(const void* from) { return {loadVector(from)}; }
  static Words all(int value) { return {_mm_set1_epi16(static_cast<int16_t>(value))}; }
  void store(void* to) const { _mm_storeu_si128(static_cast<__m128i*>(to), lanes); }

  Words operator+(const Words& other) const { return {_mm_add_epi16(lanes, other.lanes)}; }
  Words operator-(const Words& other) const { return {_mm_sub_epi16(lanes, other.lanes)}; }
  Words operator*(const Words& other) const { return {_mm_mullo_epi16(lanes, other.lanes)}; }
  Words operator<<(int bits) const { return {_mm_slli_epi16(lanes, bits)}; }
  Words operator>>(int bits) const { return {_mm_srli_epi16(lanes, bits)}; }
  Words signedShift(int bits) const { return {_mm_srai_epi16(lanes, bits)}; }                     // keeps the sign
  Words upperProduct(const Words& other) const { return {_mm_mulhi_epu16(lanes, other.lanes)}; }  // bits 16 to 31
};

struct Bytes {
  __m128i lanes;

  static Bytes load(const void* from) { return {loadVector(from)}; }
  static Bytes all(int value) { return {_mm_set1_epi8(static_cast<char>(value))}; }
  void store(void* to) const { _mm_storeu_si128(static_cast<__m128i*>(to), lanes); }

  Bytes plus(const Bytes& other) const { return {_mm_adds_epu8(lanes, other.lanes)}; }   // saturates
  Bytes minus(const Bytes& other) const { return {_mm_subs_epu8(lanes, other.lanes)}; }  // saturates
  Words lowHalf() const { return {_mm_unpacklo_epi8(lanes, _mm_setzero_si128())}; }
  Words highHalf() const { return {_mm_unpackhi_epi8(lanes, _mm_setzero_si128())}; }
  Words evens() const { return {_mm_and_si128(lanes, _mm_set1_epi16(0x00ff))}; }
  Words odds() const { return {_mm_srli_epi16(lanes, 8)}; }
  Words pairSums() const { return evens() + odds(); }
};

inline Bytes min(const Bytes& a, const Bytes& b) {
  return {_mm_min_epu8(a.lanes, b.lanes)};
}
inline Bytes max(const Bytes& a, const Bytes& b) {
  return {_mm_max_epu8(a.lanes, b.lanes)};
}

// Signed words, clamped to 0..255.
inline Bytes narrowed(const Words& low, const Words& high) {
  return {_mm_packus_epi16(low.lanes, high.lanes)};
}

inline Bytes evensOf(const Bytes& a, const Bytes& b) {
  return narrowed(a.evens(), b.evens());
}
inline Bytes oddsOf(const Bytes& a, const Bytes& b) {
  return narrowed(a.odds(), b.odds());
}

// a0 b0 a1 b1 ... of the low halves, and of the high halves.
inline Bytes zippedLow(const Bytes& a, const Bytes& b) {
  return {_mm_unpacklo_epi8(a.lanes, b.lanes)};
}
inline Bytes zippedHigh(const Bytes& a, const Bytes& b) {
  return {_mm_unpackhi_epi8(a.lanes, b.lanes)};
}
inline Words zippedLow(const Words& a, const Words& b) {
  return {_mm_unpacklo_epi16(a.lanes, b.lanes)};
}
inline Words zippedHigh(const Words& a, const Words& b) {
  return {_mm_unpackhi_epi16(a.lanes, b.lanes)};
}

#elif defined(__ARM_NEON)

struct Words {
  uint16x8_t lanes;

  // As bytes: a load of words may assume their alignment.
  static Words load(const void* from) { return {vreinterpretq_u16_u8(vld1q_u8(static_cast<const uint8_t*>(from)))}; }
  static Words all(int value) { return {vdupq_n_u16(static_cast<uint16_t>(value))}; }
  void store(void* to) const { vst1q_u8(static_cast<uint8_t*>(to), vreinterpretq_u8_u16(lanes)); }

  Words operator+(const Words& other) const { return {vaddq_u16(lanes, other.lanes)}; }
  Words operator-(const Words& other) const { return {vsubq_u16(lanes, other.lanes)}; }
  Words operator*(const Words& other) const { return {vmulq_u16(lanes, other.lanes)}; }
  Words operator<<(int bits) const { return {vshlq_u16(lanes, vdupq_n_s16(static_cast<int16_t>(bits)))}; }
  Words operator>>(int bits) const { return {vshlq_u16(lanes, vdupq_n_s16(static_cast<int16_t>(-bits)))}; }
  Words signedShift(int bits) const {  // keeps the sign
    const int16x8_t shifted = vshlq_s16(vreinterpretq_s16_u16(lanes), vdupq_n_s16(static_cast<int16_t>(-bits)));
    return {vreinterpretq_u16_s16(shifted)};
  }
  Words upperProduct(const Words& other) const {  // bits 16 to 31
    const uint32x4_t low = vmull_u16(vget_low_u16(lanes), vget_low_u16(other.lanes));
    const uint32x4_t high = vmull_u16(vget_high_u16(lanes), vget_high_u16(other.lanes));
    return {vcombine_u16(vshrn_n_u32(low, 16), vshrn_n_u32(high, 16))};
  }
};

struct Bytes {
  uint8x16_t lanes;

  static Bytes load(const void* from) { return {vld1q_u8(static_cast<const uint8_t*>(from))}; }
  static Bytes all(int value) { return {vdupq_n_u8(static_cast<uint8_t>(value))}; }
  void store(void* to) const { vst1q_u8(static_cast<uint8_t*>(to), lanes); }

  Bytes plus(const Bytes& other) const { return {vqaddq_u8(lanes, other.lanes)}; }   // saturates
  Bytes minus(const Bytes& other) const { return {vqsubq_u8(lanes, other.lanes)}; }  // saturates
  Words lowHalf() const { return {vmovl_u8(vget_low_u8(lanes))}; }
  Words highHalf() const { return {vmovl_u8(vget_high_u8(lanes))}; }
  Words evens() const { return {vandq_u16(vreinterpretq_u16_u8(lanes), vdupq_n_u16(0x00ff))}; }
  Words odds() const { return {vshrq_n_u16(vreinterpretq_u16_u8(lanes), 8)}; }
  Words pairSums() const { return {vpaddlq_u8(lanes)}; }
};

inline Bytes min(const Bytes& a, const Bytes& b) {
  return {vminq_u8(a.lanes, b.lanes)};
}
inline Bytes max(const Bytes& a, const Bytes& b) {
  return {vmaxq_u8(a.lanes, b.lanes)};
}

// Signed words, clamped to 0..255.
inline Bytes narrowed(const Words& low, const Words& high) {
  return {vcombine_u8(vqmovun_s16(vreinterpretq_s16_u16(low.lanes)), vqmovun_s16(vreinterpretq_s16_u16(high.lanes)))};
}

inline Bytes evensOf(const Bytes& a, const Bytes& b) {
  return {vuzpq_u8(a.lanes, b.lanes).val[0]};
}
inline Bytes oddsOf(const Bytes& a, const Bytes& b) {
  return {vuzpq_u8(a.lanes, b.lanes).val[1]};
}

// a0 b0 a1 b1 ... of the low halves, and of the high halves.
inline Bytes zippedLow(const Bytes& a, const Bytes& b) {
  return {vzipq_u8(a.lanes, b.lanes).val[0]};
}
inline Bytes zippedHigh(const Bytes& a, const Bytes& b) {
  return {vzipq_u8(a.lanes, b.lanes).val[1]};
}
inline Words zippedLow(const Words& a, const Words& b) {
  return {vzipq_u16(a.lanes, b.lanes).val[0]};
}
inline Words zippedHigh(const Words& a, const Words& b) {
  return {vzipq_u16(a.lanes, b.lanes).val[1]};
}

#endif

}  // namespace noxel::kernels
