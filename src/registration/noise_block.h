// What one block of a frame says about the noise: its difference to the frame before, and by itself.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel::noise {

inline constexpr int kSide = 16;  // of a block, pixels
inline constexpr int kHalfSide = kSide / 2;
inline constexpr int kHalfArea = kSide * kHalfSide;

// Sums over half a block, kHalfSide columns of kSide rows, or over fewer rows. I: the frame, J: the one before, both in 8-bit levels; d = I - J,
// s = I + J, (gx, gy): differences of s over two pixels, four times the slope of either picture.
struct HalfSums {
  int32_t s, gx, gy, d;
  int32_t ss, sgx, sgy, gxgx, gxgy, gygy;
  int32_t sd, gxd, gyd, dd;
  int32_t step;          // squares of d less the d one pixel above
  int32_t bendX, bendY;  // products of the second differences of I and of J: texture, as noise cancels
};

struct Pixels {
  const uint8_t* at;
  ptrdiff_t stride;
};

// Reads one pixel more on each side.
template <class Lanes>
HalfSums sumHalf(Pixels current, Pixels previous, int rows = kSide);

// What is left of d when a constant, s and its gradient are taken out by least squares: a sum of squares. The constant takes
// a change of brightness out, s one of contrast, the gradient what remains of the motion. For noise that is equally strong
// and independent in both frames, s says nothing about d: only degrees of freedom are lost.
double residual(const HalfSums& sums, int rows = kSide);

// Where the block of the previous frame should have been beside where it was taken from, in pixels, from both halves
// (Lucas and Kanade). False: its texture does not say.
bool furtherMotion(const HalfSums (&halves)[2], float* dx, float* dy);

// The same of a frame alone, over 8 x 8 pixels.
struct Alone {
  float luma;
  float variance;  // without the plane through the pixels
  float fine;      // variance of white noise with the same fine detail: second differences in both directions
  bool constant;   // all second differences are 0
};
Alone readAlone(Pixels pixels);

enum class Equality { kNone, kLine, kAll };  // no line; at least one row or column; all pixels
Equality compareExactly(Pixels current, Pixels previous);

}  // namespace noxel::noise
