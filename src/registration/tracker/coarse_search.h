// Exhaustive search for the displacement of the picture on a coarse level.
#pragma once

#include "registration/tracker/block_grid.h"
#include "registration/tracker/consensus.h"

namespace noxel::tracker {

// Tries every displacement up to kSearchReach samples for each block, by normalised cross-correlation; the blocks vote.
class CoarseSearch {
 public:
  static constexpr int kSearchReach = 8;
  static constexpr int kSearchSide = 2 * kSearchReach + 1;

  CoarseSearch() = default;
  ~CoarseSearch();
  CoarseSearch(const CoarseSearch&) = delete;
  CoarseSearch& operator=(const CoarseSearch&) = delete;

  bool allocate(int blocks);  // at most this many are searched
  // Writes dx and dy (samples) and weight of found[0 .. grid.count() - 1], not u and v: each block's best displacement
  // near the winner of the vote. Blocks that were not searched, among them those that are left out, get weight 0. Ties go to the displacement nearest to one
  // of `expected`, (dx, dy) pairs.
  void search(const Image& previous, const Image& current, const BlockGrid& grid, const BlockTexture* textures,
              const uint8_t* leftOut, const float (*expected)[2], int expectedCount, Displaced* found);

 private:
  struct Looked {
    int block;
    float weight;  // by its contrast
  };
  void choose(const BlockGrid& grid, const BlockTexture* textures, const uint8_t* leftOut);
  void correlate(const Image& previous, const Image& current, const BlockGrid& grid, const BlockTexture* textures);

  int capacity_ = 0;
  int lookedCount_ = 0;
  Looked* looked_ = nullptr;
  float* correlations_ = nullptr;  // per searched block, kSearchSide x kSearchSide
};

}  // namespace noxel::tracker
