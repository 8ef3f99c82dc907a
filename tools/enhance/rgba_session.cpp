#include "enhance/rgba_session.h"

#include <chrono>

#include "common/tool_error.h"
#include "media/colour_conversion.h"
#include "media/nv21_frame.h"

namespace noxel::tool {

RgbaEngine::RgbaEngine(int width, int height, const Look& look, bool passes) {
  noxel_config config;
  noxel_config_init(&config, sizeof(config), width, height);
  config.mode = NOXEL_MODE_PICTURE;
  if (passes) config.diagnostics = NOXEL_DIAGNOSE_PASSES;
  enhancer_ = makeEnhancer(config);
  setParameters(look, enhancer_);
}

FramePtr RgbaEngine::enhanced(const AVFrame& rgba) {
  const auto frameOf = [](const AVFrame& picture) {
    noxel_frame frame;
    noxel_frame_init(&frame, sizeof(frame));
    frame.format = NOXEL_PLANES_RGBA;
    frame.planes[0] = picture.data[0];
    frame.strides[0] = picture.linesize[0];
    return frame;
  };
  FramePtr result = makePicture(rgba.width, rgba.height, AV_PIX_FMT_RGBA);
  const noxel_frame given = frameOf(rgba);
  noxel_frame taken = frameOf(*result);
  if (noxel_send(enhancer_, &given) != NOXEL_OK || noxel_receive(enhancer_, &taken, nullptr) != NOXEL_OK)
    throw ToolError(kExitFailed, "the engine refused a picture");
  return result;
}

void RgbaEngine::addPasses(PassTimes& times) const {
  noxel::tool::addPasses(enhancer_, times);
}

RgbaSession::RgbaSession(const EnhancerSettings& settings)
    : width_(settings.width),
      height_(settings.height),
      engine_(settings.width, settings.height, settings.look, settings.passes) {}

bool RgbaSession::send(const uint8_t* nv21, int64_t /*presentationUs*/) {
  if (!waiting_.empty()) return false;
  waiting_.assign(nv21, nv21 + nv21Size(width_, height_));
  return true;
}

bool RgbaSession::receive(uint8_t* nv21) {
  if (waiting_.empty()) return false;
  const auto start = std::chrono::steady_clock::now();
  const FramePtr rgba = engineToRgb(*unpackNv21(waiting_.data(), width_, height_), AV_PIX_FMT_RGBA);
  packNv21(*rgbToEngine(*engine_.enhanced(*rgba)), nv21);
  waiting_.clear();
  totalMs_ = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  return true;
}

FrameReport RgbaSession::report() const {
  FrameReport report;
  report.status = -1;  // no registration
  return report;
}

}  // namespace noxel::tool
