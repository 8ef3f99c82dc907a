#include "tonemapping/clear_tone.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace noxel {
namespace {

constexpr int kBlock = 4;           // pixels a side
constexpr int kBlockColumns = 160;  // at most
constexpr int kBlockRows = 90;
constexpr int kFineLevels = 4 * 255 + 1;  // quarters of a level
constexpr double kEasing = 0.07;          // of the way per frame, twice

constexpr double kWhiteLevel = 235;
constexpr double kAverageLevel = 118;
constexpr double kAverageSay = 0.15;
constexpr double kLampStops = 0.5;  // nine photographs of ten have 99.9 % within this above 98 %
constexpr double kLampSay = 1 / 3.0;
constexpr double kLeastAverage = 70;
constexpr double kMaxStops = 4;
constexpr double kFullStrengthStops = 0.6;
constexpr double kFadeFrom = 60, kFadeTo = 110;          // mean levels
constexpr double kBlackLevel = 20;                       // video black and some noise
constexpr double kContrastFrom = 2, kContrastFull = 12;  // levels
constexpr double kShadowLevel = 50;
constexpr double kVeilKept = 0.4;
constexpr double kMaxSlopeAtBlack = 8;
constexpr double kKnee = 0.8;       // where the shoulder begins
constexpr double kLeastKnee = 0.5;  // for a top of three times white
constexpr double kKneeFall = 0.15;
constexpr double kMostAtTop = 0.97;       // level 247
constexpr double kLineShare = 0.4;        // of the shoulder
constexpr double kChromaRounding = 0.75;  // the level where half of chroma's gain is believed
constexpr double kLeastLight = 1e-5;      // of which a logarithm is taken: level 0.01

// BT.709's transfer and its slope; encode goes on above 1.
double decode(double value) {
  return value < 0.081 ? value / 4.5 : std::pow((value + 0.099) / 1.099, 1 / 0.45);
}

double encode(double light) {
  return light < 0.018 ? 4.5 * light : 1.099 * std::pow(light, 0.45) - 0.099;
}

double encodeSlope(double light) {
  return light < 0.018 ? 4.5 : 1.099 * 0.45 * std::pow(light, 0.45 - 1);
}

double stopsOf(double level) {
  return std::log2(std::max(decode(level / 255), kLeastLight));
}

double levelOf(double stops) {
  return 255 * encode(std::exp2(stops));
}

double smoothStep(double from, double to, double x) {
  const double t = std::clamp((x - from) / (to - from), 0.0, 1.0);
  return t * t * (3 - 2 * t);
}

// The larger of two numbers of stops, rounded where they are less than one apart.
double softMax(double a, double b) {
  const double near = std::max(1 - std::abs(a - b), 0.0);
  return std::max(a, b) + near * near / 4;
}

int sumOfBlock(const uint8_t* at, ptrdiff_t stride) {
  uint32_t pairs = 0;
  for (int y = 0; y < kBlock; ++y) {
    uint32_t four;
    std::memcpy(&four, at + y * stride, sizeof four);
    pairs += (four & 0x00ff00ffu) + (four >> 8 & 0x00ff00ffu);
  }
  return static_cast<int>((pairs & 0xffffu) + (pairs >> 16));
}

// Frames narrower or lower than a block.
int sumOfSmallBlock(const uint8_t* at, ptrdiff_t stride, int width, int height) {
  int sum = 0;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) sum += at[y * stride + x];
  return sum * kBlock * kBlock / (width * height);
}

// The lowest level with at least the share of the blocks at or below it.
double levelAt(const uint32_t (&counts)[kFineLevels], int blocks, double share) {
  const double wanted = share * blocks;
  double upTo = 0;
  int fine = 0;
  for (; fine < kFineLevels - 1; ++fine) {
    upTo += counts[fine];
    if (upTo >= wanted) break;
  }
  return fine / 4.0;
}

// The exposure within its limits in the shadows. Values are shares of level 255, and may come out above 1.
class Opening {
 public:
  // gain · light² / (light + veil) takes the shadow's light to where it may lie.
  Opening(double gain, double shadow) : gain_(gain) {
    const double lifted = 255 * encode(gain * shadow);
    const double least = std::max(kShadowLevel, 255 * encode(shadow));
    if (lifted <= least) return;
    const double wanted = decode((least + kVeilKept * (lifted - least)) / 255);
    veil_ = std::max(shadow * (gain * shadow / wanted - 1), 0.0);
  }

  double operator()(double value, double light) const {
    const double more = encode(gain_ * light * light / (light + veil_)) / value - 1;
    const double steep = std::max(more, 0.0) / (kMaxSlopeAtBlack - 1);
    return value * (1 + more / std::sqrt(std::sqrt(1 + steep * steep * steep * steep)));
  }

 private:
  double gain_;
  double veil_ = 0;
};

// Leaves the knee with the slope 1 and takes the top to what it may reach, if it lies beyond: a hyperbola, and some of a
// line so that lamps keep their shades. The further beyond, the lower the knee. What is brighter than the top (a part of
// a block, a lamp just come into view) shares the rest up to white.
class Shoulder {
 public:
  Shoulder(double top, double mostAtTop, double largest)
      : knee_(std::clamp(kKnee - kKneeFall * (top - 1), kLeastKnee, kKnee)),
        end_(std::max(top, mostAtTop)),
        most_(mostAtTop),
        largest_(largest) {
    const double room = most_ - knee_;
    line_ = kLineShare * room / (end_ - knee_);
    bend_ = (1 - line_) / ((1 - kLineShare) * room) - 1 / (end_ - knee_);
  }

  double operator()(double value) const {
    const double above = value - knee_;
    if (above <= 0) return value;
    if (value <= end_) return knee_ + above * (line_ + (1 - line_) / (1 + bend_ * above));
    return most_ + (1 - most_) * (value - end_) / (largest_ - end_);
  }

 private:
  double knee_;
  double end_;
  double most_;
  double largest_;  // level 255's value
  double line_;
  double bend_;
};

}  // namespace

ToneTable::ToneTable() {
  for (int i = 0; i < kLevels; ++i) {
    level[i] = static_cast<float>(i);
    chromaGain[i] = 1;
  }
}

ClearTone::Statistics ClearTone::measured(const uint8_t* luma, int width, int height, ptrdiff_t stride) {
  const int columns = std::clamp(width / kBlock, 1, kBlockColumns);
  const int rows = std::clamp(height / kBlock, 1, kBlockRows);
  const int blockWidth = std::min(width, kBlock);
  const int blockHeight = std::min(height, kBlock);
  const bool whole = blockWidth == kBlock && blockHeight == kBlock;
  int left[kBlockColumns];
  for (int column = 0; column < columns; ++column)
    left[column] = columns > 1 ? static_cast<int>(int64_t{width - kBlock} * column / (columns - 1)) : 0;

  int above[kBlockColumns];  // the row of blocks before
  uint32_t counts[kFineLevels] = {};
  uint32_t quietCounts[kFineLevels] = {};  // of the means of four neighbouring blocks
  int64_t sum = 0;
  for (int row = 0; row < rows; ++row) {
    const int64_t top = rows > 1 ? int64_t{height - kBlock} * row / (rows - 1) : 0;
    const uint8_t* line = luma + top * stride;
    int before = 0, aboveBefore = 0;
    for (int column = 0; column < columns; ++column) {
      const uint8_t* at = line + left[column];
      const int fine = (whole ? sumOfBlock(at, stride) : sumOfSmallBlock(at, stride, blockWidth, blockHeight)) / 4;
      ++counts[fine];
      sum += fine;
      const int over = row > 0 ? above[column] : fine;
      above[column] = fine;
      if (column == 0) before = fine, aboveBefore = over;
      ++quietCounts[(fine + over + before + aboveBefore) / 4];
      before = fine;
      aboveBefore = over;
    }
  }
  const int blocks = columns * rows;
  double white = stopsOf(levelAt(quietCounts, blocks, 0.999));
  const double lamps = white - stopsOf(levelAt(quietCounts, blocks, 0.98)) - kLampStops;
  if (lamps > 0) white -= (1 - kLampSay) * lamps;
  return {white, stopsOf(levelAt(counts, blocks, 0.9998)), stopsOf(levelAt(quietCounts, blocks, 0.01)),
          stopsOf(static_cast<double>(sum) / blocks / 4)};
}

void ClearTone::smooth(const Statistics& now) {
  if (!started_) eased_ = smoothed_ = now;
  started_ = true;
  for (double Statistics::*each : {&Statistics::white, &Statistics::top, &Statistics::shadow, &Statistics::average}) {
    eased_.*each += kEasing * (now.*each - eased_.*each);
    smoothed_.*each += kEasing * (eased_.*each - smoothed_.*each);
  }
}

double ClearTone::stopsLacking(const Statistics& s) {
  const double anchored =
      (1 - kAverageSay) * (stopsOf(kWhiteLevel) - s.white) + kAverageSay * (stopsOf(kAverageLevel) - s.average);
  return std::clamp(softMax(anchored, stopsOf(kLeastAverage) - s.average), 0.0, kMaxStops);
}

double ClearTone::darkness(const Statistics& s) {
  const double contrast = levelOf(s.white) - std::min(levelOf(s.shadow), kBlackLevel);
  return (1 - smoothStep(kFadeFrom, kFadeTo, levelOf(s.average))) * smoothStep(kContrastFrom, kContrastFull, contrast);
}

void ClearTone::update(const uint8_t* luma, int width, int height, ptrdiff_t stride, int strength, bool newSequence) {
  if (newSequence) started_ = false;
  smooth(measured(luma, width, height, stride));
  const double share = std::clamp(strength, 0, 100) / 50.0;
  const double stops = darkness(smoothed_) *
                       (std::min(share, 1.0) * stopsLacking(smoothed_) + std::max(share - 1, 0.0) * kFullStrengthStops);
  if (stops <= 0) {
    table_ = {};
    return;
  }
  const double gain = std::exp2(stops);
  const Opening opening(gain, std::exp2(smoothed_.shadow));
  const double topLight = std::exp2(smoothed_.top);
  const double topValue = encode(topLight);
  const Shoulder shoulder(opening(topValue, topLight), std::max(topValue, kMostAtTop), opening(1, 1));
  for (int i = 1; i < kLevels; ++i) {
    const double value = i / 255.0;
    const double light = decode(value);
    const double out = std::min(shoulder(opening(value, light)), 1.0);
    // The channels lie around luma, and the curve bends the lower ones most: its slope a little below luma.
    const double below = decode(0.75 * value);
    const double slope = gain * encodeSlope(gain * below) / encodeSlope(below);
    const double kept = out / encode(gain * light);
    table_.level[i] = static_cast<float>(255 * out);
    table_.chromaGain[i] = static_cast<float>(1 + (slope * kept - 1) * i / (i + kChromaRounding));
  }
}

}  // namespace noxel
