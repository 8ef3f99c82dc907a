#include "camera_planes.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace noxel::sample {
namespace {

// The plane that each sample comes from, and where in it: no two samples of a picture of up to 7 x 7 are alike.
uint8_t sample(int plane, int x, int y) {
  return static_cast<uint8_t>(64 * plane + 8 * y + x);
}

// An image as a camera hands it out, in one buffer: luma, then chroma from `uAt` and `vAt` on.
struct CameraImage {
  int width, height;
  std::vector<uint8_t> bytes;
  CameraPlane planes[3];

  CameraImage(int imageWidth, int imageHeight, int lumaStride, int chromaStride, int pixelStride, int uAt, int vAt)
      : width(imageWidth), height(imageHeight) {
    const int columns = (width + 1) / 2, rows = (height + 1) / 2;
    // The last row ends with its last sample: a read beyond it is one beyond the buffer, which the sanitizers see.
    const int chromaSize = (rows - 1) * chromaStride + (columns - 1) * pixelStride + 1;
    const int luma = lumaStride * height;
    bytes.assign(static_cast<size_t>(luma + std::max(uAt, vAt) + chromaSize), 0xff);
    const int offsets[] = {0, luma + uAt, luma + vAt};
    for (int i = 0; i < 3; ++i) {
      const int stride = i == 0 ? lumaStride : chromaStride, step = i == 0 ? 1 : pixelStride;
      const int planeColumns = i == 0 ? width : columns, planeRows = i == 0 ? height : rows;
      uint8_t* const first = bytes.data() + offsets[i];
      planes[i] = {first, static_cast<size_t>(i == 0 ? luma : chromaSize), stride, step};
      for (int y = 0; y < planeRows; ++y) {
        for (int x = 0; x < planeColumns; ++x) first[y * stride + x * step] = sample(i, x, y);
      }
    }
  }
};

// Reads a frame as the library does and compares every sample.
void expectSamples(const CameraImage& image, const noxel_frame& frame) {
  const bool inPairs = frame.format != NOXEL_PLANES_I420;
  for (int i = 0; i < 3; ++i) {
    const int columns = i == 0 ? image.width : (image.width + 1) / 2;
    const int rows = i == 0 ? image.height : (image.height + 1) / 2;
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < columns; ++x) {
        const int plane = i > 0 && inPairs ? 1 : i;
        const bool second = frame.format == NOXEL_PLANES_NV12 ? i == 2 : i == 1;
        const int at = i > 0 && inPairs ? 2 * x + (second ? 1 : 0) : x;
        ASSERT_EQ(frame.planes[plane][y * frame.strides[plane] + at], sample(i, x, y)) << i << ": " << x << ", " << y;
      }
    }
  }
}

TEST(CameraPlanes, AreTakenWhereTheyLieAndCopiedOnlyWhenNoFormatDescribesThem) {
  struct Layout {
    const char* name;
    int lumaPadding, chromaStride, pixelStride, uAt, vAt;
    noxel_format format;
    bool copied;
  };
  // Chroma is 4 x 3 at most: strides of 12 leave a gap after each row.
  const Layout kLayouts[] = {{"U before V in pairs", 5, 12, 2, 0, 1, NOXEL_PLANES_NV12, false},
                             {"V before U in pairs", 0, 12, 2, 1, 0, NOXEL_PLANES_NV21, false},
                             {"planes one after the other", 5, 12, 1, 0, 40, NOXEL_PLANES_I420, false},
                             {"V's plane first", 0, 12, 1, 40, 0, NOXEL_PLANES_I420, false},
                             {"every second byte, apart", 0, 12, 2, 0, 40, NOXEL_PLANES_I420, true},
                             {"every third byte", 3, 16, 3, 0, 1, NOXEL_PLANES_I420, true}};
  for (const Layout& layout : kLayouts) {
    for (const auto& [width, height] : {std::tuple{7, 5}, {6, 6}, {2, 1}, {1, 1}}) {
      SCOPED_TRACE(testing::Message() << layout.name << ", " << width << " x " << height);
      const CameraImage image(width, height, width + layout.lumaPadding, layout.chromaStride, layout.pixelStride,
                              layout.uAt, layout.vAt);
      std::vector<uint8_t> chroma;
      noxel_frame frame = {};
      ASSERT_TRUE(mapCameraPlanes(width, height, image.planes, chroma, frame));
      EXPECT_EQ(frame.format, layout.format);
      EXPECT_EQ(!chroma.empty(), layout.copied);
      expectSamples(image, frame);
    }
  }
}

TEST(CameraPlanes, PairsWithRowsTooShortForTheFormatAreCopied) {
  // 5 pixels across are three pairs, 6 bytes; rows that overlap by the last one's unused byte are 5 apart.
  const CameraImage image(5, 1, 5, 5, 2, 0, 1);
  std::vector<uint8_t> chroma;
  noxel_frame frame = {};
  ASSERT_TRUE(mapCameraPlanes(5, 1, image.planes, chroma, frame));
  EXPECT_EQ(frame.format, NOXEL_PLANES_I420);
  expectSamples(image, frame);
}

TEST(CameraPlanes, ThatDoNotHoldThePictureAreRefused) {
  const CameraImage image(6, 6, 6, 8, 2, 0, 1);
  std::vector<uint8_t> chroma;
  noxel_frame frame = {};
  ASSERT_TRUE(mapCameraPlanes(6, 6, image.planes, chroma, frame));
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const CameraPlane good = image.planes[i];
    for (const CameraPlane& bad : {CameraPlane{nullptr, good.size, good.rowStride, good.pixelStride},
                                   CameraPlane{good.data, good.size - 1, good.rowStride, good.pixelStride},
                                   CameraPlane{good.data, good.size, good.rowStride, 0},
                                   CameraPlane{good.data, good.size, i == 0 ? 5 : 4, good.pixelStride},
                                   CameraPlane{good.data, good.size, -good.rowStride, good.pixelStride}}) {
      CameraPlane planes[3] = {image.planes[0], image.planes[1], image.planes[2]};
      planes[i] = bad;
      EXPECT_FALSE(mapCameraPlanes(6, 6, planes, chroma, frame));
    }
  }
  EXPECT_FALSE(mapCameraPlanes(0, 6, image.planes, chroma, frame));
  EXPECT_FALSE(mapCameraPlanes(8, 6, image.planes, chroma, frame)) << "wider than the rows";
}

}  // namespace
}  // namespace noxel::sample
