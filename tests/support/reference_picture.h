// Between the CPU twins' images and the GPU's pictures.
#pragma once

#include <random>

#include "reference/passes.h"
#include "support/picture.h"

namespace noxel {

inline Picture toPicture(const reference::Image& image) {
  Picture picture(image.width, image.height);
  picture.rgba = image.bytes();
  return picture;
}

inline std::vector<uint8_t> noisyBytes(int count, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(static_cast<size_t>(count));
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

}  // namespace noxel
