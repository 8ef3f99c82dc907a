// A camera's YUV_420_888 image as planes for noxel_send.
#pragma once

#include <noxel/enhancer.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace noxel::sample {

// One plane as android.media.Image.Plane describes it. Sample (x, y) is data[y * rowStride + x * pixelStride].
struct CameraPlane {
  const uint8_t* data;
  size_t size;  // bytes from data on; the last row may end with its last sample
  int rowStride;
  int pixelStride;
};

// Fills format, planes and strides of `frame` from the planes Y, U and V.
//
// Nothing is copied where U and V lie side by side (I420) or overlap as pairs (NV12, NV21). From any other layout the chroma
// is copied to `chroma`, which has to live as long as the frame is used.
//
// False: a plane is missing, is too small, or its strides are not those of a picture of this size.
bool mapCameraPlanes(int width, int height, const CameraPlane (&planes)[3], std::vector<uint8_t>& chroma,
                     noxel_frame& frame);

}  // namespace noxel::sample
