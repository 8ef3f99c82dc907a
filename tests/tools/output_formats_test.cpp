// The files that `noxel enhance` writes: containers, codecs, what is beside the video, and what a signal leaves.
#include <csignal>
#include <ctime>
#include <filesystem>

#include "clips.h"
#include "common/interrupt.h"
#include "idle_enhancer.h"
#include "media/nv21_frame.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

// Sends the process a signal during its third frame; and after longer than two copies of one signal take, another.
template <int kSignal, int kLater = 0>
struct Signalled : Idle {
  using Idle::Idle;
  int frames = 0;
  bool receive(uint8_t* nv21) override {
    if (++frames == 3) {
      std::raise(kSignal);
      const timespec pause = {0, 100'000'000};
      if (kLater != 0) nanosleep(&pause, nullptr);
      if (kLater != 0) std::raise(kLater);
    }
    return Idle::receive(nv21);
  }
};

class OutputFormats : public testing::Test {
 protected:
  // What it told.
  std::string enhance(const std::string& name, const EncodingChoice& encoding = {}) {
    EnhanceOptions options;
    options.input = folder_.file("in.mkv");
    options.output = folder_.file(name);
    options.overwrite = true;
    options.encoding = encoding;
    testing::internal::CaptureStderr();
    EXPECT_EQ(runWith<Idle>(options), kExitFine) << name;
    return testing::internal::GetCapturedStderr();
  }

  const TemporaryDirectory folder_;
};

std::string valueOf(const Companions& companions, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(companions.metadata, key, nullptr, 0);
  return entry != nullptr ? entry->value : "";
}

TEST_F(OutputFormats, KeepWhatIsBesideTheVideoOrNameIt) {
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_AAC;
  spec.furnished = true;
  writeClip(folder_.file("in.mkv"), spec);
  const struct {
    const char* name;
    size_t streams;  // beside the video
    size_t chapters;
    const char* make;
    const char* told;  // null: nothing
  } rows[] = {
      {"out.mkv", 3, 1, "Acme", nullptr},
      {"out.mp4", 1, 1, "Acme", ".mp4 cannot hold, left out: subtitles (subrip), an attachment (note.txt)\n"},
      {"out.mov", 1, 1, "Acme", ".mov cannot hold, left out: subtitles (subrip), an attachment (note.txt)\n"},
      {"out.avi", 1, 0, "", "subtitles (subrip), an attachment (note.txt), 1 chapter, metadata (LOCATION, MAKE)\n"},
      {"out.gif", 0, 0, "", "audio (aac), subtitles (subrip), an attachment (note.txt), 1 chapter, metadata ("},
      {"out.y4m", 0, 0, "", "audio (aac), subtitles (subrip), an attachment (note.txt), 1 chapter, metadata ("}};
  const std::vector<int> sizes = contentsOf(folder_.file("in.mkv")).audioSizes;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string told = enhance(row.name);
    EXPECT_EQ(told.find("cannot hold") != std::string::npos, row.told != nullptr) << told;
    if (row.told != nullptr) {
      EXPECT_NE(told.find(row.told), std::string::npos) << told;
    }
    const VideoReader reader(folder_.file(row.name));
    const Companions beside = reader.companions();
    EXPECT_EQ(beside.streams.size(), row.streams);
    EXPECT_EQ(beside.chapters.size(), row.chapters);
    EXPECT_EQ(valueOf(beside, "make"), row.make);
    if (row.chapters > 0) {
      EXPECT_EQ(valueOf(beside, "location"), "+48.2000+016.3000/");
    }
    const ClipContents contents = contentsOf(folder_.file(row.name));
    EXPECT_EQ(contents.seconds.size(), spec.times.size());
    if (row.streams == 3) {
      EXPECT_EQ(contents.audioSizes, sizes) << "every packet, from the first";
    }
  }
}

TEST_F(OutputFormats, EveryCodecKeepsThePictureAndAnOddSizeIsTold) {
  ClipSpec spec;
  spec.width = 67;
  spec.height = 49;
  writeClip(folder_.file("in.mkv"), spec);
  const struct {
    const char* name;
    const char* codec;
    AVCodecID id;
    int width;
  } rows[] = {{"out.mov", "", AV_CODEC_ID_H264, 68},
              {"out.avi", "h264", AV_CODEC_ID_H264, 68},
              {"out.mp4", "hevc", AV_CODEC_ID_HEVC, 68},
              {"out.mkv", "av1", AV_CODEC_ID_AV1, 68},
              {"out.webm", "", AV_CODEC_ID_VP9, 67},
              {"out.mkv", "ffv1", AV_CODEC_ID_FFV1, 67},
              {"out.mp4", "copy-like-input", AV_CODEC_ID_H264, 68}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " " + row.codec);
    EncodingChoice encoding;
    encoding.codec = row.codec;
    if (row.id != AV_CODEC_ID_FFV1) encoding.preset = "veryfast";
    const std::string told = enhance(row.name, encoding);
    EXPECT_EQ(told.find("the last column and row are repeated, 68x50") != std::string::npos, row.width == 68) << told;
    EXPECT_EQ(told.find("the input's mpeg4 is not written to .mp4") != std::string::npos,
              encoding.codec == kCopyLikeInput);
    VideoReader reader(folder_.file(row.name));
    EXPECT_EQ(reader.codec(), row.id);
    for (size_t i = 0; i < spec.times.size(); ++i) {
      const FramePtr frame = reader.next();
      ASSERT_TRUE(frame);
      EXPECT_EQ(frame->width, row.width);
      EXPECT_EQ(av_rescale_q(frame->pts, reader.timeBase(), {1, 1000}), spec.times[i]);
      EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG);
      // Encoded twice: 1.5 levels in the mean.
      EXPECT_NEAR(meanLuma(frame->data[0], frame->linesize[0], 67, 49), lumaOf(static_cast<int>(i)), 1.5);
    }
    EXPECT_FALSE(reader.next());
  }
}

TEST_F(OutputFormats, RefuseChoicesThatMakeNoSenseAndFallBackFromHardware) {
  const auto code = [](const char* path, const EncodingChoice& choice) {
    return refusal([&] { checkChoice(choice, containerOf(path)); }).code();
  };
  EXPECT_EQ(code("a.webm", {"h264", "", {}, ""}), kExitUsage);
  EXPECT_EQ(code("a.mp4", {"ffv1", "", {}, ""}), kExitUsage);
  EXPECT_EQ(code("a.mkv", {"ffv1", "", 3, ""}), kExitUsage);
  EXPECT_EQ(code("a.y4m", {"", "", 3, ""}), kExitUsage);
  EXPECT_EQ(code("%03d.png", {"h264", "", {}, ""}), kExitUsage);
  EXPECT_EQ(code("a.mp4", {"", "", 52, ""}), kExitUsage);
  EXPECT_EQ(code("a.webm", {"", "", 63, ""}), kExitFine);
  EXPECT_EQ(refusal([] { containerOf("a.png"); }).code(), kExitUsage);

  writeClip(folder_.file("in.mkv"), {});
  for (const char* hardware : kHardware) {
    const std::string told = enhance("out.mp4", {"", "", {}, hardware});
    const bool fellBack =
        told.find(std::string(hardware) + " cannot encode h264 here; encoded by ") != std::string::npos;
    EXPECT_EQ(contentsOf(folder_.file("out.mp4")).seconds.size(), 6u) << told;
    if (!fellBack) {
      EXPECT_EQ(told.find("cannot encode"), std::string::npos) << "there is such an encoder";
    }
  }
}

TEST_F(OutputFormats, PicturesAreUprightAndNumberedFromOne) {
  ClipSpec spec;
  spec.rotated = true;
  writeClip(folder_.file("in.mp4"), spec);
  std::filesystem::rename(folder_.file("in.mp4"), folder_.file("in.mkv"));
  enhance("frame-%02d.png");
  enhance("out.gif");
  EXPECT_EQ(folder_.names(), (std::vector<std::string>{"frame-01.png", "frame-02.png", "frame-03.png", "frame-04.png",
                                                       "frame-05.png", "frame-06.png", "in.mkv", "out.gif"}));
  for (const char* name : {"frame-06.png", "out.gif"}) {
    VideoReader reader(folder_.file(name));
    FramePtr last = reader.first();
    while (FramePtr next = reader.next()) last = std::move(next);
    ASSERT_TRUE(last->width == 48 && last->height == 64) << name;
    // The ramp from left to right is now one from top to bottom; a chroma of 120, 136 lowers green by 3. A palette of 256
    // colours, dithered, is within 8 levels in single pixels.
    const FramePtr rgba = ColourConversion(*last).rgba(*last);
    const auto green = [&](int y) { return static_cast<int>(sample(*rgba, 0, 4 * 24 + 1, y)); };
    EXPECT_NEAR(green(32), lumaOf(5) - 3, 8) << name;
    EXPECT_NEAR(green(61) - green(2), 37, 14) << name;
  }
  EXPECT_THROW(
      {
        EnhanceOptions options;
        options.input = folder_.file("in.mkv");
        options.output = folder_.file("frame-%02d.png");
        runWith<Idle>(options);
      },
      ToolError)
      << "the first picture exists";
}

TEST_F(OutputFormats, AnyClipOnStandardInputIsReadAlsoWhereItMustSeek) {
  NEEDS_DRIVER();
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_AAC;
  writeClip(folder_.file("in.mp4"), spec);  // its index is at the end
  writeClip(folder_.file("in.mkv"), spec);
  const ClipContents in = contentsOf(folder_.file("in.mp4"));
  const std::string noxel = "XDG_CACHE_HOME='" + folder_.file("cache") +
                            "' '" NOXEL_EXECUTABLE "' enhance -q -y - -o '" + folder_.file("out.mp4") + "' ";
  for (const std::string& command :
       {"cat " + folder_.file("in.mp4") + " | " + noxel, "cat " + folder_.file("in.mkv") + " | " + noxel,
        noxel + "< " + folder_.file("in.mp4")}) {
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    const ClipContents out = contentsOf(folder_.file("out.mp4"));
    EXPECT_EQ(out.seconds.size(), spec.times.size());
    EXPECT_EQ(out.audioSizes, in.audioSizes);
  }
}

class Signals : public OutputFormats {
 protected:
  Signals() { writeClip(folder_.file("in.mkv"), {}); }

  template <typename Kind>
  void run(const char* name) {
    EnhanceOptions options;
    options.input = folder_.file("in.mkv");
    options.output = folder_.file(name);
    options.overwrite = true;
    installInterruptHandlers();
    std::_Exit(runWith<Kind>(options));  // a driver's exit handlers wait for threads that a fork leaves behind
  }

  void expectPartial(const char* name) {
    VideoReader reader(folder_.file(name));
    EXPECT_EQ(valueOf(reader.companions(), "comment").rfind("partial: stopped after frame 3 of about", 0), 0u) << name;
    EXPECT_EQ(contentsOf(folder_.file(name)).seconds.size(), 3u);
    EXPECT_EQ(folder_.names(), (std::vector<std::string>{"in.mkv", name}));
    std::filesystem::remove(folder_.file(name));
  }
};

TEST_F(Signals, FinishAFileThatSaysItIsPartial) {
  const auto told = "note: partial: stopped after frame 3 of about";
  EXPECT_EXIT(run<Signalled<SIGINT>>("out.mp4"), testing::ExitedWithCode(130), told);
  expectPartial("out.mp4");
  EXPECT_EXIT(run<Signalled<SIGTERM>>("out.mkv"), testing::ExitedWithCode(143), told);
  expectPartial("out.mkv");
  EXPECT_EXIT((run<Signalled<SIGHUP, SIGHUP>>("out.avi")), testing::ExitedWithCode(129), told);
  expectPartial("out.avi");
}

TEST_F(Signals, ASecondInterruptStopsAtOnceAndLeavesNothing) {
  EXPECT_EXIT((run<Signalled<SIGINT, SIGINT>>("out.mkv")), testing::KilledBySignal(SIGINT), "");
  EXPECT_EXIT((run<Signalled<SIGTERM, SIGINT>>("out.mp4")), testing::KilledBySignal(SIGINT), "");
  EXPECT_EQ(folder_.names(), (std::vector<std::string>{"in.mkv"}));
}

}  // namespace
}  // namespace noxel::tool
