#include "filters/bilateral_filter.h"

#include <algorithm>

#include "filters/filter_program.h"
#include "filters/shader_texts.h"

namespace noxel {

bool BilateralFilter::setupPrograms(const CacheDirectory& cacheDirectory) {
  using namespace shaders;
  smoothProgram = newProgram(kBilateralSmoothFrag, kBilateralVert, "kr_bl1", cacheDirectory);
  refineProgram = newProgram(kBilateralRefineFrag, kBilateralVert, "kr_bl2", cacheDirectory);
  return linked(smoothProgram) && linked(refineProgram);
}

bool BilateralFilter::apply(Texture* input, FrameBuffer* intermediate, FrameBuffer* output) {
  if (!linked(smoothProgram) || !linked(refineProgram)) return true;
  float pixelSize[2] = {1.0f / static_cast<float>(input->width), 4.0f / static_cast<float>(input->height)};
  smoothProgram->Use();
  smoothProgram->SetVector(pixelSize, 2, "uPixelSize");
  smoothProgram->SetTexture(0, input->GetId(), "sTexture");
  smoothProgram->SetFloat(factor, "uFactor");
  smoothProgram->SetAttribute(quad, 2, false, 0, "aPosition");
  BindWholeTarget(intermediate);
  smoothProgram->draw(4);

  pixelSize[1] = 4.0f / static_cast<float>(intermediate->GetHeight());
  const float blend = strength == 0 ? 0.0f : std::min(0.01f + 0.0089f * static_cast<float>(strength), 1.0f);
  refineProgram->Use();
  refineProgram->SetFloat(gamma, "uGamma");
  refineProgram->SetFloat(blend, "uBlend");
  refineProgram->SetTexture(0, intermediate->GetTextureId(), "sTexture");
  refineProgram->SetTexture(1, input->GetId(), "sRefTexture");
  refineProgram->SetFloat(factor, "uFactor");
  refineProgram->SetVector(pixelSize, 2, "uPixelSize");
  refineProgram->SetAttribute(quad, 2, false, 0, "aPosition");
  BindWholeTarget(output);
  refineProgram->draw(4);
  return true;
}

void BilateralFilter::Release() {
  dropProgram(smoothProgram);
  dropProgram(refineProgram);
}

}  // namespace noxel
