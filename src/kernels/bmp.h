// Planes as BMP image files, for looking at them: 8-bit grey with a palette of 256 greys, or 24-bit blue, green, red. A
// BITMAPFILEHEADER, a BITMAPINFOHEADER, no compression, rows padded to 4 bytes, the bottom row first.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kernels/planes.h"

namespace noxel::kernels {

enum class BmpPixels { kGrey = 1, kBlueGreenRed = 3 };  // bytes a pixel

// Writes a picture, whose width in bytes is that of its pixels, from where the file stands. False: `reason` says why,
// and what is in the file is no picture. Flushes, so that a full disk is noticed here; closing is the caller's.
bool writeBmp(std::FILE* file, const ConstPlane& picture, BmpPixels pixels, const char** reason);

// A picture inside a file's bytes, which it points into: it is good as long as they are.
struct BmpPicture {
  int width;  // pixels, as the height
  int height;
  BmpPixels pixels;
  ConstPlane plane;  // top row first, by a negative stride where the file has the bottom row first
};

// Finds the picture in `size` bytes, allocating nothing. False for whatever this header does not describe, and `reason`
// says why; top-down files (of negative height) are read too. A palette has to be the 256 greys in order.
bool readBmp(const uint8_t* data, size_t size, BmpPicture* picture, const char** reason);

}  // namespace noxel::kernels
