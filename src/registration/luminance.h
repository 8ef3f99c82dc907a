// The image that registration works on.
#pragma once

#include "registration/exposure.h"

namespace noxel {

// Frame pixels per registration pixel: 2 for a side above 1000, so that the thread keeps up with the frame rate, unless the
// other side is a single pixel.
int resolutionFactor(int width, int height);

// Into `luminance`, (width / factor) x (height / factor): the luma plane itself at factor 1; at factor 2 halved and smoothed.
//   diagonal   halve from two of each four pixels
//   scratch    as large as `luminance`
void prepareLuminance(const LumaImage& luma, int factor, bool diagonal, uint8_t* luminance, uint8_t* scratch);

}  // namespace noxel
