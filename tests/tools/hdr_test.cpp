// One scene in linear light, encoded by the standards' formulas as PQ, HLG and SDR.
#include <array>
#include <cmath>
#include <cstring>

#include "clips.h"
#include "idle_enhancer.h"
#include "media/clip_input.h"
#include "media/nv21_frame.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

constexpr int kWidth = 64, kHeight = 48;
constexpr double kWhiteNits = 203;  // diffuse white, ITU-R BT.2408

using Colour = std::array<double, 3>;

// What a display emits, in nits, for BT.709 primaries: blocks of 8 x 8 pixels of a few tints between 1/64 of the peak and it.
Colour light(int x, int y, double peakNits) {
  constexpr Colour kTints[] = {{1, 1, 1}, {1, 0.55, 0.3}, {0.35, 0.6, 1}, {0.5, 1, 0.6}};
  const int block = x / 8 + 8 * (y / 8);
  Colour colour = kTints[block % 4];
  for (double& channel : colour) channel *= peakNits * std::exp2(-6.0 * (block * 7 % 48) / 47);
  return colour;
}

Colour toBt2020(const Colour& c) {  // ITU-R BT.2087
  return {0.6274 * c[0] + 0.3293 * c[1] + 0.0433 * c[2], 0.0691 * c[0] + 0.9195 * c[1] + 0.0114 * c[2],
          0.0164 * c[0] + 0.0880 * c[1] + 0.8956 * c[2]};
}

double pq(double nits) {  // SMPTE ST 2084, inverse EOTF
  const double y = std::pow(nits / 10000, 2610.0 / 16384);
  return std::pow((3424.0 / 4096 + 2413.0 / 128 * y) / (1 + 2392.0 / 128 * y), 2523.0 / 32);
}

Colour hlg(Colour nits) {  // ITU-R BT.2100: inverse OOTF of a display of 1000 nits, then the OETF
  const double luminance = (0.2627 * nits[0] + 0.6780 * nits[1] + 0.0593 * nits[2]) / 1000;
  for (double& channel : nits) {
    const double scene = channel / 1000 * std::pow(luminance, 1 / 1.2 - 1);
    constexpr double kA = 0.17883277, kB = 0.28466892, kC = 0.55991073;
    channel = scene <= 1.0 / 12 ? std::sqrt(3 * scene) : kA * std::log(12 * scene - kB) + kC;
  }
  return nits;
}

enum class Kind { kSdr, kPq, kHlg };

Colour coded(Kind kind, const Colour& nits) {
  if (kind == Kind::kHlg) return hlg(toBt2020(nits));
  Colour codes = kind == Kind::kPq ? toBt2020(nits) : nits;
  for (double& channel : codes) {
    channel = kind == Kind::kPq ? pq(channel) : std::pow(std::min(channel / kWhiteNits, 1.0), 1 / 2.4);  // BT.1886
  }
  return codes;
}

// Ten bits, limited range.
FramePtr picture(Kind kind, double peakNits) {
  const double red = kind == Kind::kSdr ? 0.2126 : 0.2627, blue = kind == Kind::kSdr ? 0.0722 : 0.0593;
  FramePtr frame = makePicture(kWidth, kHeight, AV_PIX_FMT_YUV420P10LE);
  const auto put = [&](int plane, int x, int y, double code) {
    const auto value = static_cast<uint16_t>(std::lround(code));
    std::memcpy(frame->data[plane] + static_cast<ptrdiff_t>(y) * frame->linesize[plane] + 2 * x, &value, sizeof(value));
  };
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const Colour c = coded(kind, light(x, y, peakNits));
      const double luma = red * c[0] + (1 - red - blue) * c[1] + blue * c[2];
      put(0, x, y, 64 + 876 * luma);
      put(1, x / 2, y / 2, 512 + 896 * (c[2] - luma) / (2 * (1 - blue)));
      put(2, x / 2, y / 2, 512 + 896 * (c[0] - luma) / (2 * (1 - red)));
    }
  }
  return frame;
}

class HighDynamicRange : public testing::Test {
 protected:
  std::string clip(Kind kind, double peakNits, bool tagged = true) {
    ClipSpec spec;
    spec.width = kWidth;
    spec.height = kHeight;
    spec.times = {0, 40, 80};
    spec.video = AV_CODEC_ID_FFV1;
    spec.format = AV_PIX_FMT_YUV420P10LE;
    spec.range = AVCOL_RANGE_MPEG;
    spec.matrix = kind == Kind::kSdr ? AVCOL_SPC_BT709 : tagged ? AVCOL_SPC_BT2020_NCL : AVCOL_SPC_UNSPECIFIED;
    spec.primaries = kind == Kind::kSdr ? AVCOL_PRI_BT709 : tagged ? AVCOL_PRI_BT2020 : AVCOL_PRI_UNSPECIFIED;
    spec.transfer = kind == Kind::kPq    ? AVCOL_TRC_SMPTE2084
                    : kind == Kind::kHlg ? AVCOL_TRC_ARIB_STD_B67
                                         : AVCOL_TRC_BT709;
    spec.picture = [&](int) { return picture(kind, peakNits); };
    const std::string path = folder_.file("in" + std::to_string(clips_++) + ".mkv");
    writeClip(path, spec);
    return path;
  }

  const TemporaryDirectory folder_;
  int clips_ = 0;
};

double lumaOf(ClipInput& clip, int x, int y, int width, int height) {
  const int stride = clip.nv21Width();
  return meanLuma(clip.nv21().data() + static_cast<ptrdiff_t>(y) * stride + x, stride, width, height);
}

TEST_F(HighDynamicRange, ADimClipHasTheCodesOfItsSdrTwin) {
  ClipInput sdr(clip(Kind::kSdr, 60));
  EXPECT_FALSE(sdr.highDynamicRange());
  for (const auto& [kind, tagged] : {std::pair{Kind::kPq, true}, {Kind::kHlg, true}, {Kind::kPq, false}}) {
    SCOPED_TRACE(testing::Message() << (kind == Kind::kPq ? "PQ" : "HLG") << (tagged ? "" : ", no matrix stated"));
    ClipInput hdr(clip(kind, 60, tagged));
    ASSERT_TRUE(hdr.highDynamicRange());
    for (int frame = 0; frame < 3; ++frame) {
      // Eight bits, and chroma that is smoothed across the blocks' edges in other spaces.
      EXPECT_NEAR(lumaOf(hdr, 0, 0, kWidth, kHeight), lumaOf(sdr, 0, 0, kWidth, kHeight), 1);
      for (int block = 0; block < 48; ++block) {
        const int x = block % 8 * 8 + 2, y = block / 8 * 8 + 2;
        EXPECT_NEAR(lumaOf(hdr, x, y, 4, 4), lumaOf(sdr, x, y, 4, 4), 2) << block;
      }
      EXPECT_EQ(hdr.next(), frame < 2);
    }
  }
}

TEST_F(HighDynamicRange, WhatIsBrighterThanDiffuseWhiteStaysApart) {
  // 89 % of the codes' range for diffuse white at a peak of 1000 nits; 0.77^(1/2.4), the Moebius curve's formula.
  for (const Kind kind : {Kind::kPq, Kind::kHlg}) {
    std::array<double, 3> codes = {};
    constexpr double kNits[] = {kWhiteNits, 500, 1000};
    for (size_t i = 0; i < 3; ++i) {
      ClipInput hdr(clip(kind, kNits[i]));
      codes[i] = lumaOf(hdr, 2, 2, 4, 4);  // the first block: grey, at the peak
    }
    EXPECT_NEAR(codes[0], 255 * 0.895, 3);
    EXPECT_GT(codes[1], codes[0] + 8);
    EXPECT_GT(codes[2], codes[1] + 3);
    EXPECT_NEAR(codes[2], 255, 2);
  }
}

TEST_F(HighDynamicRange, IsWrittenAsBt709WithOneNote) {
  double means[2] = {};
  for (const Kind kind : {Kind::kSdr, Kind::kPq}) {
    EnhanceOptions options;
    options.input = clip(kind, 60);
    options.output = folder_.file("out.mp4");
    options.overwrite = true;
    testing::internal::CaptureStderr();
    ASSERT_EQ(runWith<Idle>(options), kExitFine);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(told.find("tone-mapped to BT.709 SDR") != std::string::npos, kind == Kind::kPq) << told;
    VideoReader reader(options.output);
    const FramePtr frame = reader.first();
    EXPECT_EQ(frame->format, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(frame->colorspace, AVCOL_SPC_BT709);
    EXPECT_EQ(frame->color_primaries, AVCOL_PRI_BT709);
    EXPECT_EQ(frame->color_trc, AVCOL_TRC_BT709);
    EXPECT_EQ(frame->color_range, AVCOL_RANGE_MPEG);
    means[kind == Kind::kPq] = meanLuma(frame->data[0], frame->linesize[0], kWidth, kHeight);
  }
  EXPECT_NEAR(means[0], means[1], 1.5) << "as above, and encoded";
}

}  // namespace
}  // namespace noxel::tool
