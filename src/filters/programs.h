// The shader programs of all filters, and the filters that own them.
//
// A filter is a set of programs that belong together. What is drawn with them, from which images into which, is a pass: a row
// of the tables in gl/engine/sequences.cpp.
#pragma once

#include <cstdint>
#include <memory>

#include "gl/runtime/gl_filter.h"
#include "gl/runtime/program.h"
#include "gl/runtime/texture.h"

namespace noxel {

// Named by the keys under which the program cache keeps them.
enum ProgramId : uint8_t {
  kr_w1,
  kr_w2,
  kr_w3,
  kr_w4,
  kr_w5,
  kr_w6,
  kr_w7,
  kr_w8,
  kr_w9,
  kr_w10,
  kr_w11,
  kr_w12,
  kr_w13,
  kr_w14,
  kr_w15,
  kr_w16,
  kr_w17,
  kr_w18,
  kr_w19,
  kr_w20,
  kr_w21,
  kr_w22,
  kr_w23,
  kr_w24,
  kr_w25,
  kr_w26,
  kr_w27,
  kr_bl1,
  kr_bl2,
  kr_r1,
  kr_r2,
  kr_r3,
  kr_convr1,
  kr_convr2,
  kr_convr3,
  clear_split,
  clear_history,
  clear_difference,
  clear_test,
  clear_blend,
  clear_accumulate,
  clear_follow,
  clear_anchor,
  clear_patches,
  clear_guide,
  clear_colour,
  clear_colour_wide,
  clear_keep,
  clear_merge,
  clear_history_fast,
  clear_test_fast,
  clear_blend_fast,
  clear_accumulate_fast,
  clear_follow_fast,
  clear_patches_fast,
  clear_colour_fast,
  clear_steady,
  clear_show,
  clear_luma_bytes,
  clear_chroma_bytes,
  kProgramCount
};

inline constexpr int kMaxSamplers = 5;

// What a program is made of. Its attribute is "a_Position" or, in the bilateral texts, "aPosition".
struct ProgramTexts {
  const char* name;
  const char* vertex;
  const char* fragment;
  const char* samplers[kMaxSamplers];  // by texture unit; null: none
};
const ProgramTexts& programTexts(ProgramId id);

// Owns the programs first..last. GPU thread only. Move-only; the programs are deleted with it, while the context is current.
class ProgramFilter : public GLFilter {
 public:
  // Null unless it was built and linked.
  Program* program(ProgramId id);
  void Release() override { programs_.reset(); }

 protected:
  ProgramFilter(ProgramId firstOwned, ProgramId lastOwned) : first_(firstOwned), last_(lastOwned) {}
  // Without a path in `cacheDirectory` nothing is cached. False when it did not link or memory ran out (the log says why).
  bool build(ProgramId id, const CacheDirectory& cacheDirectory);
  bool buildAll(const CacheDirectory& cacheDirectory);

 private:
  ProgramId first_;
  ProgramId last_;
  std::unique_ptr<Program[]> programs_;  // null before the first build
};

// The main stage: YUV to RGB, tone, motion-compensated temporal blend under a ghost mask, sharpening and contrast.
class LowLightFilter : public ProgramFilter {
 public:
  LowLightFilter() : ProgramFilter(kr_w1, kr_w27) {}
  bool syncMode = false;         // engine mode 4: build kr_w1 to kr_w7 only; set before setupPrograms
  bool untouchedOnly = false;    // engine mode 5: kr_w15 alone
  bool reducedPrograms = false;  // engine mode 1: leave out what its sequences do not draw

  // Builds the programs of the build set that the flags select. False when one of them did not link. Once.
  bool setupPrograms(const CacheDirectory& cacheDirectory);
};

// Range-weighted denoiser for packed luma (four samples per RGBA texel), in two passes: kr_bl1 smooths, kr_bl2 takes the
// diagonals against the untouched input, blends towards it and applies a gamma. All arithmetic is per channel, so a texel's
// four samples never mix: horizontal neighbours are four pixels apart, and vertical taps are as far apart, four rows.
class BilateralFilter : public ProgramFilter {
 public:
  BilateralFilter() : ProgramFilter(kr_bl1, kr_bl2) {}
  bool setupPrograms(const CacheDirectory& cacheDirectory) { return buildAll(cacheDirectory); }
};

// RGB picture to the bytes of a 4:2:0 frame, four per RGBA texel.
//
//   kr_r1   four luma samples a texel; target a quarter as wide as the picture
//   kr_r2   two chroma pairs a texel, V first (NV21); target a quarter as wide, half as high
//   kr_r3   the same, U first
//
// Full-range BT.601 (ITU-R BT.601-7, 2.5): Y = .299 R + .587 G + .114 B, U = .5 + (B - Y) / 1.772, V = .5 + (R - Y) / 1.402.
class RgbToYuvFilter : public ProgramFilter {
 public:
  RgbToYuvFilter() : ProgramFilter(kr_r1, kr_r3) {}
  bool setupPrograms(const CacheDirectory& cacheDirectory) { return buildAll(cacheDirectory); }
};

// Planes to RGB with a clamped gamma, for three layouts of the luma texture: one sample a texel (kr_convr1), and four samples
// per RGBA texel taken apart by arithmetic (kr_convr2) or by the selector texture (kr_convr3). Required, drawn by no mode.
class YuvToRgbFilter : public ProgramFilter {
 public:
  YuvToRgbFilter() : ProgramFilter(kr_convr1, kr_convr3) {}
  bool setupPrograms(const CacheDirectory& cacheDirectory) { return buildAll(cacheDirectory); }
};

// The clear picture: a history on a canvas that stands still, blended where noise explains the difference, and the noise that
// is left taken out within the frame. The picture lies in cells of 2 x 2 pixels, one texel each.
class ClearFilter : public ProgramFilter {
 public:
  ClearFilter() : ProgramFilter(clear_split, clear_chroma_bytes) {}
  // intoWindow: with what shows the picture there.
  bool setupPrograms(bool intoWindow, const CacheDirectory& cacheDirectory);
};

// The 4 x 1 texture that picks a luma sample out of a packed texel: texel k is 255 in channel k and 0 elsewhere; nearest,
// repeating, so that a sample at (column / 4) selects channel column mod 4. Without a GL name when GL failed. GPU thread only.
Texture createSelectorTexture();

}  // namespace noxel
