#include "analyze/analyze.h"

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "analyze/analysis_plot.h"
#include "common/interrupt.h"
#include "common/output_file.h"
#include "common/percentile.h"
#include "common/standard_streams.h"
#include "common/tool_error.h"
#include "findings/clip_meter.h"
#include "media/clip_input.h"
#include "noxel/meter.h"

namespace noxel::tool {
namespace {

// Each entry's median over the frames: the first frame of a sequence knows less than the others.
NoiseCurve medianOf(const std::vector<NoiseCurve>& frames) {
  NoiseCurve median;
  median.known = !frames.empty();
  for (int i = 0; i < NoiseCurve::kEntries; ++i) {
    std::vector<double> entry;
    for (const NoiseCurve& curve : frames) entry.push_back(static_cast<double>(curve.variance[i]));
    median.variance[i] = static_cast<float>(percentile(std::move(entry), 50));
  }
  return median;
}

std::string baseName(const std::string& input) {
  return input == "-" ? "standard input" : std::filesystem::path(input).filename().string();
}

nlohmann::ordered_json jsonOf(const ExposureStatistics& statistics) {
  const Histogram& histogram = statistics.histogram;
  return {{"frames", statistics.frames},
          {"mean_luma", meanLevel(histogram)},
          {"level_p1", levelAtShare(histogram, 0.01)},
          {"level_p50", levelAtShare(histogram, 0.5)},
          {"level_p99", levelAtShare(histogram, 0.99)},
          {"black_share", statistics.share(0)},
          {"white_share", statistics.share(kLevels - 1)},
          {"gamma", statistics.gamma()},
          {"gain", statistics.gain()},
          {"noise_sigma", statistics.noiseFrames > 0 ? nlohmann::ordered_json(statistics.noise()) : nullptr}};
}

void printHeader(std::FILE* out) {
  std::fprintf(out, "second  frames    mean   1 %%  50 %%  99 %%    black    white   gamma    gain   noise\n");
}

void printRow(std::FILE* out, const std::string& name, const ExposureStatistics& statistics) {
  const Histogram& histogram = statistics.histogram;
  char noise[16] = "-";
  if (statistics.noiseFrames > 0) std::snprintf(noise, sizeof(noise), "%.2f", statistics.noise());
  std::fprintf(out, "%6s  %6lld  %6.1f  %4d  %4d  %4d  %6.2f%%  %6.2f%%  %6.3f  %6.3f  %6s\n", name.c_str(),
               static_cast<long long>(statistics.frames), meanLevel(histogram), levelAtShare(histogram, 0.01),
               levelAtShare(histogram, 0.5), levelAtShare(histogram, 0.99), 100 * statistics.share(0),
               100 * statistics.share(kLevels - 1), statistics.gamma(), statistics.gain(), noise);
}

class Analysis {
 public:
  Analysis(const AnalyzeOptions& options, std::string plotFile, std::FILE* out)
      : options_(options),
        plotFile_(std::move(plotFile)),
        out_(out),
        table_(options.jsonFile == "-" ? stderr : out),
        clip_(options.input) {}

  void run();

 private:
  void readAll();
  void addNoise(const ClipMeter& meter);
  void endSecond();
  void writeJson() const;
  void writePlot() const;
  static void note(const std::string& text) { std::fprintf(stderr, "noxel: note: %s\n", text.c_str()); }

  const AnalyzeOptions& options_;
  const std::string plotFile_;
  std::FILE* const out_;
  std::FILE* const table_;
  ClipInput clip_;
  int64_t second_ = 0;          // counted from the first frame
  ExposureStatistics current_;  // of that second
  ExposureStatistics all_;
  nlohmann::ordered_json seconds_ = nlohmann::ordered_json::array();
  Histogram smoothed_;
  double suggested_[kLevels] = {};
  Findings findings_;
  std::vector<NoiseCurve> noise_;  // of the frames in which it is known
};

void Analysis::run() {
  if (clip_.highDynamicRange()) note(toneMapNote());
  if (clip_.reader().interlaced()) note(deinterlaceNote());
  printHeader(table_);
  readAll();
  noxel_suggest_tone(all_.histogram.bins, options_.strength, smoothed_.bins, suggested_);
  printRow(table_, "all", all_);
  std::fprintf(table_, "found: %s\n", inWords(findings_).c_str());
  std::fprintf(table_, "suggested curve, strength %g: mean luma %.1f -> %.1f\n", options_.strength,
               meanLevel(all_.histogram), meanLevelAfter(all_.histogram, suggested_));
  writePlot();
  if (!options_.jsonFile.empty()) writeJson();
  std::fprintf(table_, "plot: %s\n", plotFile_.c_str());
  if (clip_.reader().damagedPackets() > 0) {
    note(std::to_string(clip_.reader().damagedPackets()) + " damaged packets of the input could not be decoded");
  }
  if (stopRequested()) note("stopped; the analysis covers the frames up to here");
}

void Analysis::readAll() {
  ClipMeter meter(clip_, options_.exposure);
  const double start = clip_.seconds();
  do {
    // At 3 fps the time stamps are 0.333, 0.667, 1.000: tolerate rounding.
    const auto second = static_cast<int64_t>(std::floor(clip_.seconds() - start + 0.001));
    if (second != second_) endSecond();
    second_ = second;
    meter.measure(clip_);
    addHistogram(meter.luma(), &current_.histogram);
    ++current_.frames;
    current_.gammaSum += static_cast<double>(meter.info().gamma);
    current_.gainSum += static_cast<double>(meter.info().gain);
    addNoise(meter);
  } while (clip_.next());
  endSecond();
  findings_ = meter.findings(clip_);
}

void Analysis::addNoise(const ClipMeter& meter) {
  if (!meter.noise().known) return;
  noise_.push_back(meter.noise());
  current_.noiseSum += meter.noiseSigma() * meter.noiseSigma();
  ++current_.noiseFrames;
}

void Analysis::endSecond() {
  printRow(table_, std::to_string(second_), current_);
  if (table_ == out_) flushStandardOutput(out_);  // shows each second at once, also in a pipe
  nlohmann::ordered_json row = {{"second", second_}};
  row.update(jsonOf(current_));
  seconds_.push_back(std::move(row));
  all_.add(current_);
  current_ = {};
}

void Analysis::writePlot() const {
  AnalysisPlot plot;
  char figures[160];
  std::snprintf(figures, sizeof(figures), "%d x %d, %lld frames, mean luma %.1f, clipped black %.2f %%, white %.2f %%",
                clip_.width(), clip_.height(), static_cast<long long>(all_.frames), meanLevel(all_.histogram),
                100 * all_.share(0), 100 * all_.share(kLevels - 1));
  plot.title = baseName(options_.input);
  plot.subtitle = figures;
  plot.histogram = all_.histogram;
  plot.smoothed = smoothed_;
  std::copy_n(suggested_, kLevels, plot.suggested);
  plot.strength = options_.strength;
  plot.gamma = all_.gamma();
  plot.gain = all_.gain();
  plot.noise = medianOf(noise_);
  const std::vector<uint8_t> png = drawAnalysis(plot);
  writeWholeFile(plotFile_, png.data(), png.size());
}

void Analysis::writeJson() const {
  nlohmann::ordered_json summary = jsonOf(all_);
  summary["mean_luma_suggested"] = meanLevelAfter(all_.histogram, suggested_);
  const nlohmann::ordered_json json = {{"noxel", noxel_version()},
                                       {"input",
                                        {{"file", options_.input},
                                         {"codec", clip_.reader().codecName()},
                                         {"width", clip_.width()},
                                         {"height", clip_.height()},
                                         {"frame_rate", av_q2d(clip_.reader().frameRate())}}},
                                       {"options", {{"strength", options_.strength}, {"exposure", options_.exposure}}},
                                       {"plot", plotFile_},
                                       {"stopped_early", stopRequested()},
                                       {"found", jsonOf(findings_)},
                                       {"summary", std::move(summary)},
                                       {"seconds", seconds_},
                                       {"histogram", all_.histogram.bins},
                                       {"smoothed_histogram", smoothed_.bins},
                                       {"suggested_curve", suggested_},
                                       {"noise_variance", medianOf(noise_).variance}};
  const std::string text = json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  if (options_.jsonFile != "-") {
    writeWholeFile(options_.jsonFile, text.data(), text.size());
    return;
  }
  std::fwrite(text.data(), 1, text.size(), out_);
  flushStandardOutput(out_);
}

}  // namespace

std::string plotName(const std::string& input) {
  return input == "-" ? "analysis.png" : std::filesystem::path(input).stem().string() + "-analysis.png";
}

void ExposureStatistics::add(const ExposureStatistics& more) {
  addHistogram(more.histogram, &histogram);
  frames += more.frames;
  gammaSum += more.gammaSum;
  gainSum += more.gainSum;
  noiseFrames += more.noiseFrames;
  noiseSum += more.noiseSum;
}

double ExposureStatistics::share(int level) const {
  const double mass = histogramMass(histogram);
  return mass > 0 ? histogram.bins[level] / mass : 0;
}

int runAnalyze(const AnalyzeOptions& options, std::FILE* out) {
  const std::string plotFile = options.plotFile.empty() ? plotName(options.input) : options.plotFile;
  if (plotFile == "-") throw ToolError(kExitUsage, "--plot needs a file name");
  checkOutputFiles(options.input, {plotFile, options.jsonFile}, options.overwrite);
  Analysis(options, plotFile, out).run();
  return stoppedExitCode();
}

}  // namespace noxel::tool
