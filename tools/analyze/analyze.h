// `noxel analyze`: how a clip is exposed, and how it would be brightened.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "common/luma_histogram.h"

namespace noxel::tool {

struct AnalyzeOptions {
  std::string input;      // a file, or "-": standard input
  std::string plotFile;   // empty: plotName(input)
  std::string jsonFile;   // empty: none; "-": standard output, with the table on standard error
  double strength = 0.5;  // of the suggested curve, 0..1
  int exposure = 50;      // as for enhance, 0..100
  bool overwrite = false;
};

// The default: night-analysis.png in the current folder for night.mp4.
std::string plotName(const std::string& input);

// Of a run of frames: histogram of full-range luma, sums of gamma and gain.
struct ExposureStatistics {
  Histogram histogram;
  int64_t frames = 0;
  double gammaSum = 0;
  double gainSum = 0;
  int64_t noiseFrames = 0;  // whose noise is known
  double noiseSum = 0;      // of their variances, of a pixel on average

  void add(const ExposureStatistics& more);
  double gamma() const { return frames > 0 ? gammaSum / static_cast<double>(frames) : 1; }
  double gain() const { return frames > 0 ? gainSum / static_cast<double>(frames) : 1; }
  double noise() const { return noiseFrames > 0 ? std::sqrt(noiseSum / static_cast<double>(noiseFrames)) : 0; }
  double share(int level) const;  // of the pixels
};

// Returns the exit code, or throws a ToolError. `out`: for tests.
int runAnalyze(const AnalyzeOptions& options, std::FILE* out = stdout);

}  // namespace noxel::tool
