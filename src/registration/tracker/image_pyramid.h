// The smoothed image pyramid of one frame.
#pragma once

#include <cstdint>

#include "kernels/worker_pool.h"

namespace noxel::tracker {

inline constexpr int kMaxLevels = 8;
inline constexpr int kLevelsPerUnit = 16;  // samples are sixteenths of an 8-bit level, 0..4080

struct Image {
  int width = 0;
  int height = 0;
  int16_t* pixels = nullptr;  // no padding; frame point (x, y) is (x, y) / 2^level here, pixel centres at + 0.5
};

// Level 0 is the frame smoothed by the binomial kernel (1 2 1)^2 / 16; each coarser level is the mean of 2 x 2 samples
// smoothed likewise. Smoothing keeps noise out of the gradients, and interpolation errors small.
class ImagePyramid {
 public:
  ImagePyramid() = default;
  ~ImagePyramid();
  ImagePyramid(const ImagePyramid&) = delete;
  ImagePyramid& operator=(const ImagePyramid&) = delete;

  bool allocate(int width, int height, int levels);  // empty levels are left out
  void buildFinest(const uint8_t* frame, WorkerPool* pool);
  void buildCoarser(WorkerPool* pool);  // from the finest level

  int levels() const { return levelCount_; }
  const Image& level(int index) const { return images_[index]; }

 private:
  int levelCount_ = 0;
  Image images_[kMaxLevels];
  int16_t* halved_ = nullptr;  // a level before it is smoothed
};

}  // namespace noxel::tracker
