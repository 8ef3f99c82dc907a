#include "camera_planes.h"

namespace noxel::sample {
namespace {

bool holds(const CameraPlane& plane, int columns, int rows) {
  if (plane.data == nullptr || plane.pixelStride < 1) return false;
  const int64_t lastOfRow = int64_t{columns - 1} * plane.pixelStride;
  if (plane.rowStride <= lastOfRow) return false;
  return static_cast<uint64_t>(int64_t{rows - 1} * plane.rowStride + lastOfRow) < plane.size;
}

// noxel_send reads the planes only.
void setPlane(noxel_frame& frame, int index, const uint8_t* data, int stride) {
  frame.planes[index] = const_cast<uint8_t*>(data);
  frame.strides[index] = stride;
}

}  // namespace

bool mapCameraPlanes(int width, int height, const CameraPlane (&planes)[3], std::vector<uint8_t>& chroma,
                     noxel_frame& frame) {
  if (width < 1 || height < 1) return false;
  const auto& [y, u, v] = planes;
  const int columns = width / 2 + width % 2;
  const int rows = height / 2 + height % 2;
  if (y.pixelStride != 1 || !holds(y, width, height) || !holds(u, columns, rows) || !holds(v, columns, rows))
    return false;

  setPlane(frame, 0, y.data, y.rowStride);
  const bool pairs =
      u.pixelStride == 2 && v.pixelStride == 2 && u.rowStride == v.rowStride && u.rowStride >= 2 * columns;
  if (pairs && v.data == u.data + 1) {
    frame.format = NOXEL_PLANES_NV12;
    setPlane(frame, 1, u.data, u.rowStride);
    setPlane(frame, 2, nullptr, 0);
    return true;
  }
  if (pairs && u.data == v.data + 1) {
    frame.format = NOXEL_PLANES_NV21;
    setPlane(frame, 1, v.data, v.rowStride);
    setPlane(frame, 2, nullptr, 0);
    return true;
  }

  frame.format = NOXEL_PLANES_I420;
  setPlane(frame, 1, u.data, u.rowStride);
  setPlane(frame, 2, v.data, v.rowStride);
  if (u.pixelStride == 1 && v.pixelStride == 1) return true;

  const size_t size = static_cast<size_t>(columns) * static_cast<size_t>(rows);
  chroma.resize(2 * size);
  for (int index = 1; index <= 2; ++index) {
    const CameraPlane& plane = planes[index];
    uint8_t* const copy = chroma.data() + (index == 2 ? size : 0);
    uint8_t* to = copy;
    for (int row = 0; row < rows; ++row) {
      const uint8_t* from = plane.data + static_cast<ptrdiff_t>(row) * plane.rowStride;
      for (int column = 0; column < columns; ++column) *to++ = from[static_cast<ptrdiff_t>(column) * plane.pixelStride];
    }
    setPlane(frame, index, copy, columns);
  }
  return true;
}

}  // namespace noxel::sample
