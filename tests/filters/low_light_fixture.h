// The main filter on a GL context, all programs built, its log watched.
#pragma once

#include <optional>

#include "filters/filter_fixture.h"
#include "filters/low_light_filter.h"
#include "reference/passes.h"
#include "support/log_capture.h"
#include "support/reference_picture.h"

namespace noxel {

// Turned by half a degree, shrunk by 2 % and shifted by a few texels of a small picture: no sample falls on a texel.
inline constexpr reference::Matrix kWarp = {0.98, 0.0087, 0, 0, -0.0087, 0.98, 0, 0, 0, 0, 1, 0, 0.031, -0.027, 0, 1};

class LowLightTest : public FilterTest<LowLightFilter> {
 protected:
  void SetUp() override {
    FilterTest::SetUp();
    if (egl != nullptr) log.emplace();
  }

  // A pass must not log: it would do so in every frame.
  void TearDown() override {
    EXPECT_EQ(log ? log->text() : "", "");
    log.reset();
    FilterTest::TearDown();
  }

  Picture draw(int code, int width, int height, bool selectorLuma = true) {
    TestTarget target(width, height);
    filter.BindTarget(&target);
    filter.state.passCode = code;
    EXPECT_TRUE(filter.drawPass(selectorLuma));
    return target.read();
  }

  void useWarp(const reference::Matrix& matrix) {
    for (size_t i = 0; i < 16; ++i) warpValues[i] = static_cast<float>(matrix[i]);
    filter.state.warp = warpValues;
  }

  LowLightState& state = filter.state;
  std::optional<LogCapture> log;

 private:
  float warpValues[16] = {};
};

}  // namespace noxel
