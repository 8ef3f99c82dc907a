// Measurements of a run, frame by frame.
#pragma once

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "common/output_file.h"
#include "common/quantiles.h"
#include "enhance/frame_report.h"

namespace noxel::tool {

struct FrameStatistics {
  double seconds = 0;  // time stamp in the output
  FrameReport report = {};
  double totalMs = 0;     // in the engine
  double lumaBefore = 0;  // means of the engine's full-range luma, 0..255
  double lumaAfter = 0;
  double noiseSigma = 0;  // levels, of the frame as it came; meaningless while the report's noise is not known
};

// Over a whole run, in memory that does not grow with it.
class Statistics {
 public:
  void add(const FrameStatistics& frame);
  size_t count() const { return count_; }
  double meanLumaBefore() const { return mean(lumaBefore_); }
  double meanLumaAfter() const { return mean(lumaAfter_); }
  double lostShare() const;  // of the frames with a previous one; 0 without such frames

  // `seconds`: wall-clock time of the whole run.
  nlohmann::ordered_json summary(double seconds) const;

 private:
  double mean(double sum) const { return count_ > 0 ? sum / static_cast<double>(count_) : 0; }

  size_t count_ = 0;
  size_t measured_ = 0;  // frames with a previous one
  size_t lost_ = 0;
  double lumaBefore_ = 0;  // sums
  double lumaAfter_ = 0;
  Quantiles total_, registration_, upload_, gpu_;  // ms
  Quantiles sigma_;
};

nlohmann::ordered_json frameJson(size_t index, const FrameStatistics& frame);

// One JSON object, written while the run goes on: what is known at its start, the frames, what is known at its end. It appears
// under its name in finish(). What fails on the way is reported there, so that it costs no frame.
class StatisticsFile {
 public:
  StatisticsFile(const std::string& path, const nlohmann::ordered_json& start);
  ~StatisticsFile();
  StatisticsFile(const StatisticsFile&) = delete;
  StatisticsFile& operator=(const StatisticsFile&) = delete;

  void add(const nlohmann::ordered_json& frame);
  void finish(const nlohmann::ordered_json& end);  // a ToolError when anything could not be written

 private:
  void write(const std::string& text);
  void writeMembers(const nlohmann::ordered_json& members);

  const std::string path_;
  PendingFile pending_;
  std::FILE* file_;
  int error_ = 0;      // errno of the first failure
  bool first_ = true;  // no comma is needed
};

}  // namespace noxel::tool
