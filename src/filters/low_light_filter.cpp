#include "filters/low_light_filter.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "filters/filter_program.h"
#include "filters/selector_texture.h"
#include "filters/shader_texts.h"

namespace noxel {
namespace {

enum BuildSet {
  kAlways,
  kDetailSet,    // unless reducedPrograms
  kPictureSet,   // unless syncMode
  kTemporalSet,  // unless either
};

struct ProgramEntry {
  LowLightProgram slot;
  BuildSet set;
  const char* name;  // key of the program cache too
  const char* vertexText;
  const char* fragmentText;
};

// In the order of building.
constexpr ProgramEntry kPrograms[] = {
    {kCopy, kAlways, "kr_w1", shaders::kVsTransformVert, shaders::kFsCopyFrag},
    {kCopyGba, kDetailSet, "kr_w2", shaders::kVsTransformVert, shaders::kFsCopyGbaFrag},
    {kDiagonalBox, kDetailSet, "kr_w3", shaders::kVsTransformVert, shaders::kFsDiagonalBoxFrag},
    {kDetail, kDetailSet, "kr_w4", shaders::kVsTransformVert, shaders::kFsDetailFrag},
    {kDetailContrast, kDetailSet, "kr_w5", shaders::kVsTransformVert, shaders::kFsDetailContrastFrag},
    {kDetailGba, kDetailSet, "kr_w6", shaders::kVsTransformVert, shaders::kFsDetailGbaFrag},
    {kDetailContrastGba, kDetailSet, "kr_w7", shaders::kVsTransformVert, shaders::kFsDetailContrastGbaFrag},
    {kBicubicYuv, kPictureSet, "kr_w8", shaders::kVsWarpAbsVert, shaders::kFsBicubicYuvToRgbFrag},
    {kThreeFrameMean, kTemporalSet, "kr_w9", shaders::kVsThreeFrameVert, shaders::kFsThreeFrameMeanFrag},
    {kRecursiveBlend, kTemporalSet, "kr_w10", shaders::kVsOldNewVert, shaders::kFsRecursiveBlendFrag},
    {kSharpenContrast, kTemporalSet, "kr_w11", shaders::kVsWarpNeighboursVert, shaders::kFsSharpenContrastFrag},
    {kSharpenNeighbours, kTemporalSet, "kr_w12", shaders::kVsWarpNeighboursVert, shaders::kFsSharpenNeighboursFrag},
    {kExtrapolate, kTemporalSet, "kr_w13", shaders::kVsOldNewVert, shaders::kFsExtrapolateFrag},
    {kGammaGain, kPictureSet, "kr_w14", shaders::kVsWarpNeighboursVert, shaders::kFsGammaGainFrag},
    {kYuvGamma, kPictureSet, "kr_w15", shaders::kVsWarpNeighboursVert, shaders::kFsYuvToRgbGammaFrag},
    {kYuvGammaUnwarped, kTemporalSet, "kr_w16", shaders::kVsImageWidthScalarVert, shaders::kFsYuvToRgbGammaFrag},
    {kPackedYuv, kPictureSet, "kr_w17", shaders::kVsImageWidthScalarVert, shaders::kFsPackedLumaYuvToRgbFrag},
    {kSelectorYuv, kPictureSet, "kr_w18", shaders::kVsImageWidthVectorVert, shaders::kFsSelectorLumaYuvToRgbFrag},
    {kEdgeAwareBlend, kTemporalSet, "kr_w19", shaders::kVsWarpDefaultVert, shaders::kFsEdgeAwareBlendFrag},
    {kGhostMask, kPictureSet, "kr_w20", shaders::kVsOldNewVert, shaders::kFsGhostMaskFrag},
    {kDeghostMix, kPictureSet, "kr_w21", shaders::kVsOldNewHighpVert, shaders::kFsDeghostMixFrag},
    {kMaskErode, kPictureSet, "kr_w22", shaders::kVsPlainVert, shaders::kFsMaskErodeFrag},
    {kMaskDilateSteps, kPictureSet, "kr_w23", shaders::kVsPlainVert, shaders::kFsMaskDilateStepsFrag},
    {kMaskBlur7, kPictureSet, "kr_w24", shaders::kVsPlainDefaultVert, shaders::kFsMaskBlur7Frag},
    {kHighlightDecay, kTemporalSet, "kr_w25", shaders::kVsWarpVert, shaders::kFsHighlightDecayFrag},
    {kLinearBlend, kTemporalSet, "kr_w26", shaders::kVsWarpVert, shaders::kFsLinearBlendFrag},
    {kTestPattern, kTemporalSet, "kr_w27", shaders::kVsScreenVert, shaders::kFsTestPatternFrag},
};
static_assert(sizeof(kPrograms) / sizeof(kPrograms[0]) == kLowLightProgramCount);

// Without these there is no picture; without another the pass that needs it is left out.
constexpr LowLightProgram kNeededBySync[] = {kCopy, kDiagonalBox, kDetail, kDetailContrast};
constexpr LowLightProgram kNeededByReduced[] = {kBicubicYuv, kPackedYuv, kSelectorYuv, kYuvGamma, kGammaGain};
constexpr LowLightProgram kNeededByFull[] = {kSharpenNeighbours, kBicubicYuv, kPackedYuv,     kSelectorYuv,
                                             kYuvGamma,          kGammaGain,  kThreeFrameMean};

bool isBuilt(BuildSet set, bool syncMode, bool reducedPrograms) {
  if ((set == kDetailSet || set == kTemporalSet) && reducedPrograms) return false;
  return !((set == kPictureSet || set == kTemporalSet) && syncMode);
}

bool isDrawnByNoEngine(const ProgramEntry& entry, bool syncMode) {
  static constexpr LowLightProgram kSpare[] = {kExtrapolate, kYuvGammaUnwarped, kHighlightDecay, kLinearBlend,
                                               kTestPattern};
  if (entry.set == kDetailSet && !syncMode) return true;
  return std::find(std::begin(kSpare), std::end(kSpare), entry.slot) != std::end(kSpare);
}

template <size_t kCount>
bool allLinked(const LowLightProgram (&slots)[kCount], Program* const* programs) {
  for (const LowLightProgram slot : slots) {
    if (!linked(programs[slot])) return false;
  }
  return true;
}

}  // namespace

bool LowLightFilter::setupPrograms(const CacheDirectory& cacheDirectory) {
  for (const ProgramEntry& entry : kPrograms) {
    if (!isBuilt(entry.set, syncMode, reducedPrograms)) continue;
    programs[entry.slot] = newProgram(entry.fragmentText, entry.vertexText, entry.name, cacheDirectory);
  }
  selectorTexture = createSelectorTexture();
  state.positionVertices = gSquareVertices;
  if (syncMode) return allLinked(kNeededBySync, programs);
  return reducedPrograms ? allLinked(kNeededByReduced, programs) : allLinked(kNeededByFull, programs);
}

bool LowLightFilter::drawsEverything() const {
  for (const ProgramEntry& entry : kPrograms) {
    if (!isBuilt(entry.set, syncMode, reducedPrograms) || isDrawnByNoEngine(entry, syncMode)) continue;
    if (!linked(programs[entry.slot])) return false;
  }
  return true;
}

void LowLightFilter::Release() {
  for (Program*& program : programs) dropProgram(program);
  if (selectorTexture != nullptr) selectorTexture->Release();
  delete selectorTexture;
  selectorTexture = nullptr;
}

void LowLightFilter::setContrast(float value) {
  // Width of the logistic curve every ten steps of contrast; each is about 15 % narrower than the one before.
  static constexpr float kCurve[] = {0.5f,    0.4269f, 0.3633f, 0.3092f, 0.2632f, 0.224f,
                                     0.1906f, 0.1622f, 0.1381f, 0.1175f, 0.1f};
  if (value >= 100.0f) {
    state.contrast = 100.0f;
    state.contrastCurve = kCurve[10];
  } else if (value > 0.0f) {
    const float position = value * 0.1f;
    const int index = std::min(static_cast<int>(position), 9);  // the product may round up to 10
    const float fraction = position - static_cast<float>(index);
    state.contrast = value;
    state.contrastCurve = (1.0f - fraction) * kCurve[index] + fraction * kCurve[index + 1];
  } else {
    state.contrast = 0.0f;
    state.contrastCurve = kCurve[0];
  }
}

}  // namespace noxel
