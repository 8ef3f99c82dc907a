#include "compare/compare.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "clips.h"
#include "compare/scores.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

using Luma = std::vector<uint8_t>;

constexpr int kWidth = 96, kHeight = 80;

double decibels(double meanSquaredError) {
  return 10 * std::log10(255.0 * 255 / meanSquaredError);
}

// Uniform whole numbers in 0..count - 1.
class Random {
 public:
  int below(int count) {
    state_ = state_ * 6364136223846793005u + 1442695040888963407u;
    return static_cast<int>((state_ >> 33) % static_cast<uint64_t>(count));
  }

 private:
  uint64_t state_ = 1;
};

// Every level of 30..220 about as often as any other, moved on by a pixel from frame to frame.
Luma scene(int frame) {
  Luma luma(size_t{kWidth} * kHeight);
  for (size_t i = 0; i < luma.size(); ++i) luma[i] = static_cast<uint8_t>(30 + (i + static_cast<size_t>(frame)) % 191);
  return luma;
}

std::vector<Luma> scenes(const std::function<int(int level, int frame)>& changed, int frames = 6) {
  std::vector<Luma> result;
  for (int frame = 0; frame < frames; ++frame) {
    result.push_back(scene(frame));
    for (uint8_t& level : result.back()) level = static_cast<uint8_t>(changed(level, frame));
  }
  return result;
}

class Compare : public testing::Test {
 protected:
  Compare() {
    options_.clip = write("clip.y4m", scenes(same_));
    options_.reference = write("reference.y4m", scenes(same_));
    options_.jsonFile = folder_.file("scores.json");
    options_.overwrite = true;
  }

  std::string write(const std::string& name, const std::vector<Luma>& frames) const {
    writeY4m(folder_.file(name), kWidth, kHeight, frames);
    return folder_.file(name);
  }
  nlohmann::json scores() {
    const std::string path = folder_.file("table");
    std::FILE* out = std::fopen(path.c_str(), "w");
    EXPECT_EQ(runCompare(options_, out), kExitFine);
    std::fclose(out);
    return nlohmann::json::parse(contents(options_.jsonFile));
  }

  const TemporaryDirectory folder_;
  const std::function<int(int, int)> same_ = [](int level, int) { return level; };
  CompareOptions options_;
};

TEST_F(Compare, EqualClipsHaveTheBestScores) {
  const auto summary = scores()["summary"];
  for (const auto& score : {summary, summary["aligned"]}) {
    EXPECT_EQ(score["psnr_luma"], kMaxPsnr);
    EXPECT_EQ(score["psnr_chroma"], kMaxPsnr);
    EXPECT_EQ(score["ssim"], 1);
    EXPECT_EQ(score["flicker"], 0);
  }
}

TEST_F(Compare, AnErrorThatAlternatesIsFlickerThatNoToneExplains) {
  write("clip.y4m", scenes([](int level, int frame) { return level + (frame % 2 == 0 ? 5 : -5); }));
  const auto summary = scores()["summary"];
  EXPECT_NEAR(summary["psnr_luma"], decibels(25), 1e-3);
  EXPECT_EQ(summary["flicker"], 10);
  // A table for the clip cannot tell the frames apart but at the 10 levels at either end of the 191.
  EXPECT_NEAR(summary["aligned"]["flicker"], 10, 0.6);
  EXPECT_NEAR(summary["aligned"]["psnr_luma"], decibels(25), 0.5);
}

TEST_F(Compare, NoiseHasThePsnrAndTheFlickerOfItsFormula) {
  // 13 levels, each as likely: variance (13^2 - 1) / 12, mean difference of two (13^2 - 1) / (3 * 13).
  Random random;
  write("clip.y4m", scenes([&](int level, int) { return level - 6 + random.below(13); }));
  const auto result = scores();
  const auto& summary = result["summary"];
  // 46,080 samples: the error of the variance is below 1 %, 0.04 dB.
  EXPECT_NEAR(summary["psnr_luma"], decibels(14), 0.04);
  EXPECT_NEAR(summary["flicker"], 168.0 / 39, 0.04);
  EXPECT_NEAR(summary["aligned"]["psnr_luma"], decibels(14), 0.25) << "a table takes a little of it at both ends";
  EXPECT_EQ(result["frames"][0]["flicker"], nullptr) << "there is no frame before";
  double error = 0;
  for (const auto& frame : result["frames"]) error += std::pow(10, -frame["psnr_luma"].get<double>() / 10) / 6;
  EXPECT_NEAR(summary["psnr_luma"], -10 * std::log10(error), 1e-3) << "of the mean error, not the mean of the dB";
}

TEST_F(Compare, AToneCurveIsTakenOut) {
  // Injective below 74, where the slope is above 1.
  const auto dark = [](int level, int) { return 4 + level / 4; };
  const auto lifted = [&](int level, int) {
    return static_cast<int>(std::lround(255 * std::pow(dark(level, 0) / 255.0, 0.6)));
  };
  write("reference.y4m", scenes(dark));
  write("clip.y4m", scenes(lifted));
  const auto result = scores();
  double error = 0;
  for (const int level : scene(0)) error += std::pow(lifted(level, 0) - dark(level, 0), 2) / (kWidth * kHeight);
  EXPECT_NEAR(result["summary"]["psnr_luma"], decibels(error), 0.01) << "frames differ by a few pixels at the end";
  for (const char* name : {"psnr_luma", "psnr_chroma"}) EXPECT_EQ(result["summary"]["aligned"][name], kMaxPsnr);
  EXPECT_EQ(result["summary"]["aligned"]["ssim"], 1);
  for (int level = 30; level <= 220; ++level) {
    EXPECT_EQ(result["tone_table"][static_cast<size_t>(lifted(level, 0))], dark(level, 0));
  }
  EXPECT_EQ(result["tone_table"][255], dark(220, 0)) << "above all levels of the clip";
  EXPECT_EQ(result["tone_table"][40], 11.5) << "no level of the clip: between 39, which is 11, and 41, which is 12";

  // Upside down: the best table that never falls is flat, and what is left is the variance of the scene.
  write("reference.y4m", scenes(same_));
  write("clip.y4m", scenes([](int level, int) { return 255 - level; }));
  double sum = 0, squares = 0, count = 0;
  for (int frame = 0; frame < 6; ++frame) {
    for (const double level : scene(frame)) sum += level, squares += level * level, ++count;
  }
  EXPECT_NEAR(scores()["summary"]["aligned"]["psnr_luma"], decibels(squares / count - sum / count * (sum / count)),
              1e-3);

  options_.tone = false;
  const auto plain = scores();
  EXPECT_FALSE(plain.contains("tone_table"));
  EXPECT_FALSE(plain["summary"].contains("aligned"));
}

TEST_F(Compare, AGainOfChromaIsTakenOut) {
  ClipSpec spec;  // lossless, in the engine's colours
  spec.video = AV_CODEC_ID_FFV1;
  const auto picture = [&](int saturation) {
    return [&spec, saturation](int) {
      FramePtr frame = flatPlanar(spec.width, spec.height, 90, 128, 128);
      for (int y = 0; y < spec.height / 2; ++y) {
        for (int x = 0; x < spec.width / 2; ++x) {
          sample(*frame, 1, x, y) = static_cast<uint8_t>(128 + saturation * (x % 21 - 10));
          sample(*frame, 2, x, y) = static_cast<uint8_t>(120 + y);
        }
      }
      return frame;
    };
  };
  spec.picture = picture(1);
  writeClip(options_.reference = folder_.file("reference.mkv"), spec);
  spec.picture = picture(3);
  writeClip(options_.clip = folder_.file("clip.mkv"), spec);
  double squares = 0;
  for (int x = 0; x < spec.width / 2; ++x) squares += std::pow(2 * (x % 21 - 10), 2);
  const auto summary = scores()["summary"];
  EXPECT_NEAR(summary["psnr_chroma"], decibels(squares / (spec.width / 2) / 2), 1e-3) << "the mean of both planes";
  EXPECT_EQ(summary["aligned"]["psnr_chroma"], kMaxPsnr);
  EXPECT_EQ(summary["psnr_luma"], kMaxPsnr);
}

TEST_F(Compare, GainsAreCountedFromTheInput) {
  // What comes before frame 2 would spoil everything; flicker starts anew there.
  const auto within = [](int error) {
    return [error](int level, int frame) { return frame < 2 ? 0 : level + (frame % 2 == 0 ? error : -error); };
  };
  write("clip.y4m", scenes(within(2)));
  options_.input = write("input.y4m", scenes(within(8)));
  options_.original = write("original.y4m", scenes([](int level, int) { return level + 20; }));
  options_.fromFrame = 2;
  options_.ssimEvery = 3;
  options_.perFrame = true;
  const auto result = scores();
  ASSERT_EQ(result["frames"].size(), 4u);
  EXPECT_EQ(result["frames"][0]["index"], 2);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(result["frames"][i]["ssim"].is_null(), i % 3 != 0);
  const auto &summary = result["summary"], &gain = summary["gain"];
  EXPECT_NEAR(summary["psnr_luma"], decibels(4), 1e-3);
  EXPECT_NEAR(summary["input"]["psnr_luma"], decibels(64), 1e-3);
  const auto difference = [&](const char* group, const char* name) {
    return summary[group][name].get<double>() - summary["input"][group][name].get<double>();
  };
  EXPECT_NEAR(gain["psnr_luma"], difference("aligned", "psnr_luma"), 2e-4);
  EXPECT_NEAR(gain["ssim"], difference("aligned", "ssim"), 2e-4);
  EXPECT_NEAR(gain["lifted_ssim"], difference("lifted", "ssim"), 2e-4);
  EXPECT_NEAR(gain["psnr_luma"], 20 * std::log10(8.0 / 2), 1) << "but for what a table takes at both ends";
  EXPECT_NEAR(gain["flicker_share"], 0.25, 0.02);
  EXPECT_NEAR(summary["lifted"]["psnr_luma"], summary["aligned"]["psnr_luma"], 0.1) << "20 levels are a tone";
  EXPECT_NE(contents(folder_.file("table")).find("\ngain  "), std::string::npos);
}

// A window laid over each pixel, its weights and moments in double precision.
double plainSsim(const Luma& a, const Luma& b, int width, int height) {
  const auto at = [](int i, int size) {
    while (i < 0 || i >= size) i = size == 1 ? 0 : i < 0 ? -i : 2 * size - 2 - i;
    return i;
  };
  double total = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      double n = 0, ma = 0, mb = 0, va = 0, vb = 0, vab = 0;
      for (const bool moments : {false, true}) {
        for (int i = -5; i <= 5; ++i) {
          for (int j = -5; j <= 5; ++j) {
            const double weight = std::exp(-(i * i + j * j) / 4.5);
            const auto from = static_cast<size_t>(at(y + i, height) * width + at(x + j, width));
            if (!moments) n += weight, ma += weight * a[from], mb += weight * b[from];
            if (moments) va += weight * (a[from] - ma) * (a[from] - ma), vb += weight * (b[from] - mb) * (b[from] - mb);
            if (moments) vab += weight * (a[from] - ma) * (b[from] - mb);
          }
        }
        if (!moments) ma /= n, mb /= n;
      }
      const double c1 = 6.5025, c2 = 58.5225;
      total += (2 * ma * mb + c1) * (2 * vab / n + c2) / ((ma * ma + mb * mb + c1) * ((va + vb) / n + c2));
    }
  }
  return total / (width * height);
}

TEST(Scores, SsimIsThatOfPlainWindows) {
  Random random;
  for (const auto& [width, height] : {std::pair(37, 23), {4, 9}, {1, 1}, {2, 40}}) {
    SCOPED_TRACE(width);
    Luma a(static_cast<size_t>(width * height)), b(a.size());
    for (size_t i = 0; i < a.size(); ++i) {
      b[i] = static_cast<uint8_t>(40 + i % 50);
      a[i] = static_cast<uint8_t>(b[i] + random.below(30));
    }
    StructuralSimilarity similarity;
    similarity.setReference({b.data(), width, width, height});
    // Single precision: squares of up to 120 to 1e-7 of themselves beside constants of 58.
    EXPECT_NEAR(similarity.of({a.data(), width, width, height}, sameTone()), plainSsim(a, b, width, height), 1e-4);
  }
}

TEST_F(Compare, TellsWhatDoesNotMatch) {
  write("clip.y4m", scenes(same_, 4));
  const std::string both = options_.clip + " " + options_.reference;
  const Outcome shorter = noxel(folder_, "compare --json - " + both);
  EXPECT_EQ(shorter.exitCode, kExitFine) << shorter.error;
  EXPECT_EQ(nlohmann::json::parse(shorter.out)["summary"]["frames"], 4);
  EXPECT_NE(shorter.error.find("clip.y4m ends after 4 frames"), std::string::npos) << shorter.error;
  EXPECT_NE(shorter.error.find("\ntone-aligned "), std::string::npos) << "the table leaves standard output to JSON";

  writeY4m(options_.clip, kWidth, kHeight, scenes(same_), 10);
  const Outcome slower = runCommand(
      "/bin/sh", "-c \"'" NOXEL_EXECUTABLE "' compare --no-tone - " + options_.reference + " <" + options_.clip + "\"");
  EXPECT_EQ(slower.exitCode, kExitFine) << slower.error;
  EXPECT_NE(slower.error.find("differ by up to 0.300 s"), std::string::npos) << "5 frames of 0.1 s and 0.04 s";

  const auto refused = [&](const std::string& arguments, int code, const std::string& text) {
    const Outcome outcome = noxel(folder_, "compare " + arguments);
    EXPECT_EQ(outcome.exitCode, code) << arguments;
    EXPECT_NE(outcome.error.find(text), std::string::npos) << outcome.error;
    EXPECT_EQ(outcome.out, "");
  };
  refused("- " + options_.reference, kExitUsage, "standard input is not a file");
  refused("--no-tone - -", kExitUsage, "one clip only");
  refused("--from-frame 6 " + both, kExitUsage, "no frame 6");
  refused(both + " --json " + options_.reference + " -y", kExitUsage, "is the input");
  refused(both + " --input " + folder_.file("missing.mp4"), kExitUnreadable, "missing.mp4");
  writeY4m(options_.clip, 8, 6, {Luma(48)});
  refused(both, kExitUsage, "clip.y4m is 8 x 6, ");
}

}  // namespace
}  // namespace noxel::tool
