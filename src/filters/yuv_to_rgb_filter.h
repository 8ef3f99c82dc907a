// Planes -> RGB with a clamped tone step, for three layouts of the luma texture.
//
//   kr_convr1   one sample a texel
//   kr_convr2   four samples per RGBA texel, taken apart by arithmetic
//   kr_convr3   four samples per RGBA texel, taken apart by the selector texture
#pragma once

#include "gl/runtime/gl_filter.h"
#include "gl/runtime/program.h"
#include "gl/runtime/texture.h"

namespace noxel {

// GPU thread only.
class YuvToRgbFilter : public GLFilter {
 public:
  bool packedLuma = false;   // setupPrograms sets it; the owner clears it for one sample a texel
  GLuint lumaTexture = 0;    // set before convert, as the three below
  GLuint chromaTexture = 0;  // V in red, U in alpha
  const float* transformMatrix = kIdentityMatrix;
  int imageWidth = 0;  // luma samples in a row

  bool setupPrograms(const CacheDirectory& cacheDirectory);  // true when all three linked
  bool convert(bool useSelector, float gamma);               // gamma is limited to 0.8..1.2; always true
  void Release() override;

 private:
  Program* plainProgram = nullptr;  // owned, as the next two
  Program* packedProgram = nullptr;
  Program* selectorProgram = nullptr;
  Texture* selectorTexture = nullptr;  // owned
};

}  // namespace noxel
