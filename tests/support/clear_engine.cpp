#include "support/clear_engine.h"

#include <algorithm>

namespace noxel {

using reference::Canvas;
using reference::Plane;

ClearEngine::ClearEngine(int width, int height) : output(width, height) {
  const HandOver handOver = {output.bytes.data(), &mutex_, &queued_, &sequence_, &initialized_, 0, 1,
                             &callerSignal_,      &ready_, &notes};
  CreateGPUEngine(width, height, handOver, kModeClear, &gpu);
  frame.settings.noiseReductionStrength = 50;
  std::fill_n(frame.noise.luma, FrameNoise::kEntries, 0.1f);
  std::fill_n(frame.noise.blue, FrameNoise::kEntries, 0.1f);
  std::fill_n(frame.noise.red, FrameNoise::kEntries, 0.1f);
}

const TestFrame& ClearEngine::draw(const TestFrame& given, const View* previousFromCurrent, const View& stabilized) {
  TestFrame pixels = given;
  frame.buffer = pixels.bytes.data();
  frame.status = previousFromCurrent != nullptr ? 1 : 0;
  if (previousFromCurrent != nullptr) {
    store(frame.motion.frameMatrixA, *previousFromCurrent);
    store(frame.motion.frameMatrixB, inverted(*previousFromCurrent));
  }
  store(frame.motion.stabilizationTransform, stabilized);
  queued_ = 1;
  prepareFrame(gpu, frame);
  processFrame(gpu);
  EXPECT_EQ(queued_.load(), 0);
  return output;
}

std::vector<Plane> ClearEngine::channels(Image image) {
  FrameBuffer* target = frameBufferOf(gpu, image);
  const int width = target->GetWidth(), height = target->GetHeight();
  target->Bind();
  const bool isSecond = textureOf(gpu, image) != target->GetTextureId();
  glReadBuffer(isSecond ? GL_COLOR_ATTACHMENT1 : GL_COLOR_ATTACHMENT0);
  GLint type = 0;
  const GLenum attachment = isSecond ? GL_COLOR_ATTACHMENT1 : GL_COLOR_ATTACHMENT0;
  glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, attachment, GL_FRAMEBUFFER_ATTACHMENT_COMPONENT_TYPE, &type);
  std::vector<uint32_t> values(static_cast<size_t>(width * height) * 4);
  if (type == GL_UNSIGNED_INT) {
    glReadPixels(0, 0, width, height, GL_RGBA_INTEGER, GL_UNSIGNED_INT, values.data());
  } else {
    std::vector<unsigned char> bytes(values.size());
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, bytes.data());
    std::copy(bytes.begin(), bytes.end(), values.begin());
  }
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  glReadBuffer(GL_COLOR_ATTACHMENT0);
  std::vector<Plane> planes(4, Plane(width, height));
  for (int i = 0; i < width * height; ++i) {
    for (size_t c = 0; c < 4; ++c) planes[c].at(i % width, i / width) = values[static_cast<size_t>(i) * 4 + c];
  }
  return planes;
}

Plane ClearEngine::cells(Image image) {
  const std::vector<Plane> planes = channels(image);
  Plane luma(2 * planes[0].width, 2 * planes[0].height);
  for (int y = 0; y < luma.height; ++y) {
    for (int x = 0; x < luma.width; ++x) {
      const double stored = planes[static_cast<size_t>(y % 2 * 2 + x % 2)].at(x / 2, y / 2);
      // 8 bits; 12 and four of the count; 8.8.
      const bool counted = image == Image::kBlend || image == Image::kPicture;
      luma.at(x, y) = image == Image::kCells ? stored : counted ? static_cast<int>(stored) / 16 / 16.0 : stored / 256;
    }
  }
  return luma;
}

Canvas ClearEngine::read(Image image) {
  const std::vector<Plane> colours = channels(static_cast<Image>(static_cast<int>(image) + 1));
  Canvas canvas = {cells(image), colours[0], colours[1], colours[2]};
  for (int y = 0; y < canvas.count.height; ++y) {
    for (int x = 0; x < canvas.count.width; ++x) {
      canvas.blue.at(x, y) /= 256;
      canvas.red.at(x, y) /= 256;
      canvas.count.at(x, y) /= 2048;
    }
  }
  return canvas;
}

}  // namespace noxel
