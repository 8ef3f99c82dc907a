
#include <numeric>

#include "clips.h"
#include "media/video_writer.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

OutputSettings settingsFor(const VideoReader& reader, const AVFrame& first, const std::string& path) {
  OutputSettings settings;
  settings.path = path;
  settings.video = {first.width,
                    first.height,
                    reader.timeBase(),
                    reader.frameRate(),
                    reader.sampleAspectRatio(first),
                    ColourConversion(first).tags(),
                    reader.codec()};
  settings.displayMatrix = reader.displayMatrix();
  settings.companions = reader.companions();
  return settings;
}

void copyClip(const std::string& from, const std::string& to) {
  VideoReader reader(from);
  FramePtr frame = reader.next();
  VideoWriter writer(settingsFor(reader, *frame, to));
  while (frame) {
    writer.write(*frame, frame->pts, frame->pkt_duration);
    frame = reader.next();
    for (const PacketPtr& packet : reader.takeBeside()) writer.writeBeside(*packet);
  }
  writer.finish();
}

// Plays at the times of its clip, with the audio packets of `in`.
void expectKept(const ClipContents& out, const ClipContents& in, const ClipSpec& spec) {
  ASSERT_EQ(out.seconds.size(), spec.times.size());
  for (size_t i = 0; i < spec.times.size(); ++i) {
    EXPECT_DOUBLE_EQ(out.seconds[i], static_cast<double>(spec.times[i]) / spec.timeBase.den) << i;
  }
  EXPECT_EQ(out.audioSizes, in.audioSizes);
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
    expectKept(out, in, spec);
    ASSERT_TRUE(in.displayMatrix);
    EXPECT_EQ(out.displayMatrix, in.displayMatrix);
  }
}

TEST(VideoWriter, AudioThatStartsBeforeZeroDoesNotShiftTheVideo) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_AAC;  // its first packet is 1024 samples before zero
  writeClip(folder.file("in.mp4"), spec);
  copyClip(folder.file("in.mp4"), folder.file("out.mkv"));
  expectKept(contentsOf(folder.file("out.mkv")), contentsOf(folder.file("in.mp4")), spec);
}

TEST(VideoWriter, RefusesAudioTheContainerCannotHold) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_PCM_S16LE;
  writeClip(folder.file("in.mkv"), spec);
  EXPECT_EQ(refusal([&] { copyClip(folder.file("in.mkv"), folder.file("out.mp4")); }).code(), kExitUsage);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"in.mkv"});
  copyClip(folder.file("in.mkv"), folder.file("out.mkv"));
  const std::vector<int> sizes = contentsOf(folder.file("out.mkv")).audioSizes;
  EXPECT_GE(std::accumulate(sizes.begin(), sizes.end(), 0), 2 * 44100);
}

TEST(Uprighting, TurnsThePictureAsTheMatrixSays) {
  constexpr int kWidth = 3, kHeight = 2;
  const int turns[8][4] = {{1, 0, 0, 1}, {-1, 0, 0, 1}, {-1, 0, 0, -1}, {1, 0, 0, -1},
                           {0, 1, 1, 0}, {0, 1, -1, 0}, {0, -1, -1, 0}, {0, -1, 1, 0}};
  for (const auto& [a, b, c, d] : turns) {
    SCOPED_TRACE(testing::Message() << a << ' ' << b << ' ' << c << ' ' << d);
    const FramePtr given = makePicture(kWidth, kHeight, AV_PIX_FMT_RGBA);
    for (int i = 0; i < kWidth * kHeight; ++i)
      sample(*given, 0, 4 * (i % kWidth), i / kWidth) = static_cast<uint8_t>(40 * i);
    const Uprighting turn = uprighting(DisplayMatrix{a << 16, b << 16, 0, c << 16, d << 16, 0, 0, 0, 1 << 30});
    EXPECT_EQ(turn.swapsSides, b != 0);
    EXPECT_EQ(turn.filters.empty(), a == 1 && d == 1);
    if (turn.filters.empty()) continue;
    const FramePtr upright = FilterPass(kWidth, kHeight, turn.filters, AV_PIX_FMT_RGBA).run(*given);
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const int x = i % kWidth, y = i / kWidth;
      const int left = a * x + c * y + (a < 0 ? kWidth - 1 : 0) + (c < 0 ? kHeight - 1 : 0);
      const int down = b * x + d * y + (b < 0 ? kWidth - 1 : 0) + (d < 0 ? kHeight - 1 : 0);
      EXPECT_EQ(sample(*upright, 0, 4 * left, down), 40 * i) << x << ", " << y;
    }
  }
}

}  // namespace
}  // namespace noxel::tool
