// An engine that enhances frames one by one, each when it is asked to, with a clock and a log of its own.
#pragma once

#include "api/engine_control.h"
#include "api/enhancer_settings.h"
#include "api/sequence_clock.h"
#include "noxel/enhancer.h"

namespace noxel {

class EnhancerEngine {
 public:
  EnhancerEngine() = default;
  ~EnhancerEngine();
  EnhancerEngine(const EnhancerEngine&) = delete;
  EnhancerEngine& operator=(const EnhancerEngine&) = delete;

  // NOXEL_OK, or an error; then it is not to be used. width, height: of a padded frame. The log outlives it.
  int make(const noxel_config& config, int width, int height, platform::LogTarget* log);
  bool ready() const { return engineReady(engine_); }

  // By noxel_setting_id, what has changed; those that are not read in the mode have no effect.
  void apply(const double* settings);
  // In place. False: it comes back as it was. next: of the same sequence, to be processed next and with the same settings; it
  // must not change meanwhile, or until finishAhead. Null: not known.
  bool process(unsigned char* nv21, const unsigned char* next = nullptr) {
    if (mode_ != NOXEL_MODE_PICTURE) announceFrames(engine_, nv21, next);
    return KRProcessFrame(nv21, engine_) == 0 && ready();
  }
  // Nothing reads `next` any more.
  void finishAhead() { noxel::finishAhead(engine_); }

  SequenceClock clock;  // stepped before each frame
  _KRSuperResEngine* get() const { return engine_; }

 private:
  _KRSuperResEngine* engine_ = nullptr;
  int mode_ = NOXEL_MODE_CLEAR;
  bool live_ = false;
  bool applied_ = false;
  double latest_[kSettingCount] = {};  // that were applied
};

}  // namespace noxel
