// Between FFmpeg's planar frames and the engine's NV21: a Y plane, then V,U pairs, no row padding.
//
// The engine packs four luma samples into a texel and halves the height for chroma, so a frame reaches it with its
// right and bottom edges repeated up to a width divisible by 4 and an even height. "Planar" is AV_PIX_FMT_YUV420P
// throughout.
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

// The frame at its padded size; the frame itself, shared, where it has that size already.
FramePtr padded(const AVFrame& planar);

// Takes the padding off: the same pixels, seen at a smaller size.
void crop(AVFrame& planar, int width, int height);

// Of a planar frame with a padded size.
void packNv21(const AVFrame& planar, uint8_t* nv21);
FramePtr unpackNv21(const uint8_t* nv21, int width, int height);

// The columns left of the middle (rounded down to whole chroma samples) of `before` into `after`; both planar, one
// size.
void copyLeftHalf(const AVFrame& before, AVFrame& after);

// Over the top left width * height samples of a Y plane with rows of `stride` bytes. 0..255.
double meanLuma(const uint8_t* luma, int stride, int width, int height);

}  // namespace noxel::tool
