// Planes as BMP files, for debugging: 8-bit grey with a palette of 256 greys, or 24-bit blue, green, red.
// BITMAPFILEHEADER, BITMAPINFOHEADER, no compression, rows padded to 4 bytes, bottom row first.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kernels/planes.h"

namespace noxel::kernels {

enum class BmpPixels { kGrey = 1, kBlueGreenRed = 3 };  // bytes a pixel

// Writes a picture (the plane's width is in bytes) at the file's position. False: `reason` says why, and the file is
// invalid. Flushes, so that a full disk is noticed here; the caller closes.
bool writeBmp(std::FILE* file, const ConstPlane& picture, BmpPixels pixels, const char** reason);

// A picture in a file's bytes. Points into them.
struct BmpPicture {
  int width;  // in pixels
  int height;
  BmpPixels pixels;
  ConstPlane plane;  // top row first: the stride is negative for bottom-up files
};

// Finds the picture in `size` bytes without allocating. Reads what writeBmp writes, and top-down files (negative
// height); the palette must be the 256 greys in order. False otherwise: `reason` says why.
bool readBmp(const uint8_t* data, size_t size, BmpPicture* picture, const char** reason);

}  // namespace noxel::kernels
