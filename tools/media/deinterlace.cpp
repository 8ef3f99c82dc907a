#include "media/deinterlace.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr size_t kMinFrames = 5;  // idet compares three, and one comb may be a pattern in the scene

size_t counted(const AVFrame& frame, const char* kind) {
  const std::string key = std::string("lavfi.idet.multiple.") + kind;
  const AVDictionaryEntry* entry = av_dict_get(frame.metadata, key.c_str(), nullptr, 0);
  return entry != nullptr ? static_cast<size_t>(std::strtod(entry->value, nullptr)) : 0;
}

}  // namespace

std::optional<FieldOrder> detectFieldOrder(const std::vector<FramePtr>& frames) {
  if (frames.size() < kMinFrames) return std::nullopt;
  const AVFrame& first = *frames.front();
  FilterPass idet(first.width, first.height, "idet", static_cast<AVPixelFormat>(first.format));
  FramePtr last;
  const auto drain = [&] {
    while (FramePtr frame = idet.receive()) last = std::move(frame);
  };
  for (const FramePtr& frame : frames) {
    if (frame->format != first.format) return std::nullopt;
    idet.send(frame.get());
    drain();
  }
  idet.send(nullptr);
  drain();
  if (!last) return std::nullopt;
  // Three frames of four, none the other way round: a pattern in the scene, or noise, does not keep to one order.
  const size_t top = counted(*last, "tff"), bottom = counted(*last, "bff");
  if (4 * std::max(top, bottom) < 3 * frames.size() || std::min(top, bottom) > 0) return std::nullopt;
  return top > bottom ? FieldOrder::kTopFirst : FieldOrder::kBottomFirst;
}

bool canDeinterlace(const AVFrame& frame) {
  return frame.width >= 8 && frame.height >= 8;  // bwdif reads four lines away, of chroma too
}

Deinterlacer::Deinterlacer(const AVFrame& first, std::optional<FieldOrder> assumed)
    : assumed_(assumed),
      width_(first.width),
      height_(first.height),
      format_(static_cast<AVPixelFormat>(first.format)),
      pass_(makePass()) {}

FilterPass Deinterlacer::makePass() const {
  return FilterPass(width_, height_, "bwdif=mode=send_frame:parity=auto:deint=interlaced", format_);
}

void Deinterlacer::send(const AVFrame& frame) {
  if (frame.format != format_) {
    finish();
    while (FramePtr left = receive()) leavers_.push_back(std::move(left));
    format_ = static_cast<AVPixelFormat>(frame.format);
    pass_ = makePass();
  }
  times_.push_back({frame.pts, frame.pkt_duration});
  FramePtr flagged = share(frame);
  if (assumed_ && flagged->interlaced_frame == 0) {
    flagged->interlaced_frame = 1;
    flagged->top_field_first = *assumed_ == FieldOrder::kTopFirst;
  }
  pass_.send(flagged.get());
}

void Deinterlacer::finish() {
  pass_.send(nullptr);
}

FramePtr Deinterlacer::receive() {
  FramePtr frame;
  if (!leavers_.empty()) {
    frame = std::move(leavers_.front());
    leavers_.pop_front();
    return frame;
  }
  frame = pass_.receive();
  if (!frame) return nullptr;
  if (times_.empty()) throw ToolError(kExitFailed, "deinterlacing made a frame too many");
  // The filter counts in half ticks.
  frame->pts = times_.front().pts;
  frame->pkt_duration = times_.front().duration;
  frame->interlaced_frame = 0;
  times_.pop_front();
  return frame;
}

void Deinterlacer::restart() {
  pass_ = makePass();
  times_.clear();
  leavers_.clear();
}

}  // namespace noxel::tool
