#include "registration/tracker/level_comparison.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "registration/tracker/bands.h"
#include "registration/tracker/lanes.h"
#include "registration/tracker/median.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

// The median of a chi-squared of two degrees of freedom.
constexpr float kMedianSurprise = 1.386f;
// Geman and McClure's weight falls to a quarter at this many variances.
constexpr float kRobustness = 9.0f;

// Of the middle against the edges, which are one farther out: the scene reaches to the frame's edges, and what fills its
// middle may be a subject that moves on its own.
constexpr float kMiddleWeight = 0.2f;

// Frames that differ by more than this in contrast or brightness (8-bit levels) are compared as if they did not. The sums of
// frames that share their exposure differ by less, from what enters and leaves.
constexpr double kGainNoticed = 0.05;
constexpr double kOffsetNoticed = 2.0;

// Of a patch's noise: what it seems to share with the other picture may be wrong by this, three times its deviation.
constexpr float kSharedDoubt = 0.2f;
constexpr int kFewestPatches = 8;     // with fewer, nothing can be said about the noise
constexpr int kSampledPatches = 800;  // about as many are enough for a median

constexpr int kMostSteps = 5;
constexpr float kCloseEnough = 0.05f;  // samples
constexpr float kLongestStep = 2.0f;

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

LevelComparison::~LevelComparison() {
  for (int i = 0; i < 2; ++i) {
    std::free(textures[i]);
    std::free(matches[i]);
    std::free(patchSums[i]);
  }
  std::free(rowSums);
  std::free(samples);
}

bool LevelComparison::allocate(const Image& image, int pyramidLevel, const PictureFrame& pictureFrame) {
  frame = pictureFrame;
  levelScale = static_cast<float>(1 << pyramidLevel);
  blockGrid = BlockGrid(image.width, image.height);
  const int count = blockGrid.count();
  for (int i = 0; i < 2; ++i) {
    textures[i] = allocateArray<BlockTexture>(count);
    matches[i] = allocateArray<BlockMatch>(count);
    patchSums[i] = allocateArray<PatchEvidence>(count);
    if (textures[i] == nullptr || matches[i] == nullptr || patchSums[i] == nullptr) return false;
  }
  rowSums = allocateArray<PatchEvidence>(count);
  samples = allocateArray<float>(count);
  return rowSums != nullptr && samples != nullptr;
}

void LevelComparison::read(const Image& image, int slot, WorkerPool* pool) {
  forBands(pool, blockGrid.rows, blockGrid.rowSamples(),
           [&](int begin, int end) { readTextures(image, blockGrid, textures[slot], begin, end); });
}

void LevelComparison::begin(const Image& previousImage, const Image& currentImage, int previousSlot) {
  previous = &previousImage;
  current = &currentImage;
  previousTexture = previousSlot;
  isCompared = false;
}

float LevelComparison::placeWeight(int column, int row) const {
  return kMiddleWeight + u(column) * u(column) + v(row) * v(row);
}

void LevelComparison::compare(Direction direction, const GlobalMotion& motion, WorkerPool* pool) {
  const BlockGrid& grid = blockGrid;
  const bool isForward = direction == kForward;
  const Image& own = *(isForward ? previous : current);
  const Image& other = *(isForward ? current : previous);
  const BlockTexture* ownTextures = textures[isForward ? previousTexture : 1 - previousTexture];
  BlockMatch* found = matches[direction];
  forBands(pool, grid.rows, grid.rowSamples() * 2, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid.columns; ++column) {
        double dx, dy;
        if (isForward) {
          dx = motion.dx(u(column), v(row));
          dy = motion.dy(u(column), v(row));
        } else {
          frame.backward(motion, grid.centreX(column) * levelScale, grid.centreY(row) * levelScale, &dx, &dy);
        }
        const float wantedX = static_cast<float>(dx) / levelScale;
        const float wantedY = static_cast<float>(dy) / levelScale;
        BlockMatch& match = found[row * grid.columns + column];
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
  const Exposure exposure = exposureBetween(ownTextures, found, grid.count());

  // Sums over 3 x 3 blocks, along rows and then across them.
  forBands(pool, grid.rows, grid.rowSamples(), [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      const int first = row * grid.columns;
      if (exposure.differs) adaptExposure(exposure, ownTextures + first, grid.columns, found + first);
      sumAlongRow(ownTextures + first, found + first, grid.columns, rowSums + first);
    }
  });
  forBands(pool, grid.rows, grid.rowSamples(), [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid.columns; ++column) {
        const int at = row * grid.columns + column;
        PatchEvidence& sum = patchSums[direction][at];
        sum = {};
        if (!found[at].inside) continue;
        sum = rowSums[at];
        if (row > 0) sum.add(rowSums[at - grid.columns]);
        if (row + 1 < grid.rows) sum.add(rowSums[at + grid.columns]);
      }
    }
  });
  isCompared = true;
}

bool LevelComparison::noise(Direction direction, LevelNoise* noise) {
  const int step = blockGrid.count() / kSampledPatches + 1;
  int count = 0;
  for (int i = 0; i < blockGrid.count(); i += step) {
    const PatchEvidence& patch = patchSums[direction][i];
    if (patch.blocks > 0.0f) {
      samples[count++] = (patch.hxx + patch.hyy - patch.cxx - patch.cyy) / patch.blocks;
    }
  }
  if (count < kFewestPatches) return false;
  noise->texture = std::max(medianOf(samples, count), 0.0f);
  count = 0;
  for (int i = 0; i < blockGrid.count(); i += step) {
    const PatchEvidence& patch = patchSums[direction][i];
    float dx, dy;
    if (patch.blocks > 0.0f && patch.shared() > 0.1f && patch.displacement(&dx, &dy) &&
        std::hypot(dx, dy) * levelScale <= kTolerance) {
      samples[count++] = patch.surprise();
    }
  }
  if (count < kFewestPatches) return false;
  noise->displacement = medianOf(samples, count) / kMedianSurprise;
  return true;
}

float LevelComparison::correlation() const {
  if (!isCompared) return 0.0f;
  double covariance = 0.0;
  double variance = 0.0;
  double otherVariance = 0.0;
  for (int i = 0; i < blockGrid.count(); ++i) {
    const PatchEvidence& patch = patchSums[kForward][i];
    const double count = patch.blocks * kBlockArea;
    if (!(count > 0.0)) continue;
    variance += patch.squares - patch.sum * patch.sum / count;
    otherVariance += patch.otherSquares - patch.otherSum * patch.otherSum / count;
    covariance += 0.5 * (patch.squares + patch.otherSquares - patch.energy) - patch.sum * patch.otherSum / count;
  }
  return variance > 0.0 && otherVariance > 0.0 ? static_cast<float>(covariance / std::sqrt(variance * otherVariance))
                                               : 0.0f;
}

double LevelComparison::support() const {
  const BlockGrid& grid = blockGrid;
  double sum = 0.0;
  for (int i = 0; i < grid.count(); ++i) {
    const PatchEvidence& patch = patchSums[kForward][i];
    const float correlation = patch.correlation();
    float dx, dy;
    if (!(correlation > 0.0f) || !patch.displacement(&dx, &dy)) continue;
    const float distance = std::hypot(dx, dy) * levelScale / kTolerance;
    const float near = 1.0f / (1.0f + distance * distance);
    sum += placeWeight(i % grid.columns, i / grid.columns) * correlation * near * near;
  }
  return sum;
}

void LevelComparison::gather(Direction direction, bool sharedSlopes, const LevelNoise& noise,
                             MotionEquations* equations) const {
  const BlockGrid& grid = blockGrid;
  const bool isForward = direction == kForward;
  const BlockTexture* ownTextures = textures[isForward ? previousTexture : 1 - previousTexture];
  const double sign = isForward ? 1.0 : -1.0;  // the backward displacement falls when the motion grows
  for (int i = 0; i < grid.count(); ++i) {
    const BlockMatch& match = matches[direction][i];
    if (!match.inside) continue;
    const float weight = weightOf(patchSums[direction][i], noise);
    if (!(weight > 0.0f)) continue;
    // Of the point in the previous frame, which the motion is a function of.
    float x = grid.centreX(i % grid.columns);
    float y = grid.centreY(i / grid.columns);
    if (!isForward) {
      x += match.qx;
      y += match.qy;
    }
    const BlockTexture& own = ownTextures[i];
    const double cross = sharedSlopes ? 0.5 * (match.cxy + match.cyx) : own.gxy;
    MotionEquation equation;
    equation.u = frame.u(x * levelScale);
    equation.v = frame.v(y * levelScale);
    equation.slope[0] = (sharedSlopes ? match.cxx : own.gxx) / levelScale;
    equation.slope[1] = cross / levelScale;
    equation.slope[2] = (sharedSlopes ? match.cyy : own.gyy) / levelScale;
    equation.noise[0] = own.gxx;
    equation.noise[1] = own.gxy;
    equation.noise[2] = own.gyy;
    equation.rhs[0] = sign * match.bx;
    equation.rhs[1] = sign * match.by;
    equation.weight = weight;
    equations->add(equation);
  }
}

PatchEvidence LevelComparison::follow(int column, int row, float* dx, float* dy) const {
  const BlockGrid& grid = blockGrid;
  const BlockTexture& texture = previousTextures()[row * grid.columns + column];
  for (int step = 0;; ++step) {
    const PatchEvidence block =
        evidenceOf(texture, matchBlock<NativeLanes>(*previous, *current, grid.originX + column * kBlockSide,
                                                    grid.originY + row * kBlockSide, *dx, *dy));
    float stepX, stepY;
    if (!(block.blocks > 0.0f) || !block.displacement(&stepX, &stepY)) return {};
    const float length = std::hypot(stepX, stepY);
    if (length < kCloseEnough || step == kMostSteps) return block;
    const float shortened = length > kLongestStep ? kLongestStep / length : 1.0f;
    *dx += stepX * shortened;
    *dy += stepY * shortened;
  }
}

}  // namespace noxel::tracker
