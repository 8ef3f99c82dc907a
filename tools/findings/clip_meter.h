// Measures a clip's frames.
#pragma once

#include <cstdint>

#include "findings/findings.h"
#include "media/clip_input.h"
#include "registration/plane_registration.h"
#include "tonemapping/histogram.h"

namespace noxel::tool {

// Luma, motion and noise, frame by frame, on the processor. One thread.
class ClipMeter {
 public:
  explicit ClipMeter(const ClipInput& clip);  // its size; std::bad_alloc

  void measure(ClipInput& clip);  // its current frame, which follows the last one unless restart() came between
  void restart();

  const Histogram& luma() const { return luma_; }  // of the last frame, as the next two
  const NoiseCurve& noise() const { return registration_.noise(); }
  double noiseSigma() const { return sigma_; }  // of noise(), levels
  // Of all frames so far.
  Findings findings(const ClipInput& clip);

 private:
  PlaneRegistration registration_;
  FindingsMeter meter_;
  Histogram luma_;
  double sigma_ = 0;
  bool started_ = false;
};

// A short look at a clip: some runs of consecutive frames, spread over a file; of anything else the first ones, which the
// clip keeps.
constexpr int kLookFrames = 8;  // of a run
constexpr int kLookRuns = 3;
bool canReopen(const std::string& path);       // a regular file
Findings lookAtFile(const std::string& path);  // reads it apart. ToolError as ClipInput
Findings lookAtFirstFrames(ClipInput& clip);   // which must be at its first

}  // namespace noxel::tool
