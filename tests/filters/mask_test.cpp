#include <random>

#include "filters/pass_fixture.h"

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

class Masks : public PassTest, public ::testing::WithParamInterface<std::pair<int, int>> {
 protected:
  // To and fro between two images of one size. Which of them the last pass drew into.
  TestTarget& drawAll(std::initializer_list<const Pass*> passes, TestTarget& a, TestTarget& b) {
    input.context.source = {a.GetWidth(), a.GetHeight()};
    TestTarget* from = &a;
    TestTarget* to = &b;
    for (const Pass* pass : passes) {
      if (pass->isDrawn != nullptr && !pass->isDrawn(input.context)) continue;
      read({from->GetTextureId()});
      drawInto(to, *pass);
      std::swap(from, to);
    }
    return *from;
  }

  const int width = GetParam().first;
  const int height = GetParam().second;
};

// The strength that leaves the current frame a weight: 0.99 - 0.0089 * strength.
constexpr int kStrengths[] = {100, 80, 55, 20};

INSTANTIATE_TEST_SUITE_P(Sizes, Masks, ::testing::Values(std::pair{40, 20}, std::pair{37, 19}, std::pair{1, 1}));

TEST_P(Masks, ErosionIsExact) {
  Picture mask = binaryMask(width, height, 2, 31);
  for (size_t i = 0; i < mask.rgba.size(); i += 12) {  // and values on both sides of the 0.95 that counts as unmoved
    if (mask.rgba[i] == 255) mask.rgba[i] = i % 60 == 0 ? 235 : 251;
  }
  for (const auto& [deghosting, step] : {std::pair{5, 1.5}, std::pair{6, 1.0}}) {
    TestTarget source(mask), intermediate(width, height);
    settings.deghosting = deghosting;
    settings.noiseReductionStrength = 66;  // a weight of 0.4026
    drawAll({&row("erode mask across", kr_w22), &row("erode mask down", kr_w22)}, source, intermediate);
    // Samples are texels or the means of two, which are whole codes here: nothing is left to rounding.
    EXPECT_TRUE(closeTo(source.read(), toPicture(eroded(Image(width, height, mask.rgba), step, 0.4026)), 0))
        << deghosting;
  }
}

TEST_P(Masks, DilationIsExact) {
  for (const auto& [deghosting, iterations] : {std::pair{3, 2}, std::pair{5, 3}, std::pair{7, 4}}) {
    for (const int strength : kStrengths) {
      const double weight = 0.99 - 0.0089 * strength;
      Picture mask = binaryMask(width, height, 98, 32);
      for (size_t i = 0; i < mask.rgba.size(); ++i) {
        if (mask.rgba[i] == 0) mask.rgba[i] = static_cast<uint8_t>(std::lround(weight * 255));  // as erosion leaves it
      }
      TestTarget target(mask), intermediate(width, height);
      settings.deghosting = deghosting;
      settings.noiseReductionStrength = strength;
      TestTarget& result = drawAll({&row("dilate mask 1", kr_w23), &row("dilate mask 2", kr_w23),
                                    &row("dilate mask 3", kr_w23), &row("dilate mask 4", kr_w23)},
                                   target, intermediate);
      const Picture expected = toPicture(dilated(Image(width, height, mask.rgba), iterations, weight));
      EXPECT_TRUE(closeTo(result.read(), expected, 0)) << deghosting << ", " << weight;
    }
  }
}

TEST_P(Masks, BlurStaysWithinACode) {
  const Picture mask = binaryMask(width, height, 40, 33);
  const Image image(width, height, mask.rgba);
  // One code in each direction: taps lie half-way between two texels, and the sum's last bits are a half float's.
  const std::string byLevel = "blur by level ", always = "blur mask ";
  for (const auto& [name, deghosting, step] : {std::tuple{byLevel, 5, 1.5}, {byLevel, 6, 1.0}, {always, 5, 1.0}}) {
    TestTarget a(mask), b(width, height);
    settings.deghosting = deghosting;
    drawAll({&row(name + "across", kr_w24), &row(name + "down", kr_w24)}, a, b);
    EXPECT_TRUE(closeTo(a.read(), toPicture(blurred(image, step)), 1)) << name << deghosting;
  }
}

class GhostMasks : public PassTest {};

TEST_F(GhostMasks, ThresholdFallsWithTheDeghostingLevel) {
  const Noisy old(40, 20, 34), current(40, 20, 35);
  read({old.texture.GetId(), current.texture.GetId()});
  for (const int deghosting : {0, 5, 10}) {
    settings.deghosting = deghosting;
    const double threshold = 0.3 - 0.025 * deghosting;
    useWarp(kIdentity);
    // Sums of codes; the thresholds (76.5, 44.6, 12.75 codes) lie between two.
    EXPECT_TRUE(closeTo(draw("ghost mask", kr_w20, 40, 20),
                        toPicture(ghostMask(old.image, current.image, kIdentity, threshold, {40, 20})), 0));
    useWarp(kWarp);
    // A sum within a code of the threshold may fall on either side: three codes of some three hundred.
    EXPECT_TRUE(closeTo(draw("ghost mask", kr_w20, 40, 20),
                        toPicture(ghostMask(old.image, current.image, kWarp, threshold, {40, 20})), 255, 0.97, 0));
  }
}

TEST_F(GhostMasks, TheMaskChoosesBetweenTheWarpedOldAndTheNew) {
  const Noisy old(40, 20, 36), current(40, 20, 37), mask(10, 5, 38);
  read({old.texture.GetId(), current.texture.GetId(), mask.texture.GetId()});
  useWarp(kWarp);
  // The bilinear weights of the old picture and of the mask have 8 bits: two roundings and the result's own, one code.
  EXPECT_TRUE(closeTo(draw("blend", kr_w21, 40, 20),
                      toPicture(deghostMix(old.image, current.image, mask.image, kWarp, {40, 20})), 1));
}

}  // namespace
}  // namespace noxel
