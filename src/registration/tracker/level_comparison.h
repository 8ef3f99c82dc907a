// Two frames compared on one level of their pyramids, block by block, along a motion of the whole picture.
#pragma once

#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"
#include "registration/tracker/patch_evidence.h"
#include "registration/tracker/picture_frame.h"

namespace noxel::tracker {

enum Direction : int {
  kForward = 0,  // the previous frame's blocks against the current frame
  kBackward = 1  // the current frame's blocks against the previous frame
};

// What noise does to the blocks of a level.
struct LevelNoise {
  float texture = 0.0f;       // a block's gradient energy that the other picture does not have
  float displacement = 0.0f;  // variance of b, in units of the texture
};

// Registration thread only.
class LevelComparison {
 public:
  // Pixels of the registration image off the common motion: farther off, a patch moves on its own.
  static constexpr float kTolerance = 1.5f;

  LevelComparison() = default;
  ~LevelComparison();
  LevelComparison(const LevelComparison&) = delete;
  LevelComparison& operator=(const LevelComparison&) = delete;

  bool allocate(const Image& image, int pyramidLevel, const PictureFrame& frame);

  // A frame's part of the work, done once: `slot` is 0 or 1, of the two frames that are kept.
  void read(const Image& image, int slot, WorkerPool* pool);
  // The two frames that the calls below are about.
  void begin(const Image& previous, const Image& current, int previousSlot);

  void compare(Direction direction, const GlobalMotion& motion, WorkerPool* pool);
  bool compared() const { return compared_; }  // since begin
  const PatchEvidence* patches(Direction direction) const { return patchSums_[direction]; }

  // About the last comparison. The noise: false when too little was compared to tell.
  bool noise(Direction direction, LevelNoise* noise);
  float correlation() const;  // of the two pictures
  double support() const;     // how much of the picture the motion explains; the scene's edges count for more
  // The weighted equations of a direction's blocks. With the textures' own sums as slopes they are Gauss and Newton's,
  // safe from afar; with what the two pictures share they are Newton's, and noise does not shorten the step.
  void gather(Direction direction, bool sharedSlopes, const LevelNoise& noise, MotionEquations* equations) const;

  // Lucas and Kanade's iteration on one of the previous frame's blocks, from the displacement it is given, in samples.
  PatchEvidence follow(int column, int row, float* dx, float* dy) const;

  const BlockGrid& grid() const { return grid_; }
  const BlockTexture* previousTextures() const { return textures_[previousSlot_]; }
  const Image& previousImage() const { return *previous_; }
  const Image& currentImage() const { return *current_; }
  float scale() const { return scale_; }  // pixels of the registration image in a sample
  float u(int column) const { return frame_.u(grid_.centreX(column) * scale_); }
  float v(int row) const { return frame_.v(grid_.centreY(row) * scale_); }
  float placeWeight(int column, int row) const;

 private:
  PictureFrame frame_;
  float scale_ = 1.0f;
  BlockGrid grid_;
  BlockTexture* textures_[2] = {};  // of the two frames
  int previousSlot_ = 0;
  const Image* previous_ = nullptr;
  const Image* current_ = nullptr;
  BlockMatch* matches_[2] = {};       // of the two directions
  PatchEvidence* patchSums_[2] = {};  // sums of 3 x 3 of them
  PatchEvidence* rowSums_ = nullptr;
  float* samples_ = nullptr;  // for medians
  bool compared_ = false;
};

}  // namespace noxel::tracker
