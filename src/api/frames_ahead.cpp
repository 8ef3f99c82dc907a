#include "api/frames_ahead.h"

#include <algorithm>
#include <cstdlib>

#include "platform/log.h"

namespace noxel {

FramesAhead::Reach FramesAhead::reachFor(int width, int height) {
  const size_t blend = blendWords(width, height) * sizeof(uint16_t);
  const size_t frame = static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2;
  const auto bytes = [&](const Reach& reach) {
    return static_cast<size_t>(reach.chunk) * blend + static_cast<size_t>(reach.frames()) * frame;
  };
  Reach reach;
  while (reach.chunk > 0 && bytes(reach) > kMaxBytes) reach = {reach.chunk / 2, reach.lead * 2 / 3};
  return reach;
}

FramesAhead::~FramesAhead() {
  std::free(blends_);
}

bool FramesAhead::make(const noxel_config& config, int width, int height, platform::LogTarget* log,
                       const EnhancerEngine& forward) {
  reach_ = reachFor(width, height);
  words_ = blendWords(width, height);
  if (reach_.chunk == 0) return false;
  blends_ = static_cast<uint16_t*>(std::calloc(static_cast<size_t>(reach_.chunk) * words_, sizeof(uint16_t)));
  return blends_ != nullptr && backwards_.make(config, width, height, log) == NOXEL_OK &&
         enableBlends(forward.get()) == 0 && enableBlends(backwards_.get()) == 0;
}

void FramesAhead::lookBack(unsigned char* const* frames, int count, const double* settings,
                           const std::atomic<bool>& stop) {
  count_ = std::min(count, reach_.chunk);
  next_ = 0;
  // 0: nothing is known. A frame that cannot be drawn leaves its blend alone.
  std::fill_n(blends_, static_cast<size_t>(count_) * words_, uint16_t{0});
  backwards_.apply(settings);
  for (int i = count - 1; i >= 0 && !stop.load(std::memory_order_relaxed); --i) {
    uint16_t* blend = blends_ + static_cast<size_t>(i < count_ ? i : 0) * words_;
    if (i == count_ - 1) std::fill_n(blends_, words_, uint16_t{0});  // those of the lead went there
    keepBlend(backwards_.get(), blend);
    if (i == count - 1) {
      backwards_.clock.cut();
    } else {
      backwards_.clock.stepOnce();
    }
    backwards_.process(frames[i], i > 0 ? frames[i - 1] : nullptr);
  }
  backwards_.finishAhead();
}

void FramesAhead::offer(const EnhancerEngine& forward) {
  offerBlend(forward.get(), blends_ + static_cast<size_t>(next_) * words_);
  ++next_;
}

}  // namespace noxel
