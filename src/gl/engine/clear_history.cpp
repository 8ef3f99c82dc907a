#include "gl/engine/clear_history.h"

#include <cmath>

namespace noxel {
namespace {

// The kernel reads cells as a translation puts them; a pixel may lie this far beside that, in pixels a pixel.
constexpr double kMaxStretch = 0.03;

void copyRows(const Warp& warp, float* rows) {
  for (int i = 0; i < 6; ++i) rows[i] = static_cast<float>(warp.m[i]);
}

Warp translation(double x, double y) {
  return {{1, 0, x, 0, 1, y, 0, 0, 1}};
}

// Cells from the middle of the border to where the frame's centre lies, once that is half a border off.
double drift(double at, int size) {
  const double cells = std::rint((at - kCanvasBorder - 0.5 * size) / 2.0);
  return std::fabs(2.0 * cells) > kCanvasBorder / 2 ? cells : 0.0;
}

// Lightning, a camera's flash, a lamp that flickers. After so many frames it is the new light.
constexpr int kMaxFlash = 3;
constexpr float kFlashShare = 0.25f;  // of the mean luma
constexpr float kFlashLevels = 6.0f;

}  // namespace

bool ClearHistory::isFlash(float meanLuma) {
  const bool differs = std::fabs(meanLuma - canvasLuma_) > kFlashLevels + kFlashShare * canvasLuma_;
  flashes_ = differs && flashes_ < kMaxFlash ? flashes_ + 1 : 0;
  if (flashes_ == 0) canvasLuma_ = meanLuma;
  return flashes_ > 0;
}

bool ClearHistory::isTooFar() const {
  const double* m = canvasFromFrame_.m;
  const double stretch =
      std::fmax(std::fmax(std::fabs(m[0] - 1.0), std::fabs(m[4] - 1.0)), std::fmax(std::fabs(m[1]), std::fabs(m[3])));
  const double corner = stretch * 0.5 * (width_ + height_);
  return !(stretch <= kMaxStretch && corner <= kCanvasBorder / 4);
}

ClearFrame ClearHistory::step(const float* previousFromCurrent, const Warp& frameFromPicture, float meanLuma) {
  ClearFrame frame;
  const Warp fromTexture = {{1.0 * width_, 0, 0, 0, 1.0 * height_, 0, 0, 0, 1}};
  copyRows(multiply(fromTexture, multiply(frameFromPicture, inverse(fromTexture))), frame.frameFromPicture);
  frame.hasPast = begun_ && previousFromCurrent != nullptr;
  begun_ = true;
  if (frame.hasPast) {
    Warp motion;
    for (int i = 0; i < 9; ++i) motion.m[i] = static_cast<double>(previousFromCurrent[i]);
    canvasFromFrame_ = multiply(canvasFromFrame_, motion);
    copyRows(canvasFromFrame_, frame.canvasFromFrame);
    frame.anchors = isTooFar();
  }
  if (!frame.hasPast) {
    canvasLuma_ = meanLuma;
    flashes_ = 0;
  } else if (isFlash(meanLuma)) {
    frame.keepsCanvas = true;
    frame.anchors = false;
    return frame;
  }
  if (frame.anchors) {
    canvasFromFrame_ = translation(kCanvasBorder, kCanvasBorder);
    return frame;
  }
  const double* m = canvasFromFrame_.m;
  const double x = 0.5 * width_, y = 0.5 * height_;
  const double scroll[] = {drift(m[0] * x + m[1] * y + m[2], width_), drift(m[3] * x + m[4] * y + m[5], height_)};
  canvasFromFrame_ = multiply(translation(-2.0 * scroll[0], -2.0 * scroll[1]), canvasFromFrame_);
  copyRows(inverse(canvasFromFrame_), frame.frameFromCanvas);
  for (int i = 0; i < 2; ++i) frame.scroll[i] = static_cast<float>(scroll[i]);
  return frame;
}

}  // namespace noxel
