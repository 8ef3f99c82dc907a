#include "statistics.h"

#include <algorithm>
#include <cmath>

namespace noxel::tool {
namespace {

double meanOf(const std::vector<FrameStatistics>& frames, double FrameStatistics::*member) {
  double sum = 0;
  for (const FrameStatistics& frame : frames) sum += frame.*member;
  return frames.empty() ? 0 : sum / static_cast<double>(frames.size());
}

}  // namespace

double percentile(std::vector<double> samples, double percent) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const double rank = std::ceil(percent / 100 * static_cast<double>(samples.size()));
  return samples[static_cast<size_t>(std::max(rank, 1.0)) - 1];
}

double Statistics::meanLumaBefore() const {
  return meanOf(frames_, &FrameStatistics::lumaBefore);
}

double Statistics::meanLumaAfter() const {
  return meanOf(frames_, &FrameStatistics::lumaAfter);
}

nlohmann::ordered_json Statistics::json(double seconds) const {
  std::vector<double> times;
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const FrameStatistics& frame : frames_) {
    times.push_back(frame.totalMs);
    list.push_back({{"index", list.size()},
                    {"time", frame.seconds},
                    {"status", frame.report.status},
                    {"gamma", frame.report.gamma},
                    {"gain", frame.report.gain},
                    {"zoom", frame.report.zoom},
                    {"upload_ms", frame.report.uploadMs},
                    {"registration_ms", frame.report.registrationMs},
                    {"total_ms", frame.totalMs},
                    {"mean_luma_before", frame.lumaBefore},
                    {"mean_luma_after", frame.lumaAfter}});
  }
  return {{"summary",
           {{"frames", count()},
            {"seconds", seconds},
            {"fps", seconds > 0 ? static_cast<double>(count()) / seconds : 0.0},
            {"mean_luma_before", meanLumaBefore()},
            {"mean_luma_after", meanLumaAfter()},
            {"ms_p50", percentile(times, 50)},
            {"ms_p95", percentile(times, 95)}}},
          {"frames", std::move(list)}};
}

}  // namespace noxel::tool
