
#include <algorithm>

#include "filters/pass_fixture.h"

namespace noxel {
namespace {

using reference::Filter;
using reference::Image;

class Conversion : public PassTest {};

TEST_F(Conversion, RgbIsPackedAsTheFormulaSays) {
  const Noisy source(64, 46, 1);
  read({source.texture.GetId()});
  const auto packed = [&](const char* name, ProgramId program, int height) {
    return draw(row(name, program), 16, height, GL_NEAREST);
  };
  // One code: the matrix is written to four digits, and GL may round a value half-way between two codes either way.
  EXPECT_TRUE(closeTo(packed("pack luma", kr_r1, 46), toPicture(packedLumaOf(source.image, {16, 46})), 1));
  EXPECT_TRUE(closeTo(packed("pack chroma", kr_r2, 23), toPicture(packedChromaOf(source.image, true, {16, 23})), 1));
  EXPECT_TRUE(closeTo(packed("pack chroma", kr_r3, 23), toPicture(packedChromaOf(source.image, false, {16, 23})), 1));
}

TEST_F(Conversion, AllThreeLumaLayoutsFollowTheFormula) {
  constexpr int width = 64, height = 22;
  const Picture packed = noisyPicture(width / 4, height, 2);
  const std::vector<uint8_t> vu = noisyBytes(width / 2 * (height / 2) * 2, 3);
  const TestTexture packedLuma(packed, GL_NEAREST);
  const TestTexture luma(width, height, GL_LUMINANCE, packed.rgba);  // the same bytes, one a texel
  const TestTexture chroma(width / 2, height / 2, GL_LUMINANCE_ALPHA, vu);
  const Image packedImage(width / 4, height, packed.rgba, Filter::kNearest);
  const Image lumaImage = Image::luminance(width, height, packed.rgba);
  const Image chromaImage = Image::chroma(width / 2, height / 2, vu);

  input.context.frame = {width, height};
  // Bilinear weights of 8 bits err by one code of chroma, which blue takes 1.772 times; near black an exponent of 0.8
  // triples it.
  for (const float gamma : {0.5f, 1.0f, 2.0f}) {
    const double applied = std::clamp(static_cast<double>(gamma), 0.8, 1.2);
    const Picture expected =
        toPicture(reference::packedYuvToRgbClamped(packedImage, chromaImage, applied, width, {width, height}));
    input.context.tone.gamma = gamma;
    read({packedLuma.GetId(), chroma.GetId(), selector.GetId()});
    EXPECT_TRUE(closeTo(draw("packed, clamped gamma", kr_convr2, width, height), expected, 6, 0.99, 2)) << gamma;
    EXPECT_TRUE(closeTo(draw("selected, clamped gamma", kr_convr3, width, height), expected, 6, 0.99, 2)) << gamma;
    read({luma.GetId()});
    const Picture plain = toPicture(reference::yuvToRgbClamped(lumaImage, chromaImage, applied, {width, height}));
    EXPECT_TRUE(closeTo(draw("clamped gamma", kr_convr1, width, height), plain, 6, 0.99, 2)) << gamma;
  }
}

TEST_F(Conversion, LumaIsSmoothedByTheFormulaAtEveryStrength) {
  for (const auto& [width, height] : {std::pair{16, 48}, std::pair{9, 20}}) {
    // Little noise as well as much: weights between their two ends.
    Picture packed = noisyPicture(width, height, 4);
    for (size_t i = 0; i < packed.rgba.size() / 2; ++i) packed.rgba[i] = static_cast<uint8_t>(90 + packed.rgba[i] % 16);
    const Image image(width, height, packed.rgba, Filter::kNearest);
    const TestTexture source(packed, GL_NEAREST);
    for (const auto& [strength, blend] : {std::pair{0, 0.0}, std::pair{10, 0.099}, std::pair{100, 0.9}}) {
      settings.noiseReductionStrength = strength;
      const double factor = 15 - 0.08 * strength;
      TestTarget intermediate(width, height / 2, GL_NEAREST);
      read({source.GetId()});
      input.context.source = {width, height};
      drawInto(&intermediate, row("smooth luma", kr_bl1));
      read({intermediate.GetTextureId(), source.GetId()});
      input.context.source = {width, height / 2};
      const Picture actual = draw(row("refine luma", kr_bl2), width, height, GL_NEAREST);
      const Image smoothed = reference::bilateralSmooth(image, factor, {width, height / 2});
      // Two codes: the weights are sums in medium precision, half floats of 11 bits on a GPU that has them; the second
      // pass starts from the first one's rounding.
      EXPECT_TRUE(closeTo(intermediate.read(), toPicture(smoothed), 1)) << strength;
      const Image refined = reference::bilateralRefine(smoothed, image, factor, blend, 1, {width, height});
      EXPECT_TRUE(closeTo(actual, toPicture(refined), 2)) << strength;
    }
  }
}

}  // namespace
}  // namespace noxel
