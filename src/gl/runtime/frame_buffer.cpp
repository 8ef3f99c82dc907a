#include "gl/runtime/frame_buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "gl/runtime/egl_engine.h"
#include "platform/log.h"
#include "platform/stopwatch.h"

namespace noxel {

FrameBuffer::~FrameBuffer() {
  deleteObjects();
}

FrameBuffer::FrameBuffer(FrameBuffer&& other) noexcept {
  *this = std::move(other);
}

FrameBuffer& FrameBuffer::operator=(FrameBuffer&& other) noexcept {
  std::swap(framebufferId, other.framebufferId);
  std::swap(textureId, other.textureId);
  std::swap(width, other.width);
  std::swap(height, other.height);
  std::swap(format, other.format);
  std::swap(eglImage, other.eglImage);
  std::swap(packBuffers, other.packBuffers);
  std::swap(packBufferCount, other.packBufferCount);
  std::swap(packBufferSize, other.packBufferSize);
  std::swap(writeIndex, other.writeIndex);
  std::swap(readIndex, other.readIndex);
  std::swap(writtenBuffers, other.writtenBuffers);
  std::swap(complete, other.complete);
  return *this;
}

FrameBuffer FrameBuffer::make(int width, int height, GLenum filter) {
  FrameBuffer image;
  image.Init(width, height, GL_RGBA, filter);
  return image.complete ? std::move(image) : FrameBuffer();
}

void FrameBuffer::Reset() {
  framebufferId = ~0u;
  textureId = ~0u;
  width = 0;
  height = 0;
  format = ~0u;
  eglImage = nullptr;
  complete = false;
}

int FrameBuffer::Invalidate() {
  Reset();
  return 1;
}

int FrameBuffer::Generate() {
  glGenFramebuffers(1, &framebufferId);
  glGenTextures(1, &textureId);
  return 1;
}

int FrameBuffer::Init(int imageWidth, int imageHeight, GLenum imageFormat, GLenum filter) {
  if (framebufferId == ~0u && Generate() == 0) return 0;
  glBindFramebuffer(GL_FRAMEBUFFER, framebufferId);
  glBindTexture(GL_TEXTURE_2D, textureId);
  glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(imageFormat), imageWidth, imageHeight, 0, imageFormat,
               GL_UNSIGNED_BYTE, nullptr);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, static_cast<GLint>(filter));
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, static_cast<GLint>(filter));
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, textureId, 0);
  complete = CheckStatus("FrameBuffer");
  eglImage = nullptr;
  width = imageWidth;
  height = imageHeight;
  format = imageFormat;
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  return 1;
}

int FrameBuffer::UseDefaultFramebuffer(int imageWidth, int imageHeight) {
  width = imageWidth;
  height = imageHeight;
  framebufferId = 0;
  return 1;
}

void FrameBuffer::Bind() {
  glBindFramebuffer(GL_FRAMEBUFFER, framebufferId);
  glViewport(0, 0, width, height);
}

bool FrameBuffer::CheckStatus(const char* label) {
  const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
  const char* reason = "not listed";
  switch (status) {
    case 0:
      NOXEL_LOG_ERROR("Checking completeness of Framebuffer:%s", label);
      return false;
    case GL_FRAMEBUFFER_COMPLETE:
      return true;
    case GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT:
      reason = "attachment";
      break;
    case GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT:
      reason = "missing attachment";
      break;
    case GL_FRAMEBUFFER_INCOMPLETE_DIMENSIONS:
      reason = "dimensions";
      break;
    case GL_FRAMEBUFFER_UNSUPPORTED:
      reason = "unsupported";
      break;
    default:
      break;
  }
  NOXEL_LOG_ERROR("Framebuffer: %s is INCOMPLETE: %s, %x", label, reason, status);
  return false;
}

void FrameBuffer::ReadPixels(int x, int y, int rectWidth, int rectHeight, GLenum pixelFormat, GLenum type,
                             void* pixels) {
  glBindFramebuffer(GL_FRAMEBUFFER, framebufferId);
  glReadPixels(x, y, rectWidth, rectHeight, pixelFormat, type, pixels);
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

int FrameBuffer::InitPixelBuffers(int size, int count) {
  packBufferCount = std::min(count, 3);
  packBufferSize = size;
  writeIndex = 0;
  writtenBuffers = 0;
  if (packBufferCount < 1) return 1;
  glGenBuffers(packBufferCount, packBuffers);
  for (int i = 0; i < packBufferCount; ++i) {
    glBindBuffer(GL_PIXEL_PACK_BUFFER, packBuffers[i]);
    glBufferData(GL_PIXEL_PACK_BUFFER, size, nullptr, GL_STREAM_READ);
  }
  glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
  return 1;
}

void FrameBuffer::RestartReadBack() {
  writtenBuffers = 0;
}

void FrameBuffer::advanceRing() {
  writeIndex = (writeIndex + 1) % packBufferCount;
  writtenBuffers = std::min(writtenBuffers + 1, packBufferCount);
  // Oldest written since the restart: with a full ring the one after writeIndex.
  readIndex = (writeIndex + 1 + packBufferCount - writtenBuffers) % packBufferCount;
}

void FrameBuffer::StartReadPixels() {
  if (packBufferCount < 1) return;
  advanceRing();
  startWatch(31);
  glReadBuffer(GL_COLOR_ATTACHMENT0);
  glBindBuffer(GL_PIXEL_PACK_BUFFER, packBuffers[writeIndex]);
  glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
  glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
}

bool FrameBuffer::copyPackBuffer(int index, unsigned char* dst) {
  glBindBuffer(GL_PIXEL_PACK_BUFFER, packBuffers[index]);
  const void* mapped = glMapBufferRange(GL_PIXEL_PACK_BUFFER, 0, packBufferSize, GL_MAP_READ_BIT);
  bool copied = false;
  if (mapped != nullptr) {
    std::memcpy(dst, mapped, static_cast<size_t>(packBufferSize));
    copied = glUnmapBuffer(GL_PIXEL_PACK_BUFFER) == GL_TRUE;  // else the driver lost the contents meanwhile
  }
  glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
  return copied;
}

bool FrameBuffer::ReadPixelsAsync(unsigned char* dst, int mode) {
  if (packBufferCount < 1) return false;
  StartReadPixels();
  return copyPackBuffer(mode == 1 ? writeIndex : readIndex, dst);
}

bool FrameBuffer::FinishReadPixels(unsigned char* dst) {
  return packBufferCount >= 1 && copyPackBuffer(readIndex, dst);
}

const void* FrameBuffer::MapReadPixels() {
  if (packBufferCount < 1) return nullptr;
  glBindBuffer(GL_PIXEL_PACK_BUFFER, packBuffers[readIndex]);
  return glMapBufferRange(GL_PIXEL_PACK_BUFFER, 0, packBufferSize, GL_MAP_READ_BIT);
}

void FrameBuffer::deleteObjects() {
  if (textureId != ~0u) glDeleteTextures(1, &textureId);
  if (framebufferId != ~0u && framebufferId != 0) glDeleteFramebuffers(1, &framebufferId);
  if (packBufferCount > 0) glDeleteBuffers(packBufferCount, packBuffers);
  packBufferCount = 0;
}

void FrameBuffer::Release(EGLEngine* egl) {
  deleteObjects();
  if (eglImage != nullptr) egl->DestroyImage(eglImage);
  Reset();
}

}  // namespace noxel
