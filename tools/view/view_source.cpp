#include "view/view_source.h"

#include <cmath>
#include <utility>

#include "common/tool_error.h"
#include "media/nv21_frame.h"

namespace noxel::tool {
namespace {

std::string formatOf(const std::string& input, const std::string& format) {
  return format.empty() && input.rfind("/dev/video", 0) == 0 ? "v4l2" : format;
}

}  // namespace

ViewSource::ViewSource(const std::string& input, const std::string& format)
    : input_(input), format_(formatOf(input, format)) {
  open();
  measure();
}

void ViewSource::open() {
  reader_ = std::make_unique<VideoReader>(input_, format_);
  frame_ = reader_->first();
  toneMap_ = isHighDynamicRange(*frame_) ? std::make_unique<ToneMap>(*frame_) : nullptr;
}

void ViewSource::measure() {
  clipWidth_ = frame_->width;
  clipHeight_ = frame_->height;
  colours_ = std::make_unique<ColourConversion>(*shown());
  int width = clipWidth_;
  int height = clipHeight_;
  const Uprighting turn = uprighting(reader_->displayMatrix());
  if (!turn.filters.empty()) rotation_ = std::make_unique<FilterPass>(width, height, turn.filters);
  const AVRational shape = reader_->sampleAspectRatio(*frame_);
  const double stretch = shape.num > 0 && shape.den > 0 ? av_q2d(shape) : 1.0;
  if (turn.swapsSides) std::swap(width, height);
  width_ = paddedWidth(width);
  height_ = paddedHeight(height);
  displayWidth_ = static_cast<int>(std::lround(width_ * (turn.swapsSides ? 1.0 : stretch)));
  displayHeight_ = static_cast<int>(std::lround(height_ * (turn.swapsSides ? stretch : 1.0)));
}

int64_t ViewSource::timeUs() const {
  return av_rescale_q(frame_->pts, reader_->timeBase(), kMicroseconds);
}

bool ViewSource::advance() {
  FramePtr next = reader_->next();
  reader_->takeBeside();  // nothing plays it
  if (!next) return false;
  frame_ = std::move(next);
  return true;
}

void ViewSource::restart() {
  open();
}

FramePtr ViewSource::shown() {
  return toneMap_ ? toneMap_->run(*frame_) : share(*frame_);
}

void ViewSource::pack(uint8_t* nv21) {
  FramePtr frame = colours_->toEngine(*padded(*colours_->planar(*shown())));
  if (rotation_) {
    crop(*frame, clipWidth_, clipHeight_);
    frame = padded(*rotation_->run(*frame));
  }
  packNv21(*frame, nv21);
}

}  // namespace noxel::tool
