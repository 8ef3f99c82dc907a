// What is drawn for a frame: one table row a pass. Which sequence a frame takes follows from the engine's mode and from how
// many frames of history stand behind it.
#pragma once

#include <cstdint>
#include <span>

#include "filters/low_light_filter.h"

namespace noxel {

// What a step draws: a PassCode, or one of these.
enum CompositeStep : int {
  kStepSmoothLuma = 100,  // the bilateral filter over packed luma: two passes
  kStepShapeMask          // the raw ghost mask eroded, dilated and blurred
};

// What a step reads and draws into. levelImages[0] begins with a ring of two, in mode 0 of three.
enum class Image : uint8_t {
  kNone,
  kLuma,  // of the frame as it came
  kPackedLuma,
  kChroma,
  kSmoothedLuma,  // packed
  kNext,          // ring: this frame's place
  kPast,          // ring: the frame before, or the accumulated one
  kOldest,        // ring of three: two frames before
  kCurrent,       // levelImages[0][2], which ends the ring of two
  kSmoothed,      // levelImages[0][1], where no ring is kept
  kMean,          // levelImages[0][3], which only the ring of three leaves free
  kRawMask,       // quarter of the frame's size
  kMask,          // eighth
  kOut            // the finished picture, drawn through outputQuad
};

// From a texture coordinate of the picture that is drawn to one of each picture that is read.
enum class Mapping : uint8_t {
  kIdentity,
  kZoom,         // zoomWarp
  kStabilized,   // stabilizedWarp: zoomed and stabilised
  kMotion,       // motionWarp: to the accumulated picture
  kPrevious,     // previousFromCurrent: to the frame before
  kThreeFrames,  // the stabilised picture to this frame, the one before and the one before that
};

enum class Tone : uint8_t { kNeutral, kExposure };

struct Step {
  int operation;
  Image target;
  Image sources[3];
  Mapping mapping = Mapping::kIdentity;
  Tone tone = Tone::kNeutral;
};

// What an engine mode draws, and what follows from it.
struct ModePlan {
  std::span<const Step> light;   // light frames
  std::span<const Step> first;   // nothing is known of the past
  std::span<const Step> second;  // the first frame whose motion from the one before is known
  std::span<const Step> later;
  int ringLength;
  bool accumulates;  // the ring holds blends of all frames so far, not the frames
  bool flipsChroma;  // reads flipChroma; else the chroma comes back in the order that it came in
};

// Of modes 0 to 3; any other, which has no frames of planes, draws nothing.
const ModePlan& modePlan(int mode);

// historyCount: -1 light frame, 0 nothing is known of the past, n the nth frame whose motion from the one before is known.
std::span<const Step> frameSequence(const ModePlan& plan, int historyCount);

}  // namespace noxel
