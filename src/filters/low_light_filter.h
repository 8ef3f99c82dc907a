// The main stage: YUV to RGB, tone, motion-compensated temporal blend with a ghost mask, sharpening and contrast.
//
// 27 programs, "kr_w1" to "kr_w27", in the slots of LowLightProgram; which of them are built depends on the engine's
// mode. A pass is drawn in three steps: fill `state`, bind the target, drawPass.
#pragma once

#include "gl/runtime/gl_filter.h"
#include "gl/runtime/program.h"
#include "gl/runtime/texture.h"

namespace noxel {

// What drawPass draws. Every other value draws PackedYuv too.
enum PassCode : int {
  kPassYuv = 0,             // kr_w15  planes -> RGB, warped, tone
  kPassPackedYuv = 1,       // kr_w18 or kr_w17  packed luma + chroma -> RGB, tone
  kPassTone = 2,            // kr_w14  RGB, warped, tone
  kPassSharpen = 3,         // kr_w11, or kr_w12 without contrast
  kPassThreeFrameMean = 4,  // kr_w9
  kPassBicubicYuv = 5,      // kr_w8   planes -> RGB, warped, luma by cubic B-spline
  kPassExtrapolate = 6,     // kr_w13
  kPassRecursiveBlend = 7,  // kr_w10
  kPassEdgeAware = 8,       // kr_w19  two passes
  kPassGhostMask = 9,       // kr_w20  accumulated against current
  kPassDeghostMix = 10,     // kr_w21  accumulated and current under the mask
  kPassMaskErode = 11,      // kr_w22  two passes
  kPassMaskDilate = 12,     // kr_w23  two to four passes
  kPassMaskBlur = 13,       // kr_w24  two passes
  kPassLinearBlend = 14,    // kr_w26
  kPassTestPattern = 15,    // kr_w27
  kPassYuvUnwarped = 16,    // kr_w16
  kPassHighlightDecay = 17  // kr_w25
};

// What the caller sets before a pass and the pass reads. Pointers are borrowed; matrices are column-major 4 x 4 and act
// on texture coordinates of the output pixel, except `transform`, which acts on clip space.
struct LowLightState {
  int viewportX = 0;  // output rectangle of a two-pass code that ends on the default framebuffer
  int viewportY = 0;
  int viewportWidth = 0;
  int viewportHeight = 0;
  FrameBuffer* targetFrameBuffer = nullptr;  // last pass of a two-pass code; null: the default framebuffer
  int maskInTarget = 0;  // out: 1 when kPassMaskDilate ended in targetFrameBuffer, 0 in the intermediate

  int deghosting = 5;
  float contrast = 30.0f;         // 0..100
  float contrastCurve = 0.3092f;  // from setContrast
  float sharpening = 2.0f;
  int noiseReduction = 65;
  float scale = 1.0f;  // used as at least 1
  float detailStrength = 0.0f;

  int passCode = 0;
  GLuint texture0 = 0;             // s_YTexture, unit 0
  GLuint texture1 = 0;             // s_CTexture, unit 1
  GLuint texture2 = 0;             // s_OTexture, unit 2
  GLuint maskTexture = 0;          // s_DGTexture, unit 2
  float pixelPair[2] = {};         // scratch; keeps its value from pass to pass, which kPassSharpen reads
  float contrastPair[2] = {};      // v_contr
  float limits[2] = {1.0f, 1.0f};  // v_limits: gamma exponent, gain
  const float* warp = kIdentityMatrix;
  const float* warpLatest = kIdentityMatrix;
  const float* warpLatestTm = kIdentityMatrix;
  const float* transform = kIdentityMatrix;
  const float* positionVertices = gSquareVertices;  // four x, y corners
  int imageWidth = 0;
  int imageHeight = 0;
  GLuint sourceTexture = 0;  // input and scratch of the two-pass codes
  FrameBuffer* intermediateFrameBuffer = nullptr;
  float maskWeight = 0.0f;  // u_MinWeight, m_uFactor
};

// Slots of the program table.
enum LowLightProgram : int {
  kCopy,
  kCopyGba,
  kDiagonalBox,
  kYuvGamma,
  kYuvGammaUnwarped,
  kBicubicYuv,
  kPackedYuv,
  kSelectorYuv,
  kGammaGain,
  kSharpenNeighbours,
  kSharpenContrast,
  kExtrapolate,
  kThreeFrameMean,
  kRecursiveBlend,
  kDetail,
  kDetailGba,
  kDetailContrast,
  kDetailContrastGba,
  kEdgeAwareBlend,
  kGhostMask,
  kDeghostMix,
  kMaskErode,
  kMaskDilateSteps,
  kMaskBlur7,
  kLinearBlend,
  kHighlightDecay,
  kTestPattern,
  kLowLightProgramCount
};

// GPU thread only.
class LowLightFilter : public GLFilter {
 public:
  bool syncMode = false;         // engine mode 4: build kr_w1 to kr_w7 only; set before setupPrograms
  bool reducedPrograms = false;  // engine mode 1: build what its sequence draws

  // Builds the programs and the selector texture. `cacheDirectory` null: nothing is cached. False when a program that
  // the build set cannot do without did not link (the log says why). Once per filter.
  bool setupPrograms(const CacheDirectory& cacheDirectory);
  void Release() override;

  // Whether every program is there that an engine can come to draw with. A pass whose program is missing is left out, and what
  // its target held is undefined: setupPrograms is content with a picture, an engine is not.
  bool drawsEverything() const;

  // Draws state.passCode into the bound target; the two-pass codes bind their own. `selectorLuma` chooses between the
  // two ways of taking a packed sample apart. Always true.
  bool drawPass(bool selectorLuma);

  // Copies source into a and blurs it there with seven taps each way, through b. a and b have one size. Ends in a.
  void smoothMask(FrameBuffer* source, FrameBuffer* a, FrameBuffer* b);

  // Draws kr_w23 `iterations` times to and fro: 2 and 4 end in a, 3 in b. pixelSize: one texel of a in texture
  // coordinates.
  void dilateMask(int iterations, Program* program, FrameBuffer* a, FrameBuffer* b, const float* pixelSize);

  // kr_w1 from source into targets[0], then kr_w3 from each target into the next.
  void downsampleChain(int levels, FrameBuffer* source, FrameBuffer** targets);

  // Engine mode 4: smooths inputTexture over targets[0..2] and returns the detail program, made current and set up, for
  // the caller to bind the output and draw. rgbaLayout: the picture is in r, g, b rather than g, b, a.
  Program* runSyncChain(GLuint inputTexture, FrameBuffer** targets, bool skipFirstCopy, bool rgbaLayout);

  void setContrast(float value);  // clamped to 0..100

  LowLightState state;
  Program* programs[kLowLightProgramCount] = {};  // owned; null when the build set leaves it out
  Texture* selectorTexture = nullptr;             // owned; texel k is 255 in channel k alone

 private:
  void drawSinglePass(bool selectorLuma);
  LowLightProgram singlePassProgram(bool selectorLuma) const;
  void drawSeparableMask(bool erode);
  void drawMaskDilation();
  void drawEdgeAware();
  void bindLastTarget();  // of a two-pass code
};

}  // namespace noxel
