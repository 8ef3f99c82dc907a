// The noise of a video's frames, whether or not a codec has been over them.
//
// A codec repeats the noise of one frame in those that follow: it leaves a block as it is until the difference is worth its
// bits. Between neighbours the quietest blocks do not differ at all then, and a NoiseMeter, which goes by those, sees hardly
// any noise; between frames further apart most blocks were coded anew. So it is measured there as well, along the motions
// between them taken together and by most of the blocks, and holds where it is so much larger that motion does not explain
// it. Of frames as a camera has them both say the same, and that of neighbours holds: it has more to go by, and no error of
// motion adds up.
#pragma once

#include <cstdint>

#include "registration/noise_curve.h"

namespace noxel {

// One thread.
class VideoNoise {
 public:
  static constexpr int kApart = 16;  // frames

  // As those of NoiseMeter.
  bool allocate(int width, int height);
  void restart();
  void measure(const uint8_t* luma, const float* previousFromCurrent, const ChromaPlanes& chroma = {});

  const NoiseCurve& curve() const { return curve_; }

 private:
  void draw();

  static constexpr float kMostBlocks = 0.75f;

  NoiseMeter near_;
  NoiseMeter apart_{kMostBlocks};
  bool hasEarlier_ = false;
  double earlierFromCurrent_[6] = {};  // affine, row-major: to the pixels of the frame that `apart_` saw last
  int frames_ = 0;                     // since that one
  NoiseCurve curve_;
};

}  // namespace noxel
