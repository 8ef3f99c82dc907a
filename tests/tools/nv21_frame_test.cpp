#include "media/nv21_frame.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "clips.h"
#include "support/picture.h"

namespace noxel::tool {
namespace {

FramePtr noisePlanar(int width, int height) {
  FramePtr frame = makePicture(width, height, AV_PIX_FMT_YUV420P);
  for (int plane = 0; plane < 3; ++plane) {
    const int rows = plane == 0 ? height : (height + 1) / 2;
    std::ranges::copy(noisyBytes(static_cast<size_t>(rows * frame->linesize[plane]), 1), frame->data[plane]);
  }
  return frame;
}

TEST(Nv21Frame, ChromaIsInterleavedWithVFirst) {
  const FramePtr frame = flatPlanar(4, 2, 10, 20, 30);
  frame->data[0][3] = 11;
  frame->data[1][1] = 21;
  frame->data[2][1] = 31;
  std::vector<uint8_t> nv21(nv21Size(4, 2));
  packNv21(*frame, nv21.data());
  EXPECT_EQ(nv21, (std::vector<uint8_t>{10, 10, 10, 11, 10, 10, 10, 10, 30, 20, 31, 21}));
}

TEST(Nv21Frame, PaddingRepeatsTheEdgeAndCroppingRemovesIt) {
  const int sizes[][2] = {{1, 1}, {5, 5}, {641, 361}, {4, 2}, {6, 4}};
  for (const auto& [width, height] : sizes) {
    SCOPED_TRACE(testing::Message() << width << 'x' << height);
    const FramePtr frame = noisePlanar(width, height);
    const FramePtr wide = padded(*frame);
    ASSERT_EQ(wide->width, (width + 3) / 4 * 4);
    ASSERT_EQ(wide->height, (height + 1) / 2 * 2);
    std::vector<uint8_t> nv21(nv21Size(wide->width, wide->height));
    packNv21(*wide, nv21.data());
    const FramePtr back = unpackNv21(nv21.data(), wide->width, wide->height);
    int differences = 0;
    for (int plane = 0; plane < 3; ++plane) {
      const int shift = plane == 0 ? 0 : 1;
      const int lastX = ((width + shift) >> shift) - 1;
      const int lastY = ((height + shift) >> shift) - 1;
      for (int y = 0; y < back->height >> shift; ++y) {
        for (int x = 0; x < back->width >> shift; ++x) {
          differences += sample(*back, plane, x, y) != sample(*frame, plane, std::min(x, lastX), std::min(y, lastY));
        }
      }
    }
    EXPECT_EQ(differences, 0);
    crop(*back, width, height);
    EXPECT_EQ(back->width, width);
    EXPECT_EQ(back->height, height);
  }
}

TEST(Nv21Frame, LeftHalfComesFromTheFrameBefore) {
  const FramePtr before = flatPlanar(7, 3, 1, 2, 3);
  const FramePtr after = flatPlanar(7, 3, 101, 102, 103);
  copyLeftHalf(*before, *after);
  // Of the four chroma columns of a width of 7, one lies fully in the left half.
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 7; ++x) EXPECT_EQ(sample(*after, 0, x, y), x < 2 ? 1 : 101) << x;
  }
  for (int x = 0; x < 4; ++x) {
    EXPECT_EQ(sample(*after, 1, x, 1), x < 1 ? 2 : 102) << x;
    EXPECT_EQ(sample(*after, 2, x, 1), x < 1 ? 3 : 103) << x;
  }
}

TEST(Nv21Frame, MeanLumaIgnoresPadding) {
  const uint8_t luma[] = {10, 20, 255, 255, 30, 60, 255, 255};
  EXPECT_DOUBLE_EQ(meanLuma(luma, 4, 2, 2), 30.0);
}

}  // namespace
}  // namespace noxel::tool
