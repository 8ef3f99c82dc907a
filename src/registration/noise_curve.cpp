#include "registration/noise_curve.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "registration/noise_block.h"
#include "registration/tracker/lanes.h"
#include "registration/tracker/median.h"
#include "registration/tracker/memory.h"

namespace noxel {
namespace {

using noise::Alone;
using noise::Equality;
using noise::HalfSums;
using noise::kHalfArea;
using noise::kHalfSide;
using noise::kSide;
using noise::Pixels;
using tracker::allocateArray;
using tracker::medianOf;
using tracker::NativeLanes;

constexpr int kEntries = NoiseCurve::kEntries;
constexpr float kLevelsPerEntry = 8;
constexpr float kFirstCentre = 3.5f;  // mean of the first entry's codes

constexpr int kBlocks = 360;  // of a frame, about
constexpr int kMinStep = 8;   // pixels: blocks of small frames overlap
constexpr int kMinBlocks = 4;
constexpr int kKeptSide = kSide + 2;
constexpr int kKeptArea = kKeptSide * kKeptSide;

// Lucas and Kanade within a block.
constexpr int kMaxSteps = 2;
constexpr float kMaxMotion = 3;          // pixels in a step: beyond, the texture is not alike
constexpr float kOtherPixel = 0.6f;      // pixels: from here on another whole pixel is nearer
constexpr float kFoundElsewhere = 0.5f;  // of the difference: more than noise leaves to chance
constexpr float kUnsure = 0.01f;         // square of what is not known of the motion, pixels
constexpr float kFirstPassing = 0.07f;   // of `passed`: measured on photos, with what is finer than pixels
constexpr float kMinPassing = 0.0f;
constexpr float kMaxPassing = 0.3f;
constexpr int kTextures = 8;
constexpr float kKnownMotion = 0.4f;  // share of blocks, at least
constexpr float kTextureSeen = 0.5f;  // times the quietest blocks: texture that tells
constexpr float kFineMargin = 1.2f;   // above what the steps from row to row allow: not registered
constexpr float kUncertain = 0.5f;    // share of the texture taken out
constexpr float kDoubt = 0.25f;       // of that texture, relative to the noise: better too low than too high

constexpr float kTrusted = 0.1f;      // texture of this share of the noise: half the trust
constexpr float kPlausible = 1.5f;    // times the curve: more is not noise
constexpr float kPlausibleFloor = 4;  // times the quietest tenth of the blocks, while there is no curve
constexpr float kQuietAlone = 0.15f;  // of the trust in an entry, within one frame, where texture is not taken out
constexpr float kReach = 6;           // levels from an entry's centre: its blocks
constexpr float kMinTrust = 0.001f;   // blocks: less says nothing of an entry
constexpr float kSmallest = 0.02f;    // variance: keeps ratios finite
constexpr float kMaxCorrelation = 0.7f;
constexpr float kCorrelationStep = 0.2f;  // share of the new frame

constexpr float kMemory = 0.97f;     // of an entry's weight, from frame to frame
constexpr float kMaxWeight = 112;    // blocks
constexpr float kLostMemory = 0.3f;  // of the weights when the motion was lost: it may be another scene
constexpr float kMaxRise = 1.5f;     // a frame's value at most this much above the curve, and
constexpr float kFreeRise = 0.5f;    // this much more
constexpr float kMaxFall = 4;        // times as fast as by weight
constexpr int kChromaSide = kHalfSide + 2;
constexpr int kChromaArea = kChromaSide * kChromaSide;
constexpr int kChromaSamples = kHalfSide * kHalfSide;
constexpr int kMaxChromaBlocks = 96;  // of a frame
constexpr float kRounding = 1.0f / 12;
constexpr float kQuietLuma = 1.5f;      // times the curve, with the texture
constexpr float kQuietChroma = 0.4f;    // of these blocks
constexpr float kChromaDetail = 2.5f;   // of the variance to that of white noise with the same fine detail, at most
constexpr float kPassingChroma = 1.2f;  // times what luma's texture tells: better too low than too high
constexpr float kMaxChromaWeight = 400;

constexpr float kBoundAlone = 1.3f;  // times the variance in one frame
constexpr float kBoundRise = 1.1f;   // of a bound, from frame to frame
constexpr int kMaxRepeats = 4;

float centreOf(int entry) {
  return kLevelsPerEntry * static_cast<float>(entry) + kFirstCentre;
}

float varianceAt(const NoiseCurve& curve, float luma) {
  const float at = std::clamp((luma - kFirstCentre) / kLevelsPerEntry, 0.0f, static_cast<float>(kEntries - 1));
  const int entry = std::min(static_cast<int>(at), kEntries - 2);
  const float share = at - static_cast<float>(entry);
  return curve.variance[entry] + share * (curve.variance[entry + 1] - curve.variance[entry]);
}

// What least squares and the median of blocks of n pixels take from the variance of noise of this correlation over a pixel.
float freedomFactor(float correlation, float n) {
  const float constant = (1 + 2 * correlation) * (1 + 2 * correlation);
  const float alike = (1 + 2 * correlation * correlation) * (1 + 2 * correlation * correlation);
  return n / (n - 2 - constant - alike) * (1 + 2 * alike / (3 * n));
}

void takeChroma(const ChromaPlanes& chroma, int plane, int x, int y, uint8_t* to) {
  const uint8_t* from = chroma.samples[plane] + (y - 1) * chroma.rowStride + (x - 1) * chroma.pixelStride;
  for (int row = 0; row < kChromaSide; ++row, from += chroma.rowStride, to += kChromaSide) {
    for (int column = 0; column < kChromaSide; ++column) to[column] = from[column * chroma.pixelStride];
  }
}

float mean(const float (&halves)[2]) {
  return 0.5f * (halves[0] + halves[1]);
}

}  // namespace

NoiseMeter::~NoiseMeter() {
  release();
}

void NoiseMeter::release() {
  std::free(kept_);
  std::free(keptChroma_);
  std::free(chromaBlocks_);
  std::free(blocks_);
  std::free(candidates_);
  std::free(chosen_);
  std::free(scratch_);
  kept_ = nullptr;
  keptChroma_ = nullptr;
  chromaBlocks_ = nullptr;
  blocks_ = nullptr;
  candidates_ = chosen_ = nullptr;
  scratch_ = nullptr;
}

bool NoiseMeter::allocate(int width, int height) {
  if (kept_ != nullptr) return true;
  width_ = width;
  height_ = height;
  const double area = static_cast<double>(width) * height;
  step_ = std::max(kMinStep, static_cast<int>(std::ceil(std::sqrt(area / kBlocks))));
  const int blocks = (width / step_ + 1) * (height / step_ + 1);
  blocks_ = allocateArray<Block>(blocks);
  candidates_ = allocateArray<Candidate>(blocks);
  chosen_ = allocateArray<Candidate>(2 * blocks);
  scratch_ = allocateArray<float>(2 * blocks);
  kept_ = allocateArray<uint8_t>(blocks * kKeptArea);
  keptChroma_ = allocateArray<uint8_t>(2 * blocks * kChromaArea);
  chromaBlocks_ = allocateArray<ChromaBlock>(kMaxChromaBlocks + 1);
  const bool allocated = blocks_ != nullptr && candidates_ != nullptr && chosen_ != nullptr && scratch_ != nullptr &&
                         kept_ != nullptr && keptChroma_ != nullptr && chromaBlocks_ != nullptr;
  if (!allocated) release();
  return allocated;
}

void NoiseMeter::restart() {
  hasPrevious_ = false;
  fromDifferences_ = false;
  repeats_ = 0;
  passing_ = kFirstPassing;
  hasPreviousChroma_ = chromaFromDifferences_ = false;
  chromaWeight_ = 0;
  for (Entry& entry : entries_) entry = {};
  curve_ = {};
}

void NoiseMeter::measure(const uint8_t* luma, const float* previousFromCurrent, const ChromaPlanes& chroma) {
  if (hasPrevious_ && previousFromCurrent != nullptr) {
    if (compare(luma, previousFromCurrent)) {
      learn(true);
      draw();
      learnChroma(chroma, true);
    }
  } else if (fromDifferences_) {
    for (Entry& entry : entries_) entry.weight *= kLostMemory;
    chromaWeight_ *= kLostMemory;
  } else {
    layOut();
    inspect(luma);
    learn(false);
    draw();
    learnChroma(chroma, false);
  }
  drawChroma();
  ++frames_;
  layOut();
  keep(luma);
  keepChroma(chroma);
  hasPrevious_ = true;
}

void NoiseMeter::keep(const uint8_t* luma) {
  for (int i = 0; i < count_; ++i) {
    const uint8_t* from =
        luma + (originY_ + i / columns_ * step_ - 1) * ptrdiff_t{width_} + originX_ + i % columns_ * step_ - 1;
    uint8_t* to = kept_ + ptrdiff_t{i} * kKeptArea;
    for (int row = 0; row < kKeptSide; ++row, from += width_, to += kKeptSide) std::memcpy(to, from, kKeptSide);
  }
}

// Every second block has 8 x 8 samples of each chroma plane, and one free on each side.
bool NoiseMeter::hasChroma(int kept) const {
  if (kept % 2 != 0) return false;
  const int x = (originX_ + kept % columns_ * step_) / 2;
  const int y = (originY_ + kept / columns_ * step_) / 2;
  return isInside(x, y);
}

bool NoiseMeter::isInside(int chromaX, int chromaY) const {
  return chromaX >= 1 && chromaY >= 1 && chromaX + kHalfSide + 1 <= width_ / 2 &&
         chromaY + kHalfSide + 1 <= height_ / 2;
}

void NoiseMeter::keepChroma(const ChromaPlanes& chroma) {
  hasPreviousChroma_ = chroma.samples[0] != nullptr && chroma.samples[1] != nullptr;
  for (int i = 0; hasPreviousChroma_ && i < count_; ++i) {
    if (!hasChroma(i)) continue;
    const int x = (originX_ + i % columns_ * step_) / 2;
    const int y = (originY_ + i / columns_ * step_) / 2;
    for (int plane = 0; plane < 2; ++plane)
      takeChroma(chroma, plane, x, y, keptChroma_ + (2 * ptrdiff_t{i} + plane) * kChromaArea);
  }
}

// False: not in both frames.
bool NoiseMeter::readChroma(const ChromaPlanes& chroma, const Block& block, bool differences, ChromaBlock* read) const {
  if (!isInside(block.chromaX, block.chromaY) || (differences && block.kept < 0)) return false;
  const float expected = std::max(varianceAt(curve_, block.luma) - kRounding, kSmallest);
  read->correlation = 0;
  for (int plane = 0; plane < 2; ++plane) {
    uint8_t samples[kChromaArea];
    takeChroma(chroma, plane, block.chromaX, block.chromaY, samples);
    const Pixels current = {samples + kChromaSide + 1, kChromaSide};
    float variance = 0;
    if (differences) {
      const uint8_t* kept = keptChroma_ + (2 * ptrdiff_t{block.kept} + plane) * kChromaArea;
      const HalfSums sums = noise::sumHalf<NativeLanes>(current, {kept + kChromaSide + 1, kChromaSide}, kHalfSide);
      const float residual = static_cast<float>(noise::residual(sums, kHalfSide)) / (2 * kChromaSamples);
      const float texture = kPassingChroma * passing_ / kChromaSamples *
                            ((block.chromaDx * block.chromaDx + kUnsure) * static_cast<float>(sums.bendX) +
                             (block.chromaDy * block.chromaDy + kUnsure) * static_cast<float>(sums.bendY));
      variance = residual - std::clamp(texture, 0.0f, 0.9f * residual);
      const float spread =
          static_cast<float>(sums.dd) - static_cast<float>(sums.d) * static_cast<float>(sums.d) / kChromaSamples;
      if (spread > 0.0f) read->correlation += 0.5f * (1 - static_cast<float>(sums.step) / (2 * spread));
    } else {
      const Alone alone = noise::readAlone(current);
      variance = std::min(alone.variance, kChromaDetail * alone.fine);
    }
    read->ratio[plane] = std::max(variance - kRounding, 0.0f) / expected;
  }
  return true;
}

// Chroma's noise is luma's, which the same pixels made, times a factor for each plane: from blocks that are quiet in luma and
// in the other plane.
void NoiseMeter::learnChroma(const ChromaPlanes& chroma, bool differences) {
  if (chroma.samples[0] == nullptr || chroma.samples[1] == nullptr || !curve_.known) return;
  if (differences && !hasPreviousChroma_) return;
  int quiet = 0;
  for (int i = 0; i < count_; ++i) {
    const Block& block = blocks_[i];
    if (!block.read) continue;
    if (mean(block.variance) + block.texture <= kQuietLuma * varianceAt(curve_, block.luma)) blocks_[quiet++] = block;
  }
  const int stride = 1 + quiet / kMaxChromaBlocks;
  int found = 0;
  for (int i = static_cast<int>(frames_ % static_cast<uint32_t>(stride)); i < quiet; i += stride) {
    if (readChroma(chroma, blocks_[i], differences, &chromaBlocks_[found])) ++found;
  }
  if (found < kMinBlocks) return;
  float factor = 1;
  if (differences) {
    for (int i = 0; i < found; ++i) scratch_[i] = chromaBlocks_[i].correlation;
    const float correlation = std::clamp(medianOf(scratch_, found), 0.0f, kMaxCorrelation);
    chromaCorrelation_ += (chromaFromDifferences_ ? kCorrelationStep : 1.0f) * (correlation - chromaCorrelation_);
    factor = freedomFactor(chromaCorrelation_, kChromaSamples);
    if (!chromaFromDifferences_) chromaWeight_ = 0;
  } else if (chromaFromDifferences_) {
    return;
  }
  chromaWeight_ *= kMemory;
  const auto weight = static_cast<float>(found);
  for (int plane = 0; plane < 2; ++plane) {
    std::sort(chromaBlocks_, chromaBlocks_ + found,
              [plane](const ChromaBlock& a, const ChromaBlock& b) { return a.ratio[1 - plane] < b.ratio[1 - plane]; });
    const int taken = std::max(kMinBlocks, static_cast<int>(kQuietChroma * weight));
    for (int i = 0; i < taken; ++i) scratch_[i] = chromaBlocks_[i].ratio[plane];
    const float share = factor * medianOf(scratch_, taken);
    float step = weight / (chromaWeight_ + weight);
    if (share < chromaShare_[plane]) step = std::min(1.0f, 2 * step);
    chromaShare_[plane] += step * (share - chromaShare_[plane]);
  }
  chromaWeight_ = std::min(chromaWeight_ + weight, kMaxChromaWeight);
  chromaFromDifferences_ = differences;
  curve_.chromaKnown = true;
}

void NoiseMeter::drawChroma() {
  if (!curve_.chromaKnown) return;
  for (int plane = 0; plane < 2; ++plane) {
    for (int i = 0; i < kEntries; ++i) {
      curve_.chromaVariance[plane][i] = chromaShare_[plane] * std::max(curve_.variance[i] - kRounding, 0.0f) +
                                        std::min(kRounding, curve_.variance[i]);
    }
  }
}

// The grid moves with the frames, so that in time all of the picture is read. One pixel is left free on each side.
void NoiseMeter::layOut() {
  const auto origin = [&](uint32_t stride, int side) {
    const int places = std::clamp(side - kSide - 1, 1, step_);
    return 1 + static_cast<int>(frames_ * stride % static_cast<uint32_t>(places));
  };
  const auto count = [&](int first, int side) { return std::max(0, (side - 1 - kSide - first + step_) / step_); };
  originX_ = origin(5, width_);
  originY_ = origin(3, height_);
  columns_ = count(originX_, width_);
  rows_ = count(originY_, height_);
  count_ = columns_ * rows_;
}

// False: a repeated frame.
bool NoiseMeter::compare(const uint8_t* luma, const float* m) {
  const float determinant = m[0] * m[4] - m[1] * m[3];
  bool differs = false;
  for (int i = 0; i < count_; ++i) {
    const int x = originX_ + i % columns_ * step_;
    const int y = originY_ + i / columns_ * step_;
    const auto centreX = static_cast<float>(x + kHalfSide);
    const auto centreY = static_cast<float>(y + kHalfSide);
    const float fromX = centreX - m[2];
    const float fromY = centreY - m[5];
    Block* block = &blocks_[i];
    *block = {};
    block->kept = hasChroma(i) ? i : -1;
    const uint8_t* kept = kept_ + ptrdiff_t{i} * kKeptArea;
    const float dx = (m[4] * fromX - m[1] * fromY) / determinant - centreX;
    const float dy = (m[0] * fromY - m[3] * fromX) / determinant - centreY;
    compareBlock(luma, x, y, dx, dy, kept, block);
    // What is nearer or moves by itself is larger than a block.
    for (const int other : {i % columns_ > 0 ? i - 1 : -1, i - columns_}) {
      if (other < 0 || !blocks_[other].read) continue;
      const float ownX = blocks_[other].ownX;
      const float ownY = blocks_[other].ownY;
      if (std::max(std::fabs(ownX), std::fabs(ownY)) < 1.0f) continue;
      if (std::max(std::fabs(ownX - block->ownX), std::fabs(ownY - block->ownY)) < 1.0f) continue;
      Block found = {};
      found.kept = block->kept;
      compareBlock(luma, x, y, dx + ownX, dy + ownY, kept, &found);
      if (!found.read || (block->read && mean(found.variance) >= kFoundElsewhere * mean(block->variance))) continue;
      found.ownX += ownX;
      found.ownY += ownY;
      *block = found;
    }
    differs = differs || (block->read && mean(block->variance) > 0.0f);
  }
  repeats_ = differs ? 0 : repeats_ + 1;
  return differs || (!fromDifferences_ && repeats_ >= kMaxRepeats);
}

void NoiseMeter::compareBlock(const uint8_t* luma, int x, int y, float dx, float dy, const uint8_t* kept,
                              Block* block) const {
  const auto far = static_cast<float>(width_ + height_);
  if (!(std::fabs(dx) < far && std::fabs(dy) < far)) return;
  const Pixels previous = {kept + kKeptSide + 1, kKeptSide};
  Pixels current = {nullptr, width_};
  HalfSums halves[2];
  const int keptX = x;
  const int keptY = y;
  const float startX = static_cast<float>(x) + dx;
  const float startY = static_cast<float>(y) + dy;
  for (int step = 0;; ++step) {
    const auto wholeX = static_cast<int>(std::lround(dx));
    const auto wholeY = static_cast<int>(std::lround(dy));
    x += wholeX;
    y += wholeY;
    dx -= static_cast<float>(wholeX);
    dy -= static_cast<float>(wholeY);
    if (x < 1 || y < 1 || x + kSide + 1 > width_ || y + kSide + 1 > height_) return;
    current.at = luma + y * current.stride + x;
    halves[0] = noise::sumHalf<NativeLanes>(current, previous);
    halves[1] =
        noise::sumHalf<NativeLanes>({current.at + kHalfSide, current.stride}, {previous.at + kHalfSide, kKeptSide});
    float furtherX = 0;
    float furtherY = 0;
    if (step == kMaxSteps || !noise::furtherMotion(halves, &furtherX, &furtherY)) break;
    if (!(std::fabs(furtherX) < kMaxMotion && std::fabs(furtherY) < kMaxMotion)) break;
    dx = -furtherX;
    dy = -furtherY;
    if (!(std::max(std::fabs(dx), std::fabs(dy)) > kOtherPixel)) break;
  }

  constexpr float kArea = 2 * kHalfArea;
  const auto both = [&](int32_t HalfSums::*sum) {
    return static_cast<float>(halves[0].*sum) + static_cast<float>(halves[1].*sum);
  };
  const Equality equality = noise::compareExactly(current, previous);
  // A bar, or what is clipped: no noise to be seen, and no texture.
  if (equality == Equality::kAll && both(&HalfSums::gxgx) + both(&HalfSums::gygy) == 0.0f) return;
  block->read = true;
  block->ownX = static_cast<float>(x) + dx - startX;
  block->ownY = static_cast<float>(y) + dy - startY;
  block->chromaDx = 0.5f * (static_cast<float>(x - keptX) + dx);
  block->chromaDy = 0.5f * (static_cast<float>(y - keptY) + dy);
  const auto chromaX = static_cast<int>(std::lround(block->chromaDx));
  const auto chromaY = static_cast<int>(std::lround(block->chromaDy));
  block->chromaX = keptX / 2 + chromaX;
  block->chromaY = keptY / 2 + chromaY;
  block->chromaDx -= static_cast<float>(chromaX);
  block->chromaDy -= static_cast<float>(chromaY);
  block->suspect = equality != Equality::kNone;
  block->luma = both(&HalfSums::s) / (2 * kArea);
  for (int half = 0; half < 2; ++half) {
    block->variance[half] = static_cast<float>(noise::residual(halves[half]) / (2 * kHalfArea));
    block->fine[half] = static_cast<float>(halves[half].step) / (4 * kHalfArea);
    block->passed[half] = ((dx * dx + kUnsure) * static_cast<float>(halves[half].bendX) +
                           (dy * dy + kUnsure) * static_cast<float>(halves[half].bendY)) /
                          kHalfArea;
  }
  const float spread = both(&HalfSums::dd) - both(&HalfSums::d) * both(&HalfSums::d) / kArea;
  block->correlation = spread > 0.0f ? 1 - both(&HalfSums::step) / (2 * spread) : 0.0f;
}

void NoiseMeter::inspect(const uint8_t* luma) {
  constexpr float kMinRatio = 0.8f;  // of the variance to that of white noise with the same fine detail
  constexpr float kMaxRatio = 6;
  const ptrdiff_t stride = width_;
  int found = 0;
  for (int i = 0; i < count_; ++i) {
    Block& block = blocks_[i];
    const uint8_t* at = luma + (originY_ + i / columns_ * step_) * stride + originX_ + i % columns_ * step_;
    const Alone halves[2] = {noise::readAlone({at, stride}), noise::readAlone({at + kHalfSide, stride})};
    block.read = !halves[0].constant || !halves[1].constant;
    if (!block.read) continue;
    block.chromaX = (originX_ + i % columns_ * step_) / 2;
    block.chromaY = (originY_ + i / columns_ * step_) / 2;
    block.suspect = halves[0].constant || halves[1].constant;
    block.luma = 0.5f * (halves[0].luma + halves[1].luma);
    block.texture = 0;
    for (int half = 0; half < 2; ++half) {
      block.passed[half] = 0;
      block.variance[half] = halves[half].variance;
      block.ratio[half] = halves[half].fine;
      if (!halves[half].constant) scratch_[found++] = halves[half].variance / halves[half].fine;
    }
  }
  if (found == 0) return;
  std::nth_element(scratch_, scratch_ + found / 4, scratch_ + found);
  const float ratio = std::clamp(scratch_[found / 4], kMinRatio, kMaxRatio);
  for (int i = 0; i < count_; ++i) {
    Block& block = blocks_[i];
    for (int half = 0; half < 2; ++half) {
      block.variance[half] = std::min(block.variance[half], ratio * block.ratio[half]);
    }
  }
}

// False: no blocks are left.
bool NoiseMeter::dropSuspects() {
  int read = 0;
  int suspects = 0;
  for (int i = 0; i < count_; ++i) {
    read += blocks_[i].read ? 1 : 0;
    suspects += blocks_[i].read && blocks_[i].suspect ? 1 : 0;
  }
  if (2 * suspects > read) return true;
  for (int i = 0; i < count_; ++i) blocks_[i].read = blocks_[i].read && !blocks_[i].suspect;
  return read > suspects;
}

// Degrees of freedom, and a median of n / k of them, which is 2 k / 3 n below the mean. floor: variance of the quietest.
void NoiseMeter::correctForCorrelation(float floor) {
  int found = 0;
  for (int i = 0; i < count_; ++i) {
    const Block& block = blocks_[i];
    if (block.read && mean(block.variance) < 2 * floor) scratch_[found++] = block.correlation;
  }
  const float correlation = std::clamp(medianOf(scratch_, found), 0.0f, kMaxCorrelation);
  correlation_ += (fromDifferences_ ? kCorrelationStep : 1.0f) * (correlation - correlation_);
  const float factor = freedomFactor(correlation_, kHalfArea);
  for (int i = 0; i < count_; ++i) {
    for (float& variance : blocks_[i].variance) variance *= factor;
  }
}

// Variance = noise + passing * passed: the line through groups of blocks of little to much texture (Theil and Sen). In each a
// low quantile stands for those whose motion is known.
void NoiseMeter::fitPassing(float floor) {
  int found = 0;
  for (int i = 0; i < count_; ++i) {
    if (blocks_[i].read) candidates_[found++] = {mean(blocks_[i].passed), mean(blocks_[i].variance), 0, 0};
  }
  std::sort(candidates_, candidates_ + found, [](const Candidate& a, const Candidate& b) { return a.score < b.score; });
  float x[kTextures];
  float y[kTextures];
  for (int group = 0; group < kTextures; ++group) {
    const int from = group * found / kTextures;
    const int count = (group + 1) * found / kTextures - from;
    if (count < kMinBlocks) return;
    for (int i = 0; i < count; ++i) scratch_[i] = candidates_[from + i].ratio;
    const int low = static_cast<int>(kKnownMotion * static_cast<float>(count));
    std::nth_element(scratch_, scratch_ + low, scratch_ + count);
    x[group] = candidates_[from + count / 2].score;
    y[group] = scratch_[low];
  }
  if (!(kFirstPassing * (x[kTextures - 1] - x[0]) > kTextureSeen * floor)) return;
  float slopes[kTextures * (kTextures - 1) / 2];
  found = 0;
  for (int i = 0; i < kTextures; ++i) {
    for (int j = i + 1; j < kTextures; ++j) {
      if (x[j] > x[i]) slopes[found++] = (y[j] - y[i]) / (x[j] - x[i]);
    }
  }
  passing_ = std::clamp(medianOf(slopes, found), kMinPassing, kMaxPassing);
}

void NoiseMeter::takeTextureOut() {
  const float white = 1 - correlation_;
  for (int i = 0; i < count_; ++i) {
    Block& block = blocks_[i];
    const float limit = kFineMargin * mean(block.fine) / white;
    const float variance = mean(block.variance);
    float share = std::min(1.0f, limit / std::max(variance, 0.01f * kSmallest));
    block.texture = (1 - share) * variance;
    for (int half = 0; half < 2; ++half) {
      const float texture = std::clamp(passing_ * block.passed[half], 0.0f, 0.9f * share * block.variance[half]);
      block.texture += 0.5f * texture;
      block.variance[half] = share * block.variance[half] - texture;
    }
  }
}

void NoiseMeter::relate(float floor) {
  for (int i = 0; i < count_; ++i) {
    Block& block = blocks_[i];
    if (!block.read) continue;
    const float expected = fromDifferences_ ? std::max(varianceAt(curve_, block.luma), kSmallest) : 1.0f;
    for (int half = 0; half < 2; ++half) block.ratio[half] = block.variance[half] / expected;
    const float plausible = fromDifferences_ ? kPlausible * expected : kPlausibleFloor * floor;
    const float variance = std::max(std::min(mean(block.variance), plausible), 0.1f * kSmallest);
    const float share = kUncertain * block.texture / (kTrusted * variance);
    block.raw = (mean(block.variance) + block.texture) / expected;
    block.trust = 1 / (1 + share * share);
  }
}

void NoiseMeter::lookAround() {
  for (int i = 0; i < count_; ++i) {
    Block& block = blocks_[i];
    if (!block.read) continue;
    const int row = i / columns_;
    const int column = i % columns_;
    float ratios[8];
    int found = 0;
    for (int y = std::max(row - 1, 0); y <= std::min(row + 1, rows_ - 1); ++y) {
      for (int x = std::max(column - 1, 0); x <= std::min(column + 1, columns_ - 1); ++x) {
        const Block& other = blocks_[y * columns_ + x];
        if (other.read && &other != &block) ratios[found++] = other.raw;
      }
    }
    block.around = found > 0 ? medianOf(ratios, found) : block.raw;
  }
}

// The grid is not needed any more: leaves the blocks that were read, from dark to bright.
void NoiseMeter::orderByLuma() {
  Block* end = std::remove_if(blocks_, blocks_ + count_, [](const Block& block) { return !block.read; });
  std::sort(blocks_, end, [](const Block& a, const Block& b) { return a.luma < b.luma; });
  count_ = static_cast<int>(end - blocks_);
}

void NoiseMeter::learn(bool differences) {
  if (!dropSuspects()) return;
  int found = 0;
  for (int i = 0; i < count_; ++i) {
    if (blocks_[i].read) scratch_[found++] = mean(blocks_[i].variance);
  }
  if (found == 0) return;
  std::nth_element(scratch_, scratch_ + found / 10, scratch_ + found);
  const float floor = scratch_[found / 10];
  if (differences) {
    correctForCorrelation(floor);
    fitPassing(floor);
    takeTextureOut();
    if (!fromDifferences_) {
      for (Entry& entry : entries_) entry = {};
    }
  }
  relate(floor);
  lookAround();
  orderByLuma();
  for (int i = 0; i < kEntries; ++i) learnEntry(i, differences);
  fromDifferences_ = fromDifferences_ || differences;
}

void NoiseMeter::learnEntry(int index, bool differences) {
  Entry& entry = entries_[index];
  entry.weight *= kMemory;
  float trusted = 0;
  float quality = 0;
  float expected = 0;
  float raw = 0;
  const float ratio = quietRatio(index, differences ? quietShare_ : kQuietAlone, &trusted, &quality, &expected, &raw);
  if (ratio < 0) return;
  float variance = ratio * expected;
  if (!differences) {
    entry = {variance, trusted, quality, kBoundAlone * variance};
    return;
  }
  raw *= expected;
  entry.bound = entry.bound > 0.0f ? std::min(raw, kBoundRise * entry.bound + kSmallest) : raw;
  const bool first = entry.weight == 0.0f;
  if (!first) variance = std::min(variance, kMaxRise * entry.variance + kFreeRise);
  float share = trusted / (entry.weight + trusted);
  if (!first && variance < entry.variance) {
    const float fall = entry.variance / std::max(variance, kSmallest);
    share = std::min(1.0f, share * std::min(fall * fall, kMaxFall));
  }
  entry.variance += share * (variance - entry.variance);
  entry.quality += share * (quality - entry.quality);
  entry.weight = std::min(entry.weight + trusted, kMaxWeight);
}

// Median ratio to the curve of the quietest `share` of an entry's blocks; negative: too few.
//   trusted    sum of their trust, counted within the entry
//   quality    mean trust of a trusted block
//   expected   mean of the curve over them
float NoiseMeter::quietRatio(int index, float share, float* trusted, float* quality, float* expected, float* raw) {
  const float centre = centreOf(index);
  const Block* const end = blocks_ + count_;
  const Block* const first = std::lower_bound(blocks_, blocks_ + count_, centre - kReach,
                                              [](const Block& block, float luma) { return block.luma < luma; });
  int taken = 0;
  float takenTrust = 0;
  for (int side = 0; side < 2; ++side) {
    int found = 0;
    float all = 0;
    for (const Block* at = first; at < end && at->luma <= centre + kReach; ++at) {
      const Block& block = *at;
      const float texture = block.raw - mean(block.ratio);
      candidates_[found++] = {block.ratio[side] + texture + block.around, block.ratio[1 - side], block.trust,
                              block.raw};
      all += block.trust;
      if (side == 1 || !(std::fabs(block.luma - centre) <= 0.5f * kLevelsPerEntry)) continue;
      *trusted += block.trust;
      *quality += block.trust * block.trust;
      *expected += block.trust * (fromDifferences_ ? std::max(varianceAt(curve_, block.luma), kSmallest) : 1.0f);
    }
    if (found < kMinBlocks || !(*trusted > kMinTrust)) return -1;
    std::sort(candidates_, candidates_ + found,
              [](const Candidate& a, const Candidate& b) { return a.score < b.score; });
    float sum = 0;
    for (int i = 0; i < found && (i < kMinBlocks / 2 || sum < share * all); ++i) {
      sum += candidates_[i].trust;
      chosen_[taken++] = candidates_[i];
    }
    takenTrust += sum;
  }
  for (int i = 0; i < taken; ++i) scratch_[i] = chosen_[i].raw;
  *raw = medianOf(scratch_, taken);
  *quality /= *trusted;
  *expected /= *trusted;
  std::sort(chosen_, chosen_ + taken, [](const Candidate& a, const Candidate& b) { return a.ratio < b.ratio; });
  int middle = 0;
  for (float sum = chosen_[0].trust; middle + 1 < taken && sum < 0.5f * takenTrust; sum += chosen_[middle].trust)
    ++middle;
  return chosen_[middle].ratio;
}

// Texture only adds: an entry above what another one allows is held there, and one above the curve that the others draw
// counts the less for it.
void NoiseMeter::draw() {
  constexpr int kRounds = 4;
  constexpr float kSlack = 1.2f;
  // Levels. Shot noise grows with luma and this at most; a camera's tone curve makes noise of the dark as much larger as it is
  // steeper there, gamma 2.2 by about the luma, and so the variance by its square.
  constexpr float kDark = 16;
  constexpr float kClipped = 1.6f;  // luma of this many deviations: pixels are clipped at black
  double weights[kEntries];
  for (int i = 0; i < kEntries; ++i) {
    // Trust does not add up: what texture adds to many frames is no error that averages out.
    weights[i] = static_cast<double>(entries_[i].weight * entries_[i].quality * entries_[i].quality);
  }
  double held[kEntries];
  for (int i = 0; i < kEntries; ++i) {
    float most = entries_[i].variance;
    for (int j = 0; j < kEntries; ++j) {
      const float bound = entries_[j].bound;
      if (!(bound > 0.0f) || !(kLevelsPerEntry * static_cast<float>(j) > kClipped * std::sqrt(bound))) continue;
      const float ratio = (centreOf(std::max(i, j)) + kDark) / (centreOf(std::min(i, j)) + kDark);
      if (i != j) most = std::min(most, kSlack * (i < j ? ratio * ratio : ratio) * bound);
    }
    const float quality = entries_[i].quality;
    const float texture = quality > 0.0f ? std::sqrt(1 / quality - 1) * kTrusted / kUncertain : 0.0f;
    held[i] = static_cast<double>(most / (1 + kDoubt * texture));
  }
  for (int round = 0; round <= kRounds; ++round) {
    for (int i = 0; i < kEntries; ++i) {
      const double drawn = round == 0 ? held[i] : static_cast<double>(curve_.variance[i]);
      const double share =
          (drawn + static_cast<double>(kSmallest)) / static_cast<double>(entries_[i].variance + kSmallest);
      if (share < 1) weights[i] *= share * share * share * share;
    }
    if (!drawThrough(weights, held)) return;
  }
  curve_.known = true;
}

// A line by weighted least squares, plus the deviation e that minimises
//   sum weight (line + e - entry)^2 + kStiffness sum (second difference of e)^2 + kTension sum (first difference)^2.
bool NoiseMeter::drawThrough(const double (&weights)[kEntries], const double (&variances)[kEntries]) {
  constexpr double kStiffness = 4;    // blocks
  constexpr double kTension = 0.3;    // blocks
  constexpr double kLevelPrior = 20;  // blocks an entry away: holds the slope at 0 while a few entries are known
  constexpr double kKnown = 2;        // blocks: an entry that bounds what is drawn for the others
  constexpr double kBelow = 0.6;
  constexpr double kAbove = 1.5;
  double sum = 0, x = 0, y = 0, xx = 0, xy = 0;
  double low = 0, high = 0;
  for (int i = 0; i < kEntries; ++i) {
    const double variance = variances[i];
    if (weights[i] > kKnown) {
      low = high > 0 ? std::min(low, variance) : variance;
      high = std::max(high, variance);
    }
    sum += weights[i];
    x += weights[i] * i;
    y += weights[i] * variance;
    xx += weights[i] * i * i;
    xy += weights[i] * i * variance;
  }
  if (!(sum > 0)) return false;
  x /= sum;
  y /= sum;
  if (!(high > 0)) low = high = y;
  const double slope = (xy - sum * x * y) / (xx - sum * x * x + kLevelPrior);
  double line[kEntries];
  double diagonals[kEntries][3] = {};  // of the symmetric matrix, and the two above it
  double e[kEntries];
  for (int i = 0; i < kEntries; ++i) {
    line[i] = std::clamp(y + slope * (i - x), kBelow * low, kAbove * high);
    diagonals[i][0] = weights[i];
    e[i] = weights[i] * (variances[i] - line[i]);
  }
  const auto add = [&](int first, const double* difference, int count, double factor) {
    for (int i = 0; i < count; ++i) {
      for (int j = i; j < count; ++j) diagonals[first + i][j - i] += factor * difference[i] * difference[j];
    }
  };
  constexpr double kFirst[] = {1, -1};
  constexpr double kSecond[] = {1, -2, 1};
  for (int i = 0; i + 1 < kEntries; ++i) add(i, kFirst, 2, kTension);
  for (int i = 0; i + 2 < kEntries; ++i) add(i, kSecond, 3, kStiffness);
  for (int k = 0; k < kEntries; ++k) {
    for (int i = 1; i < 3 && k + i < kEntries; ++i) {
      const double share = diagonals[k][i] / diagonals[k][0];
      for (int j = i; j < 3; ++j) diagonals[k + i][j - i] -= share * diagonals[k][j];
      e[k + i] -= share * e[k];
    }
  }
  for (int k = kEntries - 1; k >= 0; --k) {
    for (int i = 1; i < 3 && k + i < kEntries; ++i) e[k] -= diagonals[k][i] * e[k + i];
    e[k] /= diagonals[k][0];
  }
  for (int i = 0; i < kEntries; ++i) {
    curve_.variance[i] = static_cast<float>(std::clamp(line[i] + e[i], kBelow * low, kAbove * high));
  }
  return true;
}

}  // namespace noxel
