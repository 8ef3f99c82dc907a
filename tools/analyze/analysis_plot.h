// The plot of `noxel analyze`: tone curves, the histogram and the noise, one below the other on the same levels.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/noise_curve.h"

namespace noxel::tool {

struct AnalysisPlot {
  std::string title;  // both UTF-8; invalid bytes become '?', long text is truncated
  std::string subtitle;
  Histogram histogram;
  Histogram smoothed;
  double suggested[kLevels] = {};  // level out by level in
  double strength = 0;             // of the suggested curve
  double gamma = 1;
  double gain = 1;
  NoiseCurve noise;
};

// In pixels from the top left corner.
struct PlotArea {
  double left;
  double top;
  double width;
  double height;

  constexpr double x(double level) const { return left + (level + 0.5) * width / kLevels; }
  constexpr double y(double share) const { return top + height * (1 - share); }  // 0 at the bottom, 1 at the top
};

constexpr int kPlotWidth = 1000;
constexpr int kPlotHeight = 1166;
constexpr PlotArea kCurveArea = {72, 108, 3.5 * kLevels, 510};  // 0..255 upwards
constexpr PlotArea kHistogramArea = {72, 678, 3.5 * kLevels, 180};
constexpr PlotArea kNoiseArea = {72, 924, 3.5 * kLevels, 180};

// 0xRRGGBB, colour-blind safe (Okabe and Ito).
constexpr uint32_t kSuggestedColour = 0xd55e00;
constexpr uint32_t kPairColour = 0x0072b2;
constexpr uint32_t kIdentityColour = 0x999999;
constexpr uint32_t kHistogramColour = 0xc4ccd4;
constexpr uint32_t kSmoothedColour = 0x009e73;
constexpr uint32_t kNoiseColour = 0xcc79a7;

// PNG bytes.
std::vector<uint8_t> drawAnalysis(const AnalysisPlot& plot);

}  // namespace noxel::tool
