// Measures a clip's frames.
#pragma once

#include <string>

#include "common/noise_curve.h"
#include "findings/findings.h"
#include "media/clip_input.h"
#include "noxel/meter.h"

namespace noxel::tool {

// Luma, motion and noise, frame by frame, on the processor. One thread.
class ClipMeter {
 public:
  explicit ClipMeter(const ClipInput& clip, int exposure = 50);  // of its size. std::bad_alloc
  ~ClipMeter();
  ClipMeter(const ClipMeter&) = delete;
  ClipMeter& operator=(const ClipMeter&) = delete;

  void measure(ClipInput& clip);  // its current frame, which follows the last one unless restart() came between
  void restart();

  // Of the last frame.
  const noxel_frame_info& info() const { return info_; }
  const Histogram& luma() const { return luma_; }
  const NoiseCurve& noise() const { return noise_; }
  double noiseSigma() const { return sigma_; }  // of noise(), levels
  // Of all frames so far.
  Findings findings(const ClipInput& clip);

 private:
  noxel_meter* engine_ = nullptr;
  noxel_frame_info info_ = {};
  FindingsMeter meter_;
  Histogram luma_;
  NoiseCurve noise_;
  double sigma_ = 0;
  bool started_ = false;
};

// A short look at a clip: some runs of consecutive frames, spread over a file; of anything else the first ones, which the
// clip keeps.
constexpr int kLookFrames = 18;      // of the first run: a codec's noise shows between frames 16 apart
constexpr int kLaterLookFrames = 8;  // of the others
constexpr int kLookRuns = 3;
bool canReopen(const std::string& path);                                    // a regular file
Findings lookAtFile(const std::string& path, const TimeRange& range = {});  // reads it apart. ToolError as ClipInput
Findings lookAtFirstFrames(ClipInput& clip);                                // which must be at its first

}  // namespace noxel::tool
