#include "registration/tracker/coarse_search.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "registration/tracker/lanes.h"

namespace noxel::tracker {
namespace {

constexpr int kSide = CoarseSearch::kSearchSide;
constexpr int kReach = CoarseSearch::kSearchReach;
constexpr int kMap = kSide * kSide;
constexpr int kLocalReach = 2;           // of a block's own displacement from the winner: roll and zoom
constexpr float kDistanceCost = 0.002f;  // of correlation, per sample: breaks ties only
constexpr float kMinContrast = 0.5f;     // 8-bit levels squared; flatter blocks are skipped

float contrast(const BlockTexture& texture) {
  return std::max(texture.squares - texture.sum * texture.sum / kBlockArea, 0.0f) / kBlockArea;
}

// The largest value of a map within `reach` of (x, y).
float bestAround(const float* map, int x, int y, int reach, int* bestX, int* bestY) {
  float best = -1.0f;
  *bestX = x;
  *bestY = y;
  for (int j = std::max(y - reach, 0); j <= std::min(y + reach, kSide - 1); ++j) {
    for (int i = std::max(x - reach, 0); i <= std::min(x + reach, kSide - 1); ++i) {
      if (map[j * kSide + i] > best) {
        best = map[j * kSide + i];
        *bestX = i;
        *bestY = j;
      }
    }
  }
  return best;
}

}  // namespace

CoarseSearch::~CoarseSearch() {
  std::free(looked_);
  std::free(correlations_);
}

bool CoarseSearch::allocate(int blocks) {
  capacity_ = std::max(blocks, 1);
  looked_ = static_cast<Looked*>(std::calloc(static_cast<size_t>(capacity_), sizeof(Looked)));
  correlations_ = static_cast<float*>(std::calloc(static_cast<size_t>(capacity_) * kMap, sizeof(float)));
  return looked_ != nullptr && correlations_ != nullptr;
}

// Blocks with enough contrast, on a regular subset of the grid when there are too many.
void CoarseSearch::choose(const BlockGrid& grid, const BlockTexture* textures, const uint8_t* leftOut) {
  int step = 1;
  while (((grid.columns + step - 1) / step) * ((grid.rows + step - 1) / step) > capacity_) ++step;
  lookedCount_ = 0;
  float mean = 0.0f;
  for (int row = step / 2; row < grid.rows; row += step) {
    for (int column = step / 2; column < grid.columns; column += step) {
      const int block = row * grid.columns + column;
      const float own = contrast(textures[block]);
      if (!(own > kMinContrast) || leftOut[block] != 0) continue;
      looked_[lookedCount_++] = {block, own};
      mean += own;
    }
  }
  mean /= static_cast<float>(std::max(lookedCount_, 1));
  for (int i = 0; i < lookedCount_; ++i) looked_[i].weight /= looked_[i].weight + mean;
}

void CoarseSearch::correlate(const Image& previous, const Image& current, const BlockGrid& grid,
                             const BlockTexture* textures) {
  using Lanes = NativeLanes;
  static constexpr int16_t kOnes[kBlockSide] = {1, 1, 1, 1, 1, 1, 1, 1};
  const Lanes one = Lanes::load(kOnes);
  constexpr float kLevel = 1.0f / kLevelsPerUnit;
  for (int i = 0; i < lookedCount_; ++i) {
    const int block = looked_[i].block;
    const int x = grid.originX + block % grid.columns * kBlockSide;
    const int y = grid.originY + block / grid.columns * kBlockSide;
    Lanes own[kBlockSide];
    for (int row = 0; row < kBlockSide; ++row) {
      own[row] = Lanes::load(previous.pixels + ptrdiff_t{y + row} * previous.width + x);
    }
    const BlockTexture& texture = textures[block];
    const float ownVariance = contrast(texture) * kBlockArea;
    float* map = correlations_ + ptrdiff_t{i} * kMap;
    for (int dy = -kReach; dy <= kReach; ++dy) {
      for (int dx = -kReach; dx <= kReach; ++dx, ++map) {
        *map = 0.0f;
        const int left = x + dx;
        const int top = y + dy;
        if (left < 0 || top < 0 || left + kBlockSide > current.width || top + kBlockSide > current.height) continue;
        Lanes::Sum products, sum, squares;
        const int16_t* at = current.pixels + ptrdiff_t{top} * current.width + left;
        for (const Lanes& line : own) {
          const Lanes other = Lanes::load(at);
          products.addProducts(line, other);
          sum.addProducts(other, one);
          squares.addProducts(other, other);
          at += current.width;
        }
        const float otherSum = static_cast<float>(sum.total()) * kLevel;
        const float otherVariance =
            static_cast<float>(squares.total()) * kLevel * kLevel - otherSum * otherSum / kBlockArea;
        const float covariance =
            static_cast<float>(products.total()) * kLevel * kLevel - texture.sum * otherSum / kBlockArea;
        const float scale = ownVariance * otherVariance;
        if (scale > 0.0f) *map = covariance / std::sqrt(scale);
      }
    }
  }
}

void CoarseSearch::search(const Image& previous, const Image& current, const BlockGrid& grid,
                          const BlockTexture* textures, const uint8_t* leftOut, const float (*expected)[2],
                          int expectedCount, Displaced* found) {
  choose(grid, textures, leftOut);
  correlate(previous, current, grid, textures);
  for (int block = 0; block < grid.count(); ++block) found[block].weight = 0.0f;

  float best = -1e9f;
  int bestX = kReach;
  int bestY = kReach;
  for (int y = 0; y < kSide; ++y) {
    for (int x = 0; x < kSide; ++x) {
      float votes = 0.0f;
      float weights = 0.0f;
      for (int i = 0; i < lookedCount_; ++i) {
        int unusedX, unusedY;
        votes += looked_[i].weight * bestAround(correlations_ + ptrdiff_t{i} * kMap, x, y, 1, &unusedX, &unusedY);
        weights += looked_[i].weight;
      }
      float distance = 2.0f * kReach;
      for (int i = 0; i < expectedCount; ++i) {
        distance = std::min(distance, std::hypot(static_cast<float>(x - kReach) - expected[i][0],
                                                 static_cast<float>(y - kReach) - expected[i][1]));
      }
      votes -= kDistanceCost * distance * weights;
      if (votes > best) {
        best = votes;
        bestX = x;
        bestY = y;
      }
    }
  }
  for (int i = 0; i < lookedCount_; ++i) {
    int x, y;
    const float own = bestAround(correlations_ + ptrdiff_t{i} * kMap, bestX, bestY, kLocalReach, &x, &y);
    Displaced& point = found[looked_[i].block];
    point.dx = static_cast<float>(x - kReach);
    point.dy = static_cast<float>(y - kReach);
    point.weight = looked_[i].weight * std::max(own, 0.0f) * std::max(own, 0.0f);
  }
}

}  // namespace noxel::tracker
