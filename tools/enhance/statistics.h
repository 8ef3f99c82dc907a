// Measurements of a run, frame by frame.
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
  double noiseSigma = 0;  // levels, of the frame as it came; meaningless while the report's noise is not known
};

class Statistics {
 public:
  void add(const FrameStatistics& frame) { frames_.push_back(frame); }
  size_t count() const { return frames_.size(); }
  double meanLumaBefore() const;
  double meanLumaAfter() const;
  double lostShare() const;  // of the frames with a previous one; 0 without such frames

  // Members "summary" and "frames". `seconds`: wall-clock time without set-up and warm-up.
  nlohmann::ordered_json json(double seconds) const;

 private:
  std::vector<FrameStatistics> frames_;
};

}  // namespace noxel::tool
