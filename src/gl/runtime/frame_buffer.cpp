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
  std::swap(secondTextureId, other.secondTextureId);
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

FrameBuffer FrameBuffer::make(int width, int height, GLenum filter, Texels texels) {
  FrameBuffer image;
  if (texels == Texels::kBytes) {
    image.Init(width, height, GL_RGBA, filter);
  } else {
    image.initWords(width, height, texels == Texels::kTwiceInWords ? 2 : 1);
  }
  return image.complete ? std::move(image) : FrameBuffer();
}

void FrameBuffer::Reset() {
  framebufferId = ~0u;
  textureId = ~0u;
  secondTextureId = ~0u;
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

void FrameBuffer::attachWords(GLenum attachment, GLuint texture) {
  glBindTexture(GL_TEXTURE_2D, texture);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA16UI, width, height, 0, GL_RGBA_INTEGER, GL_UNSIGNED_SHORT, nullptr);
  for (const GLenum parameter : {GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER}) {
    glTexParameteri(GL_TEXTURE_2D, parameter, GL_NEAREST);
  }
  for (const GLenum parameter : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T}) {
    glTexParameteri(GL_TEXTURE_2D, parameter, GL_CLAMP_TO_EDGE);
  }
  glFramebufferTexture2D(GL_FRAMEBUFFER, attachment, GL_TEXTURE_2D, texture, 0);
}

void FrameBuffer::initWords(int imageWidth, int imageHeight, int textures) {
  static constexpr GLenum kTargets[] = {GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT1};
  Generate();
  width = imageWidth;
  height = imageHeight;
  format = GL_RGBA16UI;
  glBindFramebuffer(GL_FRAMEBUFFER, framebufferId);
  attachWords(GL_COLOR_ATTACHMENT0, textureId);
  if (textures == 2) {
    glGenTextures(1, &secondTextureId);
    attachWords(GL_COLOR_ATTACHMENT1, secondTextureId);
  }
  glDrawBuffers(textures, kTargets);
  complete = CheckStatus("FrameBuffer");
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
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

void FrameBuffer::ReadPixels(int x, int y, int rectWidth, int rectHeight, GLenum pixelFormat, GLenum type, void* pixels,
                             GLenum attachment) {
  glBindFramebuffer(GL_FRAMEBUFFER, framebufferId);
  if (attachment != GL_COLOR_ATTACHMENT0) glReadBuffer(attachment);
  glReadPixels(x, y, rectWidth, rectHeight, pixelFormat, type, pixels);
  if (attachment != GL_COLOR_ATTACHMENT0) glReadBuffer(GL_COLOR_ATTACHMENT0);
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

void FrameBuffer::LoadWords(const uint16_t* words) {
  const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
  for (const GLuint texture : {textureId, secondTextureId}) {
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RGBA_INTEGER, GL_UNSIGNED_SHORT, words);
    words += count;
  }
}

// 32-bit words are what every driver reads back; 16-bit ones where it says so.
void FrameBuffer::ReadWords(uint16_t* words, uint32_t* scratch) {
  const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
  glBindFramebuffer(GL_FRAMEBUFFER, framebufferId);
  for (const GLenum attachment : {GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT1}) {
    GLint readFormat = 0, type = 0;
    glReadBuffer(attachment);
    glGetIntegerv(GL_IMPLEMENTATION_COLOR_READ_FORMAT, &readFormat);
    glGetIntegerv(GL_IMPLEMENTATION_COLOR_READ_TYPE, &type);
    if (readFormat == GL_RGBA_INTEGER && type == GL_UNSIGNED_SHORT) {
      glReadPixels(0, 0, width, height, GL_RGBA_INTEGER, GL_UNSIGNED_SHORT, words);
    } else {
      glReadPixels(0, 0, width, height, GL_RGBA_INTEGER, GL_UNSIGNED_INT, scratch);
      std::transform(scratch, scratch + count, words, [](uint32_t word) { return static_cast<uint16_t>(word); });
    }
    words += count;
  }
  glReadBuffer(GL_COLOR_ATTACHMENT0);
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
  if (secondTextureId != ~0u) glDeleteTextures(1, &secondTextureId);
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
