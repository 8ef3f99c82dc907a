#include "registration/tracker/motion_field_estimator.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "registration/tracker/bands.h"
#include "registration/tracker/lanes.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

constexpr float kWindowArea = AlignedPictures::kWindow * AlignedPictures::kWindow;
constexpr int kReachSamples = AlignedPictures::kReach;

// Noise is measured by luma: a quarter of the windows of similar luma differ by less than this share of their mean.
constexpr int kLumaSteps = 16;
constexpr int kMinWindows = 24;
constexpr float kQuartile = 0.83f;
constexpr float kMinNoise = 0.03f;       // squared levels: rounding
constexpr float kInterpolation = 0.02f;  // share of the texture that interpolation and the common motion's error change

// A window may move when it differs by more than noise, or when its difference is a displaced texture's.
constexpr float kSuspicious = 1.2f;  // times the noise
constexpr float kSurprising = 10.0f;

constexpr int kSweeps = 3;
constexpr float kSettled = 0.4f;  // samples, sum of both directions: a smaller change concerns no neighbour

// What a displacement has to pay for, in units of the cost.
constexpr float kMovingCost = 2.0f;  // for any
constexpr float kUnlikeCost = 1.0f;  // per sample of difference from each neighbour
constexpr float kMaxUnlike = 6.0f;   // samples: at an edge more makes no difference
constexpr float kPull = 10.0f;       // per squared sample of difference from each neighbour that moves alike
constexpr float kAlike = 1.5f;       // samples
constexpr float kSteady = 0.05f;     // against steps where there is no texture
constexpr int kCellSaving = 8;       // absolute differences, coarse samples as bytes

int nearestSample(float displacement) {  // without a call to the C library
  constexpr int kAbove = 1024;
  return std::clamp(static_cast<int>(displacement + (kAbove + 0.5f)) - kAbove, -kReachSamples, kReachSamples);
}

}  // namespace

MotionFieldEstimator::~MotionFieldEstimator() {
  std::free(sums_);
  std::free(blocks_);
  std::free(cells_);
  std::free(samples_);
  std::free(field_);
}

bool MotionFieldEstimator::allocate(int width, int height) {
  columns_ = (width + kMotionBlockSide - 1) / kMotionBlockSide;
  rows_ = (height + kMotionBlockSide - 1) / kMotionBlockSide;
  wholeColumns_ = width / AlignedPictures::kScale / AlignedPictures::kBlock;
  wholeRows_ = height / AlignedPictures::kScale / AlignedPictures::kBlock;
  cellColumns_ = (columns_ + 1) / 2;
  cellRows_ = (rows_ + 1) / 2;
  field_ = allocateArray<BlockMotion>(columns_ * rows_);
  if (field_ == nullptr) return false;
  if (wholeColumns_ < 3 || wholeRows_ < 3) return true;  // no window
  sums_ = allocateArray<AlignedSums>(columns_ * rows_);
  blocks_ = allocateArray<FieldBlock>(columns_ * rows_);
  cells_ = allocateArray<Displacement>(cellColumns_ * cellRows_);
  samples_ = allocateArray<float>(columns_ * rows_);
  return sums_ != nullptr && blocks_ != nullptr && cells_ != nullptr && samples_ != nullptr &&
         pictures_.allocate(columns_, rows_) && regions_.allocate(columns_, rows_) &&
         history_.allocate(columns_, rows_);
}

void MotionFieldEstimator::clear() {
  std::memset(field_, 0, sizeof(BlockMotion) * static_cast<size_t>(columns_) * static_cast<size_t>(rows_));
  history_.forget();
}

void MotionFieldEstimator::readBlocks(WorkerPool* pool) {
  forBands(pool, rows_, columns_ * 64, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < columns_; ++column) sums_[at(column, row)] = pictures_.blockSums(column, row);
    }
  });
  forBands(pool, rows_, columns_ * 64, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      const int top = std::clamp(row - 1, 0, wholeRows_ - 3);
      for (int column = 0; column < columns_; ++column) {
        const int left = std::clamp(column - 1, 0, wholeColumns_ - 3);
        FieldBlock& block = blocks_[at(column, row)];
        block = {};
        for (int i = 0; i < 9; ++i) block.window.add(sums_[at(left + i % 3, top + i / 3)]);
        block.window.centre(kWindowArea);
        block.ownEnergy = sums_[at(column, row)].energy;
      }
    }
  });
}

void MotionFieldEstimator::measureNoise() {
  const int count = columns_ * rows_;
  const auto stepOf = [&](const FieldBlock& block) {
    return std::clamp(static_cast<int>(block.window.luma * (kLumaSteps / 256.0f / kWindowArea)), 0, kLumaSteps - 1);
  };
  const auto interpolated = [](const FieldBlock& block) {
    return kInterpolation * (block.window.hxx + block.window.hyy) / kWindowArea;
  };
  int ends[kLumaSteps] = {};
  for (int i = 0; i < count; ++i) ++ends[stepOf(blocks_[i])];
  int starts[kLumaSteps];
  for (int step = 0, sum = 0; step < kLumaSteps; ++step) {
    starts[step] = sum;
    sum += ends[step];
    ends[step] = starts[step];
  }
  for (int i = 0; i < count; ++i) {
    samples_[ends[stepOf(blocks_[i])]++] =
        std::max(blocks_[i].window.energy / kWindowArea - interpolated(blocks_[i]), 0.0f);
  }
  // A luma that few windows have takes the noise of the next darker one that more have, or of the darkest.
  float noise[kLumaSteps];
  float known = -1.0f;
  for (int step = 0; step < kLumaSteps; ++step) {
    const int windows = ends[step] - starts[step];
    if (windows >= kMinWindows) {
      float* quartile = samples_ + starts[step] + windows / 4;
      std::nth_element(samples_ + starts[step], quartile, samples_ + ends[step]);
      if (known < 0.0f) std::fill_n(noise, step, *quartile / kQuartile);
      known = *quartile / kQuartile;
    }
    noise[step] = known;
  }
  for (int i = 0; i < count; ++i) {
    blocks_[i].unit = std::max(noise[stepOf(blocks_[i])], kMinNoise) + interpolated(blocks_[i]);
  }
}

bool MotionFieldEstimator::mayMove(int column, int row) const {
  const FieldBlock& block = blocks_[at(std::min(column, columns_ - 1), std::min(row, rows_ - 1))];
  return block.window.energy > kSuspicious * kWindowArea * block.unit;
}

Displacement MotionFieldEstimator::searchCell(int column, int row) const {
  constexpr int kCoarse = AlignedPictures::kCoarse;
  constexpr int kCoarseBlock = AlignedPictures::kBlock / kCoarse;
  constexpr int kSide = AlignedPictures::kCellWindow;
  const int left =
      std::clamp(2 * column * kCoarseBlock - kSide / 4, 0, std::max(wholeColumns_ * kCoarseBlock - kSide, 0));
  const int top = std::clamp(2 * row * kCoarseBlock - kSide / 4, 0, std::max(wholeRows_ * kCoarseBlock - kSide, 0));
  const CellMatch coarse = pictures_.matchCell<NativeLanes>(left, top, kCellSaving);
  if (coarse.dx == 0 && coarse.dy == 0) return {};
  // To the sample, by the window at the cell's middle.
  const int windowLeft = std::clamp(2 * column - 1, 0, wholeColumns_ - 3);
  const int windowTop = std::clamp(2 * row - 1, 0, wholeRows_ - 3);
  int leastEnergy = INT_MAX;
  Displacement best = {};
  for (int i = 0; i < 9; ++i) {
    const int dx = std::clamp(kCoarse * coarse.dx + i % 3 - 1, -kReachSamples, kReachSamples);
    const int dy = std::clamp(kCoarse * coarse.dy + i / 3 - 1, -kReachSamples, kReachSamples);
    const int energy = pictures_.windowSums<NativeLanes>(windowLeft, windowTop, dx, dy).energy;
    if (energy >= leastEnergy) continue;
    leastEnergy = energy;
    best = {static_cast<float>(dx), static_cast<float>(dy)};
  }
  return best;
}

// True: what a block of the cell did before leaves no more than noise of the window at the cell's middle.
bool MotionFieldEstimator::goesOn(int column, int row, Displacement* d) const {
  for (int i = 0; i < 4; ++i) {
    const int block = at(std::min(2 * column + i % 2, columns_ - 1), std::min(2 * row + i / 2, rows_ - 1));
    *d = history_.of(block).d;
    if (d->isZero()) continue;
    const DisplacedSums sums = pictures_.windowSums<NativeLanes>(std::clamp(2 * column - 1, 0, wholeColumns_ - 3),
                                                                 std::clamp(2 * row - 1, 0, wholeRows_ - 3),
                                                                 nearestSample(d->x), nearestSample(d->y));
    constexpr float kLevel = AlignedPictures::kLevel;
    return static_cast<float>(sums.energy) * (kLevel * kLevel) <= kSuspicious * kWindowArea * blocks_[block].unit;
  }
  return false;
}

void MotionFieldEstimator::searchCells(WorkerPool* pool) {
  forBands(pool, cellRows_, cellColumns_ * 8192, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < cellColumns_; ++column) {
        const int x = 2 * column, y = 2 * row;
        const bool needed = mayMove(x, y) || mayMove(x + 1, y) || mayMove(x, y + 1) || mayMove(x + 1, y + 1);
        Displacement found = {};
        if (needed && !goesOn(column, row, &found)) found = searchCell(column, row);
        cells_[row * cellColumns_ + column] = found;
      }
    }
  });
}

MotionFieldEstimator::Neighbours MotionFieldEstimator::neighboursOf(int column, int row) const {
  Neighbours around = {};
  const auto take = [&](int x, int y) {
    if (x >= 0 && y >= 0 && x < columns_ && y < rows_) around.d[around.count++] = blocks_[at(x, y)].d;
  };
  take(column, row - 1);
  take(column - 1, row);
  take(column + 1, row);
  take(column, row + 1);
  return around;
}

// The window's cost near (dx, dy), after a Lucas-Kanade step that is drawn towards neighbours that move alike.
MotionFieldEstimator::Match MotionFieldEstimator::match(int column, int row, int dx, int dy,
                                                        const Neighbours& around) const {
  constexpr float kLevel = AlignedPictures::kLevel;
  const int left = std::clamp(column - 1, 0, wholeColumns_ - 3);
  const int top = std::clamp(row - 1, 0, wholeRows_ - 3);
  const DisplacedSums sums = pictures_.windowSums<NativeLanes>(left, top, dx, dy);
  const FieldBlock& block = blocks_[at(column, row)];
  const AlignedSums& window = block.window;
  const float mean = static_cast<float>(sums.difference) * kLevel / kWindowArea;
  const float energy = static_cast<float>(sums.energy) * (kLevel * kLevel) - mean * mean * kWindowArea;
  const float bx = static_cast<float>(sums.bx) * (0.5f * kLevel * kLevel) - window.gx * mean;
  const float by = static_cast<float>(sums.by) * (0.5f * kLevel * kLevel) - window.gy * mean;
  const float unit = block.unit * kCorrelatedSamples;
  const auto x = static_cast<float>(dx);
  const auto y = static_cast<float>(dy);
  float ridge = kSteady * unit;
  float drawnX = 0.0f;
  float drawnY = 0.0f;
  for (int i = 0; i < around.count; ++i) {
    const float offX = around.d[i].x - x;
    const float offY = around.d[i].y - y;
    if (offX * offX + offY * offY > kAlike * kAlike) continue;
    ridge += kPull * unit;
    drawnX += kPull * unit * offX;
    drawnY += kPull * unit * offY;
  }
  const float hxx = window.hxx + ridge;
  const float hyy = window.hyy + ridge;
  const float determinant = hxx * hyy - window.hxy * window.hxy;
  // The difference grows by the gradient along the displacement that is missing.
  const float stepX = std::clamp((hyy * (drawnX - bx) - window.hxy * (drawnY - by)) / determinant, -1.0f, 1.0f);
  const float stepY = std::clamp((hxx * (drawnY - by) - window.hxy * (drawnX - bx)) / determinant, -1.0f, 1.0f);
  const float saved = -2.0f * (bx * stepX + by * stepY) -
                      (window.hxx * stepX * stepX + 2.0f * window.hxy * stepX * stepY + window.hyy * stepY * stepY);
  return {(energy - saved) / unit, {x + stepX, y + stepY}};
}

// True: nothing around has changed since the block last chose.
bool MotionFieldEstimator::isSettled(int column, int row, int sweep) const {
  const auto changed = [&](int x, int y) {
    return x >= 0 && y >= 0 && x < columns_ && y < rows_ && blocks_[at(x, y)].changedIn >= sweep - 1;
  };
  return !changed(column, row) && !changed(column, row - 1) && !changed(column - 1, row) && !changed(column + 1, row) &&
         !changed(column, row + 1);
}

void MotionFieldEstimator::choose(int column, int row, int sweep) {
  FieldBlock& block = blocks_[at(column, row)];
  const Neighbours around = neighboursOf(column, row);
  int candidates[11][2];  // whole samples: the rest is refined
  int count = 0;
  const auto consider = [&](Displacement d) {
    if (d.isZero()) return;
    const int dx = nearestSample(d.x);
    const int dy = nearestSample(d.y);
    for (int i = 0; i < count; ++i) {
      if (candidates[i][0] == dx && candidates[i][1] == dy) return;
    }
    candidates[count][0] = dx;
    candidates[count++][1] = dy;
  };
  for (int i = 0; i < around.count; ++i) consider(around.d[i]);
  if (sweep == 1) {
    consider(history_.of(at(column, row)).d);
    // What its cell has found, and the three cells nearest to the block.
    const int x = column / 2;
    const int y = row / 2;
    const int besideX = std::clamp(column % 2 == 0 ? x - 1 : x + 1, 0, cellColumns_ - 1);
    const int besideY = std::clamp(row % 2 == 0 ? y - 1 : y + 1, 0, cellRows_ - 1);
    for (const int cell : {y * cellColumns_ + x, y * cellColumns_ + besideX, besideY * cellColumns_ + x,
                           besideY * cellColumns_ + besideX}) {
      consider(cells_[cell]);
    }
    if (count == 0 && !mayMove(column, row)) {
      const AlignedSums& w = block.window;
      const float determinant = w.hxx * w.hyy - w.hxy * w.hxy;
      const float surprise = w.hyy * w.bx * w.bx - 2.0f * w.hxy * w.bx * w.by + w.hxx * w.by * w.by;
      if (!(determinant > 0.0f) || surprise < kSurprising * block.unit * determinant) return;
    }
    // Less than a sample.
    candidates[count][0] = 0;
    candidates[count++][1] = 0;
  } else {
    consider(block.d);
  }
  const auto priceOf = [&](Displacement d) {
    float price = d.isZero() ? 0.0f : kMovingCost;
    for (int i = 0; i < around.count; ++i) {
      const float x = d.x - around.d[i].x;
      const float y = d.y - around.d[i].y;
      price += kUnlikeCost * std::min(std::sqrt(x * x + y * y), kMaxUnlike);
    }
    return price;
  };
  Displacement best = {};
  float bestCost = block.restCost();
  float least = bestCost + priceOf(best);
  for (int i = 0; i < count; ++i) {
    const int dx = candidates[i][0];
    const int dy = candidates[i][1];
    if (!pictures_.wasInside(column, row, static_cast<float>(dx), static_cast<float>(dy))) continue;
    const Match found = match(column, row, dx, dy, around);
    const float total = found.cost + priceOf(found.d);
    if (!(total < least)) continue;
    least = total;
    best = found.d;
    bestCost = found.cost;
  }
  if (std::fabs(block.d.x - best.x) + std::fabs(block.d.y - best.y) > kSettled) block.changedIn = sweep;
  block.d = best;
  block.cost = bestCost;
}

// Blocks of one colour of a chessboard depend on those of the other only.
void MotionFieldEstimator::sweep(int number, int colour, WorkerPool* pool) {
  forBands(pool, rows_, columns_ * 1024, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = (row + colour) % 2; column < columns_; column += 2) {
        if (number > 1 && isSettled(column, row, number)) continue;
        if (pictures_.wasInside(column, row, 0.0f, 0.0f)) choose(column, row, number);
      }
    }
  });
}

void MotionFieldEstimator::estimate(const ImagePyramid& previous, const ImagePyramid& current,
                                    const PictureFrame& frame, const GlobalMotion& motion, WorkerPool* pool) {
  if (blocks_ == nullptr || current.levels() < 2) return;
  pictures_.read(previous.level(1), current.level(1), frame, motion, pool);
  history_.carry(frame, motion);
  readBlocks(pool);
  measureNoise();
  searchCells(pool);
  for (int number = 1; number <= kSweeps; ++number) {
    for (const int colour : {0, 1}) sweep(number, colour, pool);
  }
  regions_.decide(pictures_, blocks_, &history_, field_, pool);
}

}  // namespace noxel::tracker
