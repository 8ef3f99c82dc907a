// `noxel analyze`: how a clip is exposed, and what would be done about it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "registration/exposure.h"
#include "tonemapping/histogram.h"

namespace noxel::tool {

struct AnalyzeOptions {
  std::string input;      // a file, or "-": Y4M on standard input
  std::string plotFile;   // empty: plotName(input)
  std::string jsonFile;   // empty: none; "-": standard output, which the table then leaves to it
  double strength = 0.5;  // of the suggested curve, 0..1
  int exposure = 50;      // as for enhance, 0..100
  bool overwrite = false;
};

// Where the plot goes when nothing is said: night.mp4 has night-analysis.png, in the current folder.
std::string plotName(const std::string& input);

// What the engine's registration thread makes of the same frames: its image, its easing, its settling on the first frame.
class ExposureFollower {
 public:
  ExposureFollower(int width, int height, int strength);  // of the frames as the engine takes them; 0..100
  void settle(const uint8_t* luma);                       // as before the first frame of `noxel enhance`
  void follow(const uint8_t* luma);                       // width * height bytes
  float gamma() const { return state_.smoothedGamma; }
  float gain() const { return state_.smoothedGain; }

 private:
  const int width_;
  const int height_;
  const int factor_;  // frame pixels per pixel of the image
  const int strength_;
  std::vector<uint8_t> image_;
  std::vector<uint8_t> scratch_;
  ExposureState state_;
};

// Over some frames: every pixel's luma in the engine's full range, and the mean of the pairs the frames are toned with.
struct ExposureStatistics {
  Histogram histogram;
  int64_t frames = 0;
  double gammaSum = 0;
  double gainSum = 0;

  void add(const ExposureStatistics& more);
  double gamma() const { return frames > 0 ? gammaSum / static_cast<double>(frames) : 1; }
  double gain() const { return frames > 0 ? gainSum / static_cast<double>(frames) : 1; }
  double share(int level) const;  // of the pixels
};

// Returns the exit code, or throws a ToolError. `out` is standard output, but for tests.
int runAnalyze(const AnalyzeOptions& options, std::FILE* out = stdout);

}  // namespace noxel::tool
