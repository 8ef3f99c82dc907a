#include "media/colour_conversion.h"

#include <array>
#include <cmath>

#include "clips.h"
#include "media/nv21_frame.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

using Triple = std::array<int, 3>;  // Y, Cb, Cr codes

struct Weights {
  double red, blue;
};
constexpr Weights kBt601 = {0.299, 0.114};
constexpr Weights kBt709 = {0.2126, 0.0722};

// Codes of an R'G'B' colour in 0..1, by the standards' formulas.
Triple codes(const std::array<double, 3>& rgb, Weights weights, bool full) {
  const double y = weights.red * rgb[0] + (1 - weights.red - weights.blue) * rgb[1] + weights.blue * rgb[2];
  const double cb = (rgb[2] - y) / (2 * (1 - weights.blue));
  const double cr = (rgb[0] - y) / (2 * (1 - weights.red));
  const auto code = [](double value) { return static_cast<int>(std::lround(std::min(std::max(value, 0.0), 255.0))); };
  if (full) return {code(255 * y), code(128 + 255 * cb), code(128 + 255 * cr)};
  return {code(16 + 219 * y), code(128 + 224 * cb), code(128 + 224 * cr)};
}

FramePtr tagged(FramePtr frame, AVColorSpace matrix, AVColorRange range) {
  frame->colorspace = matrix;
  frame->color_range = range;
  return frame;
}

Triple middle(const AVFrame& frame) {
  const int x = frame.width / 2, y = frame.height / 2;
  return {sample(frame, 0, x, y), sample(frame, 1, x / 2, y / 2), sample(frame, 2, x / 2, y / 2)};
}

int distance(const Triple& a, const Triple& b) {
  int max = 0;
  for (size_t i = 0; i < 3; ++i) max = std::max(max, std::abs(a[i] - b[i]));
  return max;
}

constexpr std::array<double, 3> kPatches[] = {{0, 0, 0},          {1, 1, 1},       {0.5, 0.5, 0.5}, {1, 0, 0},
                                              {0, 1, 0},          {0, 0, 1},       {1, 1, 0},       {0, 1, 1},
                                              {0.02, 0.03, 0.05}, {0.8, 0.2, 0.4}, {0.1, 0.6, 0.9}};

TEST(ColourConversion, EngineColoursPassBitExactly) {
  for (const AVColorSpace matrix : {AVCOL_SPC_SMPTE170M, AVCOL_SPC_BT470BG, AVCOL_SPC_UNSPECIFIED}) {
    const FramePtr frame = tagged(rampPlanar(641, 361, 128), matrix, AVCOL_RANGE_JPEG);
    ColourConversion colours(*frame);
    const FramePtr engine = colours.toEngine(*padded(*colours.planar(*frame)));
    const FramePtr back = colours.fromEngine(*engine);
    for (int y = 0; y < 361; ++y) {
      ASSERT_TRUE(std::equal(&sample(*frame, 0, 0, y), &sample(*frame, 0, 641, y), &sample(*back, 0, 0, y))) << y;
    }
    EXPECT_EQ(distance(middle(*frame), middle(*back)), 0);
  }
}

TEST(ColourConversion, OtherColoursBecomeFullRangeBt601AndComeBack) {
  const struct {
    AVColorSpace matrix;
    Weights weights;
    bool full;
  } kinds[] = {{AVCOL_SPC_SMPTE170M, kBt601, false}, {AVCOL_SPC_BT709, kBt709, false}, {AVCOL_SPC_BT709, kBt709, true}};
  for (const auto& kind : kinds) {
    for (const auto& rgb : kPatches) {
      SCOPED_TRACE(testing::Message() << kind.matrix << " rgb " << rgb[0] << ' ' << rgb[1] << ' ' << rgb[2]);
      const Triple in = codes(rgb, kind.weights, kind.full);
      const FramePtr frame =
          tagged(flatPlanar(20, 10, in[0], in[1], in[2]), kind.matrix, kind.full ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG);
      ColourConversion colours(*frame);
      const FramePtr engine = colours.toEngine(*colours.planar(*frame));
      // Rounded twice, the first error scaled by 255 / 219.
      EXPECT_LE(distance(middle(*engine), codes(rgb, kBt601, true)), 2);
      EXPECT_LE(distance(middle(*colours.fromEngine(*engine)), in), 2);
    }
  }
}

TEST(ColourConversion, UntaggedColoursFollowSizeAndFormat) {
  const struct {
    int width, height;
    AVPixelFormat format;
    AVColorSpace matrix;
    AVColorRange range;
  } rows[] = {{1278, 576, AV_PIX_FMT_YUV420P, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG},
              {1280, 20, AV_PIX_FMT_YUV420P, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG},
              {20, 578, AV_PIX_FMT_YUVJ420P, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG},
              {20, 20, AV_PIX_FMT_RGB24, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG}};
  for (const auto& row : rows) {
    const FramePtr frame = makePicture(row.width, row.height, row.format);
    const ColourConversion colours(*frame);
    EXPECT_EQ(colours.matrix(), row.matrix) << row.width;
    EXPECT_EQ(colours.range(), row.range) << row.width;
  }
  // The output stays untagged, too.
  EXPECT_EQ(ColourConversion(*makePicture(8, 8, AV_PIX_FMT_YUV420P)).tags().matrix, AVCOL_SPC_UNSPECIFIED);
}

TEST(ColourConversion, OtherFormatsBecomeEightBit420InTheirOwnRange) {
  const FramePtr ten = tagged(makePicture(9, 7, AV_PIX_FMT_YUV422P10LE), AVCOL_SPC_BT709, AVCOL_RANGE_MPEG);
  const int values[] = {63 * 4, 102 * 4, 240 * 4};
  for (int plane = 0; plane < 3; ++plane) {
    auto* samples = reinterpret_cast<uint16_t*>(ten->data[plane]);
    std::fill_n(samples, 7 * ten->linesize[plane] / 2, static_cast<uint16_t>(values[plane]));
  }
  ColourConversion colours(*ten);
  const FramePtr planar = colours.planar(*ten);
  EXPECT_EQ(planar->format, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(middle(*planar), (Triple{63, 102, 240}));

  const FramePtr rgb = makePicture(16, 16, AV_PIX_FMT_RGB24);
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < 48; ++x) sample(*rgb, 0, x, y) = x % 3 == 0 ? 255 : 0;
  }
  ColourConversion fromRgb(*rgb);
  EXPECT_LE(distance(middle(*fromRgb.planar(*rgb)), codes({1, 0, 0}, kBt601, false)), 1);
}

TEST(ColourConversion, RefusesAMatrixItCannotConvert) {
  const FramePtr frame = tagged(flatPlanar(8, 8, 100, 128, 128), AVCOL_SPC_BT2020_CL, AVCOL_RANGE_MPEG);
  const ToolError refused = refusal([&] { ColourConversion colours(*frame); });
  EXPECT_EQ(refused.code(), kExitFailed);
  EXPECT_NE(std::string(refused.what()).find("bt2020c"), std::string::npos);
}

TEST(ColourConversion, EngineColoursConvertToRgb) {
  const Triple red = codes({1, 0, 0}, kBt601, true);
  const FramePtr rgb = engineToRgb(*flatPlanar(16, 4, red[0], red[1], red[2]));
  EXPECT_GE(rgb->data[0][0], 253);  // rounded codes: up to 1.4 levels in red
  EXPECT_LE(rgb->data[0][1], 2);
  EXPECT_LE(rgb->data[0][2], 2);
}

}  // namespace
}  // namespace noxel::tool
