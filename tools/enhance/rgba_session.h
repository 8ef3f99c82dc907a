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
  void timePasses(PassTimes& times) const { engine_.timePasses(times); }

 private:
  EngineHandle engine_;
  std::vector<uint8_t> packed_;
};

// The same for the frames of a clip. No motion, no warm-up.
class RgbaSession : public Enhancer {
 public:
  explicit RgbaSession(const EnhancerSettings& settings);

  int warmUp(const uint8_t*) override { return 0; }
  void leadIn(uint8_t*) override {}
  void timePasses(PassTimes& times) override { engine_.timePasses(times); }
  void enhance(uint8_t* nv21, int64_t presentationUs) override;
  FrameReport report() const override;
  Overlay overlay() const override { return {}; }

 private:
  const int width_;
  const int height_;
  RgbaEngine engine_;
};

}  // namespace noxel::tool
