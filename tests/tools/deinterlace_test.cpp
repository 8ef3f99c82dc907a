// A pattern that moves by some pixels from field to field: woven into frames, its edges are combs.
#include <cmath>
#include <cstdlib>

#include "clips.h"
#include "idle_enhancer.h"
#include "media/clip_input.h"
#include "run_command.h"
#include "support/waves.h"

namespace noxel::tool {
namespace {

constexpr int kWidth = 96, kHeight = 64, kFrames = 10;
constexpr double kPixelsAField = 3;

uint8_t pattern(double x, int y) {
  return static_cast<uint8_t>(std::lround(128 + 60 * std::sin(0.25 * x) + 20 * std::sin(0.1 * y)));
}

// `oddLater`: by how many fields the second line is later than the first; 0: progressive.
FramePtr woven(int frame, int oddLater) {
  FramePtr picture = flatPlanar(kWidth, kHeight, 0, 128, 128);
  for (int y = 0; y < kHeight; ++y) {
    const double moved = kPixelsAField * (2 * frame + (y % 2 == 1 ? oddLater : 0));
    for (int x = 0; x < kWidth; ++x) sample(*picture, 0, x, y) = pattern(x + moved, y);
  }
  return picture;
}

// Mean difference of a line to the mean of its neighbours, levels; left and right edges aside.
double combing(const AVFrame& frame) {
  double sum = 0;
  for (int y = 1; y < kHeight - 1; ++y) {
    for (int x = 8; x < kWidth - 8; ++x) {
      sum += std::abs(sample(frame, 0, x, y) - (sample(frame, 0, x, y - 1) + sample(frame, 0, x, y + 1)) / 2.0);
    }
  }
  return sum / ((kHeight - 2) * (kWidth - 16));
}

double meanError(const AVFrame& a, const AVFrame& b) {
  double sum = 0;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 8; x < kWidth - 8; ++x) sum += std::abs(sample(a, 0, x, y) - sample(b, 0, x, y));
  }
  return sum / (kHeight * (kWidth - 16));
}

class Deinterlacing : public testing::Test {
 protected:
  std::string clip(AVCodecID codec, AVFieldOrder flagged, int oddLater) {
    ClipSpec spec;
    spec.width = kWidth;
    spec.height = kHeight;
    spec.video = codec;
    spec.fields = flagged;
    spec.times.clear();
    for (int i = 0; i < kFrames; ++i) spec.times.push_back(40 * i + (i == 4 ? 7 : 0));
    spec.picture = [oddLater](int frame) { return woven(frame, oddLater); };
    const std::string path = folder_.file("in" + std::to_string(clips_++) + ".mkv");
    writeClip(path, spec);
    return path;
  }

  const TemporaryDirectory folder_;
  int clips_ = 0;
};

TEST_F(Deinterlacing, TakesTheCombsOutAndKeepsFramesAndTimes) {
  const double combed = combing(*woven(3, 1));
  ASSERT_GT(combed, 10);
  struct Row {
    AVCodecID codec;
    AVFieldOrder flagged;
    int oddLater;
  };
  // FFV1 has no flags: seen in its pictures.
  for (const Row& row : {Row{AV_CODEC_ID_MPEG4, AV_FIELD_TT, 1}, Row{AV_CODEC_ID_MPEG4, AV_FIELD_BB, -1},
                         Row{AV_CODEC_ID_FFV1, AV_FIELD_UNKNOWN, 1}, Row{AV_CODEC_ID_FFV1, AV_FIELD_UNKNOWN, -1}}) {
    SCOPED_TRACE(testing::Message() << avcodec_get_name(row.codec) << ' ' << row.oddLater);
    ClipInput input(clip(row.codec, row.flagged, row.oddLater));
    EXPECT_TRUE(input.reader().interlaced());
    for (int i = 0; i < kFrames; ++i) {
      EXPECT_EQ(input.microseconds(), 1000 * (40 * i + (i == 4 ? 7 : 0)));
      EXPECT_LT(combing(input.planar()), combed / 4) << i;
      // The first field's moment, and so the lines that were kept, but for the coding. In the middle of the clip there are
      // fields before and after to choose from.
      const FramePtr truth = woven(i, 0);
      if (i > 1 && i < kFrames - 2 && row.oddLater > 0) {
        EXPECT_LT(meanError(input.planar(), *truth), 6) << i;
      }
      EXPECT_EQ(input.next(), i + 1 < kFrames);
    }
  }
}

TEST_F(Deinterlacing, IsToldAndWrittenAsProgressive) {
  EnhanceOptions options;
  options.input = clip(AV_CODEC_ID_MPEG4, AV_FIELD_TT, 1);
  options.output = folder_.file("out.mkv");
  testing::internal::CaptureStderr();
  ASSERT_EQ(runWith<Idle>(options), kExitFine);
  const std::string told = testing::internal::GetCapturedStderr();
  EXPECT_NE(told.find("noxel: note: the clip is interlaced; it is deinterlaced"), std::string::npos) << told;
  VideoReader reader(options.output);
  int frames = 0;
  while (const FramePtr frame = reader.next()) {
    EXPECT_EQ(frame->interlaced_frame, 0);
    EXPECT_LT(combing(*frame), combing(*woven(3, 1)) / 4);
    ++frames;
  }
  EXPECT_EQ(frames, kFrames);
  EXPECT_FALSE(reader.interlaced());
}

TEST_F(Deinterlacing, LeavesProgressiveFramesBitByBit) {
  // Texture as fine as lines are, still and panned up, down and across; with a sensor's noise.
  const Waves waves(7, 2.5);
  struct Pan {
    double x, y, noise;
  };
  for (const Pan& pan : {Pan{0, 0, 0}, Pan{0, 0, 6}, Pan{3, 0, 0}, Pan{0, 1, 0}, Pan{0, -1.5, 4}, Pan{5, 2.5, 4}}) {
    SCOPED_TRACE(testing::Message() << pan.x << ", " << pan.y << ", noise " << pan.noise);
    const auto seen = [&](int frame) {
      const auto luma = waves.seen(kWidth, kHeight, shifted(pan.x * frame, pan.y * frame), pan.noise,
                                   static_cast<unsigned>(frame + 1));
      FramePtr picture = flatPlanar(kWidth, kHeight, 0, 128, 128);
      for (int i = 0; i < kWidth * kHeight; ++i) {
        sample(*picture, 0, i % kWidth, i / kWidth) = luma[static_cast<size_t>(i)];
      }
      return picture;
    };
    ClipSpec spec;
    spec.width = kWidth;
    spec.height = kHeight;
    spec.video = AV_CODEC_ID_FFV1;
    spec.times = {0, 40, 80, 120, 160, 200, 240, 280, 320, 360};
    spec.picture = seen;
    const std::string path = folder_.file("panned.mkv");
    writeClip(path, spec);
    ClipInput input(path);
    EXPECT_FALSE(input.reader().interlaced());
    for (int i = 0; i < kFrames; ++i) {
      EXPECT_EQ(meanError(input.planar(), *seen(i)), 0) << i;
      EXPECT_EQ(input.next(), i + 1 < kFrames);
    }
  }
}

}  // namespace
}  // namespace noxel::tool
