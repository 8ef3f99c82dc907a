// Engine mode 4: detail and contrast of packed RGBA, one picture at a time.
#pragma once

#include "enhance/engine_handle.h"
#include "enhance/enhancer_session.h"
#include "media/av_types.h"

namespace noxel::tool {

class RgbaEngine {
 public:
  RgbaEngine(int width, int height, const Look& look);
  // AV_PIX_FMT_RGBA of the engine's size; alpha is kept.
  FramePtr enhanced(const AVFrame& rgba);
  // As EngineHandle::timePasses.
  void timePasses(std::vector<PassTime>& times) const { engine_.timePasses(times); }

 private:
  EngineHandle engine_;
  std::vector<uint8_t> packed_;
};

// The same for the frames of a clip, one at a time. No motion, no warm-up.
class RgbaSession : public Enhancer {
 public:
  explicit RgbaSession(const EnhancerSettings& settings);

  bool send(const uint8_t* nv21, int64_t presentationUs) override;
  void finish() override {}
  bool receive(uint8_t* nv21) override;
  FrameReport report() const override;
  double totalMs() const override { return totalMs_; }
  Overlay overlay() const override { return {}; }
  void addPasses(PassTimes& times) const override;

 private:
  const int width_;
  const int height_;
  RgbaEngine engine_;
  std::vector<PassTime> passes_;  // of the latest frame
  std::vector<uint8_t> waiting_;  // empty: none does
  double totalMs_ = 0;
};

}  // namespace noxel::tool
