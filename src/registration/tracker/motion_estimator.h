// Global motion between two frames, from all of the texture at once.
#pragma once

#include "registration/tracker/coarse_search.h"
#include "registration/tracker/consensus.h"
#include "registration/tracker/fixed_pattern.h"
#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"
#include "registration/tracker/level_comparison.h"
#include "registration/tracker/picture_frame.h"
#include "registration/tracker/still_blocks.h"

namespace noxel::tracker {

// Chi-squared with six degrees of freedom exceeds this 1 time in 500: below, a motion may be none.
inline constexpr double kStillSignificance = 21.0;

struct MotionFound {
  bool known = false;
  GlobalMotion motion;  // previous to current frame
  int level = 0;        // pyramid level of the last measurement
  // Expected error, rms over the corners, registration pixels: of what the picture determines, and of the whole motion.
  double followedDeviation = 0.0;
  double cornerDeviation = 0.0;
  int followed = 0;  // directions of a similarity, 0..4, in which the motion follows the picture; the others are held
  double leastShare = 0.0;    // of the texture along the weakest direction: what both pictures have
  double significance = 0.0;  // chi-squared against no motion
  float correlation = 0.0f;   // of the two pictures, max over the levels
};

// Registration thread only.
class MotionEstimator {
 public:
  MotionEstimator() = default;
  ~MotionEstimator();
  MotionEstimator(const MotionEstimator&) = delete;
  MotionEstimator& operator=(const MotionEstimator&) = delete;

  bool allocate(int width, int height, int levelCount);

  void read(const uint8_t* pixels, WorkerPool* pool);  // the current frame
  // What moved on its own in the previous frame, empty when unknown: for the next call of estimate.
  void setMoving(const MotionField& moving);
  MotionFound estimate(WorkerPool* pool);  // between the previous and the current frame
  void advance();                          // the current frame becomes the previous one
  void forget();                           // a new sequence begins

  // State of the last estimate, compared along the motion it found.
  const LevelComparison& level(int index) const { return levels_[index]; }
  int coarsest() const { return coarseLevel_; }
  const PictureFrame& pictureFrame() const { return frame_; }
  const ImagePyramid& previous() const { return pyramids_[previousIndex_]; }
  const ImagePyramid& current() const { return pyramids_[1 - previousIndex_]; }

 private:
  struct Hypothesis {
    GlobalMotion motion;
    double support = -1.0;
  };

  MotionFound search(WorkerPool* pool);
  void adaptRows(bool adapt);
  void markStill();
  void forgetStill();
  GlobalMotion heldMotion() const;
  void searchMotions(int level, GlobalMotion* first, GlobalMotion* second);
  GlobalMotion consensusMotion(int level, const GlobalMotion* starts, int startCount, WorkerPool* pool);
  double supportOf(int level, const GlobalMotion& motion, WorkerPool* pool);
  void test(int level, Hypothesis* hypothesis, WorkerPool* pool);
  GlobalMotion startingMotion(int searchLevel, int level, WorkerPool* pool);
  void approach(int level, GlobalMotion* motion, WorkerPool* pool);
  bool settle(int level, MotionFound* found, WorkerPool* pool);
  MotionFound estimateFrom(int searchLevel, int level, WorkerPool* pool);

  ImagePyramid pyramids_[2];
  int previousIndex_ = 0;  // of the pyramids and of each level's textures
  PictureFrame frame_;
  FixedPattern pattern_;
  StillBlocks still_;
  LevelComparison levels_[kMaxLevels];
  CoarseSearch coarse_;
  Displaced* displaced_ = nullptr;
  int coarseLevel_ = 0;     // searched; the coarsest in use
  int consensusLevel_ = 0;  // separates moving subjects from the background
  GlobalMotion lastMotion_;
  GlobalMotion lastSignificant_;
  bool flickers_ = false;
  int calmFrames_ = 0;
};

}  // namespace noxel::tracker
