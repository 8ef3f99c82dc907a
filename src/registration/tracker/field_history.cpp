#include "registration/tracker/field_history.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "registration/tracker/aligned_pictures.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

constexpr float kKept = 0.7f;  // of the gains, per frame
// Kept of a block's gains: what stood still must not hold back a block for long once the common motion is another one.
constexpr float kMinGain = -2.0f;
constexpr float kMaxGain = 3.0f;
constexpr float kAlike = 2.0f;  // samples

}  // namespace

FieldHistory::~FieldHistory() {
  std::free(kept_);
  std::free(carried_);
  std::free(weights_);
  std::free(largest_);
}

bool FieldHistory::allocate(int columns, int rows) {
  columns_ = columns;
  rows_ = rows;
  kept_ = allocateArray<Carried>(columns * rows);
  carried_ = allocateArray<Carried>(columns * rows);
  weights_ = allocateArray<float>(columns * rows);
  largest_ = allocateArray<float>(columns * rows);
  return kept_ != nullptr && carried_ != nullptr && weights_ != nullptr && largest_ != nullptr;
}

void FieldHistory::forget() {
  isEmpty_ = true;
  deviation_ = 1.0f;
}

void FieldHistory::carry(const PictureFrame& frame, const GlobalMotion& motion) {
  const int count = columns_ * rows_;
  std::fill(carried_, carried_ + count, Carried{});
  if (isEmpty_) return;
  std::fill(weights_, weights_ + count, 0.0f);
  std::fill(largest_, largest_ + count, 0.0f);
  for (int row = 0; row < rows_; ++row) {
    for (int column = 0; column < columns_; ++column) {
      const Carried& from = kept_[row * columns_ + column];
      if (from.gain == 0.0f) continue;
      const float x = (static_cast<float>(column) + 0.5f) * kMotionBlockSide;
      const float y = (static_cast<float>(row) + 0.5f) * kMotionBlockSide;
      const double u = static_cast<double>(frame.u(x));
      const double v = static_cast<double>(frame.v(y));
      // In blocks, whose centres are at integers; what leaves the picture does so without becoming an int.
      const float toX = static_cast<float>(column) +
                        (static_cast<float>(motion.dx(u, v)) + AlignedPictures::kScale * from.d.x) / kMotionBlockSide;
      const float toY = static_cast<float>(row) +
                        (static_cast<float>(motion.dy(u, v)) + AlignedPictures::kScale * from.d.y) / kMotionBlockSide;
      if (!(toX > -1.0f && toY > -1.0f && toX < static_cast<float>(columns_) && toY < static_cast<float>(rows_))) {
        continue;
      }
      const int left = static_cast<int>(toX + 1.0f) - 1;
      const int top = static_cast<int>(toY + 1.0f) - 1;
      const float right = toX - static_cast<float>(left);
      const float below = toY - static_cast<float>(top);
      for (int i = 0; i < 4; ++i) {
        const int atX = left + i % 2;
        const int atY = top + i / 2;
        if (atX < 0 || atY < 0 || atX >= columns_ || atY >= rows_) continue;
        const float weight = (i % 2 == 0 ? 1.0f - right : right) * (i / 2 == 0 ? 1.0f - below : below);
        const int to = atY * columns_ + atX;
        carried_[to].gain += weight * from.gain;
        weights_[to] += weight;
        if (from.d.isZero() || weight <= largest_[to]) continue;
        largest_[to] = weight;
        carried_[to].d = from.d;
      }
    }
  }
  for (int i = 0; i < count; ++i) carried_[i].gain *= kKept / std::max(weights_[i], 1.0f);
  deviation_ = std::sqrt(1.0f + kKept * kKept * deviation_ * deviation_);
}

float FieldHistory::add(int block, Displacement d, float gain) const {
  const Carried& before = carried_[block];
  const float x = before.d.x - d.x;
  const float y = before.d.y - d.y;
  const bool alike = before.d.isZero() || x * x + y * y <= kAlike * kAlike;
  return alike ? before.gain + gain : gain;
}

void FieldHistory::keep(const BlockMotion* field, const float* gains) {
  isEmpty_ = true;
  for (int i = 0; i < columns_ * rows_; ++i) {
    kept_[i] = {{field[i].dx / AlignedPictures::kScale, field[i].dy / AlignedPictures::kScale},
                std::clamp(gains[i], kMinGain, kMaxGain)};
    isEmpty_ = isEmpty_ && gains[i] == 0.0f;
  }
}

}  // namespace noxel::tracker
