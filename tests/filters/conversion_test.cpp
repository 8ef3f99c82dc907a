#include <gtest/gtest.h>

#include <algorithm>

#include "filters/bilateral_filter.h"
#include "filters/filter_fixture.h"
#include "filters/rgb_to_yuv_filter.h"
#include "filters/yuv_to_rgb_filter.h"
#include "reference/passes.h"
#include "support/reference_picture.h"

namespace noxel {
namespace {

using reference::Filter;
using reference::Image;

Picture filled(int width, int height, std::initializer_list<int> colour) {
  Picture picture(width, height);
  for (size_t i = 0; i < picture.rgba.size(); ++i) picture.rgba[i] = static_cast<uint8_t>(colour.begin()[i % 4]);
  return picture;
}

class RgbToYuv : public FilterTest<RgbToYuvFilter> {
 protected:
  Picture convert(const Picture& picture, int plane) {
    const TestTexture source(picture);
    TestTarget bytes(picture.width / 4, plane == 0 ? picture.height : picture.height / 2, GL_NEAREST);
    filter.sourceTexture = source.GetId();
    filter.BindTarget(&bytes);
    filter.Clear(0, 0, 0, 0);
    filter.convert(plane);
    return bytes.read();
  }
};

TEST_F(RgbToYuv, PacksWhatTheFormulaSays) {
  const Picture picture = noisyPicture(64, 46, 1);
  const Image image(64, 46, picture.rgba);
  // One code: the matrix is written to four digits, and GL may round a value half-way between two codes either way.
  EXPECT_TRUE(closeTo(convert(picture, 0), toPicture(reference::packedLumaOf(image, {16, 46})), 1));
  EXPECT_TRUE(closeTo(convert(picture, 1), toPicture(reference::packedChromaOf(image, true, {16, 23})), 1));
  EXPECT_TRUE(closeTo(convert(picture, 2), toPicture(reference::packedChromaOf(image, false, {16, 23})), 1));
}

TEST_F(RgbToYuv, DrawsNothingForAnUnknownPlane) {
  const Picture cleared = filled(4, 4, {0, 0, 0, 0});
  Picture white = filled(16, 4, {255, 255, 255, 255});
  EXPECT_TRUE(closeTo(convert(white, 0), filled(4, 4, {255, 255, 255, 255}), 0));
  for (const int plane : {3, -1}) {
    const Picture untouched = convert(white, plane);
    EXPECT_EQ(std::count(untouched.rgba.begin(), untouched.rgba.end(), 0), static_cast<long>(untouched.rgba.size()));
  }
}

class YuvToRgb : public FilterTest<YuvToRgbFilter> {
 protected:
  Picture convert(const Texture& luma, const Texture& chroma, int width, int height, bool useSelector, float gamma) {
    TestTarget target(width, height);
    filter.lumaTexture = luma.GetId();
    filter.chromaTexture = chroma.GetId();
    filter.imageWidth = width;
    filter.BindTarget(&target);
    EXPECT_TRUE(filter.convert(useSelector, gamma));
    return target.read();
  }
};

TEST_F(YuvToRgb, AllThreeLumaLayoutsFollowTheFormula) {
  const int width = 64;
  const int height = 22;
  const Picture packed = noisyPicture(width / 4, height, 2);
  const std::vector<uint8_t> vu = noisyBytes(width / 2 * (height / 2) * 2, 3);
  const TestTexture packedLuma(packed, GL_NEAREST);
  const TestTexture luma(width, height, GL_LUMINANCE, packed.rgba);  // the same bytes, one a texel
  const TestTexture chroma(width / 2, height / 2, GL_LUMINANCE_ALPHA, vu);
  const Image packedImage(width / 4, height, packed.rgba, Filter::kNearest);
  const Image lumaImage = Image::luminance(width, height, packed.rgba);
  const Image chromaImage = Image::chroma(width / 2, height / 2, vu);

  // Bilinear weights of 8 bits err by one code of chroma, which blue takes 1.772 times; near black an exponent of 0.8
  // triples it.
  for (const float gamma : {0.5f, 1.0f, 2.0f}) {
    const double applied = std::clamp(static_cast<double>(gamma), 0.8, 1.2);
    const Picture expected =
        toPicture(reference::packedYuvToRgbClamped(packedImage, chromaImage, applied, width, {width, height}));
    filter.packedLuma = true;
    EXPECT_TRUE(closeTo(convert(packedLuma, chroma, width, height, false, gamma), expected, 6, 0.99, 2)) << gamma;
    EXPECT_TRUE(closeTo(convert(packedLuma, chroma, width, height, true, gamma), expected, 6, 0.99, 2)) << gamma;
    filter.packedLuma = false;
    const Picture plain = toPicture(reference::yuvToRgbClamped(lumaImage, chromaImage, applied, {width, height}));
    EXPECT_TRUE(closeTo(convert(luma, chroma, width, height, true, gamma), plain, 6, 0.99, 2)) << gamma;
  }
}

class Bilateral : public FilterTest<BilateralFilter> {
 protected:
  Picture apply(const Picture& packed) {
    TestTexture input(packed, GL_NEAREST);
    TestTarget smoothed(packed.width, packed.height / 2, GL_NEAREST);
    TestTarget output(packed.width, packed.height, GL_NEAREST);
    EXPECT_TRUE(filter.apply(&input, &smoothed, &output));
    intermediate = smoothed.read();
    return output.read();
  }
  Picture intermediate;
};

TEST_F(Bilateral, FollowsTheFormulaAtEveryStrength) {
  for (const auto& [width, height] : {std::pair{16, 48}, std::pair{9, 20}}) {
    // Little noise as well as much: weights between their two ends.
    Picture packed = noisyPicture(width, height, 4);
    for (size_t i = 0; i < packed.rgba.size() / 2; ++i) packed.rgba[i] = static_cast<uint8_t>(90 + packed.rgba[i] % 16);
    const Image input(width, height, packed.rgba, Filter::kNearest);
    for (const auto& [strength, blend] :
         {std::pair{0, 0.0}, std::pair{10, 0.099}, std::pair{100, 0.9}, std::pair{112, 1.0}}) {
      filter.strength = strength;
      filter.factor = 15.0f - 0.08f * static_cast<float>(strength);
      filter.gamma = 0.9f;
      const Picture actual = apply(packed);
      const Image smoothed = reference::bilateralSmooth(input, filter.factor, {width, height / 2});
      // Two codes: the weights are sums in medium precision, half floats of 11 bits on a GPU that has them; the second
      // pass starts from the first one's rounding.
      EXPECT_TRUE(closeTo(intermediate, toPicture(smoothed), 1)) << strength;
      EXPECT_TRUE(closeTo(
          actual,
          toPicture(reference::bilateralRefine(smoothed, input, filter.factor, blend, filter.gamma, {width, height})),
          2))
          << strength;
    }
  }
}

}  // namespace
}  // namespace noxel
