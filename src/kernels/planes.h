// Byte kernels on planes: chroma interleaving, downscale, smoothing, sharpening. Any thread.
//
// Every kernel but those of packed RGB has a plain version and one in SSE2 or NEON; both give the same bits.
// NOXEL_KERNELS=plain in the environment selects the plain one (kernels/row_kernels.h).
//
// No kernel allocates. Source and destination must not overlap unless stated. `pool` may be null (single-threaded); the
// result does not depend on it, and nobody else may use the pool meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel {
class WorkerPool;
}

namespace noxel::kernels {

// Rows of `width` bytes, `stride` bytes apart. Padding is neither read nor written.
struct ConstPlane {
  const uint8_t* pixels;
  int width;
  int height;
  ptrdiff_t stride;

  const uint8_t* row(int y) const { return pixels + y * stride; }
};

struct Plane {
  uint8_t* pixels;
  int width;
  int height;
  ptrdiff_t stride;

  uint8_t* row(int y) const { return pixels + y * stride; }
  operator ConstPlane() const { return {pixels, width, height, stride}; }
};

// Planes without padding.
inline ConstPlane packed(const uint8_t* pixels, int width, int height) {
  return {pixels, width, height, width};
}
inline Plane packed(uint8_t* pixels, int width, int height) {
  return {pixels, width, height, width};
}

// pairs(2x, y) = first(x, y), pairs(2x + 1, y) = second(x, y): V and U of YV12 to the chroma of NV21. Pairs are twice
// as wide, in bytes, as the components.
void interleave(const ConstPlane& first, const ConstPlane& second, const Plane& pairs);

// The inverse.
void deinterleave(const ConstPlane& pairs, const Plane& first, const Plane& second);

// Halves width and height (truncating): each output pixel is the mean of its 2 x 2 block, rounded half up.
void downscaleByTwo(const ConstPlane& source, const Plane& destination);

// The same from the block's upper left and lower right pixel only: half the reads.
void downscaleByTwoDiagonal(const ConstPlane& source, const Plane& destination);

// Mean of the 4 x 4 pixels at offsets first..first + 3 in both directions, (sum + 8) >> 4, edge pixels repeated.
// -3 <= first <= 0.
void boxFour(const ConstPlane& source, int first, const Plane& destination, WorkerPool* pool = nullptr);

// Two 4 x 4 boxes in place, over offsets -2..1 and then -1..2, so that the shifts cancel. `scratch` holds width *
// height bytes.
void smoothTwice(const Plane& image, uint8_t* scratch, WorkerPool* pool = nullptr);

// Binomial weights in both directions, edge pixels repeated: 1 2 1 with (sum + 8) >> 4, or 1 4 6 4 1 with (sum + 128)
// >> 8.
enum class Gauss { kThree, kFive };
void gauss(const ConstPlane& source, Gauss taps, const Plane& destination, WorkerPool* pool = nullptr);

// Unsharp mask: p + ((sixteenths * (p - g) + 8) >> 4), clamped to 0..255, with g the pixel after gauss(). The shift
// rounds down. 0 <= sixteenths <= kMaxSharpening.
inline constexpr int kMaxSharpening = 128;  // 255 times this fits a signed 16-bit word
void sharpen(const ConstPlane& source, Gauss taps, int sixteenths, const Plane& destination,
             WorkerPool* pool = nullptr);

// Clamps each sample of `changed` to within `limit` (0..255) of `original`. Both planes have the same size.
void limitChange(const ConstPlane& original, int limit, const Plane& changed);

// A map of codes: t = min(max(code - low, 0), span) becomes
// min(start + t [if keeps] + ((t * 256 * factor / 65536 + bias) / 256), 255), both divisions rounded down. All of it fits 16
// bits, so that eight are done at once.
struct CodeMap {
  uint8_t low;
  uint8_t span;
  uint8_t start;
  bool keeps;
  uint16_t factor;
  uint16_t bias;

  constexpr uint8_t operator()(uint8_t code) const {
    const uint32_t above = code > low ? code - low : 0;
    const uint32_t t = above < span ? above : span;
    const uint32_t mapped = start + (keeps ? t : 0) + ((((t << 8) * factor >> 16) + bias) >> 8);
    return static_cast<uint8_t>(mapped < 255 ? mapped : 255);
  }
};

// Each code mapped; in place, too.
void mapCodes(const ConstPlane& source, const CodeMap& map, const Plane& destination);

// The bytes of each pair change places: NV12's chroma to NV21's. In place, too. Rows of an even number of bytes.
void swapPairs(const ConstPlane& source, const Plane& destination);

// Packed RGB to NV21's planes, full-range BT.601, and back. Rows of RGB are three times as wide as those of luma, in bytes;
// there are (width + 1) / 2 by (height + 1) / 2 V,U pairs. A pair lies in the middle of its 2 x 2 pixels: it is their mean, a
// last odd row or column counting twice, and pixels are interpolated between pairs, 9 : 3 : 3 : 1. Codes are rounded once,
// with shares of 16 bits, and clipped.
enum class RgbOrder { kRgb, kBgr };
void planesFromRgb(const ConstPlane& rgb, RgbOrder order, const Plane& luma, const Plane& pairs);
void rgbFromPlanes(const ConstPlane& luma, const ConstPlane& pairs, RgbOrder order, const Plane& rgb);

// Chroma denoising: replaces each component of interleaved pairs (width / 2 a row) by the mean over 2 * radius + 1
// neighbours, `iterations` times horizontally, then `iterations` times vertically. Edge pairs repeated, means rounded
// half up. `scratch` holds width / 2 * height bytes.
void smoothChroma(const Plane& pairs, int radius, int iterations, uint8_t* scratch, WorkerPool* pool = nullptr);

}  // namespace noxel::kernels
