#include "registration/luminance.h"

#include <cstring>

#include "kernels/planes.h"

namespace noxel {

int resolutionFactor(int width, int height) {
  const bool halves = width > 1 && height > 1;  // half of one row is none
  return halves && (width > 1000 || height > 1000) ? 2 : 1;
}

void prepareLuminance(const LumaImage& luma, int factor, bool diagonal, uint8_t* luminance, uint8_t* scratch) {
  if (factor == 1) {
    std::memcpy(luminance, luma.pixels, static_cast<size_t>(luma.width) * static_cast<size_t>(luma.height));
    return;
  }
  const kernels::ConstPlane source = kernels::packed(luma.pixels, luma.width, luma.height);
  const kernels::Plane half = kernels::packed(luminance, luma.width / 2, luma.height / 2);
  if (diagonal) {
    kernels::downscaleByTwoDiagonal(source, half);
  } else {
    kernels::downscaleByTwo(source, half);
  }
  kernels::smoothTwice(half, scratch);
}

}  // namespace noxel
