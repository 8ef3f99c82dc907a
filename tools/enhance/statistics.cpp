#include "enhance/statistics.h"

#include <cmath>
#include <string>

#include "common/percentile.h"

namespace noxel::tool {
namespace {

double meanOf(const std::vector<FrameStatistics>& frames, double FrameStatistics::*member) {
  double sum = 0;
  for (const FrameStatistics& frame : frames) sum += frame.*member;
  return frames.empty() ? 0 : sum / static_cast<double>(frames.size());
}

nlohmann::ordered_json rowsOf(const float (&matrix)[9]) {
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (int row = 0; row < 3; ++row) rows.push_back({matrix[3 * row], matrix[3 * row + 1], matrix[3 * row + 2]});
  return rows;
}

// Four digits: more than was measured, and the file stays readable.
nlohmann::ordered_json rounded(double value) {
  return std::round(value * 1e4) / 1e4;
}

nlohmann::ordered_json noiseSigmaOf(const FrameStatistics& frame) {
  return frame.report.noise.known ? rounded(frame.noiseSigma) : nullptr;
}

nlohmann::ordered_json varianceOf(const NoiseCurve& curve) {
  if (!curve.known) return nullptr;
  nlohmann::ordered_json entries = nlohmann::ordered_json::array();
  for (const float variance : curve.variance) entries.push_back(rounded(static_cast<double>(variance)));
  return entries;
}

std::vector<double> times(const std::vector<FrameStatistics>& frames, double FrameReport::*member) {
  std::vector<double> result;
  for (const FrameStatistics& frame : frames) result.push_back(frame.report.*member);
  return result;
}

}  // namespace

double Statistics::meanLumaBefore() const {
  return meanOf(frames_, &FrameStatistics::lumaBefore);
}

double Statistics::meanLumaAfter() const {
  return meanOf(frames_, &FrameStatistics::lumaAfter);
}

double Statistics::lostShare() const {
  size_t measured = 0;
  size_t lost = 0;
  for (const FrameStatistics& frame : frames_) {
    if (frame.report.status < 0 || frame.report.startsSequence) continue;
    ++measured;
    if (frame.report.status == 0) ++lost;
  }
  return measured > 0 ? static_cast<double>(lost) / static_cast<double>(measured) : 0;
}

nlohmann::ordered_json Statistics::json(double seconds) const {
  std::vector<double> totals;
  std::vector<double> sigmas;
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const FrameStatistics& frame : frames_) {
    totals.push_back(frame.totalMs);
    list.push_back({{"index", list.size()},
                    {"time", frame.seconds},
                    {"status", frame.report.status},
                    {"starts_sequence", frame.report.startsSequence},
                    {"points_tracked", frame.report.pointsTracked},
                    {"points_kept", frame.report.pointsKept},
                    {"motion", rowsOf(frame.report.previousFromCurrent)},
                    {"stabilization", rowsOf(frame.report.stabilizedFromCurrent)},
                    {"zoom", frame.report.zoom},
                    {"gamma", frame.report.gamma},
                    {"gain", frame.report.gain},
                    {"registration_ms", frame.report.registrationMs},
                    {"upload_ms", frame.report.uploadMs},
                    {"gpu_ms", frame.report.gpuMs},
                    {"total_ms", frame.totalMs},
                    {"mean_luma_before", frame.lumaBefore},
                    {"mean_luma_after", frame.lumaAfter},
                    {"noise_sigma", noiseSigmaOf(frame)},
                    {"noise_variance", varianceOf(frame.report.noise)}});
    if (frame.report.noise.known) sigmas.push_back(frame.noiseSigma);
  }
  nlohmann::ordered_json summary = {{"frames", count()},
                                    {"seconds", seconds},
                                    {"fps", seconds > 0 ? static_cast<double>(count()) / seconds : 0.0},
                                    {"lost_share", lostShare()},
                                    {"mean_luma_before", meanLumaBefore()},
                                    {"mean_luma_after", meanLumaAfter()},
                                    {"noise_sigma_p50", nullptr}};
  if (!sigmas.empty()) summary["noise_sigma_p50"] = rounded(percentile(sigmas, 50));
  const auto addPercentiles = [&summary](const std::string& prefix, const std::vector<double>& samples) {
    for (const int percent : {50, 95})
      summary[prefix + "ms_p" + std::to_string(percent)] = percentile(samples, percent);
  };
  addPercentiles("", totals);
  addPercentiles("registration_", times(frames_, &FrameReport::registrationMs));
  addPercentiles("upload_", times(frames_, &FrameReport::uploadMs));
  addPercentiles("gpu_", times(frames_, &FrameReport::gpuMs));
  return {{"summary", std::move(summary)}, {"frames", std::move(list)}};
}

}  // namespace noxel::tool
