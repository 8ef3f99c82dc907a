#include "registration/tracker/field_regions.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

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
constexpr int kLendReach = 24;         // distance

// Gains of single blocks are limited, so that one with strong texture does not decide for its neighbours.
constexpr float kMinGain = -3.0f;
constexpr float kMaxGain = 2.0f;
constexpr float kMaxLocalLoss = 0.3f;  // of a hole

// Whether a block moves, -1 to 1, by its own gain and its neighbours.
constexpr float kOwnSay = 0.35f;        // per unit of gain
constexpr float kNeighboursSay = 0.5f;  // per neighbour
constexpr float kStillness = 0.1f;      // against moving
constexpr float kSaturation = 0.75f;
constexpr float kMinSay = 0.53f;  // of a block that moves

constexpr int kHole = 12;  // distance: holes up to twice as wide are closed
constexpr float kDamping = 0.02f;

// Displacements are smoothed over 3 x 3 blocks of one region, which are apart by each of these strides. Blocks farther
// off count less where the near ones are sure: a surface that turns or recedes changes by so much per block.
constexpr int kStrides[] = {1, 3, 9};
constexpr float kChange = 0.02f;     // samples
constexpr float kMaxUnlike = 1.75f;  // samples

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
  std::free(says_);
  std::free(moves_);
  std::free(closed_);
  std::free(source_);
  std::free(smooth_);
  std::free(smoother_);
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
  says_ = allocateArray<float>(count_);
  moves_ = allocateArray<bool>(count_);
  closed_ = allocateArray<bool>(count_);
  source_ = allocateArray<int>(count_);
  smooth_ = allocateArray<Smoothed>(count_);
  smoother_ = allocateArray<Smoothed>(count_);
  return parents_ != nullptr && evidence_ != nullptr && nearest_ != nullptr && lent_ != nullptr && gains_ != nullptr &&
         local_ != nullptr && says_ != nullptr && moves_ != nullptr && closed_ != nullptr && source_ != nullptr &&
         smooth_ != nullptr && smoother_ != nullptr;
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
void FieldRegions::gatherEvidence(const FieldBlock* blocks, const FieldHistory& history) {
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
    if (!moves_[i]) continue;
    const Carried& before = history.of(i);
    evidence_[root(i)] += (blocks[i].restCost() - blocks[i].cost) / 9.0f;
    if (!before.d.isZero() && areAlike(before.d, blocks[i].d)) evidence_[root(i)] += before.gain;
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

// Each block near one that moves tries its displacement, others what they did before.
void FieldRegions::lendDisplacements(const AlignedPictures& pictures, const FieldBlock* blocks,
                                     const FieldHistory& history, WorkerPool* pool) {
  for (int i = 0; i < count_; ++i) nearest_[i] = {moves_[i] ? 0 : kFar, i};
  spreadNearest();
  forBands(pool, rows_, columns_ * 64, [&](int begin, int end) {
    for (int i = begin * columns_; i < end * columns_; ++i) {
      gains_[i] = 0.0f;
      lent_[i] = {0.0f, 0.0f};
      const bool isHeld = !history.of(i).d.isZero() && history.of(i).gain > 0.0f;
      if (nearest_[i].distance <= kLendReach) {
        lent_[i] = blocks[nearest_[i].block].d;
      } else if (!isHeld) {
        continue;
      } else {
        lent_[i] = history.of(i).d;
      }
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
      gains_[i] =
          history.add(i, lent_[i],
                      std::clamp((blocks[i].ownEnergy - energy - smoothed) / (blocks[i].unit * kCorrelatedSamples),
                                 kMinGain, kMaxGain));
    }
  });
}

// Mean gain of the 3 x 3 blocks around each, in units of one frame's.
void FieldRegions::poolGains(const FieldHistory& history, WorkerPool* pool) {
  const float scale = 1.0f / history.deviation();
  forBands(pool, rows_, columns_ * 16, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < columns_; ++column) {
        float sum = 0.0f;
        float weights = 0.0f;
        for (int y = std::max(row - 1, 0); y <= std::min(row + 1, rows_ - 1); ++y) {
          for (int x = std::max(column - 1, 0); x <= std::min(column + 1, columns_ - 1); ++x) {
            const auto weight = static_cast<float>((x == column ? 2 : 1) * (y == row ? 2 : 1));
            sum += weight * gains_[at(x, y)];
            weights += weight;
          }
        }
        local_[at(column, row)] = scale * sum / weights;
      }
    }
  });
}

// Blocks without texture do as their neighbours, the surer the more: the mean field of an Ising model, which a run down
// the picture and one up carry across it.
void FieldRegions::agree(const FieldHistory& history) {
  const float scale = kOwnSay / history.deviation();
  for (int i = 0; i < count_; ++i) {
    says_[i] = lent_[i].isZero() ? -1.0f : std::clamp(2.0f * kOwnSay * local_[i] - kStillness, -1.0f, 1.0f);
  }
  const auto listen = [&](int i) {
    if (lent_[i].isZero()) return;
    float around = 0.0f;
    if (i % columns_ > 0) around += says_[i - 1];
    if (i % columns_ + 1 < columns_) around += says_[i + 1];
    if (i >= columns_) around += says_[i - columns_];
    if (i + columns_ < count_) around += says_[i + columns_];
    const float say = scale * gains_[i] - kStillness + kNeighboursSay * around;
    says_[i] = say / (kSaturation + std::fabs(say));
  };
  for (int i = 0; i < count_; ++i) listen(i);
  for (int i = count_ - 1; i >= 0; --i) listen(i);
  for (int i = 0; i < count_; ++i) moves_[i] = says_[i] > kMinSay;
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

// What each moving block was lent, and how firmly its window says so; a hole's blocks are lent what surrounds them.
void FieldRegions::beginSmoothing(const FieldBlock* blocks) {
  for (int i = 0; i < count_; ++i) {
    smooth_[i] = {};
    if (!closed_[i]) continue;
    smooth_[i].d = lent_[moves_[i] ? i : source_[i]];
    if (!moves_[i]) continue;
    // A window that sees another layer too has more left than noise.
    const AlignedSums& window = blocks[i].window;
    const float rest = std::max(blocks[i].cost * (kCorrelatedSamples / kWindowArea), 1.0f);
    const float weight = 1.0f / (blocks[i].unit * kCorrelatedSamples * rest * rest);
    smooth_[i].hxx = weight * window.hxx;
    smooth_[i].hxy = weight * window.hxy;
    smooth_[i].hyy = weight * window.hyy;
  }
}

// Means of 3 x 3 blocks `stride` apart that move alike, by what each says of each direction.
void FieldRegions::smooth(int stride, WorkerPool* pool) {
  forBands(pool, rows_, columns_ * 128, [&](int begin, int end) {
    for (int i = begin * columns_; i < end * columns_; ++i) {
      smoother_[i] = smooth_[i];
      if (!closed_[i]) continue;
      const int column = i % columns_;
      const int row = i / columns_;
      const Displacement mine = smooth_[i].d;
      float hxx = 1e-6f, hxy = 0.0f, hyy = 1e-6f, bx = 0.0f, by = 0.0f;
      for (int y = row - stride; y <= row + stride; y += stride) {
        if (y < 0 || y >= rows_) continue;
        for (int x = column - stride; x <= column + stride; x += stride) {
          if (x < 0 || x >= columns_) continue;
          const Smoothed& other = smooth_[at(x, y)];
          if (!(other.hxx + other.hyy > 0.0f)) continue;
          const float dx = other.d.x - mine.x;
          const float dy = other.d.y - mine.y;
          const float near = 1.0f - (dx * dx + dy * dy) / (kMaxUnlike * kMaxUnlike);
          if (!(near > 0.0f)) continue;
          const float distance2 = static_cast<float>((x - column) * (x - column) + (y - row) * (y - row));
          const float weight = near * near / (1.0f + kChange * kChange * distance2 * 0.5f * (other.hxx + other.hyy));
          hxx += weight * other.hxx;
          hxy += weight * other.hxy;
          hyy += weight * other.hyy;
          bx += weight * (other.hxx * dx + other.hxy * dy);
          by += weight * (other.hxy * dx + other.hyy * dy);
        }
      }
      const float damping = kDamping * (hxx + hyy);
      const float determinant = (hxx + damping) * (hyy + damping) - hxy * hxy;
      smoother_[i] = {{mine.x + ((hyy + damping) * bx - hxy * by) / determinant,
                       mine.y + ((hxx + damping) * by - hxy * bx) / determinant},
                      hxx,
                      hxy,
                      hyy};
    }
  });
  std::swap(smooth_, smoother_);
}

void FieldRegions::decide(const AlignedPictures& pictures, const FieldBlock* blocks, FieldHistory* history,
                          BlockMotion* field, WorkerPool* pool) {
  gatherEvidence(blocks, *history);
  lendDisplacements(pictures, blocks, *history, pool);
  poolGains(*history, pool);
  agree(*history);
  closeHoles();
  beginSmoothing(blocks);
  for (const int stride : kStrides) smooth(stride, pool);
  forBands(pool, rows_, columns_ * 128, [&](int begin, int end) {
    for (int i = begin * columns_; i < end * columns_; ++i) {
      field[i] = {};
      if (!closed_[i]) continue;
      const auto pixels = [](float d) { return AlignedPictures::kScale * std::clamp(d, -kReach, kReach); };
      field[i] = {pixels(smooth_[i].d.x), pixels(smooth_[i].d.y), kFilledConfidence};
      if (moves_[i]) {
        const float sure = std::clamp(local_[i] / kMaxGain, 0.0f, 1.0f);
        field[i].confidence += (1.0f - kFilledConfidence) * sure;
      }
    }
  });
  history->keep(field, gains_);
}

}  // namespace noxel::tracker
