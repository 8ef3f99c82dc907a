// Between FFmpeg's planar frames and the engine's NV21: a Y plane, then V,U pairs, no row padding.
//
// The engine packs four luma samples into a texel and halves the height for chroma, so frames are padded to a width
// divisible by 4 and an even height by repeating their edges. "Planar" is AV_PIX_FMT_YUV420P throughout.
#pragma once

#include <cstddef>
#include <cstdint>

#include "media/av_types.h"

namespace noxel::tool {

constexpr int paddedWidth(int width) {
  return (width + 3) & ~3;
}

constexpr int paddedHeight(int height) {
  return (height + 1) & ~1;
}

constexpr size_t nv21Size(int width, int height) {
  return static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2;
}

// The padded frame; shares the pixels when no padding is needed.
FramePtr padded(const AVFrame& planar);
FramePtr padded(const AVFrame& planar, int width, int height);  // to this size

// Removes the padding, in place.
void crop(AVFrame& planar, int width, int height);

// Padded planar frames only.
void packNv21(const AVFrame& planar, uint8_t* nv21);
FramePtr unpackNv21(const uint8_t* nv21, int width, int height);

// Copies the left half of `before` (rounded down to whole chroma samples) into `after`; both planar, of one size.
void copyLeftHalf(const AVFrame& before, AVFrame& after);

// Mean of the top left width x height samples of a Y plane. 0..255.
double meanLuma(const uint8_t* luma, int stride, int width, int height);

}  // namespace noxel::tool
