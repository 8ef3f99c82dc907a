#include <gtest/gtest.h>

#include <fstream>
#include <numeric>

#include "clips.h"
#include "common/interrupt.h"
#include "common/tool_error.h"
#include "media/nv21_frame.h"
#include "media/video_writer.h"

namespace noxel::tool {
namespace {

OutputSettings settingsFor(const VideoReader& reader, const AVFrame& first, const std::string& path) {
  OutputSettings settings;
  settings.path = path;
  settings.width = first.width;
  settings.height = first.height;
  settings.timeBase = reader.timeBase();
  settings.frameRate = reader.frameRate();
  settings.sampleAspectRatio = reader.sampleAspectRatio(first);
  settings.tags = ColourConversion(first).tags();
  settings.displayMatrix = reader.displayMatrix();
  settings.audio = reader.audioStreams();
  return settings;
}

void copyClip(const std::string& from, const std::string& to) {
  VideoReader reader(from);
  FramePtr frame = reader.next();
  VideoWriter writer(settingsFor(reader, *frame, to));
  while (frame) {
    writer.write(*frame, frame->pts, frame->pkt_duration);
    frame = reader.next();
    for (const PacketPtr& packet : reader.takeAudio()) writer.writeAudio(*packet);
  }
  writer.finish();
}

ExitCode refusal(const std::function<void()>& action) {
  try {
    action();
  } catch (const ToolError& error) {
    return error.code();
  }
  return kExitFine;
}

TEST(VideoReader, DeliversEachFrameWithItsTime) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.times = {1500, 1540, 1580, 1700, 2900, 2933, 2966};  // starts late, uneven
  spec.audio = AV_CODEC_ID_AAC;
  writeClip(folder.file("a.mkv"), spec);

  VideoReader reader(folder.file("a.mkv"));
  for (size_t i = 0; i < spec.times.size(); ++i) {
    const FramePtr frame = reader.next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(av_rescale_q(frame->pts, reader.timeBase(), spec.timeBase), spec.times[i]);
    // The coder's loss on a ramp stays below one level in the mean.
    EXPECT_NEAR(meanLuma(frame->data[0], frame->linesize[0], frame->width, frame->height), lumaOf(static_cast<int>(i)),
                1.0);
  }
  EXPECT_FALSE(reader.next());
  EXPECT_GE(reader.takeAudio().size(), 43u);  // one second of AAC in packets of 1024 samples
}

TEST(VideoReader, TellsWhatCannotBeRead) {
  const TemporaryDirectory folder;
  std::ofstream(folder.file("text.mp4")) << "no video";
  for (const std::string& path : {folder.file("text.mp4"), folder.file("missing.mp4"), folder.file("")}) {
    EXPECT_EQ(refusal([&] { VideoReader reader(path); }), kExitUnreadable) << path;
  }
}

TEST(VideoReader, StopsOnRequest) {
  const TemporaryDirectory folder;
  writeClip(folder.file("a.mp4"), {});
  VideoReader reader(folder.file("a.mp4"));
  EXPECT_TRUE(reader.next());
  requestStop(true);
  EXPECT_FALSE(reader.next());
  requestStop(false);
}

TEST(VideoWriter, KeepsTimesAudioAndRotation) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_AAC;
  spec.rotated = true;
  spec.timeBase = {1, 30000};
  spec.times = {0};
  for (const int64_t interval : {1001, 1001, 2002, 1001, 30030, 1001, 500, 1001}) {
    spec.times.push_back(spec.times.back() + interval);
  }
  for (const int64_t offset : {0, 45000}) {
    for (int64_t& time : spec.times) time += offset;
    writeClip(folder.file("in.mp4"), spec);
    copyClip(folder.file("in.mp4"), folder.file("out.mp4"));
    const ClipContents in = contentsOf(folder.file("in.mp4"));
    const ClipContents out = contentsOf(folder.file("out.mp4"));
    ASSERT_EQ(out.seconds.size(), spec.times.size());
    for (size_t i = 0; i < spec.times.size(); ++i) {
      EXPECT_DOUBLE_EQ(out.seconds[i], static_cast<double>(spec.times[i]) / 30000) << i;
    }
    EXPECT_EQ(out.audioSizes, in.audioSizes);
    ASSERT_TRUE(in.displayMatrix);
    EXPECT_EQ(out.displayMatrix, in.displayMatrix);
  }
}

TEST(VideoWriter, AudioThatStartsBeforeZeroDoesNotMoveTheVideo) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_AAC;  // its first packet lies 1024 samples before zero
  writeClip(folder.file("in.mp4"), spec);
  copyClip(folder.file("in.mp4"), folder.file("out.mkv"));
  const ClipContents out = contentsOf(folder.file("out.mkv"));
  ASSERT_EQ(out.seconds.size(), spec.times.size());
  for (size_t i = 0; i < spec.times.size(); ++i) {
    EXPECT_DOUBLE_EQ(out.seconds[i], static_cast<double>(spec.times[i]) / 1000) << i;
  }
  EXPECT_EQ(out.audioSizes, contentsOf(folder.file("in.mp4")).audioSizes);
}

TEST(VideoWriter, OddSizesAndTagsSurvive) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.width = 37;
  spec.height = 21;
  writeClip(folder.file("in.mkv"), spec);
  for (const char* name : {"out.mp4", "out.mkv", "out.y4m"}) {
    const FramePtr source = VideoReader(folder.file("in.mkv")).next();
    source->color_range = AVCOL_RANGE_JPEG;
    VideoReader reader(folder.file("in.mkv"));
    VideoWriter writer(settingsFor(reader, *source, folder.file(name)));
    writer.write(*source, 0, 0);
    writer.finish();
    const FramePtr frame = VideoReader(folder.file(name)).next();
    EXPECT_EQ(frame->width, 37) << name;
    EXPECT_EQ(frame->height, 21) << name;
    EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG) << name;
  }
}

TEST(VideoWriter, NothingStandsUnderTheNameBeforeTheEnd) {
  const TemporaryDirectory folder;
  writeClip(folder.file("in.mp4"), {});
  {
    VideoReader reader(folder.file("in.mp4"));
    const FramePtr frame = reader.next();
    VideoWriter writer(settingsFor(reader, *frame, folder.file("out.mp4")));
    writer.write(*frame, frame->pts, 0);
  }
  EXPECT_EQ(folder.names(), std::vector<std::string>{"in.mp4"});
}

TEST(VideoWriter, RefusesAudioTheContainerCannotHold) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_PCM_S16LE;
  writeClip(folder.file("in.mkv"), spec);
  EXPECT_EQ(refusal([&] { copyClip(folder.file("in.mkv"), folder.file("out.mp4")); }), kExitUsage);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"in.mkv"});
  copyClip(folder.file("in.mkv"), folder.file("out.mkv"));
  const std::vector<int> sizes = contentsOf(folder.file("out.mkv")).audioSizes;
  EXPECT_GE(std::accumulate(sizes.begin(), sizes.end(), 0), 2 * 44100);
}

TEST(Uprighting, PutsEachPixelWhereTheMatrixSays) {
  constexpr int kWidth = 3, kHeight = 2;
  const int turns[8][4] = {{1, 0, 0, 1}, {-1, 0, 0, 1}, {-1, 0, 0, -1}, {1, 0, 0, -1},
                           {0, 1, 1, 0}, {0, 1, -1, 0}, {0, -1, -1, 0}, {0, -1, 1, 0}};
  const auto pixel = [](const AVFrame& frame, int x, int y) -> uint8_t& {
    return frame.data[0][static_cast<ptrdiff_t>(y) * frame.linesize[0] + 4 * x];
  };
  for (const auto& [a, b, c, d] : turns) {
    SCOPED_TRACE(testing::Message() << a << ' ' << b << ' ' << c << ' ' << d);
    const FramePtr given = makePicture(kWidth, kHeight, AV_PIX_FMT_RGBA);
    for (int i = 0; i < kWidth * kHeight; ++i) pixel(*given, i % kWidth, i / kWidth) = static_cast<uint8_t>(40 * i);
    const Uprighting turn = uprighting(DisplayMatrix{a << 16, b << 16, 0, c << 16, d << 16, 0, 0, 0, 1 << 30});
    EXPECT_EQ(turn.swapsSides, b != 0);
    EXPECT_EQ(turn.filters.empty(), a == 1 && d == 1);
    if (turn.filters.empty()) continue;
    const FramePtr upright = FilterPass(kWidth, kHeight, turn.filters, AV_PIX_FMT_RGBA).run(*given);
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const int x = i % kWidth, y = i / kWidth;
      const int left = a * x + c * y + (a < 0 ? kWidth - 1 : 0) + (c < 0 ? kHeight - 1 : 0);
      const int down = b * x + d * y + (b < 0 ? kWidth - 1 : 0) + (d < 0 ? kHeight - 1 : 0);
      EXPECT_EQ(pixel(*upright, left, down), 40 * i) << x << ", " << y;
    }
  }
}

}  // namespace
}  // namespace noxel::tool
