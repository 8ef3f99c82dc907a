// A GL texture filled from memory: a plane of a frame, a look-up table.
#pragma once

#include "gl/runtime/gl.h"

namespace noxel {

class EGLEngine;

// 8 bits per channel. GPU thread only. The destructor frees nothing: Release does, while the context is current.
class Texture {
 public:
  // `format` is both the internal and the pixel format. `pixels` (width * height texels, no row padding) may be null. The
  // texture stays bound to its target.
  void Init(int width, int height, GLenum format, GLenum filter = GL_LINEAR, GLenum wrap = GL_CLAMP_TO_EDGE,
            const void* pixels = nullptr);
  void Init3D(int width, int height, int depth, GLenum format, GLenum filter = GL_LINEAR,
              GLenum wrap = GL_CLAMP_TO_EDGE);

  // Uploads a rectangle (for a 3D texture: of every slice), rows tightly packed whatever their length.
  void Load(const void* pixels, int x, int y, int width, int height);
  void Load(const void* pixels);  // the whole texture

  GLuint GetId() const { return id; }

  void Release(EGLEngine* egl);  // the EGL image too
  void Release();

  int width = -1;
  int height = -1;
  GLenum format = 0;
  GLuint id = ~0u;
  void* eglImage = nullptr;
  int depth = -1;
  int is3D = 0;

 private:
  void create(GLenum target, GLenum filter, GLenum wrap);
};

}  // namespace noxel
