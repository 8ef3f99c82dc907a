// Tracker state from frame to frame.
#pragma once

#include "registration/registration_state.h"
#include "registration/tracker/motion_estimator.h"

namespace noxel {

// Registration thread only.
class PointTracker {
 public:
  PointTracker() = default;
  ~PointTracker();
  PointTracker(const PointTracker&) = delete;
  PointTracker& operator=(const PointTracker&) = delete;

  bool allocate(int width, int height, int levels);
  void prime(const uint8_t* frame);
  void track(const uint8_t* frame, _KROFRegistration* registration);
  void advance(const _KROFRegistration& registration);
  double motionDeviation() const { return deviation_; }

  WorkerPool* pool = nullptr;  // null: single-threaded

 private:
  void placePoints(int level, _KROFRegistration* registration);
  void displacePoints(const tracker::MotionFound& found, _KROFRegistration* registration);
  void markOthers(_KROFRegistration* registration);
  void holdStill(const tracker::MotionFound& found, _KROFRegistration* registration);
  int choosePoints(int level, int maxPoints);
  int scoreLevel() const;
  int cellAt(float x, float y) const;

  tracker::MotionEstimator estimator_;
  double deviation_ = 0.0;
  float frameWidth_ = 0.0f;
  float frameHeight_ = 0.0f;
  int chosen_[kMaxPoints] = {};       // blocks on the level where the motion was measured
  float offCourse_[kMaxPoints] = {};  // distance of a point's own displacement from the global motion, pixels
  mutable float scratch_[kMaxPoints] = {};

  // Per cell of the frame: the identifier of the point that ended in it.
  int cellColumns_ = 0;
  int cellRows_ = 0;
  int* identifiers_ = nullptr;  // 0: none
  int lastIdentifier_ = 0;
  bool stillSign_ = false;  // of the displacement given to a still frame
};

}  // namespace noxel
