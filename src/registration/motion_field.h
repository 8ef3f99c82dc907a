// How the blocks of a frame move beside the common motion.
#pragma once

namespace noxel {

inline constexpr int kMotionBlockSide = 8;  // pixels of the registration image

// From this confidence on a block is taken to move on its own: more likely than not.
inline constexpr float kMovesOnItsOwn = 0.5f;

// Of one block of the current frame: what was at x in the previous frame is at A(x) + (dx, dy) in this one, with A the
// common motion.
struct BlockMotion {
  float dx;  // pixels of the registration image
  float dy;
  float
      confidence;  // 0..1: how sure it is that the block moves so; 0, and no displacement: the common motion explains it
};

// Row by row; block (0, 0) covers pixels 0..7 in both directions, the last ones may reach beyond the picture.
struct MotionField {
  int columns = 0;  // width / 8, rounded up
  int rows = 0;
  const BlockMotion* blocks = nullptr;
};

}  // namespace noxel
