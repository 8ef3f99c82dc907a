#include "analyze/analyze.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "analyze/analysis_plot.h"
#include "clips.h"
#include "enhance/enhance.h"
#include "noxel/meter.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

using Luma = std::vector<uint8_t>;

Luma flat(int width, int height, int level) {
  return Luma(static_cast<size_t>(width) * static_cast<size_t>(height), static_cast<uint8_t>(level));
}

class Analyze : public testing::Test {
 protected:
  Analyze() {
    options_.input = folder_.file("in.y4m");
    options_.plotFile = folder_.file("plot.png");
    options_.jsonFile = folder_.file("run.json");
  }

  // Returns what goes to standard output.
  std::string run() {
    const std::string path = folder_.file("out");
    std::FILE* out = std::fopen(path.c_str(), "w");
    EXPECT_EQ(runAnalyze(options_, out), kExitFine);
    std::fclose(out);
    return contents(path);
  }
  nlohmann::json json() const { return nlohmann::json::parse(contents(options_.jsonFile)); }

  int codeOfRun() {
    return refusal([&] { runAnalyze(options_); }).code();
  }

  const TemporaryDirectory folder_;
  AnalyzeOptions options_;
};

TEST_F(Analyze, MeasuresEachSecondAndTheClip) {
  // A width of 6 is padded to 8, and padding must not count. 2.5 s: flat; then a tenth black, the rest 100; then white.
  constexpr int kWidth = 6, kHeight = 10;
  Luma mixed = flat(kWidth, kHeight, 100);
  std::fill_n(mixed.begin(), kWidth, 0);
  std::vector<Luma> frames(4, flat(kWidth, kHeight, 40));
  frames.insert(frames.end(), 4, mixed);
  frames.insert(frames.end(), 2, flat(kWidth, kHeight, 255));
  writeY4m(options_.input, kWidth, kHeight, frames, 4);

  const std::string table = run();
  const auto result = json();
  ASSERT_EQ(result["seconds"].size(), 3u);
  auto second = result["seconds"][1];
  for (const char* toned : {"gamma", "gain"}) second.erase(toned);
  EXPECT_EQ(second, nlohmann::json::parse(R"({"second": 1, "frames": 4, "mean_luma": 90, "level_p1": 0,
      "level_p50": 100, "level_p99": 100, "black_share": 0.1, "white_share": 0, "noise_sigma": null})"))
      << "no noise to be seen in so small a frame";
  EXPECT_EQ(result["seconds"][0]["mean_luma"], 40);
  EXPECT_EQ(result["seconds"][2]["white_share"], 1);
  EXPECT_EQ(result["seconds"][2]["frames"], 2);
  const auto& all = result["summary"];
  EXPECT_EQ(all["frames"], 10);
  EXPECT_DOUBLE_EQ(all["mean_luma"].get<double>(), (4 * 40 + 4 * 90 + 2 * 255) / 10.0);
  EXPECT_EQ(result["histogram"][40], 4 * 60);
  EXPECT_EQ(result["histogram"][0], 4 * 6);
  EXPECT_EQ(result["smoothed_histogram"].size(), 256u);
  EXPECT_EQ(result["suggested_curve"][255], 255);
  EXPECT_EQ(result["stopped_early"], false);

  EXPECT_NE(table.find("\n     1       4    90.0     0   100   100   10.00%    0.00%"), std::string::npos) << table;
  EXPECT_NE(table.find("\n   all      10   103.0"), std::string::npos) << table;
}

TEST_F(Analyze, MeasuresTheNoise) {
  // Uniform noise of -6..6 levels around 60 and, on the right, of -3..3 around 150: variances 14 and 4.
  constexpr int kWidth = 160, kHeight = 96;
  std::vector<Luma> frames;
  uint32_t random = 1;
  for (int frame = 0; frame < 8; ++frame) {
    Luma luma = flat(kWidth, kHeight, 0);
    for (size_t i = 0; i < luma.size(); ++i) {
      random = random * 1664525 + 1013904223;
      const bool right = i % kWidth >= kWidth / 2;
      const auto width = right ? 7u : 13u;
      luma[i] = static_cast<uint8_t>((right ? 147 : 54) + (random >> 8) % width);
    }
    frames.push_back(luma);
  }
  writeY4m(options_.input, kWidth, kHeight, frames, 4);
  const std::string table = run();
  const auto result = json();
  const auto& curve = result["noise_variance"];
  ASSERT_EQ(curve.size(), 32u);
  // Some hundred blocks, most of them seen more than once.
  EXPECT_NEAR(curve[60 / 8].get<double>(), 14, 0.15 * 14);
  EXPECT_NEAR(curve[150 / 8].get<double>(), 4, 0.15 * 4);
  EXPECT_NEAR(result["summary"]["noise_sigma"].get<double>(), 3, 0.15 * 3);
  EXPECT_NEAR(result["seconds"][1]["noise_sigma"].get<double>(), 3, 0.15 * 3);
  EXPECT_NE(table.find("   noise\n"), std::string::npos) << table;
}

TEST_F(Analyze, StandardOutputCanBePureJson) {
  writeY4m(options_.input, 8, 8, {flat(8, 8, 30)});
  options_.jsonFile = "-";
  EXPECT_EQ(nlohmann::json::parse(run())["summary"]["mean_luma"], 30);
}

TEST_F(Analyze, GammaAndGainAreThoseThatEnhanceApplies) {
  NEEDS_DRIVER();
  // Brightening over two seconds, so that gamma and gain keep easing. Above a width of 1000 the engine measures the halved,
  // smoothed picture; 1010 is padded.
  constexpr int kHeight = 34;
  for (const int width : {66, 1010}) {
    SCOPED_TRACE(width);
    std::vector<Luma> frames;
    for (int frame = 0; frame < 7; ++frame) {
      Luma luma = flat(width, kHeight, 0);
      for (size_t i = 0; i < luma.size(); ++i) luma[i] = static_cast<uint8_t>(4 + 12 * frame + i * 7919 % 31);
      luma[0] = 255;  // the smoothing removes it
      frames.push_back(luma);
    }
    writeY4m(options_.input, width, kHeight, frames, 4);
    EnhanceOptions enhance;
    enhance.input = options_.input;
    enhance.output = folder_.file("out.y4m");
    enhance.statsFile = folder_.file("stats.json");
    enhance.look.engineMode = NOXEL_MODE_ENHANCE;
    enhance.look.denoise = "spatial";
    enhance.look.exposure = options_.exposure = 80;
    enhance.quiet = enhance.overwrite = options_.overwrite = true;
    runEnhance(enhance);
    run();
    const auto applied = nlohmann::json::parse(contents(enhance.statsFile))["frames"];
    ASSERT_EQ(applied.size(), 7u);
    for (const char* name : {"gamma", "gain"}) {
      double sums[2] = {};  // of four frames and three
      for (size_t i = 0; i < 7; ++i) sums[i / 4] += applied[i][name].get<double>();
      const auto result = json();
      // Equal but for the rounding to decimals.
      EXPECT_NEAR(result["seconds"][0][name].get<double>(), sums[0] / 4, 1e-12) << name;
      EXPECT_NEAR(result["seconds"][1][name].get<double>(), sums[1] / 3, 1e-12) << name;
      EXPECT_NEAR(result["summary"][name].get<double>(), (sums[0] + sums[1]) / 7, 1e-12) << name;
      EXPECT_NE(applied[0][name], applied[6][name]) << "does not ease";
    }
  }
}

TEST_F(Analyze, RefusesAndLeavesNothingBehind) {
  EXPECT_EQ(codeOfRun(), kExitUnreadable) << "no such clip";
  EXPECT_TRUE(folder_.names().empty());

  writeY4m(options_.input, 8, 8, {flat(8, 8, 30)});
  std::ofstream(options_.plotFile) << "old";
  EXPECT_EQ(codeOfRun(), kExitUsage) << "the plot exists";
  EXPECT_EQ(contents(options_.plotFile), "old");
  options_.overwrite = true;
  for (const std::string& name : {options_.input, options_.jsonFile, std::string("-")}) {
    options_.plotFile = name;
    EXPECT_EQ(codeOfRun(), kExitUsage) << name;
  }
  options_.plotFile = folder_.file("missing/plot.png");
  EXPECT_EQ(codeOfRun(), kExitUsage) << "checked before the clip is read";
  EXPECT_EQ(folder_.names(), (std::vector<std::string>{"in.y4m", "plot.png"}));
}

TEST(AnalyzeOptions, ThePlotIsNamedAfterTheClip) {
  EXPECT_EQ(plotName("clips/night.final.mp4"), "night.final-analysis.png");
  EXPECT_EQ(plotName("-"), "analysis.png");
}

TEST(AnalysisPlot, DrawsCurvesHistogramAndNoiseToScale) {
  const TemporaryDirectory folder;
  AnalysisPlot plot;
  plot.title = "a title too long for its line, with invalid UTF-8 \xff, " + std::string(300, 'x');
  for (int level = 0; level < 64; ++level) plot.histogram.bins[level] = 100;
  plot.smoothed.bins[200] = 100;  // a peak of 1.56 %, as high as the histogram
  noxel_suggest_tone(plot.histogram.bins, 1, nullptr, plot.suggested);
  plot.gamma = 0.7;
  plot.gain = 2;
  plot.noise.known = true;
  std::fill_n(plot.noise.variance, NoiseCurve::kEntries, 9.0f);
  writeFile(folder.file("p.png"), drawAnalysis(plot));
  VideoReader reader(folder.file("p.png"));
  EXPECT_EQ(reader.codecName(), "png");
  const FramePtr picture = reader.next();
  ASSERT_TRUE(picture->width == kPlotWidth && picture->height == kPlotHeight);
  // Whether one of the 3 x 3 pixels around (x, y) has the colour; anti-aliasing changes those beside a line's centre.
  const auto has = [&](uint32_t rgb, double x, double y) {
    for (int i = 0; i < 9; ++i) {
      const uint8_t* pixel =
          &sample(*picture, 0, 3 * (static_cast<int>(x) + i % 3 - 1), static_cast<int>(y) + i / 3 - 1);
      if (static_cast<uint32_t>(pixel[0] << 16 | pixel[1] << 8 | pixel[2]) == rgb) return true;
    }
    return false;
  };
  for (const int level : {16, 40, 100, 160, 230}) {
    SCOPED_TRACE(level);
    const double x = kCurveArea.x(level);
    const double toned = std::min(1.0, std::pow(2.0 * level / 255, 0.7));
    EXPECT_TRUE(has(kPairColour, x, kCurveArea.y(toned)));
    EXPECT_TRUE(has(kSuggestedColour, x, kCurveArea.y(plot.suggested[level] / 255)));
    EXPECT_FALSE(has(kPairColour, x, kCurveArea.y(toned) + 8)) << "a line, not an area";
    EXPECT_FALSE(has(kSuggestedColour, x, kCurveArea.y(level / 255.0)));
  }
  // The axis ends at 2 %, the first round number above 1.15 x 1.56 %.
  const double top = 100.0 / 64 / 2;
  EXPECT_TRUE(has(kHistogramColour, kHistogramArea.x(40), kHistogramArea.y(top) + 3));
  EXPECT_FALSE(has(kHistogramColour, kHistogramArea.x(40), kHistogramArea.y(top) - 4));
  EXPECT_FALSE(has(kHistogramColour, kHistogramArea.x(66), kHistogramArea.y(0.2)));
  EXPECT_TRUE(has(kSmoothedColour, kHistogramArea.x(200), kHistogramArea.y(top) + 4));
  // 3 levels on an axis that ends at the first round number above 3.45; solid over the levels that the clip has.
  EXPECT_TRUE(has(kNoiseColour, kNoiseArea.x(30), kNoiseArea.y(3.0 / 4)));
  EXPECT_FALSE(has(kNoiseColour, kNoiseArea.x(30), kNoiseArea.y(3.0 / 4) + 8));
}

}  // namespace
}  // namespace noxel::tool
