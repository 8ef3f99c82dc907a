// A GL texture filled from memory: a plane of a frame, a look-up table.
#pragma once

#include "gl/runtime/gl.h"

namespace noxel {

class EGLEngine;

// 8 bits per channel. Move-only; the destructor deletes the GL texture, so it runs on the GPU thread while the context is
// current. An object without a texture makes no GL call.
class Texture {
 public:
  Texture() = default;
  ~Texture() { Release(); }
  Texture(Texture&& other) noexcept { swap(other); }
  Texture& operator=(Texture&& other) noexcept {
    swap(other);
    return *this;
  }

  // Init, or an object without a texture when GL failed.
  static Texture make(int width, int height, GLenum format, GLenum filter = GL_LINEAR, GLenum wrap = GL_CLAMP_TO_EDGE,
                      const void* pixels = nullptr);
  bool isThere() const { return id != ~0u; }

  // `format` is both the internal and the pixel format. `pixels` (width * height texels, no row padding) may be null. The
  // texture stays bound to its target. A texture that was there before is deleted.
  void Init(int width, int height, GLenum format, GLenum filter = GL_LINEAR, GLenum wrap = GL_CLAMP_TO_EDGE,
            const void* pixels = nullptr);
  // Required; nothing uses a volume.
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
  void swap(Texture& other) noexcept;
  void create(GLenum target, GLenum filter, GLenum wrap);
};

}  // namespace noxel
