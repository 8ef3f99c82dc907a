// The displacement of the picture on a level so coarse that all of them can be tried.
#pragma once

#include "registration/tracker/block_grid.h"
#include "registration/tracker/consensus.h"

namespace noxel::tracker {

// Every displacement of up to kSearchReach samples for each block, by normalised cross-correlation; the blocks vote.
class CoarseSearch {
 public:
  static constexpr int kSearchReach = 8;
  static constexpr int kSearchSide = 2 * kSearchReach + 1;

  CoarseSearch() = default;
  ~CoarseSearch();
  CoarseSearch(const CoarseSearch&) = delete;
  CoarseSearch& operator=(const CoarseSearch&) = delete;

  bool allocate(int blocks);  // at most as many are looked at
  // Displacements in samples into dx, dy and weight of found[0 .. grid.count() - 1] (u and v are left alone): each block's
  // best close to what most of them agree on. Blocks that were not looked at have no weight. Among equals the one nearest
  // to `expected` is taken: (dx, dy) pairs.
  void search(const Image& previous, const Image& current, const BlockGrid& grid, const BlockTexture* textures,
              const float (*expected)[2], int expectedCount, Displaced* found);

 private:
  struct Looked {
    int block;
    float weight;  // by its contrast
  };
  void choose(const BlockGrid& grid, const BlockTexture* textures);
  void correlate(const Image& previous, const Image& current, const BlockGrid& grid, const BlockTexture* textures);

  int capacity_ = 0;
  int lookedCount_ = 0;
  Looked* looked_ = nullptr;
  float* correlations_ = nullptr;  // a map of kSearchSide x kSearchSide for each of them
};

}  // namespace noxel::tracker
