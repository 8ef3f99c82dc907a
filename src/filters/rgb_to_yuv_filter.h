// RGB picture -> bytes of a 4:2:0 frame, four per RGBA texel.
//
//   kr_r1   four luma samples a texel; target a quarter as wide as the picture
//   kr_r2   two chroma pairs a texel, V first (NV21); target a quarter as wide, half as high
//   kr_r3   the same, U first
//
// Full-range BT.601 (ITU-R BT.601-7, 2.5): Y = .299 R + .587 G + .114 B, U = .5 + (B - Y) / 1.772, V = .5 + (R - Y)
// / 1.402.
#pragma once

#include "gl/runtime/gl_filter.h"
#include "gl/runtime/program.h"

namespace noxel {

// GPU thread only.
class RgbToYuvFilter : public GLFilter {
 public:
  GLuint sourceTexture = 0;              // the picture; set before convert
  GLenum textureTarget = GL_TEXTURE_2D;  // what it is bound as

  bool setupPrograms(const CacheDirectory& cacheDirectory);  // true when all three linked
  void convert(int plane);  // into the bound target: 0 luma, 1 chroma V first, 2 chroma U first; others draw nothing
  void Release() override;

 private:
  Program* programs[3] = {};  // owned, by plane
};

}  // namespace noxel
