// Passes drawn one at a time on a GL context, with the programs of every filter and the log watched.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "gl/engine/passes.h"
#include "reference/passes.h"
#include "support/gl_fixture.h"
#include "support/log_capture.h"
#include "support/reference_picture.h"

namespace noxel {

// Turned by half a degree, shrunk by 2 % and shifted by a few texels of a small picture: no sample falls on a texel.
inline constexpr reference::Matrix kWarp = {0.98, 0.0087, 0, 0, -0.0087, 0.98, 0, 0, 0, 0, 1, 0, 0.031, -0.027, 0, 1};

// A noisy picture as the GPU reads it and as its twin does.
struct Noisy {
  Noisy(int width, int height, unsigned seed) : picture(noisyPicture(width, height, seed)) {}

  Picture picture;
  TestTexture texture{picture};
  reference::Image image{picture.width, picture.height, picture.rgba};
};

class PassTest : public GlTest {
 protected:
  void SetUp() override {
    GlTest::SetUp();
    if (egl == nullptr) return;
    ASSERT_TRUE(lowLight.setupPrograms(nullptr) && bilateral.setupPrograms(nullptr));
    ASSERT_TRUE(rgbToYuv.setupPrograms(nullptr) && yuvToRgb.setupPrograms(nullptr));
    selector = createSelectorTexture();
    log.emplace();
  }

  // A pass must not log: it would do so in every frame.
  void TearDown() override {
    EXPECT_EQ(log ? log->text() : "", "");
    log.reset();
    GlTest::TearDown();
  }

  // The first row of that name that is drawn with that program.
  static const Pass& row(std::string_view name, ProgramId program) {
    for (int mode = 0; mode <= 5; ++mode) {
      const ModePlan& plan = modePlan(mode);
      const std::span<const Pass> untouched(&untouchedPass(false), 1);
      for (const auto passes :
           {plan.light, plan.first, plan.second, plan.later, plan.show, plan.pack, sparePasses(), untouched}) {
        for (const Pass& pass : passes) {
          if (pass.name == name && pass.program == program) return pass;
        }
      }
    }
    ADD_FAILURE() << "no pass " << name;
    return untouchedPass(false);
  }

  Program* programOf(ProgramId id) {
    if (id <= kr_w27) return lowLight.program(id);
    if (id <= kr_bl2) return bilateral.program(id);
    if (id >= clear_split) return clear.program(id);
    return id <= kr_r3 ? rgbToYuv.program(id) : yuvToRgb.program(id);
  }

  void drawInto(FrameBuffer* target, const Pass& pass) {
    lowLight.BindTarget(target);
    input.context.target = {target->GetWidth(), target->GetHeight()};
    drawPass(pass, input, programOf(pass.program));
  }
  Picture draw(const Pass& pass, int width, int height, GLenum filter = GL_LINEAR) {
    TestTarget target(width, height, filter);
    drawInto(&target, pass);
    return target.read();
  }
  Picture draw(std::string_view name, ProgramId program, int width, int height) {
    return draw(row(name, program), width, height);
  }

  void read(std::initializer_list<GLuint> textures) { std::copy(textures.begin(), textures.end(), input.textures); }

  void useWarp(const reference::Matrix& matrix) {
    for (size_t i = 0; i < 16; ++i) warpValues[i] = static_cast<float>(matrix[i]);
    input.warp = warpValues;
  }

  LowLightFilter lowLight;
  BilateralFilter bilateral;
  RgbToYuvFilter rgbToYuv;
  YuvToRgbFilter yuvToRgb;
  ClearFilter clear;  // built by the tests that draw with it
  Texture selector;
  PassInput input;
  FrameSettings& settings = input.context.settings;
  std::optional<LogCapture> log;

 private:
  float warpValues[16] = {};
};

}  // namespace noxel
