// Blocks that stay in place while the scene moves past them: bars, a logo, dirt on the lens.
#pragma once

#include <cstdint>

#include "registration/tracker/level_comparison.h"

namespace noxel::tracker {

// A block whose picture moved, along the common motion, but that matches far better where it was, is likely to be still;
// from a few such frames on it is left out of all comparisons. Registration thread only.
class StillBlocks {
 public:
  StillBlocks() = default;
  ~StillBlocks();
  StillBlocks(const StillBlocks&) = delete;
  StillBlocks& operator=(const StillBlocks&) = delete;

  bool allocate(const LevelComparison& finest);
  // After a comparison of the finest level along the motion found. True when the set of still blocks changed.
  bool learn(const LevelComparison& finest, const GlobalMotion& motion);
  // Tells a level which of its blocks contain still ones.
  void mark(LevelComparison* level) const;

 private:
  bool isStill(int block) const;

  float* evidence_ = nullptr;  // per block of the finest level, 0..1
  float* samples_ = nullptr;   // for the median
  BlockGrid grid_;
  int still_ = 0;
};

}  // namespace noxel::tracker
