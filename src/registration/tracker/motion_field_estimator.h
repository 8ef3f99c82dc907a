// What moves otherwise than the whole picture, block by block.
#pragma once

#include <cstdint>

#include "registration/motion_field.h"
#include "registration/tracker/aligned_pictures.h"
#include "registration/tracker/field_history.h"
#include "registration/tracker/field_regions.h"
#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"
#include "registration/tracker/picture_frame.h"

namespace noxel::tracker {

// At half size, where noise is weak: cells that differ from the aligned previous picture by more than noise look for
// where they were; blocks choose among what their cell and their neighbours found, refine it to fractions of a sample,
// and pay for being unlike their neighbours; regions decide which of them move. Registration thread only.
class MotionFieldEstimator {
 public:
  static constexpr int kReach = AlignedPictures::kReach * AlignedPictures::kScale;  // pixels, in each direction

  MotionFieldEstimator() = default;
  ~MotionFieldEstimator();
  MotionFieldEstimator(const MotionFieldEstimator&) = delete;
  MotionFieldEstimator& operator=(const MotionFieldEstimator&) = delete;

  bool allocate(int width, int height);  // of the registration image

  // `motion`: previous to current frame.
  void estimate(const ImagePyramid& previous, const ImagePyramid& current, const PictureFrame& frame,
                const GlobalMotion& motion, WorkerPool* pool);
  void clear();  // no block moves, nothing is known of the frames before

  MotionField field() const { return {columns_, rows_, field_}; }

 private:
  struct Neighbours {
    Displacement d[4];
    int count;
  };
  struct Match {
    float cost;
    Displacement d;  // refined
  };

  void readBlocks(WorkerPool* pool);
  void measureNoise();
  void searchCells(WorkerPool* pool);
  bool mayMove(int column, int row) const;
  Displacement searchCell(int column, int row) const;
  bool goesOn(int column, int row, Displacement* d) const;
  void sweep(int number, int colour, WorkerPool* pool);
  bool isSettled(int column, int row, int sweep) const;
  void choose(int column, int row, int sweep);
  Neighbours neighboursOf(int column, int row) const;
  Match match(int column, int row, int dx, int dy, const Neighbours& around) const;
  int at(int column, int row) const { return row * columns_ + column; }

  int columns_ = 0;
  int rows_ = 0;
  int wholeColumns_ = 0;  // blocks that lie wholly in the picture: windows consist of these
  int wholeRows_ = 0;
  int cellColumns_ = 0;  // cells of 2 x 2 blocks
  int cellRows_ = 0;
  AlignedPictures pictures_;
  FieldRegions regions_;
  FieldHistory history_;
  AlignedSums* sums_ = nullptr;  // by block
  FieldBlock* blocks_ = nullptr;
  Displacement* cells_ = nullptr;  // what was found; zero: nothing was looked for, or none is better
  float* samples_ = nullptr;       // for quartiles
  BlockMotion* field_ = nullptr;
};

}  // namespace noxel::tracker
