#include <algorithm>
#include <cmath>
#include <utility>

#include "filters/low_light_fixture.h"

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

class LowLightPasses : public LowLightTest {
 protected:
  void use(const Planes& planes, bool packed = false) {
    state.texture0 = packed ? planes.packedTexture.GetId() : planes.lumaTexture.GetId();
    state.texture1 = planes.chromaTexture.GetId();
    state.imageWidth = planes.width;
    state.imageHeight = planes.height;
  }

  void useTone(float exponent, float gain) {
    state.limits[0] = exponent;
    state.limits[1] = gain;
  }
};

TEST_F(LowLightPasses, PlanesBecomeRgbWithTone) {
  const Planes planes(64, 48);
  use(planes);
  useWarp(kWarp);
  useTone(0.8f, 1.3f);
  // A bilinear sample of luma and one of chroma, with weights of 8 bits, err by a code each; blue takes the
  // latter 1.772 times, and the tone multiplies: by 1.1 on the whole, by up to 3 near black.
  EXPECT_TRUE(closeTo(draw(kPassYuv, 61, 45),
                      toPicture(yuvToRgb(planes.luma, planes.chroma, kWarp, {0.8, 1.3}, {61, 45})), 6, 0.97, 2));
  EXPECT_FLOAT_EQ(state.pixelPair[0], 1.0f / 64);  // what a sharpening pass would go on with
  EXPECT_FLOAT_EQ(state.pixelPair[1], 1.0f / 48);

  EXPECT_TRUE(closeTo(draw(kPassYuvUnwarped, 64, 48),
                      toPicture(yuvToRgb(planes.luma, planes.chroma, kIdentity, {0.8, 1.3}, {64, 48})), 6, 0.97, 2));
}

TEST_F(LowLightPasses, BicubicLumaFollowsTheSpline) {
  const Planes planes(64, 48);
  use(planes);
  useWarp(kWarp);
  // The spline's four bilinear samples and the chroma sample err by a code each at most, and mostly not at once.
  EXPECT_TRUE(closeTo(draw(kPassBicubicYuv, 64, 48),
                      toPicture(bicubicYuvToRgb(planes.luma, planes.chroma, kWarp, {64, 48})), 3, 0.97, 1));
}

TEST_F(LowLightPasses, ToneIsGainThenExponent) {
  const Picture picture = noisyPicture(40, 20, 13);
  const TestTexture source(picture);
  const Image image(40, 20, picture.rgba);
  state.texture0 = source.GetId();
  for (const reference::Tone tone : {reference::Tone{1.0, 1.0}, {0.7, 1.5}, {1.3, 0.5}}) {
    useTone(static_cast<float>(tone.exponent), static_cast<float>(tone.gain));
    // One code: pow() is good to a few parts in ten thousand on a GPU. Alpha passes through.
    EXPECT_TRUE(closeTo(draw(kPassTone, 40, 20), toPicture(toned(image, kIdentity, tone, {40, 20})), 1));
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
    EXPECT_TRUE(closeTo(draw(kPassPackedYuv, width, height, true), expected, 3, 0.97, 1));
    EXPECT_TRUE(closeTo(draw(kPassPackedYuv, width, height, false), expected, 3, 0.97, 1));
    EXPECT_TRUE(closeTo(draw(99, width, height, false), expected, 3, 0.97, 1)) << "an unknown code draws the same";
    Texture* const selector = std::exchange(filter.selectorTexture, nullptr);
    EXPECT_TRUE(closeTo(draw(kPassPackedYuv, width, height, true), expected, 3, 0.97, 1)) << "the other stands in";
    filter.selectorTexture = selector;
  }
}

// Columns beyond 1024 need more bits than a half float has.
TEST_F(LowLightPasses, PackedLumaFindsTheColumnInAWideFrame) {
  Planes planes(1928, 4);
  const TestTexture grey(1, 1, GL_LUMINANCE_ALPHA, {128, 128});
  use(planes, true);
  state.texture1 = grey.GetId();
  for (const bool selectorLuma : {true, false}) {
    const Picture actual = draw(kPassPackedYuv, 1928, 4, selectorLuma);
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
    EXPECT_EQ(wrong, 0) << "of " << 1928 * 4 << " columns, selector " << selectorLuma;
  }
}

TEST_F(LowLightPasses, SharpeningWithAndWithoutContrast) {
  const Picture picture = noisyPicture(40, 20, 14);
  const TestTexture source(picture);
  const Image image(40, 20, picture.rgba);
  state.texture0 = source.GetId();
  state.pixelPair[0] = 1.0f / 40;  // as an earlier pass leaves it
  state.pixelPair[1] = 1.0f / 20;
  for (const float strength : {0.0f, 2.0f, 100.0f}) {
    state.sharpening = strength;
    filter.setContrast(0);
    state.contrastPair[0] = -7;
    // Samples lie at texel centres, so that what remains is the rounding of half-way values.
    EXPECT_TRUE(closeTo(draw(kPassSharpen, 40, 20), toPicture(sharpened(image, strength)), 1)) << strength;
    EXPECT_EQ(state.contrastPair[0], -7);  // untouched without contrast

    filter.setContrast(30);
    EXPECT_TRUE(closeTo(draw(kPassSharpen, 40, 20), toPicture(sharpenedWithContrast(image, strength, 0.38)), 1))
        << strength;
    EXPECT_FLOAT_EQ(state.contrastPair[0], 0.38f);
    EXPECT_FLOAT_EQ(state.contrastPair[1], 1.76f);
  }
}

TEST_F(LowLightPasses, TemporalMixturesFollowTheirFormulas) {
  const Picture old = noisyPicture(40, 20, 15);
  const Picture current = noisyPicture(40, 20, 16);
  const Picture oldest = noisyPicture(40, 20, 17);
  const TestTexture oldTexture(old);
  const TestTexture currentTexture(current);
  const TestTexture oldestTexture(oldest);
  state.texture0 = oldTexture.GetId();
  state.texture1 = currentTexture.GetId();
  state.texture2 = oldestTexture.GetId();
  state.maskWeight = 0.3f;
  const struct {
    int code;
    double (*formula)(double old, double current, double oldest);
  } cases[] = {
      {kPassThreeFrameMean, [](double a, double b, double c) { return (a + b + c) / 3; }},
      {kPassRecursiveBlend, [](double a, double b, double) { return a + (b - a) / 5; }},
      {kPassExtrapolate, [](double a, double b, double) { return b + 4 * (b - a); }},
      {kPassLinearBlend, [](double a, double b, double) { return a + (b - a) * 0.3; }},
  };
  for (const auto& c : cases) {
    Picture expected(40, 20);
    for (size_t i = 0; i < expected.rgba.size(); ++i) {
      const double value = c.formula(old.rgba[i], current.rgba[i], oldest.rgba[i]);
      expected.rgba[i] = i % 4 == 3 ? 255 : static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
    }
    EXPECT_TRUE(closeTo(draw(c.code, 40, 20), expected, 1)) << "code " << c.code;  // rounding half-way values
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
  state.texture0 = oldTexture.GetId();
  state.texture1 = currentTexture.GetId();
  const Picture actual = draw(kPassHighlightDecay, 3, 1);
  EXPECT_NEAR(actual.at(0, 0, 0), 255 - 0.005 * 255, 1);
  EXPECT_NEAR(actual.at(1, 0, 0), 242 - 10 * (0.95 - 0.999 * 242 / 255) * 255, 1);
  EXPECT_EQ(actual.at(2, 0, 0), 50);
}

TEST_F(LowLightPasses, TestPatternIsAGridOfDiamonds) {
  const Picture actual = draw(kPassTestPattern, 32, 32);
  // Tiles of 8 x 8 pixels: the pixel at (0, 0) is half a pixel into its tile, |1/16 - 1/2| twice; at (3, 3) 7/16.
  for (const int tile : {0, 8, 24}) {
    EXPECT_EQ(actual.at(tile, tile, 1), std::lround(255 * 0.875));
    EXPECT_EQ(actual.at(tile + 3, tile + 3, 1), std::lround(255 * 0.125));
  }
}

TEST_F(LowLightPasses, TheDownsamplingChainCopiesThenAverages) {
  const Picture picture = noisyPicture(40, 20, 20);
  TestTarget source(picture);
  TestTarget t0(40, 20), t1(20, 10), t2(10, 5);
  FrameBuffer* targets[] = {&t0, &t1, &t2};
  filter.downsampleChain(3, &source, targets);
  Picture copy = picture;
  for (size_t i = 3; i < copy.rgba.size(); i += 4) copy.rgba[i] = 255;
  EXPECT_TRUE(closeTo(t0.read(), copy, 0));
  // Each output centre is a corner of four texels: diagonal taps one texel away are bilinear means of four. A code
  // each.
  const Image half = diagonalBox(Image(40, 20, copy.rgba), {1.0 / 40, 1.0 / 20}, {20, 10});
  EXPECT_TRUE(closeTo(t1.read(), toPicture(half), 1));
  EXPECT_TRUE(closeTo(t2.read(), toPicture(diagonalBox(half, {1.0 / 20, 1.0 / 10}, {10, 5})), 2));
}

TEST_F(LowLightPasses, AnotherQuadIsForOnePassAndTransformActsOnClipSpace) {
  const Picture picture = noisyPicture(16, 8, 21);
  const TestTexture source(picture);
  state.texture0 = source.GetId();
  const float leftHalf[8] = {-1, 1, -1, -1, 0, 1, 0, -1};
  const float mirror[16] = {-1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  state.positionVertices = leftHalf;
  state.transform = mirror;
  const Picture half = draw(kPassTone, 16, 8);
  EXPECT_EQ(state.positionVertices, gSquareVertices);
  for (int x = 0; x < 8; ++x) EXPECT_EQ(half.at(x, 3, 1), picture.at(15 - x, 3, 1));
}

TEST_F(LowLightPasses, AMissingProgramDrawsNothing) {
  const Picture before = noisyPicture(8, 8, 22);
  TestTarget target(before);
  LowLightFilter unbuilt;
  unbuilt.state.targetFrameBuffer = &target;
  unbuilt.state.intermediateFrameBuffer = &target;
  unbuilt.BindTarget(&target);
  for (int code = 0; code <= kPassHighlightDecay; ++code) {
    unbuilt.state.passCode = code;
    EXPECT_TRUE(unbuilt.drawPass(code % 2 == 0));
  }
  FrameBuffer* targets[] = {&target, &target, &target};
  unbuilt.smoothMask(&target, &target, &target);
  unbuilt.downsampleChain(2, &target, targets);
  EXPECT_EQ(unbuilt.runSyncChain(1, targets, false, true), nullptr);
  EXPECT_TRUE(closeTo(target.read(), before, 0));
}

}  // namespace
}  // namespace noxel
