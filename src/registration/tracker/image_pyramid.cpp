#include "registration/tracker/image_pyramid.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "registration/tracker/bands.h"

namespace noxel::tracker {
namespace {

constexpr int kChunk = 256;  // samples smoothed at a time: their column sums stay in the L1 cache

// (1 2 1)^2, edges repeated. The weights' sum, 16, is shifted out: by 0 for bytes, 4 for samples in sixteenths.
template <class Sample, int shift>
void smoothRows(const Sample* from, int width, int height, int16_t* to, int firstRow, int endRow) {
  for (int y = firstRow; y < endRow; ++y) {
    const Sample* above = from + ptrdiff_t{std::max(y - 1, 0)} * width;
    const Sample* here = from + ptrdiff_t{y} * width;
    const Sample* below = from + ptrdiff_t{std::min(y + 1, height - 1)} * width;
    int16_t* line = to + ptrdiff_t{y} * width;
    for (int start = 0; start < width; start += kChunk) {
      const int count = std::min(kChunk, width - start);
      uint16_t columns[kChunk + 2];  // of start - 1 .. start + count
      const auto column = [&](int x) { return static_cast<uint16_t>(above[x] + 2 * here[x] + below[x]); };
      const Sample* a = above + start;
      const Sample* h = here + start;
      const Sample* b = below + start;
      for (int x = 0; x < count; ++x) columns[x + 1] = static_cast<uint16_t>(a[x] + 2 * h[x] + b[x]);
      columns[0] = column(std::max(start - 1, 0));
      columns[count + 1] = column(std::min(start + count, width - 1));
      constexpr int half = shift > 0 ? 1 << (shift - 1) : 0;
      int16_t* out = line + start;
      for (int x = 0; x < count; ++x) {
        const auto sum = static_cast<uint16_t>(columns[x] + 2 * columns[x + 1] + columns[x + 2] + half);
        out[x] = static_cast<int16_t>(sum >> shift);
      }
    }
  }
}

void halveRows(const Image& from, int width, int16_t* to, int firstRow, int endRow) {
  for (int y = firstRow; y < endRow; ++y) {
    const int16_t* upper = from.pixels + ptrdiff_t{2} * y * from.width;
    const int16_t* lower = upper + from.width;
    int16_t* line = to + ptrdiff_t{y} * width;
    for (int x = 0; x < width; ++x) {
      line[x] = static_cast<int16_t>((upper[2 * x] + upper[2 * x + 1] + lower[2 * x] + lower[2 * x + 1] + 2) >> 2);
    }
  }
}

}  // namespace

ImagePyramid::~ImagePyramid() {
  for (Image& image : images_) std::free(image.pixels);
  std::free(halved_);
}

bool ImagePyramid::allocate(int width, int height, int levels) {
  halved_ = static_cast<int16_t*>(std::malloc(
      sizeof(int16_t) * std::max<size_t>(static_cast<size_t>(width / 2) * static_cast<size_t>(height / 2), 1)));
  if (halved_ == nullptr) return false;
  for (int i = 0; i < std::min(levels, kMaxLevels); ++i) {
    const int levelWidth = width >> i;
    const int levelHeight = height >> i;
    if (levelWidth < 1 || levelHeight < 1) break;
    images_[i].width = levelWidth;
    images_[i].height = levelHeight;
    images_[i].pixels = static_cast<int16_t*>(
        std::malloc(sizeof(int16_t) * static_cast<size_t>(levelWidth) * static_cast<size_t>(levelHeight)));
    if (images_[i].pixels == nullptr) return false;
    levelCount_ = i + 1;
  }
  return levelCount_ > 0;
}

void ImagePyramid::buildFinest(const uint8_t* frame, WorkerPool* pool) {
  const Image& first = images_[0];
  forBands(pool, first.height, first.width, [&](int begin, int end) {
    smoothRows<uint8_t, 0>(frame, first.width, first.height, first.pixels, begin, end);
  });
}

void ImagePyramid::buildCoarser(WorkerPool* pool) {
  for (int i = 1; i < levelCount_; ++i) {
    const Image& finer = images_[i - 1];
    const Image& image = images_[i];
    forBands(pool, image.height, image.width,
             [&](int begin, int end) { halveRows(finer, image.width, halved_, begin, end); });
    forBands(pool, image.height, image.width, [&](int begin, int end) {
      smoothRows<int16_t, 4>(halved_, image.width, image.height, image.pixels, begin, end);
    });
  }
}

}  // namespace noxel::tracker
