#include "gl/runtime/texture.h"

#include <utility>

#include "gl/runtime/egl_engine.h"

namespace noxel {

void Texture::swap(Texture& other) noexcept {
  std::swap(width, other.width);
  std::swap(height, other.height);
  std::swap(format, other.format);
  std::swap(id, other.id);
  std::swap(eglImage, other.eglImage);
  std::swap(depth, other.depth);
  std::swap(is3D, other.is3D);
}

void Texture::create(GLenum target, GLenum filter, GLenum wrap) {
  Release();
  glGenTextures(1, &id);
  glBindTexture(target, id);
  glTexParameteri(target, GL_TEXTURE_MIN_FILTER, static_cast<GLint>(filter));
  glTexParameteri(target, GL_TEXTURE_MAG_FILTER, static_cast<GLint>(filter));
  glTexParameteri(target, GL_TEXTURE_WRAP_S, static_cast<GLint>(wrap));
  glTexParameteri(target, GL_TEXTURE_WRAP_T, static_cast<GLint>(wrap));
  eglImage = nullptr;
}

Texture Texture::make(int width, int height, GLenum format, GLenum filter, GLenum wrap, const void* pixels) {
  Texture texture;
  forgetGLErrors();
  texture.Init(width, height, format, filter, wrap, pixels);
  if (!NOXEL_CHECK_GL("Texture::make")) texture.Release();
  return texture;
}

void Texture::Init(int initialWidth, int initialHeight, GLenum initialFormat, GLenum filter, GLenum wrap,
                   const void* pixels) {
  create(GL_TEXTURE_2D, filter, wrap);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(initialFormat), initialWidth, initialHeight, 0, initialFormat,
               GL_UNSIGNED_BYTE, pixels);
  width = initialWidth;
  height = initialHeight;
  format = initialFormat;
}

void Texture::Init3D(int initialWidth, int initialHeight, int initialDepth, GLenum initialFormat, GLenum filter,
                     GLenum wrap) {
  create(GL_TEXTURE_3D, filter, wrap);
  glTexParameteri(GL_TEXTURE_3D, GL_TEXTURE_WRAP_R, static_cast<GLint>(wrap));
  glTexImage3D(GL_TEXTURE_3D, 0, static_cast<GLint>(initialFormat), initialWidth, initialHeight, initialDepth, 0,
               initialFormat, GL_UNSIGNED_BYTE, nullptr);
  width = initialWidth;
  height = initialHeight;
  depth = initialDepth;
  format = initialFormat;
  is3D = 1;
}

void Texture::Load(const void* pixels, int x, int y, int rectWidth, int rectHeight) {
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);  // planes of any width come without row padding
  if (is3D) {
    glBindTexture(GL_TEXTURE_3D, id);
    glTexSubImage3D(GL_TEXTURE_3D, 0, x, y, 0, rectWidth, rectHeight, depth, format, GL_UNSIGNED_BYTE, pixels);
  } else {
    glBindTexture(GL_TEXTURE_2D, id);
    glTexSubImage2D(GL_TEXTURE_2D, 0, x, y, rectWidth, rectHeight, format, GL_UNSIGNED_BYTE, pixels);
  }
}

void Texture::Load(const void* pixels) {
  Load(pixels, 0, 0, width, height);
}

void Texture::Release(EGLEngine* egl) {
  Release();
  if (eglImage != nullptr) egl->DestroyImage(eglImage);
  eglImage = nullptr;
}

void Texture::Release() {
  if (id != ~0u) glDeleteTextures(1, &id);
  id = ~0u;
}

}  // namespace noxel
