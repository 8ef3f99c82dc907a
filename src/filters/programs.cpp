#include "filters/programs.h"

#include <new>

#include "filters/shader_texts.h"
#include "platform/log.h"

namespace noxel {
namespace {

using namespace shaders;

constexpr ProgramTexts kTexts[] = {
    {"kr_w1", kVsTransformVert, kFsCopyFrag, {"s_YTexture"}},
    {"kr_w2", kVsTransformVert, kFsCopyGbaFrag, {"s_YTexture"}},
    {"kr_w3", kVsTransformVert, kFsDiagonalBoxFrag, {"s_YTexture"}},
    {"kr_w4", kVsTransformVert, kFsDetailFrag, {"s_YTexture", "s_SmoothYTexture"}},
    {"kr_w5", kVsTransformVert, kFsDetailContrastFrag, {"s_YTexture", "s_SmoothYTexture"}},
    {"kr_w6", kVsTransformVert, kFsDetailGbaFrag, {"s_YTexture", "s_SmoothYTexture"}},
    {"kr_w7", kVsTransformVert, kFsDetailContrastGbaFrag, {"s_YTexture", "s_SmoothYTexture"}},
    {"kr_w8", kVsWarpAbsVert, kFsBicubicYuvToRgbFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w9", kVsThreeFrameVert, kFsThreeFrameMeanFrag, {"s_YTexture", "s_CTexture", "s_OTexture"}},
    {"kr_w10", kVsOldNewVert, kFsRecursiveBlendFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w11", kVsWarpNeighboursVert, kFsSharpenContrastFrag, {"s_YTexture"}},
    {"kr_w12", kVsWarpNeighboursVert, kFsSharpenNeighboursFrag, {"s_YTexture"}},
    {"kr_w13", kVsOldNewVert, kFsExtrapolateFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w14", kVsWarpNeighboursVert, kFsGammaGainFrag, {"s_YTexture"}},
    {"kr_w15", kVsWarpNeighboursVert, kFsYuvToRgbGammaFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w16", kVsImageWidthScalarVert, kFsYuvToRgbGammaFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w17", kVsImageWidthScalarVert, kFsPackedLumaYuvToRgbFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w18", kVsImageWidthVectorVert, kFsSelectorLumaYuvToRgbFrag, {"s_YTexture", "s_CTexture", "s_LTexture"}},
    {"kr_w19", kVsWarpDefaultVert, kFsEdgeAwareBlendFrag, {"s_texture", "s_textureOrig"}},
    {"kr_w20", kVsOldNewVert, kFsGhostMaskFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w21", kVsOldNewHighpVert, kFsDeghostMixFrag, {"s_YTexture", "s_CTexture", "s_DGTexture"}},
    {"kr_w22", kVsPlainVert, kFsMaskErodeFrag, {"s_Texture"}},
    {"kr_w23", kVsPlainVert, kFsMaskDilateStepsFrag, {"s_Texture"}},
    {"kr_w24", kVsPlainDefaultVert, kFsMaskBlur7Frag, {"s_Texture"}},
    {"kr_w25", kVsWarpVert, kFsHighlightDecayFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w26", kVsWarpVert, kFsLinearBlendFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_w27", kVsScreenVert, kFsTestPatternFrag, {}},
    {"kr_bl1", kBilateralVert, kBilateralSmoothFrag, {"sTexture"}},
    {"kr_bl2", kBilateralVert, kBilateralRefineFrag, {"sTexture", "sRefTexture"}},
    {"kr_r1", kVsBaseVert, kRgbToLumaFrag, {"s_texture"}},
    {"kr_r2", kVsBaseVert, kRgbToChromaVuFrag, {"s_texture"}},
    {"kr_r3", kVsBaseVert, kRgbToChromaUvFrag, {"s_texture"}},
    {"kr_convr1", kVsBaseVert, kYuvToRgbFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_convr2", kVsImageWidthScalarVert, kYuvToRgbPackedFrag, {"s_YTexture", "s_CTexture"}},
    {"kr_convr3", kVsImageWidthVectorVert, kYuvToRgbSelectorFrag, {"s_YTexture", "s_CTexture", "s_LTexture"}},
    {"clear_split", kClearCellVert, kClearSplitFrag, {"s_Luma"}},
    {"clear_history", kClearCellVert, kClearHistoryFrag, {"s_Canvas", "s_CanvasColour", "s_Local"}},
    {"clear_difference", kClearCellVert, kClearDifferenceFrag, {"s_Frame", "s_Past", "s_Chroma", "s_PastColour"}},
    {"clear_test", kClearCellVert, kClearTestFrag, {"s_Difference"}},
    {"clear_blend", kClearCellVert, kClearBlendFrag, {"s_Frame", "s_Chroma", "s_Past", "s_PastColour", "s_Test"}},
    {"clear_accumulate",
     kClearCellVert,
     kClearAccumulateFrag,
     {"s_Canvas", "s_CanvasColour", "s_Frame", "s_Chroma", "s_PictureColour"}},
    {"clear_follow", kClearCellVert, kClearFollowFrag, {"s_Picture", "s_PictureColour", "s_Local"}},
    {"clear_anchor", kClearCellVert, kClearAnchorFrag, {"s_Picture", "s_PictureColour"}},
    {"clear_patches", kClearCellVert, kClearPatchesFrag, {"s_Picture"}},
    {"clear_guide", kClearCellVert, kClearGuideFrag, {"s_PictureColour", "s_Denoised"}},
    {"clear_colour", kClearCellVert, kClearColourFrag, {"s_PictureColour", "s_Guide"}},
    {"clear_colour_wide", kClearCellVert, kClearColourWideFrag, {"s_PictureColour", "s_Guide"}},
    {"clear_keep", kClearCellVert, kClearKeepFrag, {"s_Past", "s_PastColour", "s_PictureColour"}},
    {"clear_merge",
     kClearCellVert,
     kClearMergeFrag,
     {"s_Picture", "s_PictureColour", "s_Offered", "s_OfferedColour"}},
    {"clear_history_fast", kClearCellVert, kClearHistoryFastFrag, {"s_Canvas", "s_CanvasColour", "s_Local"}},
    {"clear_test_fast", kClearCellVert, kClearTestFastFrag, {"s_Difference"}},
    {"clear_blend_fast",
     kClearCellVert,
     kClearBlendFastFrag,
     {"s_Frame", "s_Chroma", "s_Past", "s_PastColour", "s_Test"}},
    {"clear_accumulate_fast",
     kClearCellVert,
     kClearAccumulateFastFrag,
     {"s_Canvas", "s_CanvasColour", "s_Frame", "s_Chroma", "s_PictureColour"}},
    {"clear_follow_fast", kClearCellVert, kClearFollowFastFrag, {"s_Picture", "s_PictureColour", "s_Local"}},
    {"clear_patches_fast", kClearCellVert, kClearPatchesFastFrag, {"s_Picture"}},
    {"clear_colour_fast", kClearCellVert, kClearColourFastFrag, {"s_PictureColour", "s_Guide"}},
    {"clear_steady", kClearCellVert, kClearSteadyFrag, {"s_Luma", "s_Colour"}},
    {"clear_show", kClearShowVert, kClearShowFrag, {"s_Luma", "s_Colour", "s_Tone"}},
    {"clear_luma_bytes", kClearCellVert, kClearLumaBytesFrag, {"s_Luma", "s_Tone"}},
    {"clear_chroma_bytes", kClearCellVert, kClearChromaBytesFrag, {"s_Luma", "s_Colour", "s_Tone"}},
};
static_assert(sizeof(kTexts) / sizeof(kTexts[0]) == kProgramCount);

// kr_w2 to kr_w7 are engine mode 4's; of the others mode 1 does without those that its sequences do not draw.
bool isBuilt(ProgramId id, bool syncMode, bool reducedPrograms) {
  if (id == kr_w1) return true;
  if (id <= kr_w7) return !reducedPrograms;
  if (syncMode) return false;
  const bool drawnByModeOne =
      id == kr_w8 || (id >= kr_w14 && id <= kr_w18 && id != kr_w16) || (id >= kr_w20 && id <= kr_w24);
  return drawnByModeOne || !reducedPrograms;
}

}  // namespace

const ProgramTexts& programTexts(ProgramId id) {
  return kTexts[id];
}

Program* ProgramFilter::program(ProgramId id) {
  if (programs_ == nullptr) return nullptr;
  Program* candidate = &programs_[static_cast<size_t>(id - first_)];
  return candidate->initialized == 1 ? candidate : nullptr;
}

bool ProgramFilter::build(ProgramId id, const CacheDirectory& cacheDirectory) {
  const ProgramTexts& texts = programTexts(id);
  if (programs_ == nullptr) programs_.reset(new (std::nothrow) Program[static_cast<size_t>(last_ - first_ + 1)]);
  if (programs_ == nullptr) {
    NOXEL_LOG_ERROR("no memory for program %s", texts.name);
    return false;
  }
  const bool cached = cacheDirectory.path[0] != '\0';
  Program* program = &programs_[static_cast<size_t>(id - first_)];
  *program = Program(texts.fragment, texts.vertex, cached ? texts.name : nullptr, cacheDirectory);
  if (program->initialized != 1) NOXEL_LOG_ERROR("program %s is missing", texts.name);
  return program->initialized == 1;
}

bool ProgramFilter::buildAll(const CacheDirectory& cacheDirectory) {
  bool complete = true;
  for (int id = first_; id <= last_; ++id) complete = build(static_cast<ProgramId>(id), cacheDirectory) && complete;
  return complete;
}

bool LowLightFilter::setupPrograms(const CacheDirectory& cacheDirectory) {
  if (untouchedOnly) return build(kr_w15, cacheDirectory);
  bool complete = true;
  for (int id = kr_w1; id <= kr_w27; ++id) {
    const auto program = static_cast<ProgramId>(id);
    if (isBuilt(program, syncMode, reducedPrograms)) complete = build(program, cacheDirectory) && complete;
  }
  return complete;
}

bool ClearFilter::setupPrograms(bool intoWindow, const CacheDirectory& cacheDirectory) {
  bool complete = true;
  for (int id = clear_split; id <= clear_chroma_bytes; ++id) {
    const bool leavesGpu = id == clear_luma_bytes || id == clear_chroma_bytes;
    if (id == clear_show ? !intoWindow : leavesGpu && intoWindow) continue;
    complete = build(static_cast<ProgramId>(id), cacheDirectory) && complete;
  }
  return complete;
}

Texture createSelectorTexture() {
  static constexpr unsigned char kTexels[16] = {255, 0, 0, 0, 0, 255, 0, 0, 0, 0, 255, 0, 0, 0, 0, 255};
  return Texture::make(4, 1, GL_RGBA, GL_NEAREST, GL_REPEAT, kTexels);
}

}  // namespace noxel
