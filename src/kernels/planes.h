// Byte kernels on planes: chroma interleaving, downscale, smoothing, sharpening. Plain memory in, plain memory out; any
// thread.
//
// Every kernel has a plain form and one in SSE2 or NEON; the two agree to the bit. NOXEL_KERNELS=plain in the
// environment keeps to the plain form (kernels/row_kernels.h).
//
// No kernel allocates. Where none says otherwise, source and destination do not overlap. A pool, where one is taken,
// helps (null: nobody does); the result does not depend on it, and the caller must be the pool's only one meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel {
class WorkerPool;
}

namespace noxel::kernels {

// Rows of `width` bytes, `stride` bytes from one's begin to the next one's. What is between them is neither read nor
// written.
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

// pairs(2x, y) = first(x, y), pairs(2x + 1, y) = second(x, y): V and U of YV12 to the chroma of NV21. The pairs' width
// in bytes is twice that of the components.
void interleave(const ConstPlane& first, const ConstPlane& second, const Plane& pairs);

// The inverse.
void deinterleave(const ConstPlane& pairs, const Plane& first, const Plane& second);

// Halves width and height (truncating): each output pixel is the mean of its 2 x 2 block, rounded half up.
void downscaleByTwo(const ConstPlane& source, const Plane& destination);

// The same from the block's upper left and lower right pixel alone: half the reads.
void downscaleByTwoDiagonal(const ConstPlane& source, const Plane& destination);

// Mean of the 4 x 4 pixels at offsets first..first + 3 in both directions, (sum + 8) >> 4, edge pixels repeated.
// -3 <= first <= 0.
void boxFour(const ConstPlane& source, int first, const Plane& destination, WorkerPool* pool = nullptr);

// Two 4 x 4 boxes in place, the first over offsets -2..1, the second over -1..2: together they shift nothing. `scratch`
// holds width * height bytes.
void smoothTwice(const Plane& image, uint8_t* scratch, WorkerPool* pool = nullptr);

// Binomial weights in both directions, edge pixels repeated: 1 2 1 with (sum + 8) >> 4, or 1 4 6 4 1 with (sum + 128)
// >> 8.
enum class Gauss { kThree, kFive };
void gauss(const ConstPlane& source, Gauss taps, const Plane& destination, WorkerPool* pool = nullptr);

// Unsharp mask: p + ((sixteenths * (p - g) + 8) >> 4), held within 0..255, with g the pixel after gauss(). The shift
// rounds down. 0 <= sixteenths <= kMaxSharpening.
inline constexpr int kMaxSharpening = 128;  // 255 times this still fits 16 bits with their sign
void sharpen(const ConstPlane& source, Gauss taps, int sixteenths, const Plane& destination,
             WorkerPool* pool = nullptr);

// Brings each sample of `changed` to within `limit` (0..255) of what it was in `original`. The planes have one size.
void limitChange(const ConstPlane& original, int limit, const Plane& changed);

// Chroma noise: each component of interleaved pairs (width / 2 of them a row) is replaced by the mean over 2 * radius +
// 1 neighbours, horizontally `iterations` times, then vertically `iterations` times, edge pairs repeated, means rounded
// half up. `scratch` holds width / 2 * height bytes.
void smoothChroma(const Plane& pairs, int radius, int iterations, uint8_t* scratch, WorkerPool* pool = nullptr);

}  // namespace noxel::kernels
