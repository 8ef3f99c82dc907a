#include "filters/rgb_to_yuv_filter.h"

#include "filters/filter_program.h"
#include "filters/shader_texts.h"

namespace noxel {

bool RgbToYuvFilter::setupPrograms(const CacheDirectory& cacheDirectory) {
  using namespace shaders;
  programs[0] = newProgram(kRgbToLumaFrag, kVsBaseVert, "kr_r1", cacheDirectory);
  programs[1] = newProgram(kRgbToChromaVuFrag, kVsBaseVert, "kr_r2", cacheDirectory);
  programs[2] = newProgram(kRgbToChromaUvFrag, kVsBaseVert, "kr_r3", cacheDirectory);
  textureTarget = GL_TEXTURE_2D;
  return linked(programs[0]) && linked(programs[1]) && linked(programs[2]);
}

void RgbToYuvFilter::convert(int plane) {
  if (plane < 0 || plane > 2 || !linked(programs[plane])) return;
  Program* program = programs[plane];
  // A texel of the target stands for four bytes, and so for four pixels of the picture in both planes.
  const float pixelSize[2] = {0.25f / static_cast<float>(viewportWidth), 1.0f / static_cast<float>(viewportHeight)};
  program->Use();
  program->SetVector(pixelSize, 2, "uPixelSize");
  program->SetTexture(0, sourceTexture, textureTarget, "s_texture");
  program->SetAttribute(quad, 2, false, 0, "a_Position");
  program->SetMatrix(transform, 16, false, "m_Transform");
  program->draw(4);
}

void RgbToYuvFilter::Release() {
  for (Program*& program : programs) dropProgram(program);
}

}  // namespace noxel
