#include "gl/runtime/gl_filter.h"

namespace noxel {

int GLFilter::BindTarget(int x, int y, int width, int height) {
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  viewportX = x;
  viewportY = y;
  viewportWidth = width;
  viewportHeight = height;
  target = nullptr;
  glViewport(x, y, width, height);
  return 1;
}

int GLFilter::BindTarget(int width, int height) {
  return BindTarget(0, 0, width, height);
}

int GLFilter::BindTarget(int x, int y, FrameBuffer* fb) {
  glBindFramebuffer(GL_FRAMEBUFFER, fb->GetFramebufferId());
  viewportX = x;
  viewportY = y;
  viewportWidth = fb->GetWidth();
  viewportHeight = fb->GetHeight();
  target = fb;
  glViewport(x, y, viewportWidth, viewportHeight);
  return 1;
}

int GLFilter::BindTarget(FrameBuffer* fb) {
  return BindTarget(0, 0, fb);
}

int GLFilter::BindWholeTarget(FrameBuffer* fb) {
  BindTarget(fb);
  const GLenum attachments[] = {fb->GetFramebufferId() == 0 ? static_cast<GLenum>(GL_COLOR) : GL_COLOR_ATTACHMENT0,
                                GL_COLOR_ATTACHMENT1};
  glInvalidateFramebuffer(GL_FRAMEBUFFER, fb->secondTextureId != ~0u ? 2 : 1, attachments);
  return 1;
}

void GLFilter::EnableBlending(bool on) {
  if (on) {
    glEnable(GL_BLEND);
  } else {
    glDisable(GL_BLEND);
  }
  blendingEnabled = on;
}

int GLFilter::Clear(float red, float green, float blue, float alpha) {
  glClearColor(red, green, blue, alpha);
  glClear(GL_COLOR_BUFFER_BIT);
  return 1;
}

}  // namespace noxel
