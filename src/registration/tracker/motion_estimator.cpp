#include "registration/tracker/motion_estimator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "registration/tracker/bands.h"
#include "registration/tracker/lanes.h"

namespace noxel::tracker {
namespace {

constexpr int kCoarseSide = 100;       // samples: the first level no longer than this is searched
constexpr int kConsensusBlocks = 100;  // and the coarsest with as many blocks decides who belongs to the background

// The median of a chi-squared of two degrees of freedom.
constexpr float kMedianSurprise = 1.386f;
// Geman and McClure's weight falls to a quarter at this many variances.
constexpr float kRobustness = 9.0f;
constexpr float kTolerance = 1.5f;  // pixels of the registration image off the common motion: one of the picture's own
constexpr float kMiddleWeight = 0.3f;

// Finer than the level that is always searched, so many blocks are tried.
constexpr int kSearchedBlocks = 64;
constexpr int kApproaches = 2;
constexpr double kRivalSupport = 0.7;  // of the best hypothesis' support: worth a look on the next level

// A motion this uncertain at the corners, in pixels, or that leaves the two pictures no more alike than this on every
// level, is no motion to build on. Pictures with nothing in common, each moved to where they fit best, reach 0.28, and 0.54
// where both repeat themselves, but are never certain; the same scene under noise of three times its contrast has 0.65, and
// 0.43 where it is certain.
constexpr double kMostDeviation = 4.0;
constexpr double kFirmDeviation = 1.0;
constexpr float kLeastCorrelation = 0.6f;
constexpr float kLeastCorrelationIfFirm = 0.4f;

constexpr double kFarApart = 1.0;  // pixels at the corners: two hypotheses, not one
constexpr int kMostSettling = 5;
constexpr double kSettled = 0.25;  // of the expected error: a step that is no longer worth another
constexpr double kAlike = 0.02;    // of the support of one of them: two motions that explain the picture equally well
constexpr double kCertain = 0.1;   // pixels at the corners: good enough not to look further

// Frames that differ by more than this in contrast or brightness (8-bit levels) are compared as if they did not. The sums of
// frames that share their exposure differ by less, from what enters and leaves.
constexpr double kGainNoticed = 0.05;
constexpr double kOffsetNoticed = 2.0;

constexpr float kSharedDoubt = 0.2f;
constexpr int kFewestPatches = 8;     // with fewer, nothing can be said about the noise
constexpr int kSampledPatches = 800;  // about as many are enough for a median
constexpr int kMostSteps = 5;
constexpr float kCloseEnough = 0.05f;  // samples
constexpr float kLongestStep = 2.0f;

template <class T>
T* allocateArray(int count) {
  return static_cast<T*>(std::calloc(static_cast<size_t>(std::max(count, 1)), sizeof(T)));
}

float medianOf(float* values, int count) {
  float* middle = values + (count - 1) / 2;
  std::nth_element(values, middle, values + count);
  return *middle;
}

void addTo(PatchEvidence* sum, const PatchEvidence& part) {
  sum->blocks += part.blocks;
  sum->hxx += part.hxx;
  sum->hxy += part.hxy;
  sum->hyy += part.hyy;
  sum->bx += part.bx;
  sum->by += part.by;
  sum->cxx += part.cxx;
  sum->cxy += part.cxy;
  sum->cyy += part.cyy;
  sum->sum += part.sum;
  sum->otherSum += part.otherSum;
  sum->squares += part.squares;
  sum->otherSquares += part.otherSquares;
  sum->energy += part.energy;
}

PatchEvidence evidenceOf(const BlockTexture& texture, const BlockMatch& match) {
  if (!match.inside) return {};
  return {1.0f,          texture.gxx, texture.gxy, texture.gyy,
          match.bx,      match.by,    match.cxx,   0.5f * (match.cxy + match.cyx),
          match.cyy,     texture.sum, match.sum,   texture.squares,
          match.squares, match.energy};
}

// Each block's evidence with that of its neighbours to the left and right.
void sumAlongRow(const BlockTexture* textures, const BlockMatch* matches, int count, PatchEvidence* sums) {
  PatchEvidence before = {};
  PatchEvidence here = evidenceOf(textures[0], matches[0]);
  for (int i = 0; i < count; ++i) {
    const PatchEvidence after = i + 1 < count ? evidenceOf(textures[i + 1], matches[i + 1]) : PatchEvidence{};
    sums[i] = here;
    addTo(&sums[i], before);
    addTo(&sums[i], after);
    before = here;
    here = after;
  }
}

// J = gain * I + offset, where one frame was exposed otherwise than the other.
struct Exposure {
  bool differs = false;
  float gain = 1.0f;
  float offset = 0.0f;  // 8-bit levels
};

Exposure exposureBetween(const BlockTexture* textures, const BlockMatch* matches, int count) {
  double samples = 0.0, sum = 0.0, otherSum = 0.0, squares = 0.0, otherSquares = 0.0;
  for (int i = 0; i < count; ++i) {
    if (!matches[i].inside) continue;
    samples += kBlockArea;
    sum += textures[i].sum;
    squares += textures[i].squares;
    otherSum += matches[i].sum;
    otherSquares += matches[i].squares;
  }
  Exposure exposure;
  if (!(samples > 0.0)) return exposure;
  const double variance = squares - sum * sum / samples;
  const double otherVariance = otherSquares - otherSum * otherSum / samples;
  if (!(variance > 0.0 && otherVariance > 0.0)) return exposure;
  const double gain = std::sqrt(otherVariance / variance);
  const double brighter = (otherSum - sum) / samples;
  exposure.differs = std::fabs(gain - 1.0) > kGainNoticed || std::fabs(brighter) > kOffsetNoticed;
  exposure.gain = static_cast<float>(gain);
  exposure.offset = static_cast<float>((otherSum - gain * sum) / samples);
  return exposure;
}

// As if J had been exposed as I was.
void adaptExposure(const Exposure& exposure, const BlockTexture* textures, int count, BlockMatch* matches) {
  const float scale = 1.0f / exposure.gain;
  for (int i = 0; i < count; ++i) {
    BlockMatch& match = matches[i];
    if (!match.inside) continue;
    const BlockTexture& own = textures[i];
    match.bx = own.gxI - scale * (own.gxI - match.bx - exposure.offset * own.gx);
    match.by = own.gyI - scale * (own.gyI - match.by - exposure.offset * own.gy);
    match.cxx *= scale;
    match.cxy *= scale;
    match.cyx *= scale;
    match.cyy *= scale;
  }
}

// Weight of a block: the part of its texture that is not noise, less what the other picture does not have of it, and less
// the farther its patch is from the common motion.
float weightOf(const PatchEvidence& patch, const LevelNoise& noise) {
  const float texture = patch.hxx + patch.hyy;
  const float own = texture - patch.blocks * noise.texture;
  if (!(own > 0.0f)) return 0.0f;
  const float doubt = kSharedDoubt * patch.blocks * noise.texture;  // noise in what the two seem to share
  const float shared = std::clamp((patch.cxx + patch.cyy + doubt) / (own + doubt), 0.0f, 1.0f);
  const float weight = own / texture * shared;
  if (!(noise.displacement > 0.0f)) return weight;
  const float distance = 1.0f + patch.surprise() / (kRobustness * noise.displacement);
  return weight / (distance * distance);
}

}  // namespace

float PatchEvidence::shared() const {
  const float texture = hxx + hyy;
  return texture > 0.0f ? std::clamp((cxx + cyy) / texture, 0.0f, 1.0f) : 0.0f;
}

float PatchEvidence::correlation() const {
  const float count = blocks * kBlockArea;
  if (!(count > 0.0f)) return 0.0f;
  const float variance = squares - sum * sum / count;
  const float otherVariance = otherSquares - otherSum * otherSum / count;
  const float covariance = 0.5f * (squares + otherSquares - energy) - sum * otherSum / count;
  const float scale = variance * otherVariance;
  return variance > 0.0f && otherVariance > 0.0f ? std::clamp(covariance / std::sqrt(scale), -1.0f, 1.0f) : 0.0f;
}

float PatchEvidence::surprise() const {
  float dx, dy;
  return displacement(&dx, &dy) ? bx * dx + by * dy : 0.0f;
}

bool PatchEvidence::displacement(float* dx, float* dy) const {
  const float determinant = hxx * hyy - hxy * hxy;
  if (!(determinant > 1e-4f * hxx * hyy)) return false;
  *dx = (hyy * bx - hxy * by) / determinant;
  *dy = (hxx * by - hxy * bx) / determinant;
  return true;
}

MotionEstimator::~MotionEstimator() {
  for (LevelState& state : states) {
    for (int i = 0; i < 2; ++i) {
      std::free(state.textures[i]);
      std::free(state.patches[i]);
      std::free(state.matches[i]);
    }
    std::free(state.rowSums);
    std::free(state.surprises);
  }
  std::free(displaced);
}

bool MotionEstimator::allocate(int width, int height, int levels) {
  for (ImagePyramid& pyramid : pyramids) {
    if (!pyramid.allocate(width, height, levels)) return false;
  }
  centreX = 0.5f * static_cast<float>(width);
  centreY = 0.5f * static_cast<float>(height);
  radius = std::hypot(centreX, centreY);
  int mostDisplaced = 1;
  for (int i = 0; i < pyramids[0].levels(); ++i) {
    const Image& image = pyramids[0].level(i);
    LevelState& state = states[i];
    state.grid = BlockGrid(image.width, image.height);
    const int count = state.grid.count();
    for (int j = 0; j < 2; ++j) {
      state.textures[j] = allocateArray<BlockTexture>(count);
      state.patches[j] = allocateArray<PatchEvidence>(count);
      state.matches[j] = allocateArray<BlockMatch>(count);
      if (state.textures[j] == nullptr || state.patches[j] == nullptr || state.matches[j] == nullptr) return false;
    }
    state.rowSums = allocateArray<PatchEvidence>(count);
    state.surprises = allocateArray<float>(count);
    if (state.rowSums == nullptr || state.surprises == nullptr) return false;
    if (std::max(image.width, image.height) > kCoarseSide) coarseLevel = i + 1;
    if (count >= kConsensusBlocks) consensusLevel = i;
    mostDisplaced = std::max(mostDisplaced, count);
  }
  coarseLevel = std::min(coarseLevel, levels - 1 < pyramids[0].levels() - 1 ? levels - 1 : pyramids[0].levels() - 1);
  consensusLevel = std::min(consensusLevel, coarseLevel);
  displaced = allocateArray<Displaced>(mostDisplaced);
  return displaced != nullptr && coarse.allocate(std::max(states[coarseLevel].grid.count(), kSearchedBlocks));
}

void MotionEstimator::read(const uint8_t* frame, WorkerPool* pool) {
  ImagePyramid& pyramid = pyramids[1 - previousIndex];
  pyramid.build(frame, pool);
  for (int i = 0; i <= coarseLevel; ++i) {
    LevelState& state = states[i];
    forBands(pool, state.grid.rows, state.grid.columns * kBlockArea, [&](int begin, int end) {
      readTextures(pyramid.level(i), state.grid, state.textures[1 - previousIndex], begin, end);
    });
  }
}

void MotionEstimator::advance() {
  previousIndex = 1 - previousIndex;
}

void MotionEstimator::backward(const GlobalMotion& motion, float x, float y, double* dx, double* dy) const {
  // x' = x + D(x): two steps of the fixed point from x' are exact to 1e-4 px for motions the fit accepts.
  *dx = 0.0;
  *dy = 0.0;
  for (int i = 0; i < 3; ++i) {
    const double atU = u(x + static_cast<float>(*dx));
    const double atV = v(y + static_cast<float>(*dy));
    *dx = -motion.dx(atU, atV);
    *dy = -motion.dy(atU, atV);
  }
}

void MotionEstimator::measure(int level, Direction direction, const GlobalMotion& motion, WorkerPool* pool) {
  LevelState& state = states[level];
  const BlockGrid& grid = state.grid;
  const bool isForward = direction == kForward;
  const Image& own = (isForward ? previous() : current()).level(level);
  const Image& other = (isForward ? current() : previous()).level(level);
  const BlockTexture* textures = state.textures[isForward ? previousIndex : 1 - previousIndex];
  BlockMatch* matches = state.matches[direction];
  const auto scale = static_cast<float>(1 << level);
  forBands(pool, grid.rows, grid.columns * kBlockArea * 2, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid.columns; ++column) {
        const float x = grid.centreX(column) * scale;
        const float y = grid.centreY(row) * scale;
        double dx, dy;
        if (isForward) {
          dx = motion.dx(u(x), v(y));
          dy = motion.dy(u(x), v(y));
        } else {
          backward(motion, x, y, &dx, &dy);
        }
        const float wantedX = static_cast<float>(dx) / scale;
        const float wantedY = static_cast<float>(dy) / scale;
        BlockMatch& match = matches[row * grid.columns + column];
        match = matchBlock<NativeLanes>(own, other, grid.originX + column * kBlockSide, grid.originY + row * kBlockSide,
                                        wantedX, wantedY);
        if (!match.inside) continue;
        // From the sixteenth it was measured at to the motion itself.
        const float restX = wantedX - match.qx;
        const float restY = wantedY - match.qy;
        match.bx -= match.cxx * restX + match.cxy * restY;
        match.by -= match.cyx * restX + match.cyy * restY;
        match.qx = wantedX;
        match.qy = wantedY;
      }
    }
  });
  const Exposure exposure = exposureBetween(textures, matches, grid.count());

  // Sums over 3 x 3 blocks, along rows and then across them.
  forBands(pool, grid.rows, grid.columns * kBlockArea, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      const int first = row * grid.columns;
      if (exposure.differs) adaptExposure(exposure, textures + first, grid.columns, matches + first);
      sumAlongRow(textures + first, matches + first, grid.columns, state.rowSums + first);
    }
  });
  forBands(pool, grid.rows, grid.columns * kBlockArea, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid.columns; ++column) {
        const int at = row * grid.columns + column;
        PatchEvidence& sum = state.patches[direction][at];
        sum = {};
        if (!matches[at].inside) continue;
        sum = state.rowSums[at];
        if (row > 0) addTo(&sum, state.rowSums[at - grid.columns]);
        if (row + 1 < grid.rows) addTo(&sum, state.rowSums[at + grid.columns]);
      }
    }
  });
  state.measured = true;
}

bool MotionEstimator::noiseOf(int level, Direction direction, LevelNoise* noise) {
  LevelState& state = states[level];
  const PatchEvidence* patches = state.patches[direction];
  const auto scale = static_cast<float>(1 << level);
  const int step = state.grid.count() / kSampledPatches + 1;
  int count = 0;
  for (int i = 0; i < state.grid.count(); i += step) {
    const PatchEvidence& patch = patches[i];
    if (patch.blocks > 0.0f) {
      state.surprises[count++] = (patch.hxx + patch.hyy - patch.cxx - patch.cyy) / patch.blocks;
    }
  }
  if (count < kFewestPatches) return false;
  noise->texture = std::max(medianOf(state.surprises, count), 0.0f);
  count = 0;
  for (int i = 0; i < state.grid.count(); i += step) {
    const PatchEvidence& patch = patches[i];
    float dx, dy;
    if (patch.blocks > 0.0f && patch.shared() > 0.1f && patch.displacement(&dx, &dy) &&
        std::hypot(dx, dy) * scale <= kTolerance) {
      state.surprises[count++] = patch.surprise();
    }
  }
  if (count < kFewestPatches) return false;
  noise->displacement = medianOf(state.surprises, count) / kMedianSurprise;
  return true;
}

float MotionEstimator::correlationOf(int level) const {
  const LevelState& state = states[level];
  if (!state.measured) return 0.0f;
  double covariance = 0.0;
  double variance = 0.0;
  double otherVariance = 0.0;
  for (int i = 0; i < state.grid.count(); ++i) {
    const PatchEvidence& patch = state.patches[kForward][i];
    const double count = patch.blocks * kBlockArea;
    if (!(count > 0.0)) continue;
    variance += patch.squares - patch.sum * patch.sum / count;
    otherVariance += patch.otherSquares - patch.otherSum * patch.otherSum / count;
    covariance += 0.5 * (patch.squares + patch.otherSquares - patch.energy) - patch.sum * patch.otherSum / count;
  }
  return variance > 0.0 && otherVariance > 0.0 ? static_cast<float>(covariance / std::sqrt(variance * otherVariance))
                                               : 0.0f;
}

// The weighted equations of a direction's blocks. With the textures' own sums as slopes they are Gauss and Newton's, safe
// from afar; with what the two pictures share they are Newton's, and noise does not shorten the step.
void MotionEstimator::gather(int level, Direction direction, bool sharedSlopes, const LevelNoise& noise,
                             MotionEquations* equations) const {
  const LevelState& state = states[level];
  const BlockGrid& grid = state.grid;
  const bool isForward = direction == kForward;
  const BlockTexture* textures = state.textures[isForward ? previousIndex : 1 - previousIndex];
  const auto scale = static_cast<float>(1 << level);
  const double sign = isForward ? 1.0 : -1.0;  // the backward displacement falls when the motion grows
  for (int i = 0; i < grid.count(); ++i) {
    const BlockMatch& match = state.matches[direction][i];
    if (!match.inside) continue;
    const float weight = weightOf(state.patches[direction][i], noise);
    if (!(weight > 0.0f)) continue;
    // Of the point in the previous frame, which the motion is a function of.
    float x = grid.centreX(i % grid.columns);
    float y = grid.centreY(i / grid.columns);
    if (!isForward) {
      x += match.qx;
      y += match.qy;
    }
    const BlockTexture& own = textures[i];
    const double cross = sharedSlopes ? 0.5 * (match.cxy + match.cyx) : own.gxy;
    MotionEquation equation;
    equation.u = u(x * scale);
    equation.v = v(y * scale);
    equation.slope[0] = (sharedSlopes ? match.cxx : own.gxx) / scale;
    equation.slope[1] = cross / scale;
    equation.slope[2] = (sharedSlopes ? match.cyy : own.gyy) / scale;
    equation.noise[0] = own.gxx;
    equation.noise[1] = own.gxy;
    equation.noise[2] = own.gyy;
    equation.rhs[0] = sign * match.bx;
    equation.rhs[1] = sign * match.by;
    equation.weight = weight;
    equations->add(equation);
  }
}

// One step towards the motion on a level. Without enough to go by, none.
void MotionEstimator::approach(int level, GlobalMotion* motion, WorkerPool* pool) {
  measure(level, kForward, *motion, pool);
  LevelNoise noise;
  if (!noiseOf(level, kForward, &noise)) return;
  MotionEquations equations;
  gather(level, kForward, false, noise, &equations);
  equations.solveSimilarity(motion);
}

// The last steps, with both frames as the one the gradients are taken from: noise in a gradient is not in both.
bool MotionEstimator::settle(int level, MotionFound* found, WorkerPool* pool) {
  found->level = level;
  approach(level, &found->motion, pool);
  MotionEquations equations;
  LevelNoise noise[2];
  for (const Direction direction : {kForward, kBackward}) {
    measure(level, direction, found->motion, pool);
    if (!noiseOf(level, direction, &noise[direction])) return false;
  }
  for (const Direction direction : {kForward, kBackward}) {
    gather(level, direction, true, noise[direction], &equations);
  }
  found->noise = noise[kForward].displacement;
  double covariance[6][6];
  if (!equations.solve(found->noise, &found->motion, &covariance)) return false;
  found->significance = significance(found->motion, covariance);
  const double cornerU = centreX / radius;
  const double cornerV = centreY / radius;
  double variance = 0.0;
  for (int corner = 0; corner < 4; ++corner) {
    const double phi[3] = {1.0, corner % 2 == 0 ? cornerU : -cornerU, corner / 2 == 0 ? cornerV : -cornerV};
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) variance += phi[i] * phi[j] * (covariance[i][j] + covariance[3 + i][3 + j]);
    }
  }
  found->cornerDeviation = std::sqrt(std::max(variance / 4.0, 0.0));
  return true;
}

// The motion most blocks agree on, and the one most of the others do.
void MotionEstimator::searchMotions(int level, GlobalMotion* first, GlobalMotion* second) {
  const LevelState& state = states[level];
  const BlockGrid& grid = state.grid;
  const auto scale = static_cast<float>(1 << level);
  const float expected[2][2] = {
      {0.0f, 0.0f}, {static_cast<float>(lastMotion.p[0]) / scale, static_cast<float>(lastMotion.p[3]) / scale}};
  coarse.search(previous().level(level), current().level(level), grid, state.textures[previousIndex], expected, 2,
                displaced);
  for (int i = 0; i < grid.count(); ++i) {
    displaced[i].u = u(grid.centreX(i % grid.columns) * scale);
    displaced[i].v = v(grid.centreY(i / grid.columns) * scale);
    displaced[i].dx *= scale;
    displaced[i].dy *= scale;
  }
  // Whole samples: half of one in each direction is the tolerance, and as much again for the pattern between them.
  const float tolerance = 1.2f * scale;
  const GlobalMotion known[2] = {{}, lastMotion};
  *first = findConsensus(displaced, grid.count(), tolerance, known, 2).motion;
  for (int i = 0; i < grid.count(); ++i) {
    if (agrees(displaced[i], *first, tolerance)) displaced[i].weight = 0.0f;
  }
  *second = findConsensus(displaced, grid.count(), tolerance, known, 2).motion;
}

// Lucas and Kanade's iteration on one block.
PatchEvidence MotionEstimator::follow(int level, int column, int row, float* dx, float* dy) const {
  const LevelState& state = states[level];
  const BlockGrid& grid = state.grid;
  const BlockTexture& texture = state.textures[previousIndex][row * grid.columns + column];
  for (int step = 0;; ++step) {
    const PatchEvidence block =
        evidenceOf(texture, matchBlock<NativeLanes>(previous().level(level), current().level(level),
                                                    grid.originX + column * kBlockSide, grid.originY + row * kBlockSide,
                                                    *dx, *dy));
    float stepX, stepY;
    if (!(block.blocks > 0.0f) || !block.displacement(&stepX, &stepY)) return {};
    const float length = std::hypot(stepX, stepY);
    if (length < kCloseEnough || step == kMostSteps) return block;
    const float shortened = length > kLongestStep ? kLongestStep / length : 1.0f;
    *dx += stepX * shortened;
    *dy += stepY * shortened;
  }
}

GlobalMotion MotionEstimator::consensusMotion(int level, const GlobalMotion* starts, int startCount, WorkerPool* pool) {
  const BlockGrid& grid = states[level].grid;
  const auto scale = static_cast<float>(1 << level);
  forBands(pool, grid.rows, grid.columns * kBlockArea * 32, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid.columns; ++column) {
        const float atU = u(grid.centreX(column) * scale);
        const float atV = v(grid.centreY(row) * scale);
        Displaced& point = displaced[row * grid.columns + column];
        point = {atU, atV, 0.0f, 0.0f, 0.0f};
        for (int i = 0; i < startCount; ++i) {
          if (std::find(starts, starts + i, starts[i]) != starts + i) continue;
          float dx = static_cast<float>(starts[i].dx(atU, atV)) / scale;
          float dy = static_cast<float>(starts[i].dy(atU, atV)) / scale;
          const PatchEvidence block = follow(level, column, row, &dx, &dy);
          const float weight = block.shared() * std::max(block.correlation(), 0.0f);
          if (weight > point.weight) point = {atU, atV, dx * scale, dy * scale, weight};
        }
        // The scene reaches to the frame's edges; what fills its middle may be a subject that moves on its own.
        point.weight *= kMiddleWeight + atU * atU + atV * atV;
      }
    }
  });
  return findConsensus(displaced, grid.count(), kTolerance, starts, startCount).motion;
}

// How much of the picture a motion explains.
double MotionEstimator::supportOf(int level, const GlobalMotion& motion, WorkerPool* pool) {
  measure(level, kForward, motion, pool);
  const LevelState& state = states[level];
  const BlockGrid& grid = state.grid;
  const auto scale = static_cast<float>(1 << level);
  double sum = 0.0;
  for (int i = 0; i < grid.count(); ++i) {
    const PatchEvidence& patch = state.patches[kForward][i];
    const float correlation = patch.correlation();
    float dx, dy;
    if (!(correlation > 0.0f) || !patch.displacement(&dx, &dy)) continue;
    const float distance = std::hypot(dx, dy) * scale / kTolerance;
    const float near = 1.0f / (1.0f + distance * distance);
    const float atU = u(grid.centreX(i % grid.columns) * scale);
    const float atV = v(grid.centreY(i / grid.columns) * scale);
    sum += (kMiddleWeight + atU * atU + atV * atV) * correlation * near * near;
  }
  return sum;
}

void MotionEstimator::test(int level, Hypothesis* hypothesis, WorkerPool* pool) {
  for (int i = 0; i < kApproaches; ++i) approach(level, &hypothesis->motion, pool);
  hypothesis->support = supportOf(level, hypothesis->motion, pool);
}

// Root mean square over the picture's corners of what two motions differ by, pixels.
double MotionEstimator::cornerDistance(const GlobalMotion& a, const GlobalMotion& b) const {
  const double u2 = centreX * centreX / (radius * radius);
  const double v2 = centreY * centreY / (radius * radius);
  const double parts[6] = {1.0, u2, v2, 1.0, u2, v2};  // the corners lie evenly round the centre: mixed terms cancel
  double square = 0.0;
  for (int i = 0; i < 6; ++i) square += parts[i] * (a.p[i] - b.p[i]) * (a.p[i] - b.p[i]);
  return std::sqrt(square);
}

// What the search and the frame before suggest, tested against the picture level by level until one is left.
GlobalMotion MotionEstimator::startingMotion(int searchLevel, int level, WorkerPool* pool) {
  GlobalMotion starts[4];  // the two motions most blocks of the searched level agree on, none, and the last one
  searchMotions(searchLevel, &starts[0], &starts[1]);
  starts[3] = lastMotion;
  Hypothesis best;
  Hypothesis second;
  const auto keep = [&](const Hypothesis& hypothesis) {
    if (hypothesis.support > best.support) {
      if (cornerDistance(hypothesis.motion, best.motion) > kFarApart) second = best;
      best = hypothesis;
    } else if (hypothesis.support > second.support && cornerDistance(hypothesis.motion, best.motion) > kFarApart) {
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
  for (LevelState& state : states) state.measured = false;
  const GlobalMotion motion = startingMotion(searchLevel, level, pool);
  MotionFound best;
  best.motion = motion;
  best.known = settle(0, &best, pool);
  if (level > 0 && !(best.known && best.cornerDeviation <= kCertain)) {
    // Deep in noise steps are short, and the level above may know better: down from there, as long as it gets anywhere.
    double most = best.known ? supportOf(1, best.motion, pool) : 0.0;
    MotionFound again;
    again.motion = motion;
    for (const int from : {1, 0}) {
      for (int i = 0; i < kMostSettling; ++i) {
        const GlobalMotion before = again.motion;
        again.known = settle(from, &again, pool);
        if (!again.known || cornerDistance(before, again.motion) < kSettled * again.cornerDeviation) break;
      }
      if (!again.known) continue;
      const double supported = supportOf(1, again.motion, pool);
      const bool alike = std::fabs(supported - most) < kAlike * most;
      if (!best.known || (alike ? again.cornerDeviation < best.cornerDeviation : supported > most)) {
        best = again;
        most = supported;
      }
    }
    for (const Direction direction : {kForward, kBackward}) measure(best.level, direction, best.motion, pool);
  }
  if (best.known) {
    if (!states[consensusLevel].measured) measure(consensusLevel, kForward, best.motion, pool);
    for (int i = 0; i <= consensusLevel; ++i) best.correlation = std::max(best.correlation, correlationOf(i));
    const float least = best.cornerDeviation <= kFirmDeviation ? kLeastCorrelationIfFirm : kLeastCorrelation;
    best.known = best.cornerDeviation <= kMostDeviation && best.correlation >= least;
  }
  return best;
}

MotionFound MotionEstimator::estimate(WorkerPool* pool) {
  MotionFound found = estimateFrom(coarseLevel, consensusLevel, pool);
  // Where the texture is too fine to be seen on a coarse level, a finer one is searched, not as far.
  if (!found.known && consensusLevel > 1) found = estimateFrom(1, 1, pool);
  lastMotion = found.known ? found.motion : GlobalMotion{};
  return found;
}

}  // namespace noxel::tracker
