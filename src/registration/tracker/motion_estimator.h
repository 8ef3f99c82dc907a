// The motion of the whole picture between two frames, from all of its texture at once.
#pragma once

#include "registration/tracker/coarse_search.h"
#include "registration/tracker/consensus.h"
#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"
#include "registration/tracker/level_comparison.h"
#include "registration/tracker/picture_frame.h"

namespace noxel::tracker {

struct MotionFound {
  bool known = false;
  GlobalMotion motion;           // previous to current frame
  int level = 0;                 // of the pyramid, where it was measured last
  double cornerDeviation = 0.0;  // expected error, rms over the four corners, pixels of the registration image
  double significance = 0.0;     // chi-squared of the motion against no motion at all
  float correlation = 0.0f;      // of the two pictures, on the level where it is highest
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
  MotionFound estimate(WorkerPool* pool);              // between the previous and the current frame
  void advance();                                      // the current frame becomes the previous one
  void forgetMotion() { lastMotion_ = {}; }

  // As of the last estimate, along the motion it found.
  const LevelComparison& level(int index) const { return levels_[index]; }
  int coarsest() const { return coarseLevel_; }
  const PictureFrame& pictureFrame() const { return frame_; }

 private:
  struct Hypothesis {
    GlobalMotion motion;
    double support = -1.0;
  };

  void searchMotions(int level, GlobalMotion* first, GlobalMotion* second);
  GlobalMotion consensusMotion(int level, const GlobalMotion* starts, int startCount, WorkerPool* pool);
  double supportOf(int level, const GlobalMotion& motion, WorkerPool* pool);
  void test(int level, Hypothesis* hypothesis, WorkerPool* pool);
  GlobalMotion startingMotion(int searchLevel, int level, WorkerPool* pool);
  void approach(int level, GlobalMotion* motion, WorkerPool* pool);
  bool settle(int level, MotionFound* found, WorkerPool* pool);
  MotionFound estimateFrom(int searchLevel, int level, WorkerPool* pool);

  ImagePyramid pyramids_[2];
  int previousIndex_ = 0;  // of the pyramid, and of the textures each level keeps
  PictureFrame frame_;
  LevelComparison levels_[kMaxLevels];
  CoarseSearch coarse_;
  Displaced* displaced_ = nullptr;
  int coarseLevel_ = 0;     // the one that is searched, and the last one that is used
  int consensusLevel_ = 0;  // the one that tells subjects from the scene
  GlobalMotion lastMotion_;
};

}  // namespace noxel::tracker
