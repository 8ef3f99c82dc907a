#include <algorithm>

#include "filters/filter_program.h"
#include "filters/low_light_filter.h"

namespace noxel {
namespace {

void setPair(float (&pair)[2], float x, float y) {
  pair[0] = x;
  pair[1] = y;
}

// One texel of an image in texture coordinates.
void setTexelSize(float (&pair)[2], int width, int height) {
  setPair(pair, 1.0f / static_cast<float>(width), 1.0f / static_cast<float>(height));
}

void drawFullScreen(Program* program) {
  program->SetAttribute(gSquareVertices, 2, false, 0, "a_Position");
  program->draw(4);
}

}  // namespace

bool LowLightFilter::drawPass(bool selectorLuma) {
  switch (state.passCode) {
    case kPassEdgeAware:
      drawEdgeAware();
      break;
    case kPassMaskErode:
      drawSeparableMask(true);
      break;
    case kPassMaskDilate:
      drawMaskDilation();
      break;
    case kPassMaskBlur:
      drawSeparableMask(false);
      break;
    default:
      drawSinglePass(selectorLuma);
      break;
  }
  state.positionVertices = gSquareVertices;  // another quad is for one pass
  return true;
}

LowLightProgram LowLightFilter::singlePassProgram(bool selectorLuma) const {
  switch (state.passCode) {
    case kPassYuv:
      return kYuvGamma;
    case kPassTone:
      return kGammaGain;
    case kPassSharpen:
      return state.contrast > 0.0f ? kSharpenContrast : kSharpenNeighbours;
    case kPassThreeFrameMean:
      return kThreeFrameMean;
    case kPassBicubicYuv:
      return kBicubicYuv;
    case kPassExtrapolate:
      return kExtrapolate;
    case kPassRecursiveBlend:
      return kRecursiveBlend;
    case kPassGhostMask:
      return kGhostMask;
    case kPassDeghostMix:
      return kDeghostMix;
    case kPassLinearBlend:
      return kLinearBlend;
    case kPassTestPattern:
      return kTestPattern;
    case kPassYuvUnwarped:
      return kYuvGammaUnwarped;
    case kPassHighlightDecay:
      return kHighlightDecay;
    default:
      return selectorLuma && linked(programs[kSelectorYuv]) && selectorTexture != nullptr ? kSelectorYuv : kPackedYuv;
  }
}

// Sets what the program has and nothing else: a name GL does not know is a log line a frame.
void LowLightFilter::drawSinglePass(bool selectorLuma) {
  const LowLightProgram slot = singlePassProgram(selectorLuma);
  Program* program = programs[slot];
  if (!linked(program)) return;
  program->Use();
  switch (slot) {
    case kYuvGamma:
    case kYuvGammaUnwarped:
      program->SetVector(state.limits, 2, "v_limits");
      setTexelSize(state.pixelPair, state.imageWidth, state.imageHeight);
      break;
    case kBicubicYuv: {
      const float size[2] = {static_cast<float>(state.imageWidth), static_cast<float>(state.imageHeight)};
      const float inverse[2] = {1.0f / size[0], 1.0f / size[1]};
      program->SetVector(size, 2, "v_texSize");
      program->SetVector(inverse, 2, "v_texSizeInv");
      break;
    }
    case kGammaGain:
      program->SetVector(state.limits, 2, "v_limits");
      break;
    case kSharpenContrast: {
      const float width = 0.5f - 0.004f * state.contrast;
      setPair(state.contrastPair, width, 2.0f * width + 1.0f);
      program->SetVector(state.contrastPair, 2, "v_contr");
      [[fallthrough]];
    }
    case kSharpenNeighbours:
      program->SetFloat(state.sharpening, "u_SharpeningStrength");
      program->SetVector(state.pixelPair, 2, "v_Size");
      break;
    case kThreeFrameMean:
      program->SetMatrix(state.warpLatest, 16, false, "m_WarpLatest");
      program->SetMatrix(state.warpLatestTm, 16, false, "m_WarpLatestTm");
      program->SetTexture(2, state.texture2, "s_OTexture");
      break;
    case kGhostMask:
      program->SetFloat(0.3f - 0.025f * static_cast<float>(state.deghosting), "uThreshold");
      break;
    case kDeghostMix:
      program->SetTexture(2, state.maskTexture, "s_DGTexture");
      break;
    case kLinearBlend:
      program->SetFloat(state.maskWeight, "m_uFactor");
      break;
    case kSelectorYuv:
      program->SetTexture(2, selectorTexture->GetId(), "s_LTexture");
      program->SetFloat(static_cast<float>(state.imageWidth) * 0.25f, "u_ImageWidth");
      program->SetVector(state.limits, 2, "v_limits");
      break;
    case kPackedYuv:
      program->SetFloat(static_cast<float>(state.imageWidth), "u_ImageWidth");
      program->SetVector(state.limits, 2, "v_limits");
      break;
    default:
      break;
  }

  const bool samplesPicture = slot != kTestPattern;
  const bool oneTexture = slot == kGammaGain || slot == kSharpenContrast || slot == kSharpenNeighbours;
  const bool unwarped = slot == kYuvGammaUnwarped || slot == kSelectorYuv || slot == kPackedYuv;
  if (samplesPicture) {
    if (!oneTexture) program->SetTexture(1, state.texture1, "s_CTexture");
    if (!unwarped) program->SetMatrix(state.warp, 16, false, "m_Warp");
    program->SetTexture(0, state.texture0, "s_YTexture");
    program->SetMatrix(state.transform, 16, false, "m_Transform");
  }
  program->SetAttribute(state.positionVertices, 2, false, 0, "a_Position");
  program->draw(4);
}

void LowLightFilter::bindLastTarget() {
  if (state.targetFrameBuffer != nullptr) {
    BindWholeTarget(state.targetFrameBuffer);
  } else {
    BindTarget(state.viewportX, state.viewportY, state.viewportWidth, state.viewportHeight);
  }
}

void LowLightFilter::drawEdgeAware() {
  Program* program = programs[kEdgeAwareBlend];
  if (!linked(program)) return;
  setTexelSize(state.pixelPair, state.viewportWidth, state.viewportHeight);
  program->Use();
  program->SetVector(state.pixelPair, 2, "u_PixelSize");
  program->SetMatrix(state.transform, 16, false, "m_Transform");
  program->SetMatrix(state.warp, 16, false, "m_Warp");

  BindWholeTarget(state.intermediateFrameBuffer);
  program->SetTexture(0, state.sourceTexture, "s_texture");
  program->SetTexture(1, state.sourceTexture, "s_textureOrig");
  program->SetFloat(3.0f, "u_step");
  program->SetFloat(1.0f, "u_blend");
  drawFullScreen(program);

  bindLastTarget();
  program->SetTexture(0, state.intermediateFrameBuffer->GetTextureId(), "s_texture");
  program->SetFloat(1.0f, "u_step");
  program->SetFloat(static_cast<float>(state.noiseReduction) * 0.01f, "u_blend");
  drawFullScreen(program);
}

void LowLightFilter::drawSeparableMask(bool erode) {
  Program* program = programs[erode ? kMaskErode : kMaskBlur7];
  if (!linked(program)) return;
  // Between two texels a linear sample takes both, so that a step of 1.5 looks three texels far.
  const float step = state.deghosting < 6 ? 1.5f : 1.0f;
  program->Use();
  if (erode) program->SetFloat(state.maskWeight, "u_MinWeight");

  setPair(state.pixelPair, step / static_cast<float>(state.imageWidth), 0.0f);
  BindWholeTarget(state.intermediateFrameBuffer);
  program->SetTexture(0, state.sourceTexture, "s_Texture");
  program->SetVector(state.pixelPair, 2, "u_PixelSize");
  drawFullScreen(program);

  bindLastTarget();
  setPair(state.pixelPair, 0.0f, step / static_cast<float>(state.imageHeight));
  program->SetTexture(0, state.intermediateFrameBuffer->GetTextureId(), "s_Texture");
  program->SetVector(state.pixelPair, 2, "u_PixelSize");
  drawFullScreen(program);
}

void LowLightFilter::drawMaskDilation() {
  setTexelSize(state.pixelPair, state.imageWidth, state.imageHeight);
  const int iterations = state.deghosting < 4 ? 2 : state.deghosting > 6 ? 4 : 3;
  state.maskInTarget = iterations == 3 ? 0 : 1;
  Program* program = programs[kMaskDilateSteps];
  if (!linked(program)) return;
  // 1 from a weight of 0.5 on, and down to 0.8 where the history weighs most.
  const float shortfall = std::clamp(0.5f - state.maskWeight, 0.0f, 0.4f);
  program->Use();
  program->SetFloat(state.maskWeight, "u_MinWeight");
  program->SetFloat(1.0f - 0.5f * shortfall, "u_BlendFactor");
  dilateMask(iterations, program, state.targetFrameBuffer, state.intermediateFrameBuffer, state.pixelPair);
}

void LowLightFilter::dilateMask(int iterations, Program* program, FrameBuffer* a, FrameBuffer* b,
                                const float* pixelSize) {
  if (!linked(program)) return;
  const float px = pixelSize[0];
  const float py = pixelSize[1];
  float distance = 1.0f;
  program->Use();
  for (int k = 0; k < iterations; ++k) {
    FrameBuffer* from = k % 2 == 0 ? a : b;
    FrameBuffer* to = k % 2 == 0 ? b : a;
    float steps[8] = {-1.5f * px, -1.5f * py, 0.5f * px, -1.5f * py, -1.5f * px, 0.5f * py, 0.5f * px, 0.5f * py};
    if (k > 0) {
      distance = 2.0f * distance + 0.5f;
      for (int corner = 0; corner < 4; ++corner) {
        steps[2 * corner] = corner % 2 == 0 ? -distance * px : distance * px;
        steps[2 * corner + 1] = corner < 2 ? -distance * py : distance * py;
      }
    }
    BindWholeTarget(to);
    program->SetTexture(0, from->GetTextureId(), "s_Texture");
    program->SetVector(steps, 4, 2, "u_steps");
    drawFullScreen(program);
  }
}

void LowLightFilter::smoothMask(FrameBuffer* source, FrameBuffer* a, FrameBuffer* b) {
  Program* copy = programs[kCopy];
  Program* blur = programs[kMaskBlur7];
  if (!linked(copy) || !linked(blur)) return;
  copy->Use();
  BindWholeTarget(a);
  copy->SetTexture(0, source->GetTextureId(), "s_YTexture");
  copy->SetMatrix(transform, 16, false, "m_Transform");
  drawFullScreen(copy);

  blur->Use();
  const float across[2] = {1.0f / static_cast<float>(a->GetWidth()), 0.0f};
  BindWholeTarget(b);
  blur->SetTexture(0, a->GetTextureId(), "s_Texture");
  blur->SetVector(across, 2, "u_PixelSize");
  drawFullScreen(blur);

  const float down[2] = {0.0f, 1.0f / static_cast<float>(a->GetHeight())};
  BindWholeTarget(a);
  blur->SetTexture(0, b->GetTextureId(), "s_Texture");
  blur->SetVector(down, 2, "u_PixelSize");
  drawFullScreen(blur);
}

void LowLightFilter::downsampleChain(int levels, FrameBuffer* source, FrameBuffer** targets) {
  for (int level = 0; level < levels; ++level) {
    Program* program = programs[level == 0 ? kCopy : kDiagonalBox];
    if (!linked(program)) return;
    const FrameBuffer* from = level == 0 ? source : targets[level - 1];
    state.texture0 = from->GetTextureId();
    setTexelSize(state.pixelPair, from->GetWidth(), from->GetHeight());
    program->Use();
    program->SetTexture(0, state.texture0, "s_YTexture");
    program->SetMatrix(transform, 16, false, "m_Transform");
    if (level > 0) program->SetVector(state.pixelPair, 2, "u_pixelsize");
    BindWholeTarget(targets[level]);
    drawFullScreen(program);
  }
}

Program* LowLightFilter::runSyncChain(GLuint inputTexture, FrameBuffer** targets, bool skipFirstCopy, bool rgbaLayout) {
  const bool contrasts = state.contrast > 0.0f;
  Program* first = programs[rgbaLayout ? kCopy : kCopyGba];
  Program* copy = programs[kCopy];
  Program* box = programs[kDiagonalBox];
  Program* detail = rgbaLayout ? programs[contrasts ? kDetailContrast : kDetail]
                               : programs[contrasts ? kDetailContrastGba : kDetailGba];
  if (!linked(first) || !linked(copy) || !linked(box) || !linked(detail)) return nullptr;

  GLuint smoothed = inputTexture;
  if (!skipFirstCopy) {
    first->Use();
    first->SetTexture(0, inputTexture, "s_YTexture");
    first->SetMatrix(transform, 16, false, "m_Transform");
    BindWholeTarget(targets[0]);
    drawFullScreen(first);
    smoothed = targets[0]->GetTextureId();
  }

  copy->Use();
  copy->SetTexture(0, smoothed, "s_YTexture");
  copy->SetMatrix(transform, 16, false, "m_Transform");
  BindWholeTarget(targets[1]);
  drawFullScreen(copy);

  const float spread = (0.25f + 0.0025f * state.sharpening) * std::max(state.scale, 1.0f);
  setPair(state.pixelPair, spread / static_cast<float>(state.imageWidth),
          spread / static_cast<float>(state.imageHeight));
  box->Use();
  box->SetTexture(0, targets[1]->GetTextureId(), "s_YTexture");
  box->SetMatrix(transform, 16, false, "m_Transform");
  box->SetVector(state.pixelPair, 2, "u_pixelsize");
  BindWholeTarget(targets[2]);
  drawFullScreen(box);

  detail->Use();
  detail->SetTexture(0, inputTexture, "s_YTexture");
  detail->SetTexture(1, targets[2]->GetTextureId(), "s_SmoothYTexture");
  detail->SetFloat(0.1f + 0.05f * state.detailStrength, "u_strength");
  if (contrasts) detail->SetFloat(state.contrastCurve, "u_contr");
  detail->SetMatrix(state.transform, 16, false, "m_Transform");
  detail->SetAttribute(gSquareVertices, 2, false, 0, "a_Position");
  return detail;
}

}  // namespace noxel
