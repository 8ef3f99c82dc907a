// The image registration works on.
#pragma once

#include "registration/exposure.h"

namespace noxel {

// Frame pixels per registration pixel: 2 when a side is above 1000, so that the thread keeps up with the frame rate,
// unless the other side is a single pixel.
int resolutionFactor(int width, int height);

// Writes `luminance`, (width / factor) x (height / factor): a copy of the luma plane at factor 1; halved and smoothed
// at 2.
//   diagonal   halve from two of every four pixels
//   scratch    as large as `luminance`
void prepareLuminance(const LumaImage& luma, int factor, bool diagonal, uint8_t* luminance, uint8_t* scratch);

}  // namespace noxel
