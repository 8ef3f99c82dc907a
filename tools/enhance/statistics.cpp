#include "enhance/statistics.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

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

std::string textOf(const nlohmann::ordered_json& json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

void Statistics::add(const FrameStatistics& frame) {
  ++count_;
  lumaBefore_ += frame.lumaBefore;
  lumaAfter_ += frame.lumaAfter;
  total_.add(frame.totalMs);
  registration_.add(frame.report.registrationMs);
  upload_.add(frame.report.uploadMs);
  gpu_.add(frame.report.gpuMs);
  if (frame.report.noise.known) sigma_.add(frame.noiseSigma);
  if (frame.report.status < 0 || frame.report.startsSequence) return;
  ++measured_;
  if (frame.report.status == 0) ++lost_;
}

double Statistics::lostShare() const {
  return measured_ > 0 ? static_cast<double>(lost_) / static_cast<double>(measured_) : 0;
}

nlohmann::ordered_json Statistics::summary(double seconds) const {
  nlohmann::ordered_json summary = {{"frames", count()},
                                    {"seconds", seconds},
                                    {"fps", seconds > 0 ? static_cast<double>(count()) / seconds : 0.0},
                                    {"lost_share", lostShare()},
                                    {"mean_luma_before", meanLumaBefore()},
                                    {"mean_luma_after", meanLumaAfter()},
                                    {"noise_sigma_p50", nullptr}};
  if (sigma_.count() > 0) summary["noise_sigma_p50"] = rounded(sigma_.percentile(50));
  for (const auto& [prefix, times] : {std::pair<std::string, const Quantiles&>{"", total_},
                                      {"registration_", registration_},
                                      {"upload_", upload_},
                                      {"gpu_", gpu_}}) {
    for (const int percent : {50, 95}) summary[prefix + "ms_p" + std::to_string(percent)] = times.percentile(percent);
  }
  return summary;
}

nlohmann::ordered_json frameJson(size_t index, const FrameStatistics& frame) {
  return {{"index", index},
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
          {"noise_variance", varianceOf(frame.report.noise)}};
}

StatisticsFile::StatisticsFile(const std::string& path, const nlohmann::ordered_json& start)
    : path_(path), pending_(path), file_(std::fopen(pending_.temporaryPath().c_str(), "wb")) {
  if (file_ == nullptr) error_ = errno;
  write("{");
  writeMembers(start);
  write(",\n  \"frames\": [");
  first_ = true;
}

StatisticsFile::~StatisticsFile() {
  if (file_ != nullptr) std::fclose(file_);
}

void StatisticsFile::write(const std::string& text) {
  if (error_ == 0 && std::fwrite(text.data(), 1, text.size(), file_) != text.size()) error_ = errno;
}

// One a line.
void StatisticsFile::writeMembers(const nlohmann::ordered_json& members) {
  for (const auto& [name, value] : members.items()) {
    write(std::string(std::exchange(first_, false) ? "\n" : ",\n") + "  \"" + name + "\": " + textOf(value));
  }
}

void StatisticsFile::add(const nlohmann::ordered_json& frame) {
  write(std::string(std::exchange(first_, false) ? "\n" : ",\n") + "    " + textOf(frame));
}

void StatisticsFile::finish(const nlohmann::ordered_json& end) {
  write("\n  ]");
  first_ = false;
  writeMembers(end);
  write("\n}\n");
  if (file_ != nullptr && std::fclose(std::exchange(file_, nullptr)) != 0 && error_ == 0) error_ = errno;
  if (error_ != 0) throw ToolError(kExitFailed, "cannot write " + path_ + ": " + std::strerror(error_));
  pending_.commit();
}

}  // namespace noxel::tool
