#include "registration/tracker/still_blocks.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "registration/tracker/lanes.h"
#include "registration/tracker/median.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

constexpr float kStillEvidence = 0.6f;  // from the second or third frame on
constexpr float kLearned = 0.4f;        // share of what is missing to certainty
constexpr float kForgotten = 0.7f;
constexpr float kMinMoved = 1.5f;   // pixels: by less, a block looks alike at both places
constexpr float kMismatch = 2.5f;   // times the median energy of a difference: not explained by the motion
constexpr float kFarBetter = 0.5f;  // of the energy along the motion
constexpr int kSampledBlocks = 400;
constexpr int kMaxSuspects = 4;  // one in so many blocks: with more, the motion is wrong or not the only one

}  // namespace

StillBlocks::~StillBlocks() {
  std::free(evidence_);
  std::free(samples_);
}

bool StillBlocks::allocate(const LevelComparison& finest) {
  grid_ = finest.grid();
  evidence_ = allocateArray<float>(grid_.count());
  samples_ = allocateArray<float>(grid_.count());
  return evidence_ != nullptr && samples_ != nullptr;
}

bool StillBlocks::isStill(int block) const {
  return evidence_[block] > kStillEvidence;
}

bool StillBlocks::learn(const LevelComparison& finest, const GlobalMotion& motion) {
  const BlockMatch* matches = finest.matches(kForward);
  int count = 0;
  const int step = grid_.count() / kSampledBlocks + 1;
  for (int i = 0; i < grid_.count(); i += step) {
    if (matches[i].inside) samples_[count++] = matches[i].energy;
  }
  if (count == 0) return false;
  const float mismatch = kMismatch * medianOf(samples_, count);
  int suspects = 0;
  for (int i = 0; i < grid_.count(); ++i) suspects += matches[i].inside && matches[i].energy > mismatch ? 1 : 0;
  if (suspects > grid_.count() / kMaxSuspects) return false;

  int still = 0;
  bool changed = false;
  for (int i = 0; i < grid_.count(); ++i) {
    const bool before = isStill(i);
    const bool suspect = matches[i].inside && matches[i].energy > mismatch;
    if (suspect || evidence_[i] > 0.0f) {
      const int column = i % grid_.columns;
      const int row = i / grid_.columns;
      const auto dx = static_cast<float>(motion.dx(finest.u(column), finest.v(row)));
      const auto dy = static_cast<float>(motion.dy(finest.u(column), finest.v(row)));
      if (dx * dx + dy * dy > kMinMoved * kMinMoved) {
        const BlockMatch along = matches[i].inside ? matches[i] : finest.match(column, row, dx, dy);
        const BlockMatch here = finest.match(column, row, 0.0f, 0.0f);
        if (along.inside && here.inside) {
          const bool better = along.energy > mismatch && here.energy < kFarBetter * along.energy;
          evidence_[i] = better ? evidence_[i] + kLearned * (1.0f - evidence_[i]) : kForgotten * evidence_[i];
          if (evidence_[i] < 0.01f) evidence_[i] = 0.0f;
        }
      }
    }
    still += isStill(i) ? 1 : 0;
    changed = changed || before != isStill(i);
  }
  still_ = still;
  return changed;
}

bool StillBlocks::forget() {
  const bool changed = still_ > 0;
  std::fill(evidence_, evidence_ + grid_.count(), 0.0f);
  still_ = 0;
  return changed;
}

void StillBlocks::mark(LevelComparison* level) const {
  const BlockGrid& grid = level->grid();
  level->leaveOutNone();
  if (still_ == 0) return;
  const float scale = level->scale();
  for (int i = 0; i < grid_.count(); ++i) {
    if (!isStill(i)) continue;
    const float x = grid_.centreX(i % grid_.columns) / scale;
    const float y = grid_.centreY(i / grid_.columns) / scale;
    const auto column = static_cast<int>(std::floor((x - static_cast<float>(grid.originX)) / kBlockSide));
    const auto row = static_cast<int>(std::floor((y - static_cast<float>(grid.originY)) / kBlockSide));
    if (column >= 0 && row >= 0 && column < grid.columns && row < grid.rows) level->leaveOut(column, row);
  }
}

}  // namespace noxel::tracker
