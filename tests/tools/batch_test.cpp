#include "enhance/batch.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <deque>

#include "clips.h"
#include "common/interrupt.h"
#include "enhance/clip_lines.h"
#include "media/nv21_frame.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

constexpr int kCrashingWidth = 32;
constexpr int kStoppingWidth = 48;

// Gives frames back as they came. A narrow clip makes it crash, or the user press Ctrl-C, at its third frame.
class PassingEnhancer : public Enhancer {
 public:
  explicit PassingEnhancer(const EnhancerSettings& settings) : settings_(settings) {}
  bool send(const uint8_t* nv21, int64_t) override {
    if (!waiting_.empty()) return false;
    waiting_.emplace_back(nv21, nv21 + nv21Size(settings_.width, settings_.height));
    return true;
  }
  void finish() override {}
  bool receive(uint8_t* nv21) override {
    if (waiting_.empty()) return false;
    std::ranges::copy(waiting_.front(), nv21);
    waiting_.pop_front();
    if (++received_ != 3) return true;
    if (settings_.width == kCrashingWidth) raise(SIGKILL);
    if (settings_.width == kStoppingWidth) kill(getppid(), SIGINT);
    while (settings_.width == kStoppingWidth && !stopRequested()) usleep(1000);
    return true;
  }
  FrameReport report() const override { return {}; }
  Overlay overlay() const override { return {}; }

 private:
  const EnhancerSettings settings_;
  std::deque<std::vector<uint8_t>> waiting_;
  int received_ = 0;
};

class Batch : public testing::Test {
 protected:
  Batch() {
    installInterruptHandlers();
    options_.outputFolder = folder_.file("out");
    options_.jobs = 1;
  }
  ~Batch() override { requestStop(false); }

  void add(const std::string& name, int width = 64) {
    ClipSpec spec;
    spec.width = width;
    writeClip(folder_.file(name), spec);
    options_.inputs.push_back(folder_.file(name));
  }
  std::string out(const std::string& name) const { return folder_.file("out/" + name); }
  size_t framesOf(const std::string& name) const { return contentsOf(out(name)).seconds.size(); }

  // What it said goes to said_.
  int run() {
    testing::internal::CaptureStderr();
    int code = 0;
    const ToolError error = refusal([&] {
      code = runBatch(options_,
                      [](const EnhancerSettings& settings) { return std::make_unique<PassingEnhancer>(settings); });
    });
    said_ = testing::internal::GetCapturedStderr() + error.what();
    return error.code() == kExitFine ? code : error.code();
  }
  bool said(const std::string& text) const { return said_.find(text) != std::string::npos; }

  const TemporaryDirectory folder_;
  BatchOptions options_;
  std::string said_;
};

TEST_F(Batch, AClipThatFailsOrCrashesStopsNoOther) {
  add("a.mkv");
  writeFile(folder_.file("junk.mp4"), std::string("no video"));
  options_.inputs.push_back(folder_.file("junk.mp4"));
  add("crash.avi", kCrashingWidth);
  add("b.mov");
  options_.clip.statsFile = out("{name}.json");
  for (const int jobs : {1, 3}) {
    options_.jobs = jobs;
    ASSERT_EQ(run(), kExitFailed) << said_;
    EXPECT_TRUE(framesOf("a-noxel.mkv") == 6 && framesOf("b-noxel.mov") == 6);
    EXPECT_NE(contents(out("b.json")).find("b.mov"), std::string::npos);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(options_.outputFolder), {}), 4);
    EXPECT_TRUE(said("\n2 of 4 clips done, 2 failed, in ")) << said_;
    EXPECT_TRUE(said("\nfailed: junk.mp4: cannot read ") && said("\nfailed: crash.avi: its process crashed: Killed\n"))
        << said_;
    EXPECT_TRUE(said("a.mkv: 6 frames in ")) << said_;
    std::filesystem::remove_all(options_.outputFolder);
  }
  options_.inputs.resize(2);
  EXPECT_EQ(run(), kExitUnreadable) << "the only reason";
}

TEST_F(Batch, CtrlCFinishesTheClipAtWorkAndResumeDoesTheRest) {
  add("a.mp4");
  add("b.mp4", kStoppingWidth);
  add("c.mp4");
  add("d.mp4");
  ASSERT_EQ(run(), kExitInterrupted) << said_;
  requestStop(false);
  EXPECT_EQ(framesOf("b-noxel.mp4"), 3u);
  EXPECT_TRUE(said("1 of 4 clips done, 1 stopped, 2 not begun, in ")) << said_;
  EXPECT_TRUE(said("\nstopped, the output is partial: b.mp4\nnot begun: c.mp4, d.mp4\n")) << said_;

  ClipSpec spec;
  spec.times = {0, 40, 80};
  writeClip(out("c-noxel.mp4"), spec);
  writeClip(options_.inputs[1], {});  // b, which does not stop any more
  const std::string before = contents(out("a-noxel.mp4"));
  ASSERT_EQ(run(), kExitUsage) << "they exist";
  options_.clip.resume = true;
  ASSERT_EQ(run(), kExitFine) << said_;
  EXPECT_TRUE(said("a.mp4: note: " + out("a-noxel.mp4") + " is whole, skipped\n")) << said_;
  EXPECT_TRUE(said("b-noxel.mp4 is written anew: it is partial\n")) << said_;
  EXPECT_TRUE(said("c-noxel.mp4 is written anew: it has 3 of 6 frames\n")) << said_;
  EXPECT_TRUE(said("3 of 4 clips done, 1 skipped, in ")) << said_;
  EXPECT_TRUE(contents(out("a-noxel.mp4")) == before);
  for (const char* name : {"b-noxel.mp4", "c-noxel.mp4", "d-noxel.mp4"}) EXPECT_EQ(framesOf(name), 6u) << name;
}

TEST_F(Batch, NamesThatCollideAreRefusedBeforeTheFirstClip) {
  add("a.mp4");
  const auto refused = [&](const std::string& reason) {
    EXPECT_EQ(run(), kExitUsage);
    EXPECT_TRUE(said(reason)) << said_;
    EXPECT_FALSE(std::filesystem::exists(options_.outputFolder)) << "made and left behind";
  };
  std::filesystem::create_directory(folder_.file("more"));
  options_.inputs.push_back(folder_.file("more/a.MP4"));
  refused("would both be written to");
  options_.inputs.back() = folder_.file("b.mp4");
  options_.clip.pictureFile = folder_.file("frame.png");
  refused("put {name} into its name");
  options_.clip.pictureFile.clear();
  options_.inputs.back() = "-";
  refused("standard input has no name");
  options_.inputs.back() = out("a-noxel.mp4");
  refused("would be overwritten as the output of");
}

TEST(BatchNames, FollowTheInputWhereItsContainerCanBeWritten) {
  BatchOptions options;
  options.outputFolder = "out";
  EXPECT_EQ(outputFor("/clips/IMG_1.2.MOV", options), "out/IMG_1.2-noxel.mov");
  EXPECT_EQ(outputFor("a.ts", options), "out/a-noxel.mp4");
  EXPECT_EQ(outputFor("photo.JPG", options), "out/photo-noxel.png");
  options.container = "mkv";
  options.suffix = "";
  EXPECT_EQ(outputFor("a.mov", options), "out/a.mkv");
}

TEST(BatchNames, JobsAreBoundedByClipsCoresAndMemory) {
  EXPECT_EQ(jobsFor(10, 2, 20'000), 1);
  EXPECT_EQ(jobsFor(10, 16, 20'000), 4);
  EXPECT_EQ(jobsFor(3, 16, 20'000), 3);
  EXPECT_EQ(jobsFor(10, 16, 2'500), 2);
  EXPECT_EQ(jobsFor(10, 16, 100), 1);
}

TEST(ClipLines, AreWholeAndTheRefreshedOneIsTheState) {
  ClipLines lines;
  EXPECT_TRUE(lines.take("noxel: note: fir").empty());
  EXPECT_EQ(lines.take("st\nsecond\n\r\033[Kframe 1"), (std::vector<std::string>{"note: first", "second"}));
  EXPECT_EQ(lines.state(), "frame 1");
  EXPECT_TRUE(lines.take("\r\033[Kframe 2").empty());
  EXPECT_EQ(lines.state(), "frame 2");
  EXPECT_EQ(lines.take("\r\033[Knoxel: note: third\n"), (std::vector<std::string>{"note: third"}));
  EXPECT_EQ(lines.state(), "");
}

// The frames of a part of a clip beside those of the whole clip, picture by picture.
TEST(Range, BeginsAtTheFirstFrameNotBeforeTheStart) {
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.times.clear();
  for (int i = 0; i < 60; ++i)
    spec.times.push_back(40 * i + (i > 30 ? 500 : 0));  // a gap, and MPEG-4 keyframes every 12
  for (const char* name : {"in.mp4", "in.mkv", "in.y4m"}) {
    const std::string path = folder.file(name);
    if (name != std::string("in.y4m")) writeClip(path, spec);
    if (name == std::string("in.y4m"))
      writeY4m(path, 64, 48, [] {
        std::vector<std::vector<uint8_t>> frames;
        for (int i = 0; i < 60; ++i) frames.emplace_back(64 * 48, static_cast<uint8_t>(i));
        return frames;
      }());
    std::vector<FramePtr> all;
    VideoReader whole(path);
    while (FramePtr frame = whole.next()) all.push_back(std::move(frame));
    const auto microseconds = [&](const FramePtr& frame) {
      return av_rescale_q(frame->pts, whole.timeBase(), kMicroseconds);
    };
    for (const auto& [start, duration] : {std::pair<int64_t, int64_t>{520'000, 200'000},
                                          {519'000, 1'000'000},
                                          {1'240'000, 900'000},
                                          {0, 480'000},
                                          {2'000'000, 9'000'000}}) {
      const TimeRange range = {start, duration};
      VideoReader part(path, "", range);
      size_t index = 0;
      while (microseconds(all[index]) < start) ++index;
      const int64_t first = start > 0 ? all[index]->pts : 0;
      int64_t frames = 0;
      while (const FramePtr frame = part.next()) {
        ASSERT_LT(index, all.size());
        ASSERT_EQ(frame->pts, all[index]->pts - first) << name << ' ' << start;
        ASSERT_TRUE(std::equal(frame->data[0], frame->data[0] + 64, all[index]->data[0])) << name << ' ' << start;
        ++index;
        ++frames;
      }
      EXPECT_TRUE(index == all.size() || microseconds(all[index]) >= start + duration) << name << ' ' << start;
      EXPECT_EQ(VideoReader(path, "", range).countFrames(), frames) << name << ' ' << start;
      EXPECT_FALSE(part.isCutShort(frames));
      // The rate is constant but for the gap, which is as long as 13 frames.
      EXPECT_NEAR(static_cast<double>(part.expectedFrames()), static_cast<double>(frames), 13) << name << ' ' << start;
    }
    VideoReader late(path, "", {9'000'000, {}});
    EXPECT_EQ(refusal([&] { late.first(); }).code(), kExitUsage);
  }
}

TEST_F(Batch, APartTakesItsAudioSubtitlesAndChaptersAlong) {
  ClipSpec spec;
  spec.audio = AV_CODEC_ID_PCM_S16LE;
  spec.furnished = true;  // a subtitle until 0.1 s, a chapter until 0.2 s
  spec.times = {0, 40, 80, 120, 160, 200, 240, 280, 320, 360};
  writeClip(folder_.file("in.mkv"), spec);
  options_.inputs = {folder_.file("in.mkv")};
  options_.clip.range = {60'000, 200'000};
  ASSERT_EQ(run(), kExitFine) << said_;
  EXPECT_FALSE(said("cut short")) << said_;
  VideoReader reader(out("in-noxel.mkv"));
  const Companions companions = reader.companions();
  std::vector<double> seconds;
  while (const FramePtr frame = reader.next()) {
    seconds.push_back(static_cast<double>(frame->pts) * av_q2d(reader.timeBase()));
  }
  EXPECT_EQ(seconds, (std::vector<double>{0, 0.04, 0.08, 0.12, 0.16})) << "of 0.08 to 0.24 s";
  ASSERT_EQ(companions.chapters.size(), 1u);
  EXPECT_EQ(av_rescale_q(companions.chapters[0]->end, companions.chapters[0]->time_base, {1, 1000}), 120);
  double audioStart = 1, audioEnd = 0;
  int subtitles = 0;
  for (const PacketPtr& packet : reader.takeBeside()) {
    const AVStream& stream = *companions.streams[static_cast<size_t>(packet->stream_index)];
    const double start = static_cast<double>(packet->pts) * av_q2d(stream.time_base);
    const double length = static_cast<double>(packet->duration) * av_q2d(stream.time_base);
    if (stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      audioStart = std::min(audioStart, start);
      audioEnd = std::max(audioEnd, start + length);
    } else if (stream.codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE) {
      ++subtitles;
      EXPECT_EQ(start, 0);
      EXPECT_NEAR(length, 0.02, 0.001) << "what is left of it";
    }
  }
  EXPECT_EQ(subtitles, 1);
  // Packets of 1024 samples are whole: 23 ms.
  EXPECT_TRUE(audioStart >= 0 && audioStart < 0.024) << audioStart;
  EXPECT_NEAR(audioEnd, 0.18, 0.024) << "0.26 s of the clip";
}

}  // namespace
}  // namespace noxel::tool
