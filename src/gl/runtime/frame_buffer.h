// A framebuffer object with one colour texture, and the ring of pixel-pack buffers its image is read back through.
#pragma once

#include <cstdint>

#include "gl/runtime/gl.h"

namespace noxel {

class EGLEngine;

// What a texel of an image holds.
enum class Texels : uint8_t {
  kBytes,         // RGBA, 8 bits each
  kWords,         // RGBA, unsigned integers of 16 bits: read by texelFetch alone
  kTwiceInWords,  // two textures of words, drawn into by one pass
};

// GPU thread only. Move-only; the destructor deletes the GL objects, so it runs while the context is current. An object
// without GL names makes no GL call.
class FrameBuffer {
 public:
  FrameBuffer() = default;
  ~FrameBuffer();
  FrameBuffer(FrameBuffer&& other) noexcept;
  FrameBuffer& operator=(FrameBuffer&& other) noexcept;

  // An RGBA image that can be drawn into, or an object without GL names (the log says why).
  static FrameBuffer make(int width, int height, GLenum filter = GL_LINEAR, Texels texels = Texels::kBytes);
  bool isThere() const { return framebufferId != ~0u; }

  // Allocates the image (8 bits per channel, clamped to the edge), and the GL names where there are none yet. Returns 1; an
  // incomplete framebuffer is only logged.
  int Init(int width, int height, GLenum format, GLenum filter = GL_LINEAR);
  int Generate();
  int UseDefaultFramebuffer(int width, int height);  // the window's surface from here on; required, not used
  void Bind();                                       // and the viewport over the whole image

  GLuint GetTextureId() const { return textureId; }
  GLuint GetFramebufferId() const { return framebufferId; }
  GLenum GetFormat() const { return format; }
  int GetWidth() const { return width; }
  int GetHeight() const { return height; }

  // Whether the last Init made a framebuffer that can be drawn into.
  bool IsComplete() const { return complete; }
  bool CheckStatus(const char* label);  // of the bound framebuffer; false and a log line unless complete

  // Blocks until the image is finished. attachment: of the texture that is read.
  void ReadPixels(int x, int y, int width, int height, GLenum format, GLenum type, void* pixels,
                  GLenum attachment = GL_COLOR_ATTACHMENT0);

  // Two textures of words, one after the other, row by row. Reading blocks until they are finished; scratch: of one of them as
  // 32-bit words.
  void LoadWords(const uint16_t* words);
  void ReadWords(uint16_t* words, uint32_t* scratch);

  // Makes `count` pack buffers (at most 3; none for a count below 1) of `size` bytes. Once per object.
  int InitPixelBuffers(int size, int count);
  // Only buffers written since the last restart are read.
  void RestartReadBack();

  // Starts the read-back of the bound framebuffer's whole image (RGBA) into the next pack buffer and copies a finished one
  // to `dst`: with mode 1 the image just started (blocks), otherwise the oldest in the ring, count - 1 calls old once the
  // ring is full. False when there is no buffer or it could not be mapped (`dst` is untouched), or when its contents were lost.
  bool ReadPixelsAsync(unsigned char* dst, int mode);

  // The two halves of ReadPixelsAsync, for work between them. MapReadPixels leaves the oldest buffer mapped and bound for the
  // caller to unmap; null on failure. Required; the engine does not use it.
  void StartReadPixels();
  bool FinishReadPixels(unsigned char* dst);
  const void* MapReadPixels();

  void Release(EGLEngine* egl);  // deletes everything and empties the object
  int Invalidate();              // empties the object without deleting
  void Reset();

  GLuint framebufferId = ~0u;  // 0: the default framebuffer
  GLuint textureId = ~0u;
  GLuint secondTextureId = ~0u;  // of colour attachment 1
  int width = 0;
  int height = 0;
  GLenum format = ~0u;
  void* eglImage = nullptr;
  GLuint packBuffers[3] = {};
  int packBufferCount = 0;
  int packBufferSize = 0;
  int writeIndex = 0;      // receives the next glReadPixels
  int readIndex = 0;       // is mapped and copied out
  int writtenBuffers = 0;  // since the last restart, at most packBufferCount
  bool complete = false;

 private:
  void initWords(int width, int height, int textures);
  void attachWords(GLenum attachment, GLuint texture);
  void deleteObjects();
  void advanceRing();
  bool copyPackBuffer(int index, unsigned char* dst);
};

}  // namespace noxel
