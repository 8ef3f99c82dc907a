#include "api/frame_conversion.h"

#include <cstring>

#include "api/engine.h"
#include "kernels/planes.h"
#include "platform/stopwatch.h"

namespace noxel {
namespace {

// Samples of the luma plane and of one chroma plane.
struct PlaneSizes {
  size_t luma;
  size_t chroma;
};

// A chroma plane as one row: a quarter of the samples is no rectangle where a side is odd.
template <class Byte>
auto oneRow(Byte* pixels, size_t count) {
  return kernels::packed(pixels, static_cast<int>(count), 1);
}

PlaneSizes planeSizes(int width, int height) {
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  return {luma, luma / 4};
}

}  // namespace

void copyAndConvertInput(unsigned char* destination, const unsigned char* frame, int width, int height,
                         int imageFormat) {
  startWatch(10);
  if (imageFormat == kFormatNv21) {
    std::memcpy(destination, frame, frameSize(width, height));
  } else if (imageFormat == kFormatYv12) {
    const PlaneSizes sizes = planeSizes(width, height);
    const unsigned char* v = frame + sizes.luma;
    std::memcpy(destination, frame, sizes.luma);
    kernels::interleave(oneRow(v, sizes.chroma), oneRow(v + sizes.chroma, sizes.chroma),
                        oneRow(destination + sizes.luma, 2 * sizes.chroma));
  }
  stopWatch("copyAndConvertInput", 10);
}

void copyAndConvertOutput(unsigned char* frame, const unsigned char* source, int width, int height, int imageFormat) {
  startWatch(9);
  if (imageFormat == kFormatNv21) {
    std::memcpy(frame, source, frameSize(width, height));
  } else if (imageFormat == kFormatYv12) {
    const PlaneSizes sizes = planeSizes(width, height);
    unsigned char* v = frame + sizes.luma;
    std::memcpy(frame, source, sizes.luma);
    kernels::deinterleave(oneRow(source + sizes.luma, 2 * sizes.chroma), oneRow(v, sizes.chroma),
                          oneRow(v + sizes.chroma, sizes.chroma));
  }
  stopWatch("copyAndConvertOutput", 9);
}

}  // namespace noxel
