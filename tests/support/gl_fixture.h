// A GL context for tests, and the way of pictures to and from the GPU.
#pragma once

#include <gtest/gtest.h>

#include "gl/runtime/egl_engine.h"
#include "gl/runtime/frame_buffer.h"
#include "gl/runtime/texture.h"
#include "support/picture.h"

namespace noxel {

// One off-screen context for the whole suite. Without a driver every test of it is skipped, or fails where the
// environment says NOXEL_REQUIRE_GL=1. A GL error left behind fails the test that made it.
class GlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;
  void TearDown() override;

  static EGLEngine* egl;  // null without a driver
};

class TestTexture : public Texture {
 public:
  explicit TestTexture(const Picture& picture, GLenum filter = GL_LINEAR);
  // One or two bytes a texel: GL_LUMINANCE or GL_LUMINANCE_ALPHA.
  TestTexture(int textureWidth, int textureHeight, GLenum textureFormat, const std::vector<uint8_t>& bytes,
              GLenum filter = GL_LINEAR);
};

// RGBA; filled when made from a picture, left as it comes otherwise.
class TestTarget : public FrameBuffer {
 public:
  TestTarget(int targetWidth, int targetHeight, GLenum filter = GL_LINEAR) {
    Init(targetWidth, targetHeight, GL_RGBA, filter);
  }
  explicit TestTarget(const Picture& picture, GLenum filter = GL_LINEAR);

  Picture read();
};

}  // namespace noxel
