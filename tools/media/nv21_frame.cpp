#include "media/nv21_frame.h"

#include <cstring>

namespace noxel::tool {
namespace {

constexpr int half(int size) {
  return (size + 1) / 2;
}

void padPlane(const uint8_t* source, int sourceStride, int width, int height, uint8_t* target, int targetStride,
              int targetWidth, int targetHeight) {
  const auto used = static_cast<size_t>(width);
  for (int y = 0; y < targetHeight; ++y) {
    uint8_t* row = target + static_cast<ptrdiff_t>(y) * targetStride;
    std::memcpy(row, source + static_cast<ptrdiff_t>(y < height ? y : height - 1) * sourceStride, used);
    std::memset(row + used, row[used - 1], static_cast<size_t>(targetWidth) - used);
  }
}

}  // namespace

FramePtr padded(const AVFrame& planar) {
  return padded(planar, paddedWidth(planar.width), paddedHeight(planar.height));
}

FramePtr padded(const AVFrame& planar, int width, int height) {
  if (width == planar.width && height == planar.height) return share(planar);
  FramePtr result = makePicture(width, height, AV_PIX_FMT_YUV420P);
  padPlane(planar.data[0], planar.linesize[0], planar.width, planar.height, result->data[0], result->linesize[0], width,
           height);
  for (int plane = 1; plane < 3; ++plane) {
    padPlane(planar.data[plane], planar.linesize[plane], half(planar.width), half(planar.height), result->data[plane],
             result->linesize[plane], half(width), half(height));
  }
  return result;
}

void crop(AVFrame& planar, int width, int height) {
  planar.width = width;
  planar.height = height;
}

void packNv21(const AVFrame& planar, uint8_t* nv21) {
  const auto width = static_cast<size_t>(planar.width);
  for (int y = 0; y < planar.height; ++y, nv21 += width) {
    std::memcpy(nv21, planar.data[0] + static_cast<ptrdiff_t>(y) * planar.linesize[0], width);
  }
  for (int y = 0; y < planar.height / 2; ++y, nv21 += width) {
    const uint8_t* u = planar.data[1] + static_cast<ptrdiff_t>(y) * planar.linesize[1];
    const uint8_t* v = planar.data[2] + static_cast<ptrdiff_t>(y) * planar.linesize[2];
    for (size_t x = 0; x < width / 2; ++x) {
      nv21[2 * x] = v[x];
      nv21[2 * x + 1] = u[x];
    }
  }
}

FramePtr unpackNv21(const uint8_t* nv21, int width, int height) {
  FramePtr result = makePicture(width, height, AV_PIX_FMT_YUV420P);
  for (int y = 0; y < height; ++y, nv21 += width) {
    std::memcpy(result->data[0] + static_cast<ptrdiff_t>(y) * result->linesize[0], nv21, static_cast<size_t>(width));
  }
  for (int y = 0; y < height / 2; ++y, nv21 += width) {
    uint8_t* u = result->data[1] + static_cast<ptrdiff_t>(y) * result->linesize[1];
    uint8_t* v = result->data[2] + static_cast<ptrdiff_t>(y) * result->linesize[2];
    for (int x = 0; x < width / 2; ++x) {
      v[x] = nv21[2 * x];
      u[x] = nv21[2 * x + 1];
    }
  }
  return result;
}

void copyLeftHalf(const AVFrame& before, AVFrame& after) {
  const auto chromaColumns = static_cast<size_t>(before.width / 4);
  for (int plane = 0; plane < 3; ++plane) {
    const int rows = plane == 0 ? before.height : half(before.height);
    const size_t columns = plane == 0 ? 2 * chromaColumns : chromaColumns;
    for (int y = 0; y < rows; ++y) {
      std::memcpy(after.data[plane] + static_cast<ptrdiff_t>(y) * after.linesize[plane],
                  before.data[plane] + static_cast<ptrdiff_t>(y) * before.linesize[plane], columns);
    }
  }
}

double meanLuma(const uint8_t* luma, int stride, int width, int height) {
  uint64_t sum = 0;
  for (int y = 0; y < height; ++y) {
    const uint8_t* row = luma + static_cast<ptrdiff_t>(y) * stride;
    uint32_t rowSum = 0;  // 2^24 samples fit
    for (int x = 0; x < width; ++x) rowSum += row[x];
    sum += rowSum;
  }
  return static_cast<double>(sum) / (static_cast<double>(width) * height);
}

}  // namespace noxel::tool
