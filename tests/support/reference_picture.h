// Between the CPU twins' images and the GPU's pictures.
#pragma once

#include "reference/passes.h"
#include "support/picture.h"

namespace noxel {

inline Picture toPicture(const reference::Image& image) {
  Picture picture(image.width, image.height);
  picture.rgba = image.bytes();
  return picture;
}

}  // namespace noxel
