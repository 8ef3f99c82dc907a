// An enhancer that does nothing.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "enhance/enhance.h"
#include "media/nv21_frame.h"

namespace noxel::tool {

// Leaves frames unchanged.
class Idle : public Enhancer {
 public:
  explicit Idle(const EnhancerSettings& settings) : bytes_(nv21Size(settings.width, settings.height)) {}
  bool send(const uint8_t* nv21, int64_t) override {
    if (waiting_) return false;
    std::copy_n(nv21, bytes_.size(), bytes_.begin());
    return waiting_ = true;
  }
  void finish() override {}
  bool receive(uint8_t* nv21) override {
    std::copy(bytes_.begin(), bytes_.end(), nv21);
    return std::exchange(waiting_, false);
  }
  FrameReport report() const override { return {}; }
  Overlay overlay() const override { return {}; }

 private:
  std::vector<uint8_t> bytes_;
  bool waiting_ = false;
};

template <typename Kind>
int runWith(const EnhanceOptions& options) {
  return runEnhance(options, [](const EnhancerSettings& settings) { return std::make_unique<Kind>(settings); });
}

}  // namespace noxel::tool
