// `noxel enhance` in mode 5, its default: what a file gains over a live picture, and what has to stay as it was.
#include <cmath>
#include <nlohmann/json.hpp>

#include "browser.h"
#include "clips.h"
#include "enhance/enhance.h"
#include "run_command.h"
#include "support/waves.h"

namespace noxel::tool {
namespace {

constexpr int kWidth = 160, kHeight = 96, kFrames = 20;
constexpr double kSigma = 8;  // of the noise, levels

// A slow pan; from frame `cut` on over another scene.
std::vector<uint8_t> seen(int frame, double sigma, int cut, unsigned sceneAfterCut) {
  return Waves(frame < cut ? 3 : sceneAfterCut, 10)
      .seen(kWidth, kHeight, shifted(0.75 * frame, 0.25 * frame), sigma, static_cast<unsigned>(frame + 1));
}

// Root of the mean square.
double difference(const AVFrame& picture, const std::vector<uint8_t>& luma) {
  double sum = 0;
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const double d = sample(picture, 0, i % kWidth, i / kWidth) - luma[static_cast<size_t>(i)];
    sum += d * d;
  }
  return std::sqrt(sum / (kWidth * kHeight));
}

class ClearPicture : public testing::Test {
 protected:
  ClearPicture() {
    options_.input = folder_.file("in.y4m");
    options_.output = folder_.file("out.y4m");
    options_.look.neutralExposure = options_.quiet = options_.overwrite = true;
  }

  std::vector<FramePtr> enhanced(int cut, unsigned sceneAfterCut = 0) {
    std::vector<std::vector<uint8_t>> frames;
    for (int i = 0; i < kFrames; ++i) frames.push_back(seen(i, kSigma, cut, sceneAfterCut));
    writeY4m(options_.input, kWidth, kHeight, frames);
    EXPECT_EQ(runEnhance(options_), kExitFine);
    VideoReader reader(options_.output);
    std::vector<FramePtr> results;
    while (FramePtr frame = reader.next()) results.push_back(std::move(frame));
    EXPECT_EQ(results.size(), size_t{kFrames});
    return results;
  }

  const TemporaryDirectory folder_;
  EnhanceOptions options_;
};

TEST_F(ClearPicture, TheFirstFrameIsAsCleanAsTheTenth) {
  NEEDS_DRIVER();
  const auto error = [](const std::vector<FramePtr>& frames, size_t i) {
    return difference(*frames.at(i), seen(static_cast<int>(i), 0, kFrames, 0));
  };
  const std::vector<FramePtr> frames = enhanced(kFrames);
  EXPECT_LT(error(frames, 0), 1.05 * error(frames, 10));  // less than what the noise's seed makes of it
  options_.warmUp = false;
  EXPECT_GT(error(enhanced(kFrames), 0), 1.3 * error(frames, 0)) << "shown by itself";
}

TEST_F(ClearPicture, TheFirstFrameKnowsNothingOfWhatComesAfterACut) {
  NEEDS_DRIVER();
  constexpr int kCut = 6;
  const std::vector<FramePtr> one = enhanced(kCut, 4), other = enhanced(kCut, 5);
  double sum = 0;
  for (int i = 0; i < kWidth * kHeight; ++i)
    sum += std::abs(sample(*one[0], 0, i % kWidth, i / kWidth) - sample(*other[0], 0, i % kWidth, i / kWidth));
  // The noise was measured in both scenes. A twentieth of the other scene, as a fade would leave, is 1.7 levels.
  EXPECT_LT(sum / (kWidth * kHeight), 0.5);
  // Five frames before the cut are there to be blended: the noise falls to 0.41 by them alone.
  EXPECT_LT(difference(*one[0], seen(0, 0, kFrames, 0)), 0.5 * kSigma);
}

TEST_F(ClearPicture, LookingAheadKeepsTheOrderAndStopsAtACut) {
  NEEDS_DRIVER();
  constexpr int kCut = 6;
  const auto errors = [](const std::vector<FramePtr>& frames) {
    std::vector<double> all;
    for (int i = 0; i < kFrames; ++i)
      all.push_back(difference(*frames.at(static_cast<size_t>(i)), seen(i, 0, kCut, 4)));
    return all;
  };
  const std::vector<double> live = errors(enhanced(kCut, 4));
  options_.look.quality = kBest;
  const std::vector<FramePtr> one = enhanced(kCut, 4), other = enhanced(kCut, 5);
  const std::vector<double> ahead = errors(one);
  for (size_t i = 0; i < size_t{kFrames}; ++i) {
    // A frame late or early, or a trace of the scene beyond the cut, is further off. After the cut a live picture knows little.
    const bool isAfterCut = i == kCut || i == kCut + 1;
    EXPECT_LT(ahead[i], isAfterCut ? 0.8 * live[i] : 0.5 * kSigma) << i << ", live " << live[i];
    if (i >= kCut) continue;
    double sum = 0;
    for (int k = 0; k < kWidth * kHeight; ++k)
      sum += std::abs(sample(*one[i], 0, k % kWidth, k / kWidth) - sample(*other[i], 0, k % kWidth, k / kWidth));
    EXPECT_LT(sum / (kWidth * kHeight), 0.5) << i;  // as for the first frame
  }
}

TEST_F(ClearPicture, StartsAtRestWithTheWholeCrop) {
  NEEDS_DRIVER();
  options_.look.stabilize = options_.overlay = true;
  options_.statsFile = folder_.file("run.json");
  options_.reportFile = folder_.file("run.html");
  enhanced(kFrames);
  const auto frames = nlohmann::json::parse(contents(options_.statsFile))["frames"];
  const auto identity = nlohmann::json::parse("[[1, 0, 0], [0, 1, 0], [0, 0, 1]]");
  EXPECT_EQ(frames[0]["starts_sequence"], true);
  EXPECT_EQ(frames[0]["motion"], identity) << "there is no frame before it";
  EXPECT_EQ(frames[0]["stabilization"], identity);
  EXPECT_EQ(frames[1]["starts_sequence"], false);
  EXPECT_NEAR(frames[1]["motion"][0][2], 0.75, 0.1);
  // The smoothed path keeps 0.95 of the first step behind.
  EXPECT_NEAR(frames[1]["stabilization"][0][2].get<double>(), 0.7, 0.15);
  for (const auto& frame : frames) EXPECT_NEAR(frame["zoom"].get<double>(), 1.17, 1e-6);

  const auto series = dataOf(contents(options_.reportFile))["series"];
  double below = 0;
  for (const int level : {16, 32, 64, 128}) {
    const double toned = series["tone_" + std::to_string(level)]["mean"][kFrames - 1];
    EXPECT_GT(toned, below) << "tone rises";
    EXPECT_GE(toned, level - 0.5) << "and does not darken";
    below = toned;
  }
}

TEST_F(ClearPicture, AtStrengthZeroFramesStayAsTheyCame) {
  NEEDS_DRIVER();
  options_.look.strength = 0;
  const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> all = Waves(3, 10).seen(kWidth, kHeight * 3 / 2 * 3, kStill, kSigma);
    for (size_t i = 0; i < 256; ++i) all[i] = static_cast<uint8_t>(i);
    return all;
  }();
  std::string clip = "YUV4MPEG2 W160 H96 F25:1 C420jpeg XCOLORRANGE=FULL\n";
  constexpr size_t kFrameBytes = kWidth * kHeight * 3 / 2;
  for (size_t i = 0; i < 3; ++i) {
    clip += "FRAME\n";
    clip.append(reinterpret_cast<const char*>(&bytes[i * kFrameBytes]), kFrameBytes);
  }
  writeFile(options_.input, clip);
  for (const int quality : {kFast, kBalanced, kBest}) {
    for (const char* path : {"temporal", "spatial"}) {
      options_.look.quality = quality;
      options_.look.denoise = path;
      ASSERT_EQ(runEnhance(options_), kExitFine);
      const std::string result = contents(options_.output);
      const size_t payload = clip.size() - clip.find('\n');
      ASSERT_GT(result.size(), payload);
      EXPECT_TRUE(result.substr(result.size() - payload) == clip.substr(clip.size() - payload)) << quality << path;
    }
  }
}

}  // namespace
}  // namespace noxel::tool
