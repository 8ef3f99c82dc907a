// The examples, as their users run them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <random>

#include "clips.h"
#include "media/video_reader.h"
#include "run_command.h"
#include "support/temporary_directory.h"
#include "support/virtual_screen.h"

namespace noxel::tool {
namespace {

struct Nv12 {
  int width, height;
  size_t luma() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
  size_t bytes() const { return luma() + static_cast<size_t>((width + 1) / 2 * 2 * ((height + 1) / 2)); }
};

// A still, bright scene with noise of 6 levels; `frames` of them one after the other.
std::string noisyFrames(const Nv12& size, int frames) {
  std::mt19937 random(1);
  std::normal_distribution<double> noise(0.0, 6.0);
  std::string result;
  for (int i = 0; i < frames; ++i) {
    for (int y = 0; y < size.height; ++y) {
      for (int x = 0; x < size.width; ++x) {
        const double level = 125 + 35 * std::sin(x * 0.5) + 30 * std::sin((x + 2 * y) * 0.33) + noise(random);
        result += static_cast<char>(std::lround(std::clamp(level, 16.0, 235.0)));
      }
    }
    result.append(size.bytes() - size.luma(), static_cast<char>(128));
  }
  return result;
}

// Mean change of luma from a frame to the next, levels.
double flicker(const std::string& frames, const Nv12& size, size_t frame) {
  double sum = 0;
  for (size_t i = frame * size.bytes(); i < frame * size.bytes() + size.luma(); ++i) {
    sum += std::abs(static_cast<unsigned char>(frames[i]) - static_cast<unsigned char>(frames[i + size.bytes()]));
  }
  return sum / static_cast<double>(size.luma());
}

// Through a shell, with the file as standard input.
Outcome pipeThrough(const std::string& program, const std::string& arguments, const std::string& file) {
  return runCommand("/bin/sh", "-c \"'" + program + "' " + arguments + " < '" + file + "'\"");
}

TEST(Examples, TenLinesReturnsEachFrameWithLessNoise) {
  NEEDS_DRIVER();
  const TemporaryDirectory folder;
  constexpr size_t kFrames = 20;
  for (const Nv12 size : {Nv12{64, 48}, Nv12{63, 47}}) {
    const std::string sent = noisyFrames(size, kFrames);
    writeFile(folder.file("frames"), sent);
    const std::string arguments = std::to_string(size.width) + " " + std::to_string(size.height);
    const Outcome outcome = pipeThrough(TEN_LINES, arguments, folder.file("frames"));
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
    ASSERT_EQ(outcome.out.size(), sent.size());
    // The mean of four frames has half the noise; the history of a still scene is longer.
    EXPECT_LT(flicker(outcome.out, size, kFrames - 2), 0.5 * flicker(sent, size, kFrames - 2));
  }
  EXPECT_EQ(pipeThrough(TEN_LINES, "64", folder.file("frames")).exitCode, 2);
}

double meanLuma(const std::string& path) {
  VideoReader reader(path);
  double sum = 0;
  int frames = 0;
  for (FramePtr frame = reader.next(); frame; frame = reader.next(), ++frames) {
    for (int y = 0; y < frame->height; ++y) {
      for (int x = 0; x < frame->width; ++x) sum += sample(*frame, 0, x, y);
    }
    EXPECT_EQ(frame->color_range, AVCOL_RANGE_JPEG);
    EXPECT_EQ(frame->colorspace, AVCOL_SPC_BT709);
  }
  return frames > 0 ? sum / frames : 0;
}

TEST(Examples, EnhanceFileKeepsFramesTimesAndColours) {
  NEEDS_DRIVER();
  const TemporaryDirectory folder;
  ClipSpec spec;
  spec.matrix = AVCOL_SPC_BT709;
  spec.times = {0, 40, 80, 160, 200, 230, 270, 330, 370, 410, 450, 490, 530, 570, 610, 650, 690, 730, 770, 840};
  spec.picture = [](int) { return rampPlanar(64, 48, 40); };
  writeClip(folder.file("dark.mkv"), spec);
  const Outcome outcome =
      runCommand(ENHANCE_FILE, "'" + folder.file("dark.mkv") + "' '" + folder.file("bright.mkv") + "'");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_EQ(contentsOf(folder.file("bright.mkv")).seconds, contentsOf(folder.file("dark.mkv")).seconds);
  // The tone lifts a mean of 40 levels well above what two encodings change.
  EXPECT_GT(meanLuma(folder.file("bright.mkv")), 1.3 * meanLuma(folder.file("dark.mkv")));

  EXPECT_EQ(runCommand(ENHANCE_FILE, "").exitCode, 2);
  writeFile(folder.file("text"), std::string("no video"));
  const Outcome refused = runCommand(ENHANCE_FILE, "'" + folder.file("text") + "' '" + folder.file("out.mkv") + "'");
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.error, "");
}

class ShowTexture : public ScreenTest {};

// A frame of four quarters: dark, bright, middle and dark luma, the first of them reddish.
std::string quarters(const Nv12& size) {
  std::string frame;
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) frame += "\x46\xd2\x8c\x46"[2 * (2 * y / size.height) + 2 * x / size.width];
  }
  for (int y = 0; y < size.height / 2; ++y) {
    for (int x = 0; x < size.width / 2; ++x) {
      const bool red = 4 * y < size.height && 4 * x < size.width;
      frame += red ? "\x70\xb4" : "\x80\x80";
    }
  }
  return frame;
}

TEST_F(ShowTexture, ShowsFramesUprightInTheirColours) {
  const Nv12 size{160, 96};
  const TemporaryDirectory folder;
  const std::string command = std::string("'") + SHOW_TEXTURE + "' 160 96 2> '" + folder.file("error") + "'";
  std::signal(SIGPIPE, SIG_IGN);  // where the program ends early, its exit code tells
  FILE* program = popen(command.c_str(), "w");
  ASSERT_NE(program, nullptr);
  const std::string frame = quarters(size);
  for (int i = 0; i < 20; ++i) std::fwrite(frame.data(), 1, frame.size(), program);  // the first comes back after 16
  std::fflush(program);

  Picture seen;
  const auto quarter = [&](int i, int channel) {  // of the window, in the middle of the screen
    const int x = seen.width / 2 + (i % 2 == 0 ? -1 : 1) * size.width / 4;
    const int y = seen.height / 2 + (i / 2 == 0 ? -1 : 1) * size.height / 4;
    return static_cast<int>(seen.at(x, y, channel));
  };
  // Grey quarters keep their order of brightness, the reddish one its place; 20 levels are well above rounding.
  const bool shown = eventually(
      [&] {
        seen = screen->capture();
        return !seen.rgba.empty() && quarter(1, 1) > quarter(2, 1) + 20 && quarter(2, 1) > quarter(3, 1) + 20 &&
               quarter(0, 0) > quarter(0, 1) + 20 && quarter(0, 0) > quarter(0, 2) + 20 &&
               std::abs(quarter(3, 0) - quarter(3, 1)) < 8;
      },
      std::chrono::seconds(30));
  const int status = pclose(program);  // ends its input, and so the program
  EXPECT_TRUE(shown) << quarter(0, 0) << ' ' << quarter(1, 0) << ' ' << quarter(2, 0) << ' ' << quarter(3, 0);
  EXPECT_EQ(status, 0) << contents(folder.file("error"));
}

}  // namespace
}  // namespace noxel::tool
