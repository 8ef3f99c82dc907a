// What stays in place while the scene moves: a sensor's fixed pattern, hot pixels, bars, a logo, dirt on the lens.
#pragma once

#include <cstdint>

#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"
#include "registration/tracker/picture_frame.h"

namespace noxel::tracker {

// Learns the pattern P from the residuals r of frames compared along their motion, from which it was subtracted:
//
//   r(x) = I(x) - J(x before the motion),   P(x) += rate r(x)
//
// The rest of the pattern in J lies elsewhere in every frame and averages out, as noise does. A row's mean has little
// noise and is learned faster. Until a sample of the rows shows that residuals repeat, only these rows are learned and
// nothing is subtracted. Registration thread only.
class FixedPattern {
 public:
  FixedPattern() = default;
  ~FixedPattern();
  FixedPattern(const FixedPattern&) = delete;
  FixedPattern& operator=(const FixedPattern&) = delete;

  bool allocate(const Image& image, const PictureFrame& frame);
  void forget();
  bool isPresent() const { return present_; }
  // Subtracts what is known of the pattern from a frame's smoothed image.
  void subtract(const Image& image, WorkerPool* pool) const;
  // From two such images, and the motion between them.
  void learn(const Image& previous, const Image& current, const GlobalMotion& motion, WorkerPool* pool);

 private:
  struct Signs {
    int alike;  // residuals of the pattern's sign
    int unlike;
  };
  Signs learnRow(const Image& previous, const Image& current, const double (&previousFromCurrent)[6], int row,
                 float rate);
  double repetition() const;

  PictureFrame frame_;
  int width_ = 0;
  int height_ = 0;
  int16_t* pattern_ = nullptr;   // in 1/256 of an 8-bit level
  int16_t* residual_ = nullptr;  // scratch, in samples
  Signs* signs_ = nullptr;       // per row
  int learned_ = 0;              // frames
  double repetition_ = 0.0;      // of signs in new residuals, -1..1, smoothed
  bool present_ = false;
};

}  // namespace noxel::tracker
