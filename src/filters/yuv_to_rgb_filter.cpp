#include "filters/yuv_to_rgb_filter.h"

#include <algorithm>

#include "filters/filter_program.h"
#include "filters/selector_texture.h"
#include "filters/shader_texts.h"

namespace noxel {

bool YuvToRgbFilter::setupPrograms(const CacheDirectory& cacheDirectory) {
  using namespace shaders;
  plainProgram = newProgram(kYuvToRgbFrag, kVsBaseVert, "kr_convr1", cacheDirectory);
  packedProgram = newProgram(kYuvToRgbPackedFrag, kVsImageWidthScalarVert, "kr_convr2", cacheDirectory);
  selectorProgram = newProgram(kYuvToRgbSelectorFrag, kVsImageWidthVectorVert, "kr_convr3", cacheDirectory);
  selectorTexture = createSelectorTexture();
  packedLuma = true;
  return linked(plainProgram) && linked(packedProgram) && linked(selectorProgram) && selectorTexture != nullptr;
}

bool YuvToRgbFilter::convert(bool useSelector, float gamma) {
  const bool selects = packedLuma && useSelector;
  Program* program = selects ? selectorProgram : packedLuma ? packedProgram : plainProgram;
  if (!linked(program) || (selects && selectorTexture == nullptr)) return true;
  program->Use();
  if (selects) program->SetTexture(2, selectorTexture->GetId(), "s_LTexture");
  if (packedLuma) program->SetFloat(static_cast<float>(imageWidth) * (selects ? 0.25f : 1.0f), "u_ImageWidth");
  program->SetFloat(std::clamp(gamma, 0.8f, 1.2f), "u_Gamma");
  program->SetTexture(0, lumaTexture, "s_YTexture");
  program->SetTexture(1, chromaTexture, "s_CTexture");
  program->SetMatrix(transformMatrix, 16, false, "m_Transform");
  program->SetAttribute(quad, 2, false, 0, "a_Position");
  program->draw(4);
  return true;
}

void YuvToRgbFilter::Release() {
  dropProgram(plainProgram);
  dropProgram(packedProgram);
  dropProgram(selectorProgram);
  if (selectorTexture != nullptr) selectorTexture->Release();
  delete selectorTexture;
  selectorTexture = nullptr;
}

}  // namespace noxel
