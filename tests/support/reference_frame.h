// Between a frame of an engine under test and the CPU twins' images.
#pragma once

#include <cstdint>
#include <vector>

#include "reference/passes.h"
#include "support/picture.h"
#include "support/test_engine.h"
#include "support/waves.h"

namespace noxel {

inline reference::Image chromaOf(const TestFrame& frame) {
  const auto chroma = frame.bytes.begin() + frame.width * frame.height;
  return reference::Image::chroma(frame.width / 2, frame.height / 2, {chroma, frame.bytes.end()});
}

// As the first pass of a temporal sequence draws it.
inline reference::Image converted(const TestFrame& frame, const reference::Matrix& warp = reference::kIdentity) {
  const std::vector<uint8_t> luma(frame.bytes.begin(), frame.bytes.begin() + frame.width * frame.height);
  std::vector<uint8_t> rgba;
  for (const uint8_t y : luma) rgba.insert(rgba.end(), {y, y, y, 255});
  return bicubicYuvToRgb(reference::Image(frame.width, frame.height, rgba), chromaOf(frame), warp,
                         {frame.width, frame.height});
}

// From pixels to texture coordinates.
inline reference::Matrix warpOf(const View& v, reference::Size size) {
  const double aspect = static_cast<double>(size.width) / size.height;
  return {v[0], v[3] * aspect, 0, 0, v[1] / aspect, v[4], 0, 0, 0, 0, 1, 0, v[2] / size.width, v[5] / size.height, 0,
          1};
}

inline std::vector<uint8_t> lumaOf(const reference::Image& picture) {
  return packedLumaOf(picture, {picture.width / 4, picture.height}).bytes();
}

// As the read-back packs it, four bytes a texel, luma above chroma.
inline Picture packed(const TestFrame& frame) {
  Picture picture(frame.width / 4, frame.height * 3 / 2);
  picture.rgba = frame.bytes;
  return picture;
}
inline Picture packed(const reference::Image& image) {
  Picture picture(image.width / 4, image.height * 3 / 2);
  picture.rgba = lumaOf(image);
  const std::vector<uint8_t> chroma = packedChromaOf(image, true, {image.width / 4, image.height / 2}).bytes();
  picture.rgba.insert(picture.rgba.end(), chroma.begin(), chroma.end());
  return picture;
}

}  // namespace noxel
