#include "support/gl_fixture.h"

#include "support/driver_required.h"

namespace noxel {

EGLEngine* GlTest::egl = nullptr;

void GlTest::SetUpTestSuite() {
  egl = new EGLEngine;
  if (egl->Initialize(1, 1) == 1) return;
  egl->Release();
  delete egl;
  egl = nullptr;
}

void GlTest::TearDownTestSuite() {
  if (egl != nullptr) egl->Release();
  delete egl;
  egl = nullptr;
}

void GlTest::SetUp() {
  if (egl != nullptr) return;
  ASSERT_FALSE(driverRequired()) << "no OpenGL ES 3.0, and NOXEL_REQUIRE_GL is 1";
  GTEST_SKIP() << "no OpenGL ES 3.0 here";
}

void GlTest::TearDown() {
  if (egl == nullptr) return;
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TestTexture::TestTexture(const Picture& picture, GLenum filter) {
  Init(picture.width, picture.height, GL_RGBA, filter, GL_CLAMP_TO_EDGE, picture.rgba.data());
}

TestTexture::TestTexture(int textureWidth, int textureHeight, GLenum textureFormat, const std::vector<uint8_t>& bytes,
                         GLenum filter) {
  Init(textureWidth, textureHeight, textureFormat, filter, GL_CLAMP_TO_EDGE, bytes.data());
}

TestTarget::TestTarget(const Picture& picture, GLenum filter) {
  Init(picture.width, picture.height, GL_RGBA, filter);
  glBindTexture(GL_TEXTURE_2D, textureId);
  glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, picture.rgba.data());
}

Picture TestTarget::read() {
  Picture picture(width, height);
  ReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, picture.rgba.data());
  return picture;
}

}  // namespace noxel
