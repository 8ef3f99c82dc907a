#include "findings/findings.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "common/percentile.h"

namespace noxel::tool {
namespace {

// Beyond a tenth, and what rounding to milliseconds makes of a tick: cameras whose frames come by a millisecond early or
// late are not meant.
constexpr double kRateTolerance = 0.1;
constexpr double kTickSeconds = 0.0015;
constexpr size_t kOddIntervals = 50;  // one in so many may be odd: a lost frame

std::string number(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof(text), format, value);
  return text;
}

nlohmann::ordered_json rounded(const std::optional<double>& value) {
  if (!value) return nullptr;
  return std::round(*value * 1e4) / 1e4;
}

// Of the points' distances to their line, least squares.
double squaresOffLine(const std::vector<double>& path) {
  const auto count = static_cast<double>(path.size());
  double meanX = (count - 1) / 2, meanY = 0, xx = 0, xy = 0, sum = 0;
  for (const double y : path) meanY += y / count;
  for (size_t i = 0; i < path.size(); ++i) {
    const double x = static_cast<double>(i) - meanX;
    xx += x * x;
    xy += x * (path[i] - meanY);
  }
  for (size_t i = 0; i < path.size(); ++i) {
    const double off = path[i] - meanY - xy / xx * (static_cast<double>(i) - meanX);
    sum += off * off;
  }
  return sum;
}

}  // namespace

std::string inWords(const Findings& findings) {
  std::string words = "mean luma " + number("%.1f", findings.meanLuma) + (findings.dark() ? " (dark)" : " (not dark)");
  if (findings.noiseSigma) {
    words += ", noise " + number("%.2f", *findings.noiseSigma) + " levels" + (findings.noisy() ? "" : " (hardly any)");
  } else {
    words += ", noise not known";
  }
  if (findings.denoised()) words += ", already denoised";
  if (findings.shake) {
    words += ", shake " + number("%.2f", *findings.shake) + " pixels" + (findings.shaky() ? "" : " (steady)");
  } else {
    words += ", shake not known";
  }
  if (!findings.hdr.empty()) words += ", HDR (" + findings.hdr + ")";
  if (findings.interlaced) words += ", interlaced";
  if (findings.variableRate) {
    words += ", variable frame rate (" + number("%.0f", findings.shortestMs) + " to " +
             number("%.0f", findings.longestMs) + " ms a frame)";
  }
  return words;
}

nlohmann::ordered_json jsonOf(const Findings& findings) {
  return {{"frames", findings.frames},
          {"mean_luma", rounded(findings.meanLuma)},
          {"mean_luma_toned", rounded(findings.meanToned)},
          {"dark", findings.dark()},
          {"noise_sigma", rounded(findings.noiseSigma)},
          {"noisy", findings.noisy()},
          {"already_denoised", findings.denoised()},
          {"shake_pixels", rounded(findings.shake)},
          {"shaky", findings.shaky()},
          {"hdr", findings.hdr.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(findings.hdr)},
          {"interlaced", findings.interlaced},
          {"variable_frame_rate", findings.variableRate},
          {"shortest_interval_ms", rounded(findings.shortestMs)},
          {"longest_interval_ms", rounded(findings.longestMs)}};
}

void FindingsMeter::add(const FrameFigures& frame) {
  ++frames_;
  lumaSum_ += frame.meanLuma;
  tonedSum_ += frame.meanToned;
  if (lastSeconds_) intervals_.push_back(frame.seconds - *lastSeconds_);
  lastSeconds_ = frame.seconds;
  if (frame.noiseSigma) {
    noiseSum_ += *frame.noiseSigma * *frame.noiseSigma;
    ++noiseFrames_;
  }
  if (!frame.movedX || !frame.movedY) endPath();
  const double moved[] = {frame.movedX.value_or(0), frame.movedY.value_or(0)};
  for (int i = 0; i < 2; ++i) path_[i].push_back(path_[i].empty() ? 0 : path_[i].back() + moved[i]);
  if (path_[0].size() == kPathFrames) endPath();
}

void FindingsMeter::endPath() {
  if (path_[0].size() > 2) {
    offLine_ += squaresOffLine(path_[0]) + squaresOffLine(path_[1]);
    pathFrames_ += static_cast<int64_t>(path_[0].size()) - 2;  // a line takes two degrees of freedom
  }
  for (std::vector<double>& path : path_) path.clear();
}

void FindingsMeter::endRun() {
  endPath();
  lastSeconds_.reset();
}

void FindingsMeter::finish(Findings& findings) {
  endRun();
  findings.frames = frames_;
  if (frames_ > 0) {
    findings.meanLuma = lumaSum_ / static_cast<double>(frames_);
    findings.meanToned = tonedSum_ / static_cast<double>(frames_);
  }
  if (noiseFrames_ > 0) findings.noiseSigma = std::sqrt(noiseSum_ / static_cast<double>(noiseFrames_));
  if (pathFrames_ > 0) findings.shake = std::sqrt(offLine_ / static_cast<double>(pathFrames_));
  if (intervals_.empty()) return;
  const double median = percentile(intervals_, 50);
  const auto odd = static_cast<size_t>(std::ranges::count_if(intervals_, [&](double interval) {
    return std::abs(interval - median) > kRateTolerance * median + kTickSeconds;
  }));
  const auto [shortest, longest] = std::ranges::minmax(intervals_);
  findings.shortestMs = 1000 * shortest;
  findings.longestMs = 1000 * longest;
  findings.variableRate = odd > intervals_.size() / kOddIntervals;
}

}  // namespace noxel::tool
