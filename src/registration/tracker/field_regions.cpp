#include "registration/tracker/field_regions.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "registration/tracker/bands.h"
#include "registration/tracker/lanes.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

constexpr float kWindowArea = AlignedPictures::kWindow * AlignedPictures::kWindow;
constexpr float kBlockArea = AlignedPictures::kBlock * AlignedPictures::kBlock;

// A displacement explains a window when no more than this much of noise is left, or than this share of what there is
// without it: uncovered background looks like nothing in the previous picture, but something always fits best.
constexpr float kMaxRest = 1.35f;
constexpr float kMaxRestShare = 0.3f;

constexpr float kAlike = 1.5f;         // samples: displacements of one region
constexpr float kMinEvidence = 40.0f;  // gain of a region; the best of all displacements gains 16 in noise alone
constexpr int kLendReach = 16;         // distance

// Gains of single blocks are limited, so that one with strong texture does not decide for its neighbours.
constexpr float kMinGain = -3.0f;
constexpr float kMaxGain = 2.0f;
constexpr float kMinLocalGain = 0.4f;
constexpr float kMaxLocalLoss = 0.3f;

// Many blocks with little texture, none of which is sure by itself.
constexpr int kPooledReach = 3;  // blocks
constexpr int kMinPooled = 9;
constexpr float kMinPooledGain = 5.0f;  // times the root of their number

constexpr int kHole = 12;   // distance: holes up to twice as wide are closed
constexpr int kSpread = 2;  // blocks: displacements are smoothed over so many around
constexpr float kDamping = 0.02f;

constexpr float kFilledConfidence = 0.5f;

// Share of its variance that noise loses halfway between two samples, in one direction.
constexpr float kInterpolated = 0.15f;

constexpr int kFar = 1 << 20;
constexpr float kReach = AlignedPictures::kReach;

bool areAlike(Displacement a, Displacement b) {
  const float x = a.x - b.x;
  const float y = a.y - b.y;
  return x * x + y * y <= kAlike * kAlike;
}

// Variance left of noise at a fraction of a sample.
float noiseLeft(int fractions) {
  const float a = static_cast<float>(fractions & (AlignedPictures::kFractions - 1)) / AlignedPictures::kFractions;
  return 1.0f - 4.0f * a * (1.0f - a) * kInterpolated;
}

bool explains(const FieldBlock& block) {
  const float rest = block.cost * kCorrelatedSamples;
  return rest <= kMaxRest * kWindowArea || rest * block.unit <= kMaxRestShare * block.window.energy;
}

}  // namespace

FieldRegions::~FieldRegions() {
  std::free(parents_);
  std::free(evidence_);
  std::free(nearest_);
  std::free(lent_);
  std::free(gains_);
  std::free(local_);
  std::free(moves_);
  std::free(closed_);
  std::free(source_);
}

bool FieldRegions::allocate(int columns, int rows) {
  columns_ = columns;
  rows_ = rows;
  count_ = columns * rows;
  parents_ = allocateArray<int>(count_);
  evidence_ = allocateArray<float>(count_);
  nearest_ = allocateArray<Nearest>(count_);
  lent_ = allocateArray<Displacement>(count_);
  gains_ = allocateArray<float>(count_);
  local_ = allocateArray<float>(count_);
  moves_ = allocateArray<bool>(count_);
  closed_ = allocateArray<bool>(count_);
  source_ = allocateArray<int>(count_);
  return parents_ != nullptr && evidence_ != nullptr && nearest_ != nullptr && lent_ != nullptr && gains_ != nullptr &&
         local_ != nullptr && moves_ != nullptr && closed_ != nullptr && source_ != nullptr;
}

int FieldRegions::root(int block) {
  while (parents_[block] != block) {
    parents_[block] = parents_[parents_[block]];
    block = parents_[block];
  }
  return block;
}

// Joins neighbours that move alike, and keeps the regions that gain enough as a whole: a window's gain is shared by its
// nine blocks.
void FieldRegions::gatherEvidence(const FieldBlock* blocks) {
  for (int i = 0; i < count_; ++i) {
    parents_[i] = i;
    evidence_[i] = 0.0f;
    moves_[i] = !blocks[i].d.isZero() && explains(blocks[i]);
    if (!moves_[i]) continue;
    const auto join = [&](int other) {
      if (!moves_[other] || !areAlike(blocks[i].d, blocks[other].d)) return;
      const int a = root(i);
      const int b = root(other);
      parents_[std::max(a, b)] = std::min(a, b);
    };
    if (i % columns_ > 0) join(i - 1);
    if (i >= columns_) join(i - columns_);
  }
  for (int i = 0; i < count_; ++i) {
    if (moves_[i]) evidence_[root(i)] += (blocks[i].restCost() - blocks[i].cost) / 9.0f;
  }
  for (int i = 0; i < count_; ++i) moves_[i] = moves_[i] && evidence_[root(i)] >= kMinEvidence;
}

// Chamfer distance from the blocks at distance 0, and which of them is the nearest.
void FieldRegions::spreadNearest() {
  const auto closer = [&](int i, int other, int step) {
    const int distance = nearest_[other].distance + step;
    if (distance < nearest_[i].distance) nearest_[i] = {distance, nearest_[other].block};
  };
  const auto fromRow = [&](int i, int neighbour) {
    closer(i, neighbour, 2);
    if (i % columns_ > 0) closer(i, neighbour - 1, 3);
    if (i % columns_ + 1 < columns_) closer(i, neighbour + 1, 3);
  };
  for (int i = 0; i < count_; ++i) {
    if (i >= columns_) fromRow(i, i - columns_);
    if (i % columns_ > 0) closer(i, i - 1, 2);
  }
  for (int i = count_ - 1; i >= 0; --i) {
    if (i + columns_ < count_) fromRow(i, i + columns_);
    if (i % columns_ + 1 < columns_) closer(i, i + 1, 2);
  }
}

// Each block near one that moves tries its displacement.
void FieldRegions::lendDisplacements(const AlignedPictures& pictures, const FieldBlock* blocks, WorkerPool* pool) {
  for (int i = 0; i < count_; ++i) nearest_[i] = {moves_[i] ? 0 : kFar, i};
  spreadNearest();
  forBands(pool, rows_, columns_ * 64, [&](int begin, int end) {
    for (int i = begin * columns_; i < end * columns_; ++i) {
      gains_[i] = 0.0f;
      lent_[i] = {0.0f, 0.0f};
      if (nearest_[i].distance > kLendReach) continue;
      lent_[i] = blocks[nearest_[i].block].d;
      const int column = i % columns_;
      const int row = i / columns_;
      // What was outside the previous picture says nothing.
      if (!pictures.wasInside(column, row, 0.0f, 0.0f) || !pictures.wasInside(column, row, lent_[i].x, lent_[i].y)) {
        continue;
      }
      const auto steps = [](float d) {
        return static_cast<int>(std::lround(std::clamp(d, -kReach, kReach) * AlignedPictures::kFractions));
      };
      const int dx = steps(lent_[i].x);
      const int dy = steps(lent_[i].y);
      const float energy = pictures.blockEnergy<NativeLanes>(column, row, dx, dy);
      const float smoothed = 0.5f * blocks[i].unit * kBlockArea * (1.0f - noiseLeft(dx) * noiseLeft(dy));
      gains_[i] = std::clamp((blocks[i].ownEnergy - energy - smoothed) / (blocks[i].unit * kCorrelatedSamples),
                             kMinGain, kMaxGain);
    }
  });
}

void FieldRegions::poolGains(WorkerPool* pool) {
  forBands(pool, rows_, columns_ * 64, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < columns_; ++column) {
        const int i = at(column, row);
        local_[i] = kMinGain;
        moves_[i] = false;
        if (nearest_[i].distance > kLendReach) continue;
        float sum = 0.0f;
        float weights = 0.0f;
        for (int y = std::max(row - 1, 0); y <= std::min(row + 1, rows_ - 1); ++y) {
          for (int x = std::max(column - 1, 0); x <= std::min(column + 1, columns_ - 1); ++x) {
            const auto weight = static_cast<float>((x == column ? 2 : 1) * (y == row ? 2 : 1));
            sum += weight * gains_[at(x, y)];
            weights += weight;
          }
        }
        local_[i] = sum / weights;
        moves_[i] = nearest_[i].distance == 0 && local_[i] > kMinLocalGain;
        if (moves_[i] || local_[i] < -kMaxLocalLoss) continue;
        float pooled = 0.0f;
        int count = 0;
        for (int y = std::max(row - kPooledReach, 0); y <= std::min(row + kPooledReach, rows_ - 1); ++y) {
          for (int x = std::max(column - kPooledReach, 0); x <= std::min(column + kPooledReach, columns_ - 1); ++x) {
            const int distance = nearest_[at(x, y)].distance;
            if (distance == 0 || distance > kLendReach) continue;
            pooled += gains_[at(x, y)];
            ++count;
          }
        }
        moves_[i] = count >= kMinPooled && pooled > kMinPooledGain * std::sqrt(static_cast<float>(count));
      }
    }
  });
}

// Morphological closing: all within reach of what moves, less all within reach of the rest. Beyond the picture nothing
// holds it back.
void FieldRegions::closeHoles() {
  for (int i = 0; i < count_; ++i) nearest_[i] = {moves_[i] ? 0 : kFar, i};
  spreadNearest();
  for (int i = 0; i < count_; ++i) {
    source_[i] = nearest_[i].block;
    closed_[i] = nearest_[i].distance <= kHole;
  }
  for (int i = 0; i < count_; ++i) nearest_[i] = {closed_[i] ? kFar : 0, i};
  spreadNearest();
  for (int i = 0; i < count_; ++i) {
    closed_[i] = moves_[i] || (nearest_[i].distance > kHole && source_[i] != i && local_[i] > -kMaxLocalLoss);
  }
}

// The displacement lent to `from`, and what its neighbours that move alike say of each direction.
BlockMotion FieldRegions::smoothed(const FieldBlock* blocks, int column, int row, int from) const {
  const Displacement mine = lent_[from];
  float hxx = 1e-6f, hxy = 0.0f, hyy = 1e-6f, bx = 0.0f, by = 0.0f;
  for (int y = std::max(row - kSpread, 0); y <= std::min(row + kSpread, rows_ - 1); ++y) {
    for (int x = std::max(column - kSpread, 0); x <= std::min(column + kSpread, columns_ - 1); ++x) {
      const int other = at(x, y);
      if (!moves_[other]) continue;
      const float dx = lent_[other].x - mine.x;
      const float dy = lent_[other].y - mine.y;
      const float near = 1.0f - (dx * dx + dy * dy) / (kAlike * kAlike);
      if (!(near > 0.0f)) continue;
      // A window that sees another layer too has more left than noise.
      const AlignedSums& window = blocks[other].window;
      const float rest = std::max(blocks[other].cost * (kCorrelatedSamples / kWindowArea), 1.0f);
      const float weight = near * near / (blocks[other].unit * rest * rest);
      hxx += weight * window.hxx;
      hxy += weight * window.hxy;
      hyy += weight * window.hyy;
      bx += weight * (window.hxx * dx + window.hxy * dy);
      by += weight * (window.hxy * dx + window.hyy * dy);
    }
  }
  const float damping = kDamping * (hxx + hyy);
  hxx += damping;
  hyy += damping;
  const float determinant = hxx * hyy - hxy * hxy;
  const auto pixels = [](float d) { return AlignedPictures::kScale * std::clamp(d, -kReach, kReach); };
  return {pixels(mine.x + (hyy * bx - hxy * by) / determinant), pixels(mine.y + (hxx * by - hxy * bx) / determinant),
          1.0f};
}

void FieldRegions::decide(const AlignedPictures& pictures, const FieldBlock* blocks, BlockMotion* field,
                          WorkerPool* pool) {
  gatherEvidence(blocks);
  lendDisplacements(pictures, blocks, pool);
  poolGains(pool);
  closeHoles();
  forBands(pool, rows_, columns_ * 128, [&](int begin, int end) {
    for (int i = begin * columns_; i < end * columns_; ++i) {
      field[i] = {};
      if (!closed_[i]) continue;
      field[i] = smoothed(blocks, i % columns_, i / columns_, moves_[i] ? i : source_[i]);
      field[i].confidence = kFilledConfidence;
      if (moves_[i]) {
        const float sure = std::clamp(local_[i] / kMaxGain, 0.0f, 1.0f);
        field[i].confidence += (1.0f - kFilledConfidence) * sure;
      }
    }
  });
}

}  // namespace noxel::tracker
