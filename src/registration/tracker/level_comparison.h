// Two frames compared on one level of their pyramids, block by block, along a motion of the whole picture.
#pragma once

#include "registration/motion_field.h"
#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"
#include "registration/tracker/patch_evidence.h"
#include "registration/tracker/picture_frame.h"

namespace noxel::tracker {

enum Direction : int {
  kForward = 0,  // the previous frame's blocks against the current frame
  kBackward = 1  // the current frame's blocks against the previous frame
};

// Where the slope of an equation comes from. With slopes from one picture the step is Gauss-Newton, which converges from
// afar; with slopes shared by both it is Newton's, and noise does not shorten it.
enum Slopes {
  kOwnSlopes,
  kSharedSlopes,
  kSharedWithSample,   // and what a change of exposure explains, from one block in four
  kSharedWithExposure  // from all blocks
};

// Noise in the blocks of a level.
struct LevelNoise {
  float texture = 0.0f;       // gradient energy per block that the other picture does not share
  float displacement = 0.0f;  // variance of b, in units of the texture
};

// Registration thread only.
class LevelComparison {
 public:
  // Pixels of the registration image: a patch farther off the global motion is an outlier.
  static constexpr float kTolerance = 1.5f;

  LevelComparison() = default;
  ~LevelComparison();
  LevelComparison(const LevelComparison&) = delete;
  LevelComparison& operator=(const LevelComparison&) = delete;

  bool allocate(const Image& image, int pyramidLevel, const PictureFrame& frame);

  // The work per frame: its textures into slot 0 or 1.
  void read(const Image& image, int slot, WorkerPool* pool);
  // Selects the two frames for the calls below.
  void begin(const Image& previous, const Image& current, int previousSlot);

  // A block that is left out, in both frames, counts as not inside the other picture.
  void leaveOutNone();
  void leaveOut(int column, int row);
  const uint8_t* leftOut() const { return leftOut_; }

  // What moved otherwise than the whole in the previous frame gives no equations.
  void setMoving(const MotionField& moving) { moving_ = moving; }

  // Matches the exposure of each row of blocks by itself: light that flickers with the mains falls on a rolling shutter
  // as bands.
  void adaptRows(bool adapt) { adaptsRows_ = adapt; }
  // Of the last forward comparison: rms over the rows of the logarithm of their change in brightness, less its mean.
  double rowVariation();

  void compare(Direction direction, const GlobalMotion& motion, WorkerPool* pool);
  bool compared() const { return compared_; }  // since begin
  const BlockMatch* matches(Direction direction) const { return matches_[direction]; }
  const PatchEvidence* patches(Direction direction) const { return patchSums_[direction]; }

  // Of the last comparison. noise: false when too few patches were compared.
  bool noise(Direction direction, LevelNoise* noise);
  float correlation() const;  // of the two pictures
  double support() const;     // how much of the picture the motion explains, the edges weighted more
  // Adds the weighted equations of a direction's blocks.
  void gather(Direction direction, Slopes slopes, const LevelNoise& noise, MotionEquations* equations) const;

  // A block of the previous frame against the current one, displaced by (dx, dy) samples.
  BlockMatch match(int column, int row, float dx, float dy) const;
  // Lucas-Kanade iteration on a block of the previous frame, starting at the displacement given, in samples.
  PatchEvidence follow(int column, int row, float* dx, float* dy) const;

  const BlockGrid& grid() const { return grid_; }
  const BlockTexture* previousTextures() const { return textures_[previousSlot_]; }
  const Image& previousImage() const { return *previous_; }
  const Image& currentImage() const { return *current_; }
  float scale() const { return scale_; }  // registration pixels per sample
  float u(int column) const { return frame_.u(grid_.centreX(column) * scale_); }
  float v(int row) const { return frame_.v(grid_.centreY(row) * scale_); }
  float placeWeight(int column, int row) const;

 private:
  void measureRowGains(Direction direction);
  bool movedAt(float x, float y) const;

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
  float* samples_ = nullptr;   // for medians
  float* rowGains_ = nullptr;  // smoothed; 0: no block of the row was compared
  float* rawRowGains_ = nullptr;
  MotionField moving_;
  bool adaptsRows_ = false;
  uint8_t* leftOut_ = nullptr;  // per block: 1 or 0
  bool adapted_[2] = {};        // the matches were converted to the exposure of their own picture
  bool compared_ = false;
};

}  // namespace noxel::tracker
