#include "enhance/look_ahead.h"

#include <algorithm>
#include <new>

#include "common/interrupt.h"
#include "common/tool_error.h"

namespace noxel::tool {

LookAhead::Reach LookAhead::reachFor(int width, int height) {
  const size_t blend = blendWords(width, height) * sizeof(uint16_t);
  // As ClipInput keeps it: in 8 bits at most 6 bytes a pixel, in 10 bits 7.5.
  const size_t frame = static_cast<size_t>(width) * static_cast<size_t>(height) * 15 / 2;
  const auto bytes = [&](const Reach& reach) {
    return static_cast<size_t>(reach.chunk) * blend + static_cast<size_t>(reach.chunk + reach.lead) * frame;
  };
  Reach reach;
  while (reach.chunk > 0 && bytes(reach) > kMaxBytes) reach = {reach.chunk / 2, reach.lead * 2 / 3};
  return reach;
}

std::unique_ptr<LookAhead> LookAhead::make(const EnhancerSettings& settings, const EngineHandle& engine,
                                           PresentationClock& clock) {
  const Reach reach = reachFor(settings.width, settings.height);
  if (reach.chunk == 0) return nullptr;
  try {
    return std::unique_ptr<LookAhead>(new LookAhead(settings, engine, clock, reach));
  } catch (const ToolError&) {
  } catch (const std::bad_alloc&) {
  }
  return nullptr;
}

LookAhead::LookAhead(const EnhancerSettings& settings, const EngineHandle& engine, PresentationClock& clock,
                     Reach reach)
    : clip_(*settings.clip),
      engine_(engine),
      clock_(clock),
      backwards_(settings.width, settings.height, kModeClear),
      reach_(reach),
      blends_(static_cast<size_t>(reach.chunk), std::vector<uint16_t>(blendWords(settings.width, settings.height))) {
  setParameters(settings.look, backwards_.get());
  if (enableBlends(engine.get()) != 0 || enableBlends(backwards_.get()) != 0) throw std::bad_alloc();
}

void LookAhead::goBack(uint8_t* nv21) {
  std::vector<FrameAhead> frames = {{nv21, clip_.microseconds()}};
  const auto wanted = static_cast<size_t>(reach_.chunk + reach_.lead);
  while (frames.size() < wanted) {
    const FrameAhead next = clip_.ahead(frames.size());
    if (next.nv21 == nullptr || clock_.isGap(next.microseconds - frames.back().microseconds)) break;
    frames.push_back(next);
  }
  count_ = std::min(frames.size(), blends_.size());
  for (std::vector<uint16_t>& words : blends_) std::fill(words.begin(), words.end(), uint16_t{0});  // nothing is known
  clock_.restart();
  for (size_t i = frames.size(); i > 0 && !stopRequested(); --i) {
    // Blends of the lead are of no use, and overwritten.
    std::vector<uint16_t>& blend = blends_[i <= count_ ? i - 1 : 0];
    std::fill(blend.begin(), blend.end(), uint16_t{0});  // a frame that cannot be drawn leaves it as it is
    keepBlend(backwards_.get(), blend.data());
    clock_.repeat();
    backwards_.process(frames[i - 1].nv21);
  }
  // What the engine was warmed up with is the clip itself: it must not count twice.
  if (!begun_) clock_.restart();
  begun_ = true;
}

void LookAhead::offer(uint8_t* nv21) {
  if (next_ == count_) {
    next_ = 0;
    goBack(nv21);
  }
  offerBlend(engine_.get(), blends_[next_].data());
  ++next_;
}

}  // namespace noxel::tool
