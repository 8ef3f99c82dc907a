// Two pictures at half size, aligned by the common motion and ready to be compared at any displacement.
#pragma once

#include <cstddef>
#include <cstdint>

#include "registration/motion_field.h"
#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"
#include "registration/tracker/picture_frame.h"

namespace noxel::tracker {

// Sums over samples of the current picture and their difference from the previous one: in 8-bit levels and samples.
struct AlignedSums {
  float hxx = 0.0f;  // gradients' products
  float hxy = 0.0f;
  float hyy = 0.0f;
  float gx = 0.0f;  // gradient
  float gy = 0.0f;
  float luma = 0.0f;
  float difference = 0.0f;
  float energy = 0.0f;  // squared difference
  float bx = 0.0f;      // gradient times difference
  float by = 0.0f;

  void add(const AlignedSums& part);
  // Takes the means of difference and gradient off: pictures that differ in brightness only are alike.
  void centre(float samples);
};

// Of a window at another displacement.
struct DisplacedSums {
  int32_t difference;  // quarters of a level
  int32_t energy;      // their squares
  int32_t bx;          // times twice the gradient
  int32_t by;
};

struct CellMatch {
  int dx;
  int dy;
  int difference;  // sum of absolute differences
};

// The current picture, and the previous one drawn along the common motion in the exposure of the current one. A sample
// is 2 x 2 pixels of the registration image, a block 4 x 4 samples. Registration thread only.
class AlignedPictures {
 public:
  static constexpr int kScale = 2;  // pixels per sample
  static constexpr int kBlock = kMotionBlockSide / kScale;
  static constexpr int kWindow = 3 * kBlock;  // samples: the block and its neighbours
  static constexpr int kReach = 12;           // samples, in each direction
  static constexpr int kFractions = 16;       // steps per sample
  static constexpr float kLevel = 0.25f;      // samples are quarters of a level: sums over a window stay within 32 bits

  // Coarse samples are 2 x 2 of the others, as bytes; a cell is 2 x 2 blocks.
  static constexpr int kCoarse = 2;
  static constexpr int kCoarseReach = kReach / kCoarse;
  static constexpr int kCellWindow = 8;  // coarse samples: the cell and half a cell around it

  AlignedPictures() = default;
  ~AlignedPictures();
  AlignedPictures(const AlignedPictures&) = delete;
  AlignedPictures& operator=(const AlignedPictures&) = delete;

  bool allocate(int columns, int rows);  // blocks

  // Both at level 1 of their pyramids; `motion` is previous to current.
  void read(const Image& previous, const Image& current, const PictureFrame& frame, const GlobalMotion& motion,
            WorkerPool* pool);

  AlignedSums blockSums(int column, int row) const;
  // Of the 3 x 3 blocks from (left, top) on, against the previous picture at the samples less (dx, dy).
  template <class Lanes>
  DisplacedSums windowSums(int left, int top, int dx, int dy) const;
  // Squared differences of one block, the displacement in kFractions of a sample.
  template <class Lanes>
  float blockEnergy(int column, int row, int dx, int dy) const;
  // The best displacement, in coarse samples, of a window of kCellWindow from (x, y) on; none unless it differs by at
  // least `saving` less.
  template <class Lanes>
  CellMatch matchCell(int x, int y, int saving) const;

  // True: the surroundings of what a displacement (samples) takes to a block's centre are inside the previous picture.
  bool wasInside(int column, int row, float dx, float dy) const;

 private:
  void readCurrent(const Image& image, WorkerPool* pool);
  void invert(const PictureFrame& frame, const GlobalMotion& motion);
  void drawPrevious(const Image& image, WorkerPool* pool);
  void drawRun(const Image& image, int x, int y, int16_t* to) const;
  void matchExposure(WorkerPool* pool);
  void makeCoarse(WorkerPool* pool);
  ptrdiff_t offset(int x, int y) const { return ptrdiff_t{y + kPad} * stride_ + x + kPad; }

  static constexpr int kPad = 16;  // samples drawn beyond the blocks: the reach, and a whole run

  int columns_ = 0;
  int rows_ = 0;
  int stride_ = 0;  // of all planes but the coarse ones, which have half of it
  int lines_ = 0;
  int16_t* current_ = nullptr;
  int16_t* previous_ = nullptr;
  int16_t* slopeX_ = nullptr;  // of the current picture: twice the gradient
  int16_t* slopeY_ = nullptr;
  uint8_t* coarseCurrent_ = nullptr;
  uint8_t* coarsePrevious_ = nullptr;
  double previousFromCurrent_[6] = {};  // 2 x 3, on samples whose centres are at integers
  bool smooth_ = true;                  // it changes by less than its rounding along a run
  int previousWidth_ = 0;
  int previousHeight_ = 0;
};

}  // namespace noxel::tracker
