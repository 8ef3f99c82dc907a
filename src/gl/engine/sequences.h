// The pass tables: one row a pass. The engine's mode and the number of frames in the history choose the sequence of a frame.
#pragma once

#include <cstdint>
#include <span>

#include "filters/programs.h"
#include "gl/engine/clear_history.h"
#include "gl/engine/frame.h"

namespace noxel {

// What a pass reads and draws into. The images of the frame's size share four buffers: the history ring takes two of them, in
// mode 0 three.
enum class Image : uint8_t {
  kNone,
  // Uploaded.
  kLuma,
  kPackedLuma,  // four samples a texel
  kChroma,      // V in red, U in alpha
  kRgba,        // mode 4
  kToneTable,   // mode 5, as the next
  kLocalMotion,
  kSelector,    // picks a sample out of a packed texel
  // Of the frame's size.
  kNext,          // ring: this frame's place
  kPast,          // ring: the frame before, or the accumulated one
  kOldest,        // ring of three: two frames before
  kCurrent,       // the frame as RGB, for a ring of two
  kWideSmoothed,  // smoothed along edges with the wide step; where no ring is kept, as the next
  kSmoothed,      // and with the narrow one
  kMean,          // for a ring of three
  kInPlace,       // mode 4: the enhanced picture
  kOut,           // the finished picture: an image off-screen, else the window
  // Smaller.
  kHalfLuma,      // packed, half as high
  kSmoothedLuma,  // packed
  kRawMask,       // a quarter of the frame's size
  kMaskScratch,   // a quarter
  kMask,          // an eighth
  kSmallScratch,  // an eighth
  kReduced,       // three quarters
  kHalf,
  kQuarter,
  kLumaBytes,  // what is read back
  kChromaBytes,
  // Mode 5: the picture in cells of 2 x 2 pixels, one a texel. The colour of an image is its framebuffer's second texture.
  kCells,      // the frame's luma
  kDrawnPast,  // the canvas as the frame sees it
  kDrawnPastColour,
  kDifference,
  kTest,
  kBlend,
  kBlendColour,
  kOffered,  // what comes after the frame, from the caller
  kOfferedColour,
  kMerged,  // the blend with it; in an engine that keeps its blends: what is kept
  kMergedColour,
  kPicture,  // what the noise is taken out of: the merged one, or the blend where nothing is offered
  kPictureColour,
  kDenoised,
  kGuide,
  kColour,
  kSteady,  // zoomed and stabilised
  kSteadyColour,
  kCanvas,  // as large as the frame and a border; the two change places with each frame
  kCanvasColour,
  kNextCanvas,
  kNextCanvasColour,
  kCount
};

// From a texture coordinate of the picture that is drawn to one of each picture that is read.
enum class Mapping : uint8_t {
  kIdentity,
  kZoom,         // zoomWarp
  kStabilized,   // stabilizedWarp: zoomed and stabilised
  kMotion,       // motionWarp: to the accumulated picture
  kPrevious,     // previousFromCurrent: to the frame before
  kThreeFrames,  // the stabilised picture to the frame before, this one, and the one two frames before
};

struct ImageSize {
  int width = 0;
  int height = 0;
};

// What the uniforms of a pass are computed from.
struct PassContext {
  FrameSettings settings;
  Tone tone;
  const FrameNoise* noise;  // mode 5, as the next
  const ClearFrame* clear;
  ImageSize frame;
  ImageSize source;  // of the first image that the pass reads
  ImageSize target;
};

struct Uniform {
  const char* name;
  int vectors;     // of the array, 1 for a single one
  int components;  // 1 to 4
  void (*compute)(const PassContext& context, float* values);
};
inline constexpr int kMaxUniformValues = 32;

struct Pass {
  const char* name;
  ProgramId program;
  Image reads[kMaxSamplers];  // in the order of the program's samplers
  Image writes;
  Mapping mapping = Mapping::kIdentity;
  Uniform uniforms[4] = {};                               // those without a name are not there
  bool (*isDrawn)(const PassContext& context) = nullptr;  // null: always
  ProgramId fastProgram = kProgramCount;                  // of the fast quality; kProgramCount: the same
  bool overdraws = false;                                 // keeps what the image holds where it draws nothing
};

// What an engine mode draws, and what follows from it.
struct ModePlan {
  std::span<const Pass> light;   // light frames; mode 4: every picture
  std::span<const Pass> first;   // nothing is known of the past
  std::span<const Pass> second;  // the first frame whose motion from the one before is known
  std::span<const Pass> later;
  std::span<const Pass> show;  // mode 5, into a window: the finished picture
  std::span<const Pass> pack;  // off-screen: the finished picture into the bytes that are read back, luma first
  int ringLength;
  bool accumulates;       // the ring holds blends of all frames so far, not the frames
  bool lightReadsPacked;  // light frames read packed luma
  bool hasCanvas;
};

// Of modes 0 to 5; any other draws nothing.
const ModePlan& modePlan(int mode);

// historyCount: -1 light frame, 0 nothing is known of the past, n the nth frame whose motion from the one before is known.
std::span<const Pass> frameSequence(const ModePlan& plan, int historyCount);

// The frame as it came, for a view side by side: of a light frame, whose luma is packed, and of any other.
const Pass& untouchedPass(bool light);

// Required of the filters, drawn by no mode.
std::span<const Pass> sparePasses();

// Share of the current frame where nothing holds the blend back. strength: 0..100.
float ownWeight(int strength);

// Mode 5: max number of frames that the history counts for, the current one included. strength: 0..100.
float maxFrameCount(int strength);

// Width of the logistic contrast curve of mode 4. contrast: 0..100.
float contrastCurve(float contrast);

}  // namespace noxel
