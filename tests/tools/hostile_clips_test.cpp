// Hostile input and environments: damaged and joined clips, full disks, closed streams, a kill in mid-write.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <random>

#include "clips.h"
#include "idle_enhancer.h"
#include "media/nv21_frame.h"
#include "run_command.h"
#include "support/picture.h"

namespace noxel::tool {
namespace {

struct Killer : Idle {
  using Idle::Idle;
  int frames = 0;
  bool receive(uint8_t* nv21) override {
    if (++frames == 3) std::raise(SIGKILL);
    return Idle::receive(nv21);
  }
};

template <typename Kind = Idle>
int enhance(const std::string& input, const std::string& output, bool quiet = true) {
  EnhanceOptions options;
  options.input = input;
  options.output = output;
  options.quiet = quiet;
  options.overwrite = true;
  try {
    return runWith<Kind>(options);
  } catch (const ToolError& error) {
    EXPECT_STRNE(error.what(), "");
    return error.code();
  }
}

void writeNoise(const std::string& path, int width, int height, size_t frames) {
  writeY4m(path, width, height, {frames, noisyBytes(static_cast<size_t>(width * height), 1)});
}

std::string flv(const std::string& path, AVCodecID audio, int64_t interval) {
  ClipSpec spec;
  spec.video = AV_CODEC_ID_FLV1;
  spec.audio = audio;
  for (size_t i = 0; i < spec.times.size(); ++i) spec.times[i] = static_cast<int64_t>(i) * interval;
  writeClip(path, spec);
  return contents(path);
}

constexpr size_t kFlvHeader = 13;  // bytes; the rest can be appended to another file

TEST(HostileClips, ADamagedClipGivesACompleteFileOrNone) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_AAC;
  for (const char* name : {"in.mkv", "in.mp4", "in.ts"}) writeClip(folder.file(name), spec);
  writeNoise(folder.file("in.y4m"), 16, 16, 4);
  spec = {};
  spec.video = AV_CODEC_ID_MJPEG;
  writeClip(folder.file("in.mjpeg"), spec);
  std::mt19937 random(7);
  for (const std::string& name : folder.names()) {
    const std::string whole = contents(folder.file(name));
    int fine = 0;
    for (int i = 0; i < 24; ++i) {
      SCOPED_TRACE(name + " " + std::to_string(i));
      std::string bytes = whole;
      if (i % 3 == 0) bytes.resize(random() % bytes.size());
      for (int flips = i % 3 * 4; flips > 0; --flips) bytes[random() % bytes.size()] = static_cast<char>(random());
      const TemporaryDirectory work;
      writeFile(work.file(name), bytes);
      const std::string output = work.file(i % 2 == 0 ? "out.mkv" : "out.mp4");
      const int code = enhance(work.file(name), output);
      EXPECT_TRUE(code == kExitFine || code == kExitFailed || code == kExitUnreadable) << code;
      EXPECT_EQ(work.names().size(), code == kExitFine ? 2u : 1u);
      if (code != kExitFine) continue;
      EXPECT_FALSE(contentsOf(output).seconds.empty());
      ++fine;
    }
    // A few wrong bytes usually cost one packet; an MP4 without its index is lost.
    EXPECT_GE(fine, name == "in.mp4" ? 1 : 6) << name;
  }
}

TEST(HostileClips, ATruncatedClipIsNoted) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  for (int64_t i = 6; i < 50; ++i) spec.times.push_back(40 * i);
  writeClip(folder.file("in.mkv"), spec);
  const std::string whole = contents(folder.file("in.mkv"));
  for (const bool cut : {false, true}) {
    writeFile(folder.file("in.mkv"), cut ? whole.substr(0, whole.size() * 6 / 10) : whole);
    testing::internal::CaptureStderr();
    EXPECT_EQ(enhance(folder.file("in.mkv"), folder.file("out.mkv"), false), kExitFine);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("cut short") != std::string::npos, cut);
  }
}

TEST(HostileClips, AudioThatIsLongerThanTheVideoIsNoTruncation) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_AAC;  // one second, the video a quarter of it
  for (const char* name : {"in.mkv", "in.mp4", "in.ts"}) writeClip(folder.file(name), spec);
  flv(folder.file("in.flv"), AV_CODEC_ID_AAC, 40);  // states only the length of the whole
  for (const char* name : {"in.mkv", "in.mp4", "in.ts", "in.flv"}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(enhance(folder.file(name), folder.file("out.mkv"), false), kExitFine);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(told.find("cut short"), std::string::npos) << name << told;
  }
}

TEST(HostileClips, ImpossibleHeadersAndPlaylistsOfOtherFilesAreUnreadable) {
  const TemporaryDirectory folder;
  writeClip(folder.file("other.mkv"), {});
  const std::string other = folder.file("other.mkv");
  std::vector<std::string> clips = {"ffconcat version 1.0\nfile other.mkv\n",
                                    "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\n" + other + "\n#EXT-X-ENDLIST\n"};
  for (const char* sizes : {"W999999999 H999999999", "W16000 H16000", "W-3 H0", "W64 H48"}) {
    clips.push_back(std::string("YUV4MPEG2 ") + sizes + " F25:1\nFRAME\nabc");
  }
  for (const std::string& clip : clips) {
    writeFile(folder.file("in.mp4"), clip);
    EXPECT_EQ(enhance(folder.file("in.mp4"), folder.file("out.mkv")), kExitUnreadable) << clip;
  }
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.mp4", "other.mkv"}));
}

TEST(HostileClips, InvalidColourTagsAreIgnored) {
  const TemporaryDirectory folder;
  writeClip(folder.file("in.mkv"), {});
  std::string bytes = contents(folder.file("in.mkv"));
  const size_t matrix = bytes.find("\x55\xB1\x81\x06");  // Matroska's MatrixCoefficients: one byte, BT.601
  ASSERT_NE(matrix, std::string::npos);
  bytes[matrix + 3] = '\x78';
  writeFile(folder.file("in.mkv"), bytes);
  EXPECT_EQ(enhance(folder.file("in.mkv"), folder.file("out.mkv")), kExitFine);
}

// H.264 has even sizes only.
TEST(HostileClips, TheSmallestFramesKeepTheirSizeAndRange) {
  const TemporaryDirectory folder;
  const int sizes[][2] = {{1, 1}, {2, 2}, {3, 5}, {1, 40}};
  for (const auto& [width, height] : sizes) {
    writeNoise(folder.file("in.y4m"), width, height, 1);
    for (const char* name : {"out.mp4", "out.mkv", "out.y4m"}) {
      ASSERT_EQ(enhance(folder.file("in.y4m"), folder.file(name)), kExitFine) << width << "x" << height << name;
      const FramePtr frame = VideoReader(folder.file(name)).first();
      const int odd = std::string(name) == "out.y4m" ? 0 : 1;
      EXPECT_TRUE(frame->width == width + (width & odd) && frame->height == height + (height & odd));
      EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG);
    }
  }
}

TEST(HostileClips, AudioOfJoinedClipsDoesNotStopTheVideo) {
  const TemporaryDirectory folder;
  const std::string silent = flv(folder.file("a.flv"), AV_CODEC_ID_NONE, 40'000);  // longer than FFmpeg probes
  const std::string sounding = flv(folder.file("b.flv"), AV_CODEC_ID_AAC, 40);
  // Time stamps that go back; audio that starts in mid-clip.
  for (const std::string& joined :
       {sounding + sounding.substr(kFlvHeader), silent + sounding.substr(kFlvHeader) + silent.substr(kFlvHeader)}) {
    writeFile(folder.file("in.flv"), joined);
    EXPECT_EQ(enhance(folder.file("in.flv"), folder.file("out.mkv")), kExitFine);
    EXPECT_GE(contentsOf(folder.file("out.mkv")).seconds.size(), 12u);
  }
}

TEST(HostileClips, AKillInMidWriteKeepsTheOldFile) {
  const TemporaryDirectory folder;
  writeClip(folder.file("in.mkv"), {});
  for (const char* name : {"old.mkv", "old.mp4", "old.y4m"}) {
    writeFile(folder.file(name), std::string("old"));
    EXPECT_EXIT(enhance<Killer>(folder.file("in.mkv"), folder.file(name)), testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ(contents(folder.file(name)), "old");
  }
}

TEST(HostileClips, AFullDiskIsReportedAndLeavesNoFile) {
  NEEDS_DRIVER();
  const TemporaryDirectory folder;
  ClipSpec spec;
  // More than FFmpeg's 256 kB buffer, so that it fails before the end; Matroska clusters are at most 5 s long.
  spec.width = 128;
  spec.height = 96;
  spec.times.clear();
  for (int64_t i = 0; i < 30; ++i) spec.times.push_back(6000 * i);
  spec.picture = [](int index) {
    FramePtr frame = flatPlanar(128, 96, 0, 128, 128);
    std::ranges::copy(noisyBytes(static_cast<size_t>(96 * frame->linesize[0]), static_cast<unsigned>(index)),
                      frame->data[0]);
    return frame;
  };
  writeClip(folder.file("in.mkv"), spec);
  const std::string in = folder.file("in.mkv") + " ";
  const std::string enhanced = "enhance " + in + "-q -o " + folder.file("o.");
  const TemporaryDirectory cache;
  for (const std::string& arguments :
       {enhanced + "mp4 --crf 0", enhanced + "mkv --crf 0", enhanced + "y4m",
        enhanced + "y4m --dump-frames " + folder.file("dump"), "analyze " + in + "--plot " + folder.file("p.png")}) {
    // In units of 512 or 1024 bytes, depending on the shell. Every file would be larger.
    const Outcome outcome = noxel(cache, arguments, "ulimit -f 16;");
    EXPECT_EQ(outcome.exitCode, kExitFailed) << arguments;
    EXPECT_EQ(outcome.error.rfind("noxel: cannot write " + folder.file(""), 0), 0u) << outcome.error;
    EXPECT_NE(outcome.error.find(": File too large"), std::string::npos) << outcome.error;
  }
  for (const std::string& name : folder.names()) EXPECT_TRUE(name == "in.mkv" || name == "dump") << name;
  EXPECT_TRUE(!std::filesystem::exists(folder.file("dump")) || std::filesystem::is_empty(folder.file("dump")));
}

TEST(HostileClips, FullOrClosedStandardStreamsAreReported) {
  NEEDS_DRIVER();
  const TemporaryDirectory folder;
  writeNoise(folder.file("in.y4m"), 64, 48, 3);
  writeFile(folder.file("planes.raw"), std::string(size_t{3} * 64 * 64, 'x'));
  const std::string noxel = "XDG_CACHE_HOME='" + folder.file("cache") + "' '" NOXEL_EXECUTABLE "' ";
  const std::string in = folder.file("in.y4m");
  const auto shell = [](const std::string& command) { return WEXITSTATUS(std::system(command.c_str())); };
  for (const std::string& command : {noxel + "--version", noxel + "info", noxel + "enhance -q " + in + " -o -",
                                     noxel + "analyze " + in + " --json - --plot " + folder.file("p.png"),
                                     "'" NOXEL_REGISTER_EXECUTABLE "' " + folder.file("planes.raw 64 64 3")}) {
    EXPECT_EQ(shell(command + " >/dev/full 2>'" + folder.file("error") + "'"), kExitFailed) << command;
    EXPECT_NE(contents(folder.file("error")).find("cannot write standard output: "), std::string::npos) << command;
  }
  // Without standard error, the log must not end up in the clip.
  EXPECT_EQ(shell(noxel + "enhance -q - -o " + folder.file("open.y4m") + " <" + in), kExitFine);
  EXPECT_EQ(shell(noxel + "enhance -v - -o " + folder.file("closed.y4m") + " <" + in + " 2>&-"), kExitFine);
  EXPECT_EQ(contents(folder.file("open.y4m")), contents(folder.file("closed.y4m")));
}

}  // namespace
}  // namespace noxel::tool
