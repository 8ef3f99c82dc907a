#include <random>

#include "filters/low_light_fixture.h"

namespace noxel {
namespace {

using reference::Image;
using reference::kIdentity;

// What the ghost mask yields: 0 or 1. Mostly 1, so that something outlives the erosion.
Picture binaryMask(int width, int height, int percentZero, unsigned seed) {
  std::mt19937 random(seed);
  Picture mask(width, height);
  for (size_t i = 0; i < mask.rgba.size(); i += 4) {
    const uint8_t value = static_cast<int>(random() % 100) < percentZero ? 0 : 255;
    mask.rgba[i] = mask.rgba[i + 1] = mask.rgba[i + 2] = value;
    mask.rgba[i + 3] = 255;
  }
  return mask;
}

struct MaskSize {
  int width;
  int height;
};

class Masks : public LowLightTest, public ::testing::WithParamInterface<MaskSize> {
 protected:
  void prepare(TestTarget& source, TestTarget& intermediate, TestTarget& target, int deghosting, float weight) {
    state.sourceTexture = source.GetTextureId();
    state.intermediateFrameBuffer = &intermediate;
    state.targetFrameBuffer = &target;
    state.imageWidth = source.GetWidth();
    state.imageHeight = source.GetHeight();
    state.deghosting = deghosting;
    state.maskWeight = weight;
  }

  const int width = GetParam().width;
  const int height = GetParam().height;
};

INSTANTIATE_TEST_SUITE_P(Sizes, Masks, ::testing::Values(MaskSize{40, 20}, MaskSize{37, 19}, MaskSize{1, 1}),
                         [](const auto& test) {
                           return std::to_string(test.param.width) + "x" + std::to_string(test.param.height);
                         });

TEST_P(Masks, ErosionIsExact) {
  Picture mask = binaryMask(width, height, 2, 31);
  for (size_t i = 0; i < mask.rgba.size(); i += 12) {  // and values on both sides of the 0.95 that counts as unmoved
    if (mask.rgba[i] == 255) mask.rgba[i] = i % 60 == 0 ? 235 : 251;
  }
  for (const auto& [deghosting, step] : {std::pair{5, 1.5}, std::pair{6, 1.0}}) {
    TestTarget source(mask), intermediate(width, height);
    prepare(source, intermediate, source, deghosting, 0.4f);  // in place, as the frame path does it
    draw(kPassMaskErode, 1, 1);
    // Samples are texels or the means of two, which are whole codes here: nothing is left to rounding.
    EXPECT_TRUE(closeTo(source.read(), toPicture(eroded(Image(width, height, mask.rgba), step, 0.4)), 0)) << deghosting;
  }
}

TEST_P(Masks, DilationIsExactAndSaysWhereItEnded) {
  for (const auto& [deghosting, iterations] : {std::pair{3, 2}, std::pair{5, 3}, std::pair{7, 4}}) {
    for (const float weight : {0.05f, 0.3f, 0.5f, 0.9f}) {
      Picture mask = binaryMask(width, height, 98, 32);
      for (size_t i = 0; i < mask.rgba.size(); ++i) {
        if (mask.rgba[i] == 0) mask.rgba[i] = static_cast<uint8_t>(std::lround(weight * 255));  // as erosion leaves it
      }
      TestTarget target(mask), intermediate(width, height);
      prepare(target, intermediate, target, deghosting, weight);
      draw(kPassMaskDilate, 1, 1);
      EXPECT_EQ(state.maskInTarget, iterations == 3 ? 0 : 1);
      TestTarget& result = state.maskInTarget == 1 ? target : intermediate;
      const Picture expected = toPicture(dilated(Image(width, height, mask.rgba), iterations, weight));
      EXPECT_TRUE(closeTo(result.read(), expected, 0)) << deghosting << ", " << weight;
    }
  }
}

TEST_P(Masks, BlurStaysWithinACode) {
  const Picture mask = binaryMask(width, height, 40, 33);
  const Image image(width, height, mask.rgba);
  // One code in each direction: taps lie half-way between two texels, and the sum's last bits are a half float's.
  for (const auto& [deghosting, step] : {std::pair{5, 1.5}, std::pair{6, 1.0}}) {
    TestTarget source(mask), intermediate(width, height), target(width, height);
    prepare(source, intermediate, target, deghosting, 0.4f);
    draw(kPassMaskBlur, 1, 1);
    EXPECT_TRUE(closeTo(target.read(), toPicture(blurred(image, step)), 1)) << deghosting;
  }
  TestTarget source(mask), a(width, height), b(width, height);
  filter.smoothMask(&source, &a, &b);
  EXPECT_TRUE(closeTo(a.read(), toPicture(blurred(image, 1)), 1));
}

class GhostMasks : public LowLightTest {};

TEST_F(GhostMasks, ThresholdFallsWithTheDeghostingLevel) {
  const Picture old = noisyPicture(40, 20, 34);
  const Picture current = noisyPicture(40, 20, 35);
  const TestTexture oldTexture(old), currentTexture(current);
  const Image oldImage(40, 20, old.rgba), currentImage(40, 20, current.rgba);
  state.texture0 = oldTexture.GetId();
  state.texture1 = currentTexture.GetId();
  for (const int deghosting : {0, 5, 10}) {
    state.deghosting = deghosting;
    const double threshold = 0.3 - 0.025 * deghosting;
    useWarp(kIdentity);
    // Sums of codes; the thresholds (76.5, 44.6, 12.75 codes) lie between two.
    EXPECT_TRUE(closeTo(draw(kPassGhostMask, 40, 20),
                        toPicture(ghostMask(oldImage, currentImage, kIdentity, threshold, {40, 20})), 0));
    useWarp(kWarp);
    // A sum within a code of the threshold may fall on either side: three codes of some three hundred.
    EXPECT_TRUE(closeTo(draw(kPassGhostMask, 40, 20),
                        toPicture(ghostMask(oldImage, currentImage, kWarp, threshold, {40, 20})), 255, 0.97, 0));
  }
}

TEST_F(GhostMasks, TheMaskChoosesBetweenTheWarpedOldAndTheNew) {
  const Picture old = noisyPicture(40, 20, 36);
  const Picture current = noisyPicture(40, 20, 37);
  const Picture mask = noisyPicture(10, 5, 38);
  const TestTexture oldTexture(old), currentTexture(current), maskTexture(mask);
  state.texture0 = oldTexture.GetId();
  state.texture1 = currentTexture.GetId();
  state.maskTexture = maskTexture.GetId();
  useWarp(kWarp);
  // The bilinear weights of the old picture and of the mask have 8 bits: two roundings and the result's own, one code.
  EXPECT_TRUE(closeTo(draw(kPassDeghostMix, 40, 20),
                      toPicture(deghostMix(Image(40, 20, old.rgba), Image(40, 20, current.rgba),
                                           Image(10, 5, mask.rgba), kWarp, {40, 20})),
                      1));
}

}  // namespace
}  // namespace noxel
