#include <algorithm>
#include <cmath>
#include <utility>

#include "filters/pass_fixture.h"

namespace noxel {
namespace {

using reference::Filter;
using reference::Image;
using reference::kIdentity;

// Colours of a picture, mostly within RGB.
std::vector<uint8_t> noisyChroma(int width, int height) {
  std::vector<uint8_t> vu = noisyBytes(width / 2 * (height / 2) * 2, 12);
  for (uint8_t& byte : vu) byte = static_cast<uint8_t>(96 + byte % 64);
  return vu;
}

// A frame's planes as textures and as images.
struct Planes {
  int width;
  int height;
  Picture packed = noisyPicture(width / 4, height, 11);
  std::vector<uint8_t> vu = noisyChroma(width, height);
  TestTexture lumaTexture{width, height, GL_LUMINANCE, packed.rgba};
  TestTexture packedTexture{packed, GL_NEAREST};
  TestTexture chromaTexture{width / 2, height / 2, GL_LUMINANCE_ALPHA, vu};
  Image luma = Image::luminance(width, height, packed.rgba);
  Image packedLuma{width / 4, height, packed.rgba, Filter::kNearest};
  Image chroma = Image::chroma(width / 2, height / 2, vu);
};

class LowLightPasses : public PassTest {
 protected:
  void use(const Planes& planes, bool packed = false) {
    read({packed ? planes.packedTexture.GetId() : planes.lumaTexture.GetId(), planes.chromaTexture.GetId(),
          selector.GetId()});
    input.context.frame = {planes.width, planes.height};
  }

  void useTone(float exponent, float gain) {
    input.context.tone.gamma = exponent;
    input.context.tone.gain = gain;
  }
};

TEST_F(LowLightPasses, PlanesBecomeRgb) {
  const Planes planes = {64, 48};
  use(planes);
  useWarp(kWarp);
  useTone(0.8f, 1.3f);
  // A bilinear sample of luma and one of chroma, with weights of 8 bits, err by a code each; blue takes the
  // latter 1.772 times, and the tone multiplies: by 1.1 on the whole, by up to 3 near black.
  EXPECT_TRUE(closeTo(draw("untouched view", kr_w15, 61, 45),
                      toPicture(reference::yuvToRgb(planes.luma, planes.chroma, kWarp, {1, 1}, {61, 45})), 3, 0.97, 1));
  EXPECT_TRUE(closeTo(draw("unwarped frame to RGB", kr_w16, 64, 48),
                      toPicture(reference::yuvToRgb(planes.luma, planes.chroma, kIdentity, {0.8, 1.3}, {64, 48})), 6,
                      0.97, 2));
  // The spline's four bilinear samples and the chroma sample err by a code each at most, and mostly not at once.
  EXPECT_TRUE(closeTo(draw("frame to RGB", kr_w8, 64, 48),
                      toPicture(bicubicYuvToRgb(planes.luma, planes.chroma, kWarp, {64, 48})), 3, 0.97, 1));
}

TEST_F(LowLightPasses, ToneIsGainThenExponent) {
  const Noisy source(40, 20, 13);
  read({source.texture.GetId()});
  for (const reference::Tone tone : {reference::Tone{1.0, 1.0}, {0.7, 1.5}, {1.3, 0.5}}) {
    useTone(static_cast<float>(tone.exponent), static_cast<float>(tone.gain));
    // One code: pow() is good to a few parts in ten thousand on a GPU. Alpha passes through.
    EXPECT_TRUE(closeTo(draw("tone", kr_w14, 40, 20), toPicture(toned(source.image, kIdentity, tone, {40, 20})), 1));
  }
}

TEST_F(LowLightPasses, PackedLumaTakesTheColumnsByteBothWays) {
  // Columns beyond 1024 need more bits than a half float has.
  for (const auto& [width, height] : {std::pair{40, 20}, std::pair{12, 2}, std::pair{1928, 4}}) {
    const Planes planes = {width, height};
    use(planes, true);
    useTone(1.2f, 1.1f);
    const Picture expected =
        toPicture(packedYuvToRgb(planes.packedLuma, planes.chroma, {1.2, 1.1}, width, {width, height}));
    // Luma comes over exactly; chroma's bilinear code is taken 1.772 times, and the tone's slope is up to 1.3.
    EXPECT_TRUE(closeTo(draw(modePlan(1).light.back(), width, height), expected, 3, 0.97, 1));
    EXPECT_TRUE(closeTo(draw("packed frame to RGB", kr_w17, width, height), expected, 3, 0.97, 1));
    const Picture neutral = toPicture(packedYuvToRgb(planes.packedLuma, planes.chroma, {}, width, {width, height}));
    EXPECT_TRUE(closeTo(draw(untouchedPass(true), width, height), neutral, 3, 0.97, 1));
  }
}

TEST_F(LowLightPasses, SharpeningWithAndWithoutContrast) {
  const Noisy source(40, 20, 14);
  read({source.texture.GetId()});
  input.context.frame = {40, 20};
  for (const float strength : {0.0f, 2.0f, 100.0f}) {
    settings.sharpening = strength;
    // Samples lie at texel centres, so that what remains is the rounding of half-way values.
    EXPECT_TRUE(closeTo(draw("sharpen", kr_w12, 40, 20), toPicture(sharpened(source.image, strength)), 1)) << strength;
    settings.contrast = 30;
    EXPECT_TRUE(
        closeTo(draw("sharpen", kr_w11, 40, 20), toPicture(sharpenedWithContrast(source.image, strength, 0.38)), 1))
        << strength;
  }
}

TEST_F(LowLightPasses, TemporalMixturesFollowTheirFormulas) {
  const Noisy old(40, 20, 15), current(40, 20, 16), oldest(40, 20, 17);
  read({old.texture.GetId(), current.texture.GetId(), oldest.texture.GetId()});
  settings.noiseReductionStrength = 40;  // a weight of 0.99 - 0.0089 * 40 = 0.634
  const struct {
    const char* name;
    ProgramId program;
    double (*formula)(double old, double current, double oldest);
  } cases[] = {
      {"mean of three", kr_w9, [](double a, double b, double c) { return (a + b + c) / 3; }},
      {"blend two", kr_w10, [](double a, double b, double) { return a + (b - a) / 5; }},
      {"extrapolate", kr_w13, [](double a, double b, double) { return b + 4 * (b - a); }},
      {"blend by weight", kr_w26, [](double a, double b, double) { return a + (b - a) * 0.634; }},
  };
  for (const auto& c : cases) {
    Picture expected(40, 20);
    for (size_t i = 0; i < expected.rgba.size(); ++i) {
      const double value = c.formula(old.picture.rgba[i], current.picture.rgba[i], oldest.picture.rgba[i]);
      expected.rgba[i] = i % 4 == 3 ? 255 : static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
    }
    EXPECT_TRUE(closeTo(draw(c.name, c.program, 40, 20), expected, 1)) << c.name;  // rounding half-way values
  }
}

TEST_F(LowLightPasses, HighlightsDecayTowardsTheCurrentFrame) {
  // Bright history falls by 0.005 a frame, dark history at once; the current frame is the floor.
  const TestTexture oldTexture(3, 1, GL_LUMINANCE, {255, 242, 100}, GL_NEAREST);
  const TestTexture currentTexture(3, 1, GL_LUMINANCE, {50, 50, 50}, GL_NEAREST);
  read({oldTexture.GetId(), currentTexture.GetId()});
  const Picture actual = draw("decay highlights", kr_w25, 3, 1);
  EXPECT_NEAR(actual.at(0, 0, 0), 255 - 0.005 * 255, 1);
  EXPECT_NEAR(actual.at(1, 0, 0), 242 - 10 * (0.95 - 0.999 * 242 / 255) * 255, 1);
  EXPECT_EQ(actual.at(2, 0, 0), 50);
}

TEST_F(LowLightPasses, TestPatternIsAGridOfDiamonds) {
  const Picture actual = draw("test pattern", kr_w27, 32, 32);
  // Tiles of 8 x 8 pixels: the pixel at (0, 0) is half a pixel into its tile, |1/16 - 1/2| twice; at (3, 3) 7/16.
  for (const int tile : {0, 8, 24}) {
    EXPECT_EQ(actual.at(tile, tile, 1), std::lround(255 * 0.875));
    EXPECT_EQ(actual.at(tile + 3, tile + 3, 1), std::lround(255 * 0.125));
  }
}

TEST_F(LowLightPasses, HalvingAveragesFourNeighbours) {
  const Noisy source(40, 20, 20);
  read({source.texture.GetId()});
  Picture copy = source.picture;
  for (size_t i = 3; i < copy.rgba.size(); i += 4) copy.rgba[i] = 255;
  EXPECT_TRUE(closeTo(draw("halve", kr_w1, 40, 20), copy, 0));
  input.context.source = {40, 20};
  // Each output centre is a corner of four texels: diagonal taps one texel away are bilinear means of four. A code each.
  EXPECT_TRUE(closeTo(draw("halve by diagonals", kr_w3, 20, 10),
                      toPicture(diagonalBox(Image(40, 20, copy.rgba), {1.0 / 40, 1.0 / 20}, {20, 10})), 1));
}

TEST_F(LowLightPasses, DetailIsWhatSmoothingTookAndMoreOfItAtEdges) {
  const Noisy picture(40, 20, 23);
  const Noisy smooth(40, 20, 24);  // as far from the picture as an edge
  read({picture.texture.GetId(), smooth.texture.GetId()});
  settings.sharpening = 4;    // a strength of 0.1 + 0.05 * 4
  settings.contrast = 35.0f;  // a curve of 0.2862
  const Image plain = detailed(picture.image, smooth.image, 0.3);
  // Samples lie at texel centres: what remains is the rounding of half-way values, and the curve's slope of 1.5.
  EXPECT_TRUE(closeTo(draw("detail", kr_w4, 40, 20), toPicture(plain), 1));
  EXPECT_TRUE(closeTo(draw("detail", kr_w5, 40, 20),
                      toPicture(detailedWithContrast(picture.image, smooth.image, 0.3, 0.2862, 1)), 2));
}

TEST_F(LowLightPasses, EdgesAndDetailAreSmoothedByTheirSteps) {
  const Noisy picture(40, 20, 25);
  read({picture.texture.GetId(), picture.texture.GetId()});
  input.context.frame = {40, 20};
  settings.noiseReductionStrength = 40;
  // Two codes: sums in medium precision, half floats of 11 bits on a GPU that has them.
  EXPECT_TRUE(
      closeTo(draw("smooth wide", kr_w19, 40, 20), toPicture(edgeAware(picture.image, picture.image, 3, 1)), 2));
  EXPECT_TRUE(
      closeTo(draw("smooth narrow", kr_w19, 40, 20), toPicture(edgeAware(picture.image, picture.image, 1, 0.4)), 2));
  settings.sharpening = 40;
  settings.totalzoom = 2;
  constexpr double kSpread = (0.25 + 0.0025 * 40) * 2;
  // Four bilinear samples with weights of 8 bits.
  EXPECT_TRUE(closeTo(draw("smooth", kr_w3, 40, 20),
                      toPicture(diagonalBox(picture.image, {kSpread / 40, kSpread / 20}, {40, 20})), 1));
}

TEST_F(LowLightPasses, TheSelectorPicksOneChannelAlone) {
  read({selector.GetId()});
  const Picture texels = draw("halve", kr_w1, 4, 1);
  for (int x = 0; x < 4; ++x) {
    for (int c = 0; c < 3; ++c) EXPECT_EQ(texels.at(x, 0, c), x == c ? 255 : 0) << x << ", " << c;
  }
}

TEST_F(LowLightPasses, CornersBoundThePictureAndTransformActsOnClipSpace) {
  const Noisy source(16, 8, 21);
  read({source.texture.GetId()});
  const float leftHalf[8] = {-1, 1, -1, -1, 0, 1, 0, -1};
  const float mirror[16] = {-1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  input.corners = leftHalf;
  input.transform = mirror;
  const Picture half = draw("tone", kr_w14, 16, 8);
  for (int x = 0; x < 8; ++x) EXPECT_EQ(half.at(x, 3, 1), source.picture.at(15 - x, 3, 1));
}

}  // namespace
}  // namespace noxel
