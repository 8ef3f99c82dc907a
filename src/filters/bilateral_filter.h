// Two-pass range-weighted denoiser for packed luma (four samples per RGBA texel).
//
//   pass 1  kr_bl1   input -> intermediate           seven taps, weights by distance in value
//   pass 2  kr_bl2   intermediate, input -> output   diagonals against the untouched input, blend, gamma
//
// All arithmetic is per channel, so a texel's four samples never mix: horizontal neighbours are four pixels apart, and
// vertical taps are as far apart, four rows.
#pragma once

#include "gl/runtime/gl_filter.h"
#include "gl/runtime/program.h"
#include "gl/runtime/texture.h"

namespace noxel {

// GPU thread only.
class BilateralFilter : public GLFilter {
 public:
  float gamma = 1.0f;    // exponent of the last step, > 0
  float factor = 15.0f;  // range sensitivity: the weight falls to zero near a difference of 1 / factor
  int strength = 0;      // blend towards the filtered value: 0 keeps the input, 112 and more take it whole

  bool setupPrograms(const CacheDirectory& cacheDirectory);  // false when a program did not link (the log says why)
  bool apply(Texture* input, FrameBuffer* intermediate, FrameBuffer* output);  // always true
  void Release() override;

 private:
  Program* smoothProgram = nullptr;  // owned, as the next
  Program* refineProgram = nullptr;
};

}  // namespace noxel
