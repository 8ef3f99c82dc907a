#include <algorithm>
#include <cmath>
#include <utility>

#include "filters/pass_fixture.h"

namespace noxel {
namespace {

using reference::Filter;
using reference::Image;
using reference::kIdentity;

// A frame's planes as textures and as images.
struct Planes {
  Planes(int planeWidth, int planeHeight)
      : width(planeWidth),
        height(planeHeight),
        packed(noisyPicture(width / 4, height, 11)),
        vu(noisyBytes(width / 2 * (height / 2) * 2, 12)) {
    for (uint8_t& byte : vu) byte = static_cast<uint8_t>(96 + byte % 64);  // colours of a picture, mostly within RGB
  }

  int width;
  int height;
  Picture packed;
  std::vector<uint8_t> vu;
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
  const Planes planes(64, 48);
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
}

TEST_F(LowLightPasses, BicubicLumaFollowsTheSpline) {
  const Planes planes(64, 48);
  use(planes);
  useWarp(kWarp);
  // The spline's four bilinear samples and the chroma sample err by a code each at most, and mostly not at once.
  EXPECT_TRUE(closeTo(draw("frame to RGB", kr_w8, 64, 48),
                      toPicture(bicubicYuvToRgb(planes.luma, planes.chroma, kWarp, {64, 48})), 3, 0.97, 1));
}

TEST_F(LowLightPasses, ToneIsGainThenExponent) {
  const Picture picture = noisyPicture(40, 20, 13);
  const TestTexture source(picture);
  const Image image(40, 20, picture.rgba);
  read({source.GetId()});
  for (const reference::Tone tone : {reference::Tone{1.0, 1.0}, {0.7, 1.5}, {1.3, 0.5}}) {
    useTone(static_cast<float>(tone.exponent), static_cast<float>(tone.gain));
    // One code: pow() is good to a few parts in ten thousand on a GPU. Alpha passes through.
    EXPECT_TRUE(closeTo(draw("tone", kr_w14, 40, 20), toPicture(toned(image, kIdentity, tone, {40, 20})), 1));
  }
}

TEST_F(LowLightPasses, PackedLumaTakesTheColumnsByteBothWays) {
  for (const auto& [width, height] : {std::pair{40, 20}, std::pair{12, 2}}) {
    const Planes planes(width, height);
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

// Columns beyond 1024 need more bits than a half float has.
TEST_F(LowLightPasses, PackedLumaFindsTheColumnInAWideFrame) {
  Planes planes(1928, 4);
  const TestTexture grey(1, 1, GL_LUMINANCE_ALPHA, {128, 128});
  use(planes, true);
  input.textures[1] = grey.GetId();
  for (const Pass* pass : {&untouchedPass(true), &row("packed frame to RGB", kr_w17)}) {
    const Picture actual = draw(*pass, 1928, 4);
    int wrong = 0;
    for (int y = 0; y < 4; ++y) {
      for (int x = 0; x < 1928; ++x) {
        // Red is luma + 1.402 * (128 / 255 - 0.5), two thirds of a code over.
        if (std::abs(std::min(planes.packed.rgba[static_cast<size_t>(y * 1928 + x)] + 1, 255) - actual.at(x, y, 0)) >
            1) {
          ++wrong;
        }
      }
    }
    EXPECT_EQ(wrong, 0) << "of " << 1928 * 4 << " columns, " << pass->name;
  }
}

TEST_F(LowLightPasses, SharpeningWithAndWithoutContrast) {
  const Picture picture = noisyPicture(40, 20, 14);
  const TestTexture source(picture);
  const Image image(40, 20, picture.rgba);
  read({source.GetId()});
  input.context.frame = {40, 20};
  for (const float strength : {0.0f, 2.0f, 100.0f}) {
    settings.sharpening = strength;
    // Samples lie at texel centres, so that what remains is the rounding of half-way values.
    EXPECT_TRUE(closeTo(draw("sharpen", kr_w12, 40, 20), toPicture(sharpened(image, strength)), 1)) << strength;
    settings.contrast = 30;
    EXPECT_TRUE(closeTo(draw("sharpen", kr_w11, 40, 20), toPicture(sharpenedWithContrast(image, strength, 0.38)), 1))
        << strength;
  }
}

TEST_F(LowLightPasses, TemporalMixturesFollowTheirFormulas) {
  const Picture old = noisyPicture(40, 20, 15);
  const Picture current = noisyPicture(40, 20, 16);
  const Picture oldest = noisyPicture(40, 20, 17);
  const TestTexture oldTexture(old);
  const TestTexture currentTexture(current);
  const TestTexture oldestTexture(oldest);
  read({oldTexture.GetId(), currentTexture.GetId(), oldestTexture.GetId()});
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
      const double value = c.formula(old.rgba[i], current.rgba[i], oldest.rgba[i]);
      expected.rgba[i] = i % 4 == 3 ? 255 : static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
    }
    EXPECT_TRUE(closeTo(draw(c.name, c.program, 40, 20), expected, 1)) << c.name;  // rounding half-way values
  }
}

TEST_F(LowLightPasses, HighlightsDecayTowardsTheCurrentFrame) {
  // Bright history falls by 0.005 a frame, dark history at once; the current frame is the floor.
  Picture old(3, 1);
  Picture current(3, 1);
  const int oldCodes[3] = {255, 242, 100};
  for (int x = 0; x < 3; ++x) {
    for (int c = 0; c < 3; ++c) {
      old.at(x, 0, c) = static_cast<uint8_t>(oldCodes[x]);
      current.at(x, 0, c) = 50;
    }
  }
  const TestTexture oldTexture(old, GL_NEAREST);
  const TestTexture currentTexture(current, GL_NEAREST);
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
  const Picture picture = noisyPicture(40, 20, 20);
  const TestTexture source(picture);
  read({source.GetId()});
  Picture copy = picture;
  for (size_t i = 3; i < copy.rgba.size(); i += 4) copy.rgba[i] = 255;
  EXPECT_TRUE(closeTo(draw("halve", kr_w1, 40, 20), copy, 0));
  input.context.source = {40, 20};
  // Each output centre is a corner of four texels: diagonal taps one texel away are bilinear means of four. A code each.
  EXPECT_TRUE(closeTo(draw("halve by diagonals", kr_w3, 20, 10),
                      toPicture(diagonalBox(Image(40, 20, copy.rgba), {1.0 / 40, 1.0 / 20}, {20, 10})), 1));
}

TEST_F(LowLightPasses, CornersBoundThePictureAndTransformActsOnClipSpace) {
  const Picture picture = noisyPicture(16, 8, 21);
  const TestTexture source(picture);
  read({source.GetId()});
  const float leftHalf[8] = {-1, 1, -1, -1, 0, 1, 0, -1};
  const float mirror[16] = {-1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  input.corners = leftHalf;
  input.transform = mirror;
  const Picture half = draw("tone", kr_w14, 16, 8);
  for (int x = 0; x < 8; ++x) EXPECT_EQ(half.at(x, 3, 1), picture.at(15 - x, 3, 1));
}

}  // namespace
}  // namespace noxel
