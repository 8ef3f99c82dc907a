// How strong a frame's noise is, by luma.
//
// Measured in the differences d between the frame and the one before it, in blocks of 16 x 16 pixels of a sample:
//
//   d         at the motion rounded to whole pixels, so that no interpolation smooths the noise. Where a block's texture
//             says that it moved otherwise (depth), by Lucas and Kanade, its own motion; or its neighbour's.
//   variance  var(d) / 2, after least squares has taken a constant, the sum s of both frames and its gradient out of d:
//             brightness, contrast, the fraction of a pixel. n = 128 pixels of half a block have n - 2 - (1 + 2 r)^2 -
//             (1 + 2 r^2)^2 degrees of freedom left: r is the noise's correlation over one pixel, measured in d; a constant
//             takes more from correlated noise than one.
//   texture   what is finer than the pixels passes that: on photos in proportion to p = (f^2 + 0.01) t, f the fraction of a
//             pixel that the rounding leaves, t the energy of the second differences that both frames share. The slope of
//             variance over p, of this frame's blocks, is the factor; variance less factor * p is the noise. No variance is
//             above 1.2 times what the steps of d from row to row allow: d of another place is smoother than noise.
//   trust     half of the texture u taken out is taken for uncertain: a block counts 1 / (1 + (5 u / variance)^2).
//   quietest  the quarter, by default, of an entry's blocks in which nothing else moves: chosen by one half of the block and
//             by the blocks around it, measured in the other half. The quietest by what is measured itself would be too quiet, by
//             an amount that depends on the noise's correlation. Their median counts, and all is relative to the curve so
//             far, so that an entry's slope does not choose.
//   curve     each entry the mean over frames weighted by trusted blocks, of the last few where they are many; it falls
//             faster than it rises, as texture only adds. Too high is worse than too low for whoever tells noise from motion
//             by it: an entry is held at 1.2 times what the quiet blocks of any other luma allow with their texture left in,
//             as noise grows at most as luma + 16 does (or falls, under a gamma), and is lowered by a quarter of the texture
//             relative to the noise. The curve is the line through the entries (read noise, and shot noise proportional to
//             luma) plus a smooth deviation; where an entry has seen nothing it leads to its neighbours and then to the
//             line. An entry above what its neighbours say counts the less.
//   chroma    8 x 8 samples where a block is quiet in luma, in the same way. Luma's curve times a factor for each plane: the
//             same pixels made both. The factor is the median over the blocks in which the other plane is quiet.
//
// What is measured is the noise as it stands in 8 bits: rounding adds 1/12, and at black and white the variance is that of
// what is left after clipping. Luma is the mean that the frames show. Left out are blocks that share a row or column of
// pixels with the frame before (bars, logos), unless most do. Noise that stays where it is while the picture stands still (a
// sensor's fixed pattern) is not in the differences. Frames that repeat say nothing, unless there was never a difference.
//
// A frame without a frame before it is measured in 8 x 8 pixels less the plane through them, limited by their finest
// detail at the ratio that the flattest blocks have: good to a factor of about 1.5 where a picture has flat places. Texture as
// fine as noise passes for it, until the first difference, which replaces all of this.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel {

// Variance of single pixels, in 8-bit levels squared; entry i is for luma 8 i .. 8 i + 7.
struct NoiseCurve {
  static constexpr int kEntries = 32;
  float variance[kEntries] = {};  // finite, 0 or more
  bool known = false;             // false: nothing was measured yet, all entries are 0

  // The same of single samples of U and of V, at chroma resolution; entry i is for that luma, too.
  float chromaVariance[2][kEntries] = {};
  bool chromaKnown = false;
};

// U and V of a frame, each half as wide and high as its luma (rounded down).
struct ChromaPlanes {
  const uint8_t* samples[2] = {};  // the first of U, of V; null: not measured
  ptrdiff_t pixelStride = 1;       // 2: interleaved
  ptrdiff_t rowStride = 0;
};

// One thread.
class NoiseMeter {
 public:
  NoiseMeter() = default;
  // The share of an entry's blocks that count, the quietest ones.
  explicit NoiseMeter(float quietShare) : quietShare_(quietShare) {}
  ~NoiseMeter();
  NoiseMeter(const NoiseMeter&) = delete;
  NoiseMeter& operator=(const NoiseMeter&) = delete;

  // Everything that measure() needs; further calls change nothing. False: out of memory.
  bool allocate(int width, int height);

  // The next frame begins a sequence.
  void restart();

  // Updates the curve.
  //   luma                  width * height pixels, not kept
  //   previousFromCurrent   3 x 3, row-major, affine: pixels of this frame to pixels of the one before, the centre of the
  //                         first at (0.5, 0.5). Null: not known
  //   chroma                of the same frame, not kept either; without it the chroma's factors stay
  void measure(const uint8_t* luma, const float* previousFromCurrent, const ChromaPlanes& chroma = {});

  const NoiseCurve& curve() const { return curve_; }
  // Whether it was measured between frames, and not within one alone.
  bool knowsDifferences() const { return fromDifferences_; }

 private:
  struct Block {
    bool read;
    bool suspect;  // shares a row or column with the frame before
    float luma;
    float variance[2];  // of its halves
    float fine[2];      // of white noise with the same steps from row to row
    float passed[2];    // texture that the fraction of a pixel lets pass, but for a factor
    float texture;      // what the picture adds to them, about
    float correlation;  // over one pixel
    float trust;
    float ratio[2];  // of the variances to the curve so far
    float raw;       // the same with the texture
    float around;    // median ratio of the blocks around it
    float ownX;      // where it was found beside the common motion, pixels
    float ownY;
    int kept;     // its place among the kept blocks
    int chromaX;  // where its chroma lies in the frame, rounded
    int chromaY;
    float chromaDx;  // what rounding left of it
    float chromaDy;
  };
  struct ChromaBlock {
    float ratio[2];  // of the variances of U and V to the luma's curve
    float correlation;
  };
  struct Candidate {
    float score;
    float ratio;
    float trust;
    float raw;
  };
  struct Entry {
    float variance = 0;
    float weight = 0;   // trusted blocks it is worth
    float quality = 0;  // their mean trust
    float bound = 0;    // variance with the texture: the noise is at most this; 0: not known
  };

  void release();
  void layOut();
  bool compare(const uint8_t* luma, const float* motion);
  void compareBlock(const uint8_t* luma, int x, int y, float dx, float dy, const uint8_t* kept, Block* block) const;
  void keep(const uint8_t* luma);
  void keepChroma(const ChromaPlanes& chroma);
  bool hasChroma(int kept) const;
  bool isInside(int chromaX, int chromaY) const;
  bool readChroma(const ChromaPlanes& chroma, const Block& block, bool differences, ChromaBlock* read) const;
  void learnChroma(const ChromaPlanes& chroma, bool differences);
  void drawChroma();
  void fitPassing(float floor);
  void takeTextureOut();
  void inspect(const uint8_t* luma);
  bool dropSuspects();
  void correctForCorrelation(float floor);
  void relate(float floor);
  void lookAround();
  void orderByLuma();
  void learn(bool differences);
  void learnEntry(int index, bool differences);
  float quietRatio(int index, float share, float* trusted, float* quality, float* expected, float* raw);
  void draw();
  bool drawThrough(const double (&weights)[NoiseCurve::kEntries], const double (&variances)[NoiseCurve::kEntries]);

  const float quietShare_ = 0.25f;
  int width_ = 0;
  int height_ = 0;
  uint8_t* kept_ = nullptr;  // the blocks of the frame before, with a pixel around each
  bool hasPrevious_ = false;
  bool fromDifferences_ = false;
  int repeats_ = 0;
  uint32_t frames_ = 0;

  // Of the last frame: a grid of blocks, row by row.
  int step_ = 1;
  int originX_ = 0;
  int originY_ = 0;
  int columns_ = 0;
  int rows_ = 0;
  int count_ = 0;
  Block* blocks_ = nullptr;
  Candidate* candidates_ = nullptr;
  Candidate* chosen_ = nullptr;
  float* scratch_ = nullptr;

  uint8_t* keptChroma_ = nullptr;  // of each kept block 10 x 10 of U, then of V
  bool hasPreviousChroma_ = false;
  bool chromaFromDifferences_ = false;
  ChromaBlock* chromaBlocks_ = nullptr;
  float chromaCorrelation_ = 0;
  float chromaShare_[2] = {};  // of U and V: variance, without that of rounding, to luma's
  float chromaWeight_ = 0;     // blocks

  float correlation_ = 0;
  float passing_ = 0;  // of `passed`, in the residual
  Entry entries_[NoiseCurve::kEntries];
  NoiseCurve curve_;
};

}  // namespace noxel
