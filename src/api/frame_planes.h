// Callers' planes and the engine's frames: NV21 of full range, padded to what the GPU reads back.
#pragma once

#include "noxel/enhancer.h"

namespace noxel {

// The read-back packs four luma bytes a texel and chroma of two rows: other sizes are padded with their last column and row.
inline int engineWidth(int width) {
  return (width + 3) / 4 * 4;
}
inline int engineHeight(int height) {
  return (height + 1) / 2 * 2;
}

// Whether formats, pointers and strides make sense for frames of this size and engine mode.
bool isUsable(const noxel_frame& frame, int width, int height, int mode);

// How luma of NV21 is made for the frame, and must be to give it: packed RGB is converted by way of BT.601.
int matrixOf(const noxel_frame& frame);

// `nv21` holds engineWidth * engineHeight * 3/2 bytes. Codes outside a limited range are lost.
void takePlanes(const noxel_frame& frame, int width, int height, unsigned char* nv21);
void givePlanes(const unsigned char* nv21, int width, int height, const noxel_frame& frame);

// RGBA without padding of rows.
void takeRgba(const noxel_frame& frame, int width, int height, unsigned char* rgba);
void giveRgba(const unsigned char* rgba, int width, int height, const noxel_frame& frame);
void copyAlpha(const unsigned char* from, int width, int height, unsigned char* rgba);

// From one noxel_matrix to another, in place, full range. Colours that the other cannot code are clipped.
void convertMatrix(int from, int to, int width, int height, unsigned char* nv21);

}  // namespace noxel
