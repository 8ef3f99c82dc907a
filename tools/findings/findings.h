// What is to be known of a clip before it is enhanced.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace noxel::tool {

// The tone of mode 5 fades from a mean of 60 to none from 110 on: below the middle most of it is applied.
constexpr double kDarkBelow = 85;
// A tone that raises the mean by less than this share is not missed.
constexpr double kToneMattersFrom = 0.1;
// Levels, standard deviation. Clips without noise are measured at up to 0.8, where fine texture moves.
constexpr double kNoisyFrom = 1.0;
// A phone's sensor (full well of 9600 electrons, read noise 3) leaves 3.6 levels at a mean luma of 50 and 4.8 at 28: where the
// picture is dark and has not even half of that, something took it out.
constexpr double kSensorInTheDark = 1.6;
// Pixels per 1000 of the picture's width; below that nobody sees it.
constexpr double kShakyFrom = 1.0;

// Figures of one frame.
struct FrameFigures {
  double seconds = 0;
  double meanLuma = 0;               // 0..255, full range; HDR: tone-mapped
  double meanToned = 0;              // by mode 5, exposure 50
  std::optional<double> noiseSigma;  // levels, against the frame before
  std::optional<double> movedX;      // where the camera moved the picture's centre to since the frame before, pixels
  std::optional<double> movedY;
};

struct Findings {
  int64_t frames = 0;  // looked at
  int width = 0;
  double meanLuma = 0;
  double meanToned = 0;
  std::optional<double> noiseSigma;  // of a pixel on average, levels
  // Pixels, root mean square: how far the camera's path, at the picture's centre, is from the straight line through each eight
  // frames. Steady pans are none.
  std::optional<double> shake;
  std::string hdr;  // PQ, HLG; empty: SDR
  bool interlaced = false;
  double shortestMs = 0;  // between consecutive frames
  double longestMs = 0;
  bool variableRate = false;

  bool dark() const { return meanLuma < kDarkBelow; }
  bool noisy() const { return noiseSigma && *noiseSigma >= kNoisyFrom; }
  double shakyFrom() const { return kShakyFrom * width / 1000; }
  bool shaky() const { return shake && *shake >= shakyFrom(); }
  bool denoised() const { return dark() && noiseSigma && *noiseSigma < kSensorInTheDark; }
  bool toneMatters() const { return meanToned >= (1 + kToneMattersFrom) * meanLuma; }
  bool needsNothing() const {
    return !dark() && !toneMatters() && noiseSigma && !noisy() && hdr.empty() && !interlaced;
  }
};

// One line.
std::string inWords(const Findings& findings);
nlohmann::ordered_json jsonOf(const Findings& findings);

// Collects figures. Consecutive frames make a run.
class FindingsMeter {
 public:
  void add(const FrameFigures& frame);
  void endRun();  // the next frame does not follow the last one
  // Fills in what was measured.
  void finish(Findings& findings);

 private:
  static constexpr size_t kPathFrames = 8;

  void endPath();

  int64_t frames_ = 0;
  double lumaSum_ = 0;
  double tonedSum_ = 0;
  int64_t noiseFrames_ = 0;
  double noiseSum_ = 0;  // of variances
  std::optional<double> lastSeconds_;
  std::vector<double> intervals_;  // seconds
  std::vector<double> path_[2];    // of the centre
  double offLine_ = 0;             // sum of squares
  int64_t pathFrames_ = 0;
};

}  // namespace noxel::tool
