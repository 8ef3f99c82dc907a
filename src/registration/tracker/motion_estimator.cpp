#include "registration/tracker/motion_estimator.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "registration/tracker/bands.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

constexpr int kCoarseSide = 100;       // samples: the finest level within this is searched
constexpr int kConsensusBlocks = 100;  // the coarsest level with as many blocks separates the background

// Blocks tried when a level finer than the coarse one is searched.
constexpr int kSearchedBlocks = 64;
constexpr int kApproaches = 2;
constexpr double kRivalSupport = 0.7;  // of the best hypothesis' support: kept for the next level

// A motion more uncertain at the corners (pixels), or with less correlation on every level, is rejected. Measured:
// unrelated pictures, aligned at best, reach a correlation of 0.28, and 0.54 when both are repetitive, but are never
// certain; one scene under noise of three times its contrast has 0.65, and 0.43 when it is certain.
constexpr double kMaxDeviation = 5.6;
constexpr double kFirmDeviation = 1.4;
constexpr float kMinCorrelation = 0.6f;
constexpr float kMinCorrelationIfFirm = 0.4f;

// Change in brightness over the rows, rms of its logarithm: more is flickering light, and less for so many frames none.
constexpr double kFlicker = 0.05;
constexpr double kCalm = 0.03;
constexpr int kCalmFrames = 60;

constexpr double kClearShare = 0.45;
constexpr double kNoShare = 0.05;   // a direction with less is not looked for on a coarser level either
constexpr double kHeldShare = 0.8;  // of the last motion

constexpr double kFarApart = 1.0;  // pixels at the corners: distinct hypotheses
constexpr int kMaxSettling = 5;
// Iteration stops at a step below either: pixels at the corners, or share of the expected error.
constexpr double kSettledStep = 0.1;
constexpr double kSettled = 0.5;
constexpr double kAlike = 0.02;    // of the support: two motions that explain the picture equally well
constexpr double kCertain = 0.14;  // pixels at the corners: good enough to stop

}  // namespace

MotionEstimator::~MotionEstimator() {
  std::free(displaced_);
}

bool MotionEstimator::allocate(int width, int height, int levelCount) {
  for (ImagePyramid& pyramid : pyramids_) {
    if (!pyramid.allocate(width, height, levelCount)) return false;
  }
  frame_ = PictureFrame(width, height);
  int maxBlocks = 0;
  for (int i = 0; i < pyramids_[0].levels(); ++i) {
    const Image& image = pyramids_[0].level(i);
    if (!levels_[i].allocate(image, i, frame_)) return false;
    const int blocks = levels_[i].grid().count();
    maxBlocks = std::max(maxBlocks, blocks);
    if (blocks >= kConsensusBlocks) consensusLevel_ = i;
    coarseLevel_ = i;
    if (std::max(image.width, image.height) <= kCoarseSide) break;
  }
  displaced_ = allocateArray<Displaced>(maxBlocks);
  return displaced_ != nullptr && still_.allocate(levels_[0]) && pattern_.allocate(pyramids_[0].level(0), frame_) &&
         coarse_.allocate(std::max(levels_[coarseLevel_].grid().count(), kSearchedBlocks));
}

void MotionEstimator::read(const uint8_t* pixels, WorkerPool* pool) {
  const int slot = 1 - previousIndex_;
  pyramids_[slot].buildFinest(pixels, pool);
  pattern_.subtract(pyramids_[slot].level(0), pool);
  pyramids_[slot].buildCoarser(pool);
  for (int i = 0; i <= coarseLevel_; ++i) levels_[i].read(pyramids_[slot].level(i), slot, pool);
}

void MotionEstimator::advance() {
  previousIndex_ = 1 - previousIndex_;
}

void MotionEstimator::forget() {
  lastMotion_ = lastSignificant_ = {};
  adaptRows(false);
  forgetStill();
  pattern_.forget();
}

void MotionEstimator::markStill() {
  for (int i = 0; i <= coarseLevel_; ++i) still_.mark(&levels_[i]);
}

void MotionEstimator::forgetStill() {
  if (still_.forget()) markStill();
}

// One step towards the motion on a level; none when there are too few patches.
void MotionEstimator::approach(int level, GlobalMotion* motion, WorkerPool* pool) {
  LevelComparison& here = levels_[level];
  here.compare(kForward, *motion, pool);
  LevelNoise noise;
  if (!here.noise(kForward, &noise)) return;
  MotionEquations equations;
  here.gather(kForward, kOwnSlopes, noise, &equations);
  if (level == consensusLevel_) {
    equations.solveSimilarity(motion);
  } else {
    double unused[6][6];
    equations.solve(noise.displacement, motion, &unused);
  }
}

// The last steps, symmetric in the two frames: they do not share the noise in their gradients.
bool MotionEstimator::settle(int level, MotionFound* found, WorkerPool* pool) {
  found->level = level;
  approach(level, &found->motion, pool);
  LevelComparison& here = levels_[level];
  Determinacy determinacy;
  for (int step = 0; step < kMaxSettling; ++step) {
    MotionEquations equations;
    LevelNoise noise[2];
    for (const Direction direction : {kForward, kBackward}) {
      here.compare(direction, found->motion, pool);
      if (!here.noise(direction, &noise[direction])) return false;
    }
    // Both directions see the same noise but are added as independent: its variance counts twice.
    const double variance = 2.0 * static_cast<double>(noise[kForward].displacement);
    const auto gather = [&](Slopes slopes) {
      equations = {};
      for (const Direction direction : {kForward, kBackward}) {
        here.gather(direction, slopes, noise[direction], &equations);
      }
      return slopes == kSharedSlopes ||
             equations.determine(found->motion, variance, static_cast<double>(here.scale()), &determinacy);
    };
    const GlobalMotion before = found->motion;
    // Once all directions are followed they stay so, as the steps are small; a sample of the blocks mostly shows it.
    const bool clear =
        gather(determinacy.followed == 4 ? kSharedSlopes : kSharedWithSample) && determinacy.leastShare > kClearShare;
    if (!clear && determinacy.followed < 4 && !gather(kSharedWithExposure)) return false;
    if (determinacy.followed == 0) return false;
    found->followed = determinacy.followed;
    found->leastShare = determinacy.leastShare;
    double covariance[6][6];
    double followed[6][6];
    if (determinacy.followed < 4) {
      if (!followDetermined(determinacy, heldMotion(), &found->motion, &followed, &covariance, &found->significance)) {
        return false;
      }
      found->followedDeviation = frame_.cornerDeviation(followed);
      found->cornerDeviation = frame_.cornerDeviation(covariance);
    } else {
      if (!equations.solve(determinacy.noise * variance, &found->motion, &covariance)) return false;
      found->significance = significance(found->motion, covariance);
      found->followedDeviation = found->cornerDeviation = frame_.cornerDeviation(covariance);
    }
    const double moved = frame_.cornerDistance(before, found->motion);
    if (!(moved > std::max(kSettledStep, kSettled * found->followedDeviation))) break;
  }
  return true;
}

// What is assumed along directions that the picture does not determine: the last motion, unless it was none, dying away.
GlobalMotion MotionEstimator::heldMotion() const {
  GlobalMotion held;
  for (int i = 0; i < 6; ++i) held.p[i] = kHeldShare * lastSignificant_.p[i];
  return held;
}

// The motion most blocks agree on, and the one most of the others agree on.
void MotionEstimator::searchMotions(int level, GlobalMotion* first, GlobalMotion* second) {
  const LevelComparison& here = levels_[level];
  const BlockGrid& grid = here.grid();
  const float scale = here.scale();
  const float expected[2][2] = {
      {0.0f, 0.0f}, {static_cast<float>(lastMotion_.p[0]) / scale, static_cast<float>(lastMotion_.p[3]) / scale}};
  coarse_.search(here.previousImage(), here.currentImage(), grid, here.previousTextures(), here.leftOut(), expected, 2,
                 displaced_);
  for (int i = 0; i < grid.count(); ++i) {
    displaced_[i].u = here.u(i % grid.columns);
    displaced_[i].v = here.v(i / grid.columns);
    displaced_[i].dx *= scale;
    displaced_[i].dy *= scale;
  }
  // The search is in whole samples: half a sample in each direction, and as much again for aliasing.
  const float tolerance = 1.2f * scale;
  const GlobalMotion known[2] = {{}, lastMotion_};
  *first = findConsensus(displaced_, grid.count(), tolerance, known, 2);
  for (int i = 0; i < grid.count(); ++i) {
    if (agrees(displaced_[i], *first, tolerance)) displaced_[i].weight = 0.0f;
  }
  *second = findConsensus(displaced_, grid.count(), tolerance, known, 2);
}

// The motion of most of the scene, from blocks tracked one by one.
GlobalMotion MotionEstimator::consensusMotion(int level, const GlobalMotion* starts, int startCount, WorkerPool* pool) {
  const LevelComparison& here = levels_[level];
  const BlockGrid& grid = here.grid();
  const float scale = here.scale();
  forBands(pool, grid.rows, grid.rowSamples() * 32, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid.columns; ++column) {
        const float atU = here.u(column);
        const float atV = here.v(row);
        Displaced& point = displaced_[row * grid.columns + column];
        point = {atU, atV, 0.0f, 0.0f, 0.0f};
        if (here.leftOut()[row * grid.columns + column] != 0) continue;
        for (int i = 0; i < startCount; ++i) {
          if (std::find(starts, starts + i, starts[i]) != starts + i) continue;
          float dx = static_cast<float>(starts[i].dx(atU, atV)) / scale;
          float dy = static_cast<float>(starts[i].dy(atU, atV)) / scale;
          const PatchEvidence block = here.follow(column, row, &dx, &dy);
          const float weight = block.shared() * std::max(block.correlation(), 0.0f);
          if (weight > point.weight) point = {atU, atV, dx * scale, dy * scale, weight};
        }
        point.weight *= here.placeWeight(column, row);
      }
    }
  });
  return findConsensus(displaced_, grid.count(), LevelComparison::kTolerance, starts, startCount);
}

double MotionEstimator::supportOf(int level, const GlobalMotion& motion, WorkerPool* pool) {
  levels_[level].compare(kForward, motion, pool);
  return levels_[level].support();
}

void MotionEstimator::test(int level, Hypothesis* hypothesis, WorkerPool* pool) {
  for (int i = 0; i < kApproaches; ++i) approach(level, &hypothesis->motion, pool);
  hypothesis->support = supportOf(level, hypothesis->motion, pool);
}

// Candidates from the search and the previous frame, tested level by level until one is left.
GlobalMotion MotionEstimator::startingMotion(int searchLevel, int level, WorkerPool* pool) {
  GlobalMotion starts[4];  // the two best of the search, none, and the last frame's motion
  searchMotions(searchLevel, &starts[0], &starts[1]);
  starts[3] = lastMotion_;
  Hypothesis best;
  Hypothesis second;
  const auto keep = [&](const Hypothesis& hypothesis) {
    if (hypothesis.support > best.support) {
      if (frame_.cornerDistance(hypothesis.motion, best.motion) > kFarApart) second = best;
      best = hypothesis;
    } else if (hypothesis.support > second.support &&
               frame_.cornerDistance(hypothesis.motion, best.motion) > kFarApart) {
      second = hypothesis;
    }
  };
  for (int i = -1; i < 4; ++i) {
    if (i > 0 && std::find(starts, starts + i, starts[i]) != starts + i) continue;
    Hypothesis hypothesis = {i < 0 ? consensusMotion(level, starts, 4, pool) : starts[i], 0.0};
    test(level, &hypothesis, pool);
    keep(hypothesis);
  }
  for (int finer = level - 1; finer >= 1; --finer) {
    test(finer, &best, pool);
    if (!(second.support > kRivalSupport * best.support)) continue;
    test(finer, &second, pool);
    if (second.support > best.support) std::swap(best, second);
  }
  return best.motion;
}

MotionFound MotionEstimator::estimateFrom(int searchLevel, int level, WorkerPool* pool) {
  for (int i = 0; i <= coarseLevel_; ++i) {
    levels_[i].begin(pyramids_[previousIndex_].level(i), pyramids_[1 - previousIndex_].level(i), previousIndex_);
  }
  const GlobalMotion motion = startingMotion(searchLevel, level, pool);
  MotionFound best;
  best.motion = motion;
  best.known = settle(0, &best, pool);
  const bool firm =
      best.known && best.followedDeviation <= kCertain && (best.followed == 4 || best.leastShare < kNoShare);
  if (level > 0 && !firm) {
    // In heavy noise the steps come out too short: restart one level up and, when that leads elsewhere, refine.
    double support = best.known ? supportOf(1, best.motion, pool) : 0.0;
    const MotionFound finest = best;
    MotionFound again;
    again.motion = motion;
    bool agrees = false;
    for (const int from : {1, 0}) {
      // From so near, the finest level would lead to where it led before.
      agrees = from == 0 && finest.known && again.known && finest.followed == 4 && again.followed == 4 &&
               frame_.cornerDistance(finest.motion, again.motion) <=
                   std::max(finest.followedDeviation, again.followedDeviation);
      if (agrees) break;
      again.known = settle(from, &again, pool);
      if (!again.known) continue;
      const double newSupport = supportOf(1, again.motion, pool);
      const bool alike = std::fabs(newSupport - support) < kAlike * support;
      if (best.known && again.followed < best.followed) continue;
      if (!best.known || again.followed > best.followed ||
          (alike ? again.followedDeviation < best.followedDeviation : newSupport > support)) {
        best = again;
        support = newSupport;
      }
    }
    if (!agrees) {
      for (const Direction direction : {kForward, kBackward}) levels_[best.level].compare(direction, best.motion, pool);
    }
  }
  if (best.known) {
    if (!levels_[consensusLevel_].compared()) levels_[consensusLevel_].compare(kForward, best.motion, pool);
    for (int i = 0; i <= consensusLevel_; ++i) best.correlation = std::max(best.correlation, levels_[i].correlation());
    const float minCorrelation = best.followedDeviation <= kFirmDeviation ? kMinCorrelationIfFirm : kMinCorrelation;
    best.known = best.followedDeviation <= kMaxDeviation && best.correlation >= minCorrelation;
  }
  return best;
}

MotionFound MotionEstimator::search(WorkerPool* pool) {
  const MotionFound found = estimateFrom(coarseLevel_, consensusLevel_, pool);
  // When the texture is too fine for the coarse level, search a finer one, not as far.
  return found.known || consensusLevel_ <= 1 ? found : estimateFrom(1, 1, pool);
}

void MotionEstimator::adaptRows(bool adapt) {
  flickers_ = adapt;
  calmFrames_ = 0;
  for (int i = 0; i <= coarseLevel_; ++i) levels_[i].adaptRows(adapt);
}

void MotionEstimator::setMoving(const MotionField& moving) {
  const int count = moving.columns * moving.rows;
  const auto moved = std::count_if(moving.blocks, moving.blocks + count,
                                   [](const BlockMotion& block) { return block.confidence > 0.0f; });
  const bool isMost = 2 * moved > count;
  for (int i = 0; i <= coarseLevel_; ++i) levels_[i].setMoving(isMost ? MotionField{} : moving);
}

MotionFound MotionEstimator::estimate(WorkerPool* pool) {
  MotionFound found = search(pool);
  const double variation = levels_[0].rowVariation();
  if (!flickers_ && variation > kFlicker) {
    adaptRows(true);
    found = search(pool);
    if (!found.known) adaptRows(false);  // a cut
  }
  calmFrames_ = variation > kCalm ? 0 : calmFrames_ + 1;
  if (flickers_ && calmFrames_ > kCalmFrames) adaptRows(false);
  if (!found.known) {
    forgetStill();  // maybe a cut
    if (!pattern_.isPresent()) pattern_.forget();
  } else if (found.followed == 4 && !flickers_) {
    pattern_.learn(pyramids_[previousIndex_].level(0), pyramids_[1 - previousIndex_].level(0), found.motion, pool);
    if (found.level == 0 && still_.learn(levels_[0], found.motion)) markStill();
  }
  lastMotion_ = found.known ? found.motion : GlobalMotion{};
  lastSignificant_ = found.significance >= kStillSignificance ? lastMotion_ : GlobalMotion{};
  return found;
}

}  // namespace noxel::tracker
