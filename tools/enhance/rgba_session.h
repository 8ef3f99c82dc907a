// Engine mode 4: detail and contrast of packed RGBA, one picture at a time.
#pragma once

#include "enhance/enhancer_session.h"
#include "media/av_types.h"

namespace noxel::tool {

class RgbaEngine {
 public:
  // ToolError, kExitNoGl without usable GL.
  RgbaEngine(int width, int height, const Look& look, bool passes = false);
  ~RgbaEngine() { noxel_free(&enhancer_); }
  RgbaEngine(const RgbaEngine&) = delete;
  RgbaEngine& operator=(const RgbaEngine&) = delete;

  // AV_PIX_FMT_RGBA of the engine's size; alpha is kept.
  FramePtr enhanced(const AVFrame& rgba);
  void addPasses(PassTimes& times) const;  // of the latest picture

 private:
  noxel_enhancer* enhancer_ = nullptr;
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
  void addPasses(PassTimes& times) const override { engine_.addPasses(times); }

 private:
  const int width_;
  const int height_;
  RgbaEngine engine_;
  std::vector<uint8_t> waiting_;  // empty: none does
  double totalMs_ = 0;
};

}  // namespace noxel::tool
