#include "enhance/rgba_session.h"

#include <chrono>
#include <cstring>

#include "media/colour_conversion.h"
#include "media/nv21_frame.h"

namespace noxel::tool {

RgbaEngine::RgbaEngine(int width, int height, const Look& look)
    : engine_(width, height, kModeSynchronousRgba),
      packed_(static_cast<size_t>(width) * static_cast<size_t>(height) * 4) {
  setParameters(look, engine_.get());
}

FramePtr RgbaEngine::enhanced(const AVFrame& rgba) {
  const auto rowBytes = static_cast<size_t>(rgba.width) * 4;
  const auto row = [](const AVFrame& frame, int y) {
    return frame.data[0] + static_cast<ptrdiff_t>(y) * frame.linesize[0];
  };
  for (int y = 0; y < rgba.height; ++y) {
    std::memcpy(&packed_[static_cast<size_t>(y) * rowBytes], row(rgba, y), rowBytes);
  }
  engine_.process(packed_.data());
  FramePtr result = makePicture(rgba.width, rgba.height, AV_PIX_FMT_RGBA);
  for (int y = 0; y < rgba.height; ++y) {
    uint8_t* out = row(*result, y);
    std::memcpy(out, &packed_[static_cast<size_t>(y) * rowBytes], rowBytes);
    for (size_t i = 3; i < rowBytes; i += 4) out[i] = row(rgba, y)[i];
  }
  return result;
}

RgbaSession::RgbaSession(const EnhancerSettings& settings)
    : width_(settings.width), height_(settings.height), engine_(settings.width, settings.height, settings.look) {
  if (settings.passes) engine_.timePasses(passes_);
}

bool RgbaSession::send(const uint8_t* nv21, int64_t /*presentationUs*/) {
  if (!waiting_.empty()) return false;
  waiting_.assign(nv21, nv21 + nv21Size(width_, height_));
  return true;
}

bool RgbaSession::receive(uint8_t* nv21) {
  if (waiting_.empty()) return false;
  const auto start = std::chrono::steady_clock::now();
  passes_.clear();
  const FramePtr rgba = engineToRgb(*unpackNv21(waiting_.data(), width_, height_), AV_PIX_FMT_RGBA);
  packNv21(*rgbToEngine(*engine_.enhanced(*rgba)), nv21);
  waiting_.clear();
  totalMs_ = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  return true;
}

void RgbaSession::addPasses(PassTimes& times) const {
  for (const PassTime& pass : passes_) times.add(pass.pass, pass.nanoseconds);
}

FrameReport RgbaSession::report() const {
  FrameReport report;
  report.status = -1;  // no registration
  return report;
}

}  // namespace noxel::tool
