// What a run measured, frame by frame.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

#include "api/engine_control.h"

namespace noxel::tool {

struct FrameStatistics {
  double seconds = 0;  // time stamp in the clip
  FrameReport report = {};
  double totalMs = 0;     // in the engine
  double lumaBefore = 0;  // means of the engine's full-range luma, 0..255
  double lumaAfter = 0;
};

// The value below or at which `percent` of the samples lie (nearest rank). 0 without samples.
double percentile(std::vector<double> samples, double percent);

class Statistics {
 public:
  void add(const FrameStatistics& frame) { frames_.push_back(frame); }
  size_t count() const { return frames_.size(); }
  double meanLumaBefore() const;
  double meanLumaAfter() const;

  // Members "summary" and "frames". `seconds`: wall-clock time from the first frame on, without the warm-up.
  nlohmann::ordered_json json(double seconds) const;

 private:
  std::vector<FrameStatistics> frames_;
};

}  // namespace noxel::tool
