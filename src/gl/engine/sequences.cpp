#include "gl/engine/sequences.h"

#include <algorithm>

namespace noxel {
namespace {

float reciprocal(int size) {
  return 1.0f / static_cast<float>(size);
}

void setPair(float* values, float x, float y) {
  values[0] = x;
  values[1] = y;
}

// Step of the mask's erosion in texels. A linear sample between two texels covers both, so a step of 1.5 spans three texels.
float erosionStep(int deghosting) {
  return deghosting < 6 ? 1.5f : 1.0f;
}

int dilations(int deghosting) {
  return deghosting < 4 ? 2 : deghosting > 6 ? 4 : 3;
}

// Corners of a square around the texel.
void setCorners(float* values, const ImageSize& image, float near, float far) {
  const float px = reciprocal(image.width);
  const float py = reciprocal(image.height);
  for (int corner = 0; corner < 4; ++corner) {
    values[2 * corner] = (corner % 2 == 0 ? near : far) * px;
    values[2 * corner + 1] = (corner < 2 ? near : far) * py;
  }
}

// The uniforms, each with its formula. c: the context, v: the values.
constexpr Uniform kTone = {"v_limits", 1, 2,
                           [](const PassContext& c, float* v) { setPair(v, c.tone.gamma, c.tone.gain); }};
constexpr Uniform kNeutral = {"v_limits", 1, 2, [](const PassContext&, float* v) { setPair(v, 1.0f, 1.0f); }};
constexpr Uniform kFrameSize = {"v_texSize", 1, 2, [](const PassContext& c, float* v) {
                                  setPair(v, static_cast<float>(c.frame.width), static_cast<float>(c.frame.height));
                                }};
constexpr Uniform kInverseSize = {"v_texSizeInv", 1, 2, [](const PassContext& c, float* v) {
                                    setPair(v, reciprocal(c.frame.width), reciprocal(c.frame.height));
                                  }};
constexpr Uniform kSelectorColumns = {
    "u_ImageWidth", 1, 1, [](const PassContext& c, float* v) { v[0] = static_cast<float>(c.frame.width) * 0.25f; }};
constexpr Uniform kColumns = {"u_ImageWidth", 1, 1,
                              [](const PassContext& c, float* v) { v[0] = static_cast<float>(c.frame.width); }};

constexpr Uniform kSharpening = {"u_SharpeningStrength", 1, 1,
                                 [](const PassContext& c, float* v) { v[0] = c.settings.sharpening; }};
constexpr Uniform kNeighbour = {"v_Size", 1, 2, [](const PassContext& c, float* v) {
                                  setPair(v, reciprocal(c.frame.width), reciprocal(c.frame.height));
                                }};
constexpr Uniform kContrast = {"v_contr", 1, 2, [](const PassContext& c, float* v) {
                                 const float width = 0.5f - 0.004f * c.settings.contrast;
                                 setPair(v, width, 2.0f * width + 1.0f);
                               }};

constexpr Uniform kGhostThreshold = {"uThreshold", 1, 1, [](const PassContext& c, float* v) {
                                       v[0] = 0.3f - 0.025f * static_cast<float>(c.settings.deghosting);
                                     }};
constexpr Uniform kMinWeight = {
    "u_MinWeight", 1, 1, [](const PassContext& c, float* v) { v[0] = ownWeight(c.settings.noiseReductionStrength); }};
constexpr Uniform kMixWeight = {
    "m_uFactor", 1, 1, [](const PassContext& c, float* v) { v[0] = ownWeight(c.settings.noiseReductionStrength); }};
constexpr Uniform kErosionAcross = {
    "u_PixelSize", 1, 2, [](const PassContext& c, float* v) {
      setPair(v, erosionStep(c.settings.deghosting) / static_cast<float>(c.source.width), 0.0f);
    }};
constexpr Uniform kErosionDown = {"u_PixelSize", 1, 2, [](const PassContext& c, float* v) {
                                    setPair(v, 0.0f,
                                            erosionStep(c.settings.deghosting) / static_cast<float>(c.source.height));
                                  }};
// 1 from a weight of 0.5 on, and down to 0.8 where the history weighs most.
constexpr Uniform kDilatedWeight = {
    "u_BlendFactor", 1, 1, [](const PassContext& c, float* v) {
      v[0] = 1.0f - 0.5f * std::clamp(0.5f - ownWeight(c.settings.noiseReductionStrength), 0.0f, 0.4f);
    }};
// The first dilation spans a texel to each side; the distance of each later one is twice the last plus a half.
constexpr Uniform kDilation1 = {"u_steps", 4, 2,
                                [](const PassContext& c, float* v) { setCorners(v, c.source, -1.5f, 0.5f); }};
constexpr Uniform kDilation2 = {"u_steps", 4, 2,
                                [](const PassContext& c, float* v) { setCorners(v, c.source, -2.5f, 2.5f); }};
constexpr Uniform kDilation3 = {"u_steps", 4, 2,
                                [](const PassContext& c, float* v) { setCorners(v, c.source, -5.5f, 5.5f); }};
constexpr Uniform kDilation4 = {"u_steps", 4, 2,
                                [](const PassContext& c, float* v) { setCorners(v, c.source, -11.5f, 11.5f); }};
constexpr Uniform kBlurAcross = {"u_PixelSize", 1, 2,
                                 [](const PassContext& c, float* v) { setPair(v, reciprocal(c.source.width), 0.0f); }};
constexpr Uniform kBlurDown = {"u_PixelSize", 1, 2,
                               [](const PassContext& c, float* v) { setPair(v, 0.0f, reciprocal(c.source.height)); }};

// The weight falls to zero near a difference of 1 / factor. Neighbours are a texel, four pixels, apart across, and four rows.
constexpr Uniform kRangeFactor = {"uFactor", 1, 1, [](const PassContext& c, float* v) {
                                    v[0] = 15.0f - 0.08f * static_cast<float>(c.settings.noiseReductionStrength);
                                  }};
constexpr Uniform kRangePixel = {"uPixelSize", 1, 2, [](const PassContext& c, float* v) {
                                   setPair(v, reciprocal(c.source.width), 4.0f / static_cast<float>(c.source.height));
                                 }};
constexpr Uniform kRangeGamma = {"uGamma", 1, 1, [](const PassContext&, float* v) { v[0] = 1.0f; }};
constexpr Uniform kRangeBlend = {
    "uBlend", 1, 1, [](const PassContext& c, float* v) {
      const int strength = c.settings.noiseReductionStrength;
      v[0] = strength == 0 ? 0.0f : std::min(0.01f + 0.0089f * static_cast<float>(strength), 1.0f);
    }};

constexpr Uniform kEdgePixel = {"u_PixelSize", 1, 2, [](const PassContext& c, float* v) {
                                  setPair(v, reciprocal(c.frame.width), reciprocal(c.frame.height));
                                }};
constexpr Uniform kWideStep = {"u_step", 1, 1, [](const PassContext&, float* v) { v[0] = 3.0f; }};
constexpr Uniform kNarrowStep = {"u_step", 1, 1, [](const PassContext&, float* v) { v[0] = 1.0f; }};
constexpr Uniform kWholeBlend = {"u_blend", 1, 1, [](const PassContext&, float* v) { v[0] = 1.0f; }};
constexpr Uniform kStrengthBlend = {"u_blend", 1, 1, [](const PassContext& c, float* v) {
                                      v[0] = static_cast<float>(c.settings.noiseReductionStrength) * 0.01f;
                                    }};

constexpr Uniform kBoxSpread = {
    "u_pixelsize", 1, 2, [](const PassContext& c, float* v) {
      const float spread = (0.25f + 0.0025f * c.settings.sharpening) * std::max(c.settings.totalzoom, 1.0f);
      setPair(v, spread / static_cast<float>(c.frame.width), spread / static_cast<float>(c.frame.height));
    }};
constexpr Uniform kSourceTexel = {"u_pixelsize", 1, 2, [](const PassContext& c, float* v) {
                                    setPair(v, reciprocal(c.source.width), reciprocal(c.source.height));
                                  }};
constexpr Uniform kDetailStrength = {
    "u_strength", 1, 1, [](const PassContext& c, float* v) { v[0] = 0.1f + 0.05f * c.settings.sharpening; }};
constexpr Uniform kContrastCurve = {"u_contr", 1, 1,
                                    [](const PassContext& c, float* v) { v[0] = contrastCurve(c.settings.contrast); }};

// A texel of the target stands for four bytes, and so for four pixels of the picture in both planes.
constexpr Uniform kPackedPixel = {"uPixelSize", 1, 2, [](const PassContext& c, float* v) {
                                    setPair(v, 0.25f / static_cast<float>(c.target.width), reciprocal(c.target.height));
                                  }};
constexpr Uniform kClampedGamma = {"u_Gamma", 1, 1,
                                   [](const PassContext& c, float* v) { v[0] = std::clamp(c.tone.gamma, 0.8f, 1.2f); }};

// Mode 5.
constexpr Uniform kCanvasFromFrame = {
    "u_CanvasFromFrame", 2, 3, [](const PassContext& c, float* v) { std::copy_n(c.clear->canvasFromFrame, 6, v); }};
constexpr Uniform kFrameFromCanvas = {
    "u_FrameFromCanvas", 2, 3, [](const PassContext& c, float* v) { std::copy_n(c.clear->frameFromCanvas, 6, v); }};
constexpr Uniform kFrameFromPicture = {
    "u_FrameFromPicture", 2, 3, [](const PassContext& c, float* v) { std::copy_n(c.clear->frameFromPicture, 6, v); }};
constexpr Uniform kShownSize = {"u_FrameSize", 1, 2, [](const PassContext& c, float* v) {
                                  setPair(v, static_cast<float>(c.frame.width), static_cast<float>(c.frame.height));
                                }};
constexpr Uniform kLocalBlock = {"u_LocalBlock", 1, 1,
                                 [](const PassContext& c, float* v) { v[0] = c.clear->localBlock; }};
constexpr Uniform kScroll = {
    "u_Scroll", 1, 2, [](const PassContext& c, float* v) { setPair(v, c.clear->scroll[0], c.clear->scroll[1]); }};
constexpr Uniform kBorder = {"u_Border", 1, 2,
                             [](const PassContext&, float* v) { setPair(v, kCanvasBorder / 2, kCanvasBorder / 2); }};
constexpr Uniform kLumaNoise = {
    "u_LumaNoise", 8, 4, [](const PassContext& c, float* v) { std::copy_n(c.noise->luma, FrameNoise::kEntries, v); }};
constexpr Uniform kBlueNoise = {
    "u_BlueNoise", 8, 4, [](const PassContext& c, float* v) { std::copy_n(c.noise->blue, FrameNoise::kEntries, v); }};
constexpr Uniform kRedNoise = {
    "u_RedNoise", 8, 4, [](const PassContext& c, float* v) { std::copy_n(c.noise->red, FrameNoise::kEntries, v); }};
constexpr Uniform kTestScale = {"u_Scale", 1, 2, [](const PassContext& c, float* v) {
                                  c.settings.quality == 0 ? setPair(v, 0.29f, 0.55f) : setPair(v, 0.34f, 0.42f);
                                }};
constexpr Uniform kLimits = {"u_Limits", 1, 2, [](const PassContext& c, float* v) {
                               setPair(v, maxFrameCount(c.settings.noiseReductionStrength),
                                       c.clear->hasPast ? 1.0f : 0.0f);
                             }};
constexpr Uniform kNoiseStrength = {"u_Strength", 1, 1, [](const PassContext& c, float* v) {
                                      v[0] = static_cast<float>(c.settings.noiseReductionStrength) / 50.0f;
                                    }};

// When a pass is drawn.
bool hasPast(const PassContext& c) {
  return c.clear->hasPast;
}
bool anchors(const PassContext& c) {
  return c.clear->anchors && !c.clear->keepsCanvas;
}
bool keeps(const PassContext& c) {
  return c.clear->keeps;
}
bool finishes(const PassContext& c) {
  return !keeps(c);
}
constexpr int kBest = 2;
bool coloursNear(const PassContext& c) {
  return finishes(c) && c.settings.quality != kBest;
}
bool coloursWide(const PassContext& c) {
  return finishes(c) && c.settings.quality == kBest;
}
bool merges(const PassContext& c) {
  return c.clear->merges;
}
bool isSteadied(const PassContext& c) {
  if (keeps(c)) return false;
  const float(&m)[6] = c.clear->frameFromPicture;
  return m[0] != 1.0f || m[1] != 0.0f || m[2] != 0.0f || m[3] != 0.0f || m[4] != 1.0f || m[5] != 0.0f;
}
bool standsStill(const PassContext& c) {
  return !keeps(c) && !isSteadied(c);
}
bool accumulatesFrame(const PassContext& c) {
  return !c.clear->anchors && !c.clear->keepsCanvas;
}
bool followsLocalMotion(const PassContext& c) {
  return accumulatesFrame(c) && c.clear->movesLocally;
}
bool dilatesThrice(const PassContext& c) {
  return dilations(c.settings.deghosting) >= 3;
}
bool dilatesFourTimes(const PassContext& c) {
  return dilations(c.settings.deghosting) == 4;
}
bool endsInScratch(const PassContext& c) {
  return dilations(c.settings.deghosting) % 2 == 1;
}
bool endsInRawMask(const PassContext& c) {
  return !endsInScratch(c);
}
bool hasContrast(const PassContext& c) {
  return c.settings.contrast > 0.0f;
}
bool hasNoContrast(const PassContext& c) {
  return !hasContrast(c);
}
bool isRgba(const PassContext& c) {
  return c.settings.imageFormat == 1;
}
bool isGba(const PassContext& c) {
  return !isRgba(c);
}
bool isRgbaWithContrast(const PassContext& c) {
  return isRgba(c) && hasContrast(c);
}
bool isRgbaWithoutContrast(const PassContext& c) {
  return isRgba(c) && hasNoContrast(c);
}
bool isGbaWithContrast(const PassContext& c) {
  return isGba(c) && hasContrast(c);
}
bool isGbaWithoutContrast(const PassContext& c) {
  return isGba(c) && hasNoContrast(c);
}
bool flipsChroma(const PassContext& c) {
  return c.settings.flipChroma != 0;
}
bool keepsChroma(const PassContext& c) {
  return !flipsChroma(c);
}

using enum Image;
using enum Mapping;

// Modes 1 and 3: a light frame is denoised by itself, the others are blended with all that came before.
constexpr Pass kSpatial[] = {
    {"smooth luma", kr_bl1, {kPackedLuma}, kHalfLuma, kIdentity, {kRangePixel, kRangeFactor}},
    {"refine luma",
     kr_bl2,
     {kHalfLuma, kPackedLuma},
     kSmoothedLuma,
     kIdentity,
     {kRangePixel, kRangeFactor, kRangeGamma, kRangeBlend}},
    {"light frame to RGB", kr_w18, {kSmoothedLuma, kChroma, kSelector}, kOut, kIdentity, {kSelectorColumns, kTone}},
};
constexpr Pass kHistoryStart[] = {
    {"frame to RGB", kr_w8, {kLuma, kChroma}, kNext, kStabilized, {kFrameSize, kInverseSize}},
    {"tone", kr_w14, {kNext}, kOut, kIdentity, {kTone}},
};
constexpr Pass kTemporal[] = {
    {"frame to RGB", kr_w8, {kLuma, kChroma}, kCurrent, kStabilized, {kFrameSize, kInverseSize}},
    {"ghost mask", kr_w20, {kPast, kCurrent}, kRawMask, kMotion, {kGhostThreshold}},
    {"erode mask across", kr_w22, {kRawMask}, kMaskScratch, kIdentity, {kErosionAcross, kMinWeight}},
    {"erode mask down", kr_w22, {kMaskScratch}, kRawMask, kIdentity, {kErosionDown, kMinWeight}},
    {"dilate mask 1", kr_w23, {kRawMask}, kMaskScratch, kIdentity, {kDilation1, kMinWeight, kDilatedWeight}},
    {"dilate mask 2", kr_w23, {kMaskScratch}, kRawMask, kIdentity, {kDilation2, kMinWeight, kDilatedWeight}},
    {"dilate mask 3",
     kr_w23,
     {kRawMask},
     kMaskScratch,
     kIdentity,
     {kDilation3, kMinWeight, kDilatedWeight},
     dilatesThrice},
    {"dilate mask 4",
     kr_w23,
     {kMaskScratch},
     kRawMask,
     kIdentity,
     {kDilation4, kMinWeight, kDilatedWeight},
     dilatesFourTimes},
    {"halve mask", kr_w1, {kRawMask}, kMask, kIdentity, {}, endsInRawMask},
    {"halve mask", kr_w1, {kMaskScratch}, kMask, kIdentity, {}, endsInScratch},
    {"blur mask across", kr_w24, {kMask}, kSmallScratch, kIdentity, {kBlurAcross}},
    {"blur mask down", kr_w24, {kSmallScratch}, kMask, kIdentity, {kBlurDown}},
    {"blend", kr_w21, {kPast, kCurrent, kMask}, kNext, kMotion},
    {"tone", kr_w14, {kNext}, kOut, kIdentity, {kTone}},
};

// Mode 2: stabilised and sharpened, no history.
constexpr Pass kStabilizedOnly[] = {
    {"frame to RGB", kr_w8, {kLuma, kChroma}, kCurrent, kStabilized, {kFrameSize, kInverseSize}},
    {"sharpen", kr_w11, {kCurrent}, kOut, kIdentity, {kSharpening, kNeighbour, kContrast}, hasContrast},
    {"sharpen", kr_w12, {kCurrent}, kOut, kIdentity, {kSharpening, kNeighbour}, hasNoContrast},
};

// Mode 0: a light frame is smoothed along its edges; of the others the last three are averaged. The ring holds frames as
// they came, so that each is resampled once, not once more with every blend. The second frame of a sequence is blended on its
// own grid, as kr_w10 reads the new picture unwarped, and stabilised with the sharpening.
constexpr Pass kLightFrame[] = {
    {"light frame to RGB",
     kr_w18,
     {kPackedLuma, kChroma, kSelector},
     kCurrent,
     kIdentity,
     {kSelectorColumns, kNeutral}},
    {"smooth wide", kr_w19, {kCurrent, kCurrent}, kWideSmoothed, kIdentity, {kEdgePixel, kWideStep, kWholeBlend}},
    {"smooth narrow",
     kr_w19,
     {kWideSmoothed, kCurrent},
     kSmoothed,
     kIdentity,
     {kEdgePixel, kNarrowStep, kStrengthBlend}},
    {"sharpen", kr_w11, {kSmoothed}, kOut, kZoom, {kSharpening, kNeighbour, kContrast}, hasContrast},
    {"sharpen", kr_w12, {kSmoothed}, kOut, kZoom, {kSharpening, kNeighbour}, hasNoContrast},
};
constexpr Pass kFirstOfThree[] = {
    {"frame to RGB", kr_w8, {kLuma, kChroma}, kNext, kIdentity, {kFrameSize, kInverseSize}},
    {"stabilise", kr_w14, {kNext}, kMean, kStabilized, {kNeutral}},
    {"sharpen", kr_w11, {kMean}, kOut, kIdentity, {kSharpening, kNeighbour, kContrast}, hasContrast},
    {"sharpen", kr_w12, {kMean}, kOut, kIdentity, {kSharpening, kNeighbour}, hasNoContrast},
};
constexpr Pass kSecondOfThree[] = {
    {"frame to RGB", kr_w8, {kLuma, kChroma}, kNext, kIdentity, {kFrameSize, kInverseSize}},
    {"blend two", kr_w10, {kPast, kNext}, kMean, kPrevious},
    {"sharpen", kr_w11, {kMean}, kOut, kStabilized, {kSharpening, kNeighbour, kContrast}, hasContrast},
    {"sharpen", kr_w12, {kMean}, kOut, kStabilized, {kSharpening, kNeighbour}, hasNoContrast},
};
constexpr Pass kMeanOfThree[] = {
    {"frame to RGB", kr_w8, {kLuma, kChroma}, kNext, kIdentity, {kFrameSize, kInverseSize}},
    {"mean of three", kr_w9, {kPast, kNext, kOldest}, kMean, kThreeFrames},
    {"sharpen", kr_w11, {kMean}, kOut, kIdentity, {kSharpening, kNeighbour, kContrast}, hasContrast},
    {"sharpen", kr_w12, {kMean}, kOut, kIdentity, {kSharpening, kNeighbour}, hasNoContrast},
};

// Mode 4: the picture is smoothed at a quarter of its size, and what that took away is added. The programs differ by where
// the colours are in a texel, r, g, b or g, b, a.
constexpr Pass kDetail[] = {
    {"reduce", kr_w1, {kRgba}, kReduced, kIdentity, {}, isRgba},
    {"reduce", kr_w2, {kRgba}, kReduced, kIdentity, {}, isGba},
    {"halve", kr_w1, {kReduced}, kHalf},
    {"smooth", kr_w3, {kHalf}, kQuarter, kIdentity, {kBoxSpread}},
    {"detail", kr_w5, {kRgba, kQuarter}, kInPlace, kIdentity, {kDetailStrength, kContrastCurve}, isRgbaWithContrast},
    {"detail", kr_w4, {kRgba, kQuarter}, kInPlace, kIdentity, {kDetailStrength}, isRgbaWithoutContrast},
    {"detail", kr_w7, {kRgba, kQuarter}, kInPlace, kIdentity, {kDetailStrength, kContrastCurve}, isGbaWithContrast},
    {"detail", kr_w6, {kRgba, kQuarter}, kInPlace, kIdentity, {kDetailStrength}, isGbaWithoutContrast},
};

// Mode 5.
constexpr Pass kClear[] = {
    {"cells", clear_split, {kLuma}, kCells},
    {"past",
     clear_history,
     {kCanvas, kCanvasColour, kLocalMotion},
     kDrawnPast,
     kIdentity,
     {kCanvasFromFrame, kLocalBlock},
     hasPast,
     clear_history_fast},
    {"difference",
     clear_difference,
     {kCells, kDrawnPast, kChroma, kDrawnPastColour},
     kDifference,
     kIdentity,
     {kLumaNoise, kBlueNoise, kRedNoise},
     hasPast},
    {"test", clear_test, {kDifference}, kTest, kIdentity, {kTestScale}, hasPast, clear_test_fast},
    {"blend",
     clear_blend,
     {kCells, kChroma, kDrawnPast, kDrawnPastColour, kTest},
     kBlend,
     kIdentity,
     {kLimits},
     nullptr,
     clear_blend_fast},
    {"accumulate",
     clear_accumulate,
     {kCanvas, kCanvasColour, kCells, kChroma, kBlendColour},
     kNextCanvas,
     kIdentity,
     {kFrameFromCanvas, kScroll},
     accumulatesFrame,
     clear_accumulate_fast},
    {"follow",
     clear_follow,
     {kBlend, kBlendColour, kLocalMotion},
     kNextCanvas,
     kIdentity,
     {kFrameFromCanvas, kLocalBlock},
     followsLocalMotion,
     clear_follow_fast,
     true},
    {"anchor", clear_anchor, {kBlend, kBlendColour}, kNextCanvas, kIdentity, {kBorder}, anchors},
    {"keep", clear_keep, {kDrawnPast, kDrawnPastColour, kBlendColour}, kMerged, kIdentity, {}, keeps},
    {"merge", clear_merge, {kBlend, kBlendColour, kOffered, kOfferedColour}, kMerged, kIdentity, {kLimits}, merges},
    {"patches",
     clear_patches,
     {kPicture},
     kDenoised,
     kIdentity,
     {kLumaNoise, kNoiseStrength},
     finishes,
     clear_patches_fast},
    {"guide", clear_guide, {kPictureColour, kDenoised}, kGuide, kIdentity, {}, finishes},
    {"colour",
     clear_colour,
     {kPictureColour, kGuide},
     kColour,
     kIdentity,
     {kBlueNoise, kRedNoise, kNoiseStrength},
     coloursNear,
     clear_colour_fast},
    {"colour",
     clear_colour_wide,
     {kPictureColour, kGuide},
     kColour,
     kIdentity,
     {kBlueNoise, kRedNoise, kNoiseStrength},
     coloursWide},
    {"stabilise", clear_steady, {kDenoised, kColour}, kSteady, kIdentity, {kFrameFromPicture}, isSteadied},
};
constexpr Pass kPackClear[] = {
    {"luma bytes", clear_luma_bytes, {kDenoised, kToneTable}, kLumaBytes, kIdentity, {}, standsStill},
    {"chroma bytes", clear_chroma_bytes, {kDenoised, kColour, kToneTable}, kChromaBytes, kIdentity, {}, standsStill},
    {"luma bytes", clear_luma_bytes, {kSteady, kToneTable}, kLumaBytes, kIdentity, {}, isSteadied},
    {"chroma bytes", clear_chroma_bytes, {kSteady, kSteadyColour, kToneTable}, kChromaBytes, kIdentity, {}, isSteadied},
};
constexpr Pass kShowClear[] = {
    {"show", clear_show, {kDenoised, kColour, kToneTable}, kOut, kIdentity, {kShownSize}, standsStill},
    {"show", clear_show, {kSteady, kSteadyColour, kToneTable}, kOut, kIdentity, {kShownSize}, isSteadied},
};

// Modes 1 and 3 hand the chroma back in the order that it came in; 0 and 2 may flip it.
constexpr Pass kPack[] = {
    {"pack luma", kr_r1, {kOut}, kLumaBytes, kIdentity, {kPackedPixel}},
    {"pack chroma", kr_r2, {kOut}, kChromaBytes, kIdentity, {kPackedPixel}},
};
constexpr Pass kPackFlipping[] = {
    {"pack luma", kr_r1, {kOut}, kLumaBytes, kIdentity, {kPackedPixel}},
    {"pack chroma", kr_r2, {kOut}, kChromaBytes, kIdentity, {kPackedPixel}, keepsChroma},
    {"pack chroma", kr_r3, {kOut}, kChromaBytes, kIdentity, {kPackedPixel}, flipsChroma},
};

constexpr Pass kUntouched[] = {
    {"untouched view", kr_w15, {kLuma, kChroma}, kOut, kZoom, {kNeutral}},
    {"untouched view", kr_w18, {kPackedLuma, kChroma, kSelector}, kOut, kIdentity, {kSelectorColumns, kNeutral}},
};

constexpr Pass kSpare[] = {
    {"extrapolate", kr_w13, {kPast, kCurrent}, kOut, kMotion},
    {"unwarped frame to RGB", kr_w16, {kLuma, kChroma}, kOut, kIdentity, {kTone}},
    {"packed frame to RGB", kr_w17, {kPackedLuma, kChroma}, kOut, kIdentity, {kColumns, kTone}},
    {"decay highlights", kr_w25, {kPast, kCurrent}, kOut, kMotion},
    {"blend by weight", kr_w26, {kPast, kCurrent}, kOut, kMotion, {kMixWeight}},
    {"test pattern", kr_w27, {}, kOut},
    {"blur by level across", kr_w24, {kRawMask}, kMaskScratch, kIdentity, {kErosionAcross}},
    {"blur by level down", kr_w24, {kMaskScratch}, kRawMask, kIdentity, {kErosionDown}},
    {"halve by diagonals", kr_w3, {kHalf}, kQuarter, kIdentity, {kSourceTexel}},
    {"clamped gamma", kr_convr1, {kLuma, kChroma}, kOut, kIdentity, {kClampedGamma}},
    {"packed, clamped gamma", kr_convr2, {kPackedLuma, kChroma}, kOut, kIdentity, {kColumns, kClampedGamma}},
    {"selected, clamped gamma",
     kr_convr3,
     {kPackedLuma, kChroma, kSelector},
     kOut,
     kIdentity,
     {kSelectorColumns, kClampedGamma}},
};

constexpr ModePlan kPlans[] = {
    {kLightFrame, kFirstOfThree, kSecondOfThree, kMeanOfThree, {}, kPackFlipping, 3, false, true, false},
    {kSpatial, kHistoryStart, kTemporal, kTemporal, {}, kPack, 2, true, true, false},
    {kSpatial, kStabilizedOnly, kStabilizedOnly, kStabilizedOnly, {}, kPackFlipping, 2, false, true, false},
    {kSpatial, kHistoryStart, kTemporal, kTemporal, {}, kPack, 2, true, true, false},
    {kDetail, {}, {}, {}, {}, {}, 1, false, true, false},
    {kClear, kClear, kClear, kClear, kShowClear, kPackClear, 2, false, false, true},
};
constexpr ModePlan kNoPlan = {{}, {}, {}, {}, {}, {}, 1, false, false, false};

}  // namespace

const ModePlan& modePlan(int mode) {
  return mode >= 0 && mode < static_cast<int>(std::size(kPlans)) ? kPlans[mode] : kNoPlan;
}

std::span<const Pass> frameSequence(const ModePlan& plan, int historyCount) {
  if (historyCount < 0) return plan.light;
  return historyCount == 0 ? plan.first : historyCount == 1 ? plan.second : plan.later;
}

const Pass& untouchedPass(bool light) {
  return kUntouched[light ? 1 : 0];
}

std::span<const Pass> sparePasses() {
  return kSpare;
}

float ownWeight(int strength) {
  return 0.99f - 0.0089f * static_cast<float>(strength);
}

float maxFrameCount(int strength) {
  return 1.0f + 15.0f * std::min(static_cast<float>(strength) / 50.0f, 1.0f);
}

float contrastCurve(float contrast) {
  // Every ten steps of contrast; each is about 15 % narrower than the one before.
  static constexpr float kWidths[] = {0.5f,    0.4269f, 0.3633f, 0.3092f, 0.2632f, 0.224f,
                                      0.1906f, 0.1622f, 0.1381f, 0.1175f, 0.1f};
  const float position = std::clamp(contrast, 0.0f, 100.0f) * 0.1f;
  const int index = std::min(static_cast<int>(position), 9);
  const float fraction = position - static_cast<float>(index);
  return (1.0f - fraction) * kWidths[index] + fraction * kWidths[index + 1];
}

}  // namespace noxel
