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

// Median of chi-squared with two degrees of freedom.
constexpr float kMedianSurprise = 1.386f;
// Geman-McClure: the weight falls to a quarter at this many variances.
constexpr float kRobustness = 9.0f;

// Weight at the centre; it rises by the squared distance, in radii. The background reaches the edges, while the middle
// may be filled by a moving subject.
constexpr float kMiddleWeight = 0.2f;

// Frames that differ by more than this in contrast or brightness (8-bit levels) are matched in exposure first. Frames
// of equal exposure differ by less, from what enters and leaves the picture.
constexpr double kGainNoticed = 0.05;
constexpr double kOffsetNoticed = 2.0;

constexpr int kSampledBlock = 4;

constexpr int kBandReach = 32;  // rows within this part of the height are lit alike

// Share of a patch's noise by which its apparent shared texture may be off: three standard deviations.
constexpr float kSharedDoubt = 0.2f;
constexpr int kMinPatches = 8;        // for an estimate of the noise
constexpr int kSampledPatches = 800;  // about this many give the median

constexpr int kMaxSteps = 5;
constexpr float kCloseEnough = 0.05f;  // samples
constexpr float kMaxStep = 2.0f;

// J = gain * I + offset, when the exposure changed between the frames.
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

// Converts the matches as if J had the exposure of I.
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

// The same for the sums that a correlation is taken from; without an offset.
void adaptSums(const Exposure& exposure, const BlockTexture* textures, int count, BlockMatch* matches) {
  const float scale = 1.0f / exposure.gain;
  for (int i = 0; i < count; ++i) {
    BlockMatch& match = matches[i];
    if (!match.inside) continue;
    const float products = 0.5f * (textures[i].squares + match.squares - match.energy) * scale;
    match.sum *= scale;
    match.squares *= scale * scale;
    match.energy = textures[i].squares + match.squares - 2.0f * products;
  }
}

// Weight of a block: the share of its texture that is not noise, times the share of that in both pictures; it falls with
// the patch's distance from the global motion.
float weightOf(const PatchEvidence& patch, const LevelNoise& noise) {
  const float texture = patch.hxx + patch.hyy;
  const float own = texture - patch.blocks * noise.texture;
  if (!(own > 0.0f)) return 0.0f;
  const float doubt = kSharedDoubt * patch.blocks * noise.texture;  // noise in the apparent shared texture
  const float shared = std::clamp((patch.cxx + patch.cyy + doubt) / (own + doubt), 0.0f, 1.0f);
  const float weight = own / texture * shared;
  if (!(noise.displacement > 0.0f)) return weight;
  const float distance = 1.0f + patch.surprise() / (kRobustness * noise.displacement);
  return weight / (distance * distance);
}

}  // namespace

LevelComparison::~LevelComparison() {
  for (int i = 0; i < 2; ++i) {
    std::free(textures_[i]);
    std::free(matches_[i]);
    std::free(patchSums_[i]);
  }
  std::free(rowGains_);
  std::free(rawRowGains_);
  std::free(leftOut_);
  std::free(rowSums_);
  std::free(samples_);
}

bool LevelComparison::allocate(const Image& image, int pyramidLevel, const PictureFrame& frame) {
  frame_ = frame;
  scale_ = static_cast<float>(1 << pyramidLevel);
  grid_ = BlockGrid(image.width, image.height);
  const int count = grid_.count();
  for (int i = 0; i < 2; ++i) {
    textures_[i] = allocateArray<BlockTexture>(count);
    matches_[i] = allocateArray<BlockMatch>(count);
    patchSums_[i] = allocateArray<PatchEvidence>(count);
    if (textures_[i] == nullptr || matches_[i] == nullptr || patchSums_[i] == nullptr) return false;
  }
  rowSums_ = allocateArray<PatchEvidence>(count);
  samples_ = allocateArray<float>(count);
  leftOut_ = allocateArray<uint8_t>(count);
  rowGains_ = allocateArray<float>(grid_.rows);
  rawRowGains_ = allocateArray<float>(grid_.rows);
  return rowSums_ != nullptr && samples_ != nullptr && leftOut_ != nullptr && rowGains_ != nullptr &&
         rawRowGains_ != nullptr;
}

void LevelComparison::read(const Image& image, int slot, WorkerPool* pool) {
  forBands(pool, grid_.rows, grid_.rowSamples(),
           [&](int begin, int end) { readTextures(image, grid_, textures_[slot], begin, end); });
}

void LevelComparison::begin(const Image& previous, const Image& current, int previousSlot) {
  previous_ = &previous;
  current_ = &current;
  previousSlot_ = previousSlot;
  compared_ = false;
}

float LevelComparison::placeWeight(int column, int row) const {
  return kMiddleWeight + u(column) * u(column) + v(row) * v(row);
}

void LevelComparison::compare(Direction direction, const GlobalMotion& motion, WorkerPool* pool) {
  const bool isForward = direction == kForward;
  const Image& own = *(isForward ? previous_ : current_);
  const Image& other = *(isForward ? current_ : previous_);
  const BlockTexture* ownTextures = textures_[isForward ? previousSlot_ : 1 - previousSlot_];
  BlockMatch* found = matches_[direction];
  forBands(pool, grid_.rows, grid_.rowSamples() * 2, [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid_.columns; ++column) {
        double dx, dy;
        if (isForward) {
          dx = motion.dx(u(column), v(row));
          dy = motion.dy(u(column), v(row));
        } else {
          frame_.backward(motion, grid_.centreX(column) * scale_, grid_.centreY(row) * scale_, &dx, &dy);
        }
        const float wantedX = static_cast<float>(dx) / scale_;
        const float wantedY = static_cast<float>(dy) / scale_;
        BlockMatch& match = found[row * grid_.columns + column];
        if (leftOut_[row * grid_.columns + column] != 0) {
          match = {};
          continue;
        }
        match = matchBlock<NativeLanes>(own, other, grid_.originX + column * kBlockSide,
                                        grid_.originY + row * kBlockSide, wantedX, wantedY);
        if (!match.inside) continue;
        // Linear correction from the rounded displacement to the motion.
        const float restX = wantedX - match.qx;
        const float restY = wantedY - match.qy;
        match.bx -= match.cxx * restX + match.cxy * restY;
        match.by -= match.cyx * restX + match.cyy * restY;
        match.qx = wantedX;
        match.qy = wantedY;
      }
    }
  });
  const Exposure exposure = exposureBetween(ownTextures, found, grid_.count());
  if (adaptsRows_) measureRowGains(direction);
  adapted_[direction] = exposure.differs || adaptsRows_;

  // Sums over 3 x 3 blocks, along rows, then across.
  forBands(pool, grid_.rows, grid_.rowSamples(), [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      const int first = row * grid_.columns;
      if (adaptsRows_ && rowGains_[row] > 0.0f) {
        const Exposure ofRow = {true, rowGains_[row], 0.0f};
        adaptExposure(ofRow, ownTextures + first, grid_.columns, found + first);
        adaptSums(ofRow, ownTextures + first, grid_.columns, found + first);
      } else if (exposure.differs) {
        adaptExposure(exposure, ownTextures + first, grid_.columns, found + first);
      }
      sumAlongRow(ownTextures + first, found + first, grid_.columns, rowSums_ + first);
    }
  });
  forBands(pool, grid_.rows, grid_.rowSamples(), [&](int begin, int end) {
    for (int row = begin; row < end; ++row) {
      for (int column = 0; column < grid_.columns; ++column) {
        const int at = row * grid_.columns + column;
        PatchEvidence& sum = patchSums_[direction][at];
        sum = {};
        if (!found[at].inside) continue;
        sum = rowSums_[at];
        if (row > 0) sum.add(rowSums_[at - grid_.columns]);
        if (row + 1 < grid_.rows) sum.add(rowSums_[at + grid_.columns]);
      }
    }
  });
  compared_ = true;
}

void LevelComparison::measureRowGains(Direction direction) {
  const BlockTexture* textures = textures_[direction == kForward ? previousSlot_ : 1 - previousSlot_];
  for (int row = 0; row < grid_.rows; ++row) {
    double own = 0.0;
    double other = 0.0;
    for (int i = row * grid_.columns; i < (row + 1) * grid_.columns; ++i) {
      if (!matches_[direction][i].inside) continue;
      own += static_cast<double>(textures[i].sum);
      other += static_cast<double>(matches_[direction][i].sum);
    }
    rawRowGains_[row] = own > 0.0 && other > 0.0 ? static_cast<float>(other / own) : 0.0f;
  }
  const int reach = grid_.rows / kBandReach;
  for (int row = 0; row < grid_.rows; ++row) {
    float sum = 0.0f;
    float count = 0.0f;
    for (int i = std::max(row - reach, 0); i <= std::min(row + reach, grid_.rows - 1); ++i) {
      sum += rawRowGains_[i];
      count += rawRowGains_[i] > 0.0f ? 1.0f : 0.0f;
    }
    rowGains_[row] = count > 0.0f ? sum / count : 0.0f;
  }
}

double LevelComparison::rowVariation() {
  if (!adaptsRows_) measureRowGains(kForward);
  double sum = 0.0;
  double squares = 0.0;
  int count = 0;
  for (int row = 0; row < grid_.rows; ++row) {
    if (!(rowGains_[row] > 0.0f)) continue;
    const double gain = std::log(static_cast<double>(rowGains_[row]));
    sum += gain;
    squares += gain * gain;
    ++count;
  }
  return count > 1 ? std::sqrt(std::max(squares / count - sum / count * (sum / count), 0.0)) : 0.0;
}

bool LevelComparison::noise(Direction direction, LevelNoise* noise) {
  const int step = grid_.count() / kSampledPatches + 1;
  int count = 0;
  for (int i = 0; i < grid_.count(); i += step) {
    const PatchEvidence& patch = patchSums_[direction][i];
    if (patch.blocks > 0.0f) {
      samples_[count++] = (patch.hxx + patch.hyy - patch.cxx - patch.cyy) / patch.blocks;
    }
  }
  if (count < kMinPatches) return false;
  noise->texture = std::max(medianOf(samples_, count), 0.0f);
  count = 0;
  for (int i = 0; i < grid_.count(); i += step) {
    const PatchEvidence& patch = patchSums_[direction][i];
    float dx, dy;
    if (patch.blocks > 0.0f && patch.shared() > 0.1f && patch.displacement(&dx, &dy) &&
        std::hypot(dx, dy) * scale_ <= kTolerance) {
      samples_[count++] = patch.surprise();
    }
  }
  if (count < kMinPatches) return false;
  noise->displacement = medianOf(samples_, count) / kMedianSurprise;
  return true;
}

float LevelComparison::correlation() const {
  if (!compared_) return 0.0f;
  double covariance = 0.0;
  double variance = 0.0;
  double otherVariance = 0.0;
  for (int i = 0; i < grid_.count(); ++i) {
    const PatchEvidence& patch = patchSums_[kForward][i];
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
  double sum = 0.0;
  for (int i = 0; i < grid_.count(); ++i) {
    const PatchEvidence& patch = patchSums_[kForward][i];
    const float correlation = patch.correlation();
    float dx, dy;
    if (!(correlation > 0.0f) || !patch.displacement(&dx, &dy)) continue;
    const float distance = std::hypot(dx, dy) * scale_ / kTolerance;
    const float near = 1.0f / (1.0f + distance * distance);
    sum += placeWeight(i % grid_.columns, i / grid_.columns) * correlation * near * near;
  }
  return sum;
}

// True: the previous frame's sample (x, y) moved otherwise than the whole.
bool LevelComparison::movedAt(float x, float y) const {
  const int column = static_cast<int>(std::clamp(x * scale_ / kMotionBlockSide, 0.0f, moving_.columns - 1.0f));
  const int row = static_cast<int>(std::clamp(y * scale_ / kMotionBlockSide, 0.0f, moving_.rows - 1.0f));
  return moving_.blocks[row * moving_.columns + column].confidence > 0.0f;
}

void LevelComparison::gather(Direction direction, Slopes slopes, const LevelNoise& noise,
                             MotionEquations* equations) const {
  const bool isForward = direction == kForward;
  const BlockTexture* ownTextures = textures_[isForward ? previousSlot_ : 1 - previousSlot_];
  const bool sharedSlopes = slopes != kOwnSlopes;
  const double sign = isForward ? 1.0 : -1.0;  // the backward displacement shrinks as the motion grows
  for (int i = 0; i < grid_.count(); ++i) {
    const BlockMatch& match = matches_[direction][i];
    if (!match.inside) continue;
    const float weight = weightOf(patchSums_[direction][i], noise);
    if (!(weight > 0.0f)) continue;
    // The point in the previous frame: the motion is a function of it.
    float x = grid_.centreX(i % grid_.columns);
    float y = grid_.centreY(i / grid_.columns);
    if (!isForward) {
      x += match.qx;
      y += match.qy;
    }
    if (moving_.blocks != nullptr && movedAt(x, y)) continue;
    const BlockTexture& own = ownTextures[i];
    const double cross = sharedSlopes ? 0.5 * (match.cxy + match.cyx) : own.gxy;
    MotionEquation equation;
    equation.u = frame_.u(x * scale_);
    equation.v = frame_.v(y * scale_);
    equation.slope[0] = (sharedSlopes ? match.cxx : own.gxx) / scale_;
    equation.slope[1] = cross / scale_;
    equation.slope[2] = (sharedSlopes ? match.cyy : own.gyy) / scale_;
    equation.noise[0] = own.gxx;
    equation.noise[1] = own.gxy;
    equation.noise[2] = own.gyy;
    equation.rhs[0] = sign * match.bx;
    equation.rhs[1] = sign * match.by;
    equation.weight = weight;
    equations->add(equation);
    if (!(slopes == kSharedWithExposure || (slopes == kSharedWithSample && i % kSampledBlock == 0))) continue;
    ExposureEquation exposure = {{kBlockArea, own.sum, own.squares}, {{own.gx, own.gy}, {own.gxI, own.gyI}}, {}};
    if (!adapted_[direction]) {
      exposure.rhs[0] = sign * (own.sum - match.sum);
      exposure.rhs[1] = sign * 0.5 * (own.squares - match.squares + match.energy);
    }
    equations->addExposure(equation, exposure);
  }
}

void LevelComparison::leaveOutNone() {
  std::fill(leftOut_, leftOut_ + grid_.count(), uint8_t{0});
}

void LevelComparison::leaveOut(int column, int row) {
  leftOut_[row * grid_.columns + column] = 1;
}

BlockMatch LevelComparison::match(int column, int row, float dx, float dy) const {
  return matchBlock<NativeLanes>(*previous_, *current_, grid_.originX + column * kBlockSide,
                                 grid_.originY + row * kBlockSide, dx, dy);
}

PatchEvidence LevelComparison::follow(int column, int row, float* dx, float* dy) const {
  const BlockTexture& texture = previousTextures()[row * grid_.columns + column];
  for (int step = 0;; ++step) {
    BlockMatch found = match(column, row, *dx, *dy);
    if (adaptsRows_) {
      const float brighter = (texture.sum - found.sum) / kBlockArea;
      found.bx -= texture.gx * brighter;
      found.by -= texture.gy * brighter;
    }
    const PatchEvidence block = evidenceOf(texture, found);
    float stepX, stepY;
    if (!(block.blocks > 0.0f) || !block.displacement(&stepX, &stepY)) return {};
    const float length = std::hypot(stepX, stepY);
    if (length < kCloseEnough || step == kMaxSteps) return block;
    const float shortened = length > kMaxStep ? kMaxStep / length : 1.0f;
    *dx += stepX * shortened;
    *dy += stepY * shortened;
  }
}

}  // namespace noxel::tracker
