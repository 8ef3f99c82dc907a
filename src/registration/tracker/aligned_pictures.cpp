#include "registration/tracker/aligned_pictures.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "registration/tracker/bands.h"
#include "registration/tracker/lanes.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

constexpr int16_t kOnes[8] = {1, 1, 1, 1, 1, 1, 1, 1};
constexpr float kEnergy = AlignedPictures::kLevel * AlignedPictures::kLevel;
constexpr int kRun = 8;                    // samples drawn at one displacement
constexpr double kMaxImageSide = 1 << 26;  // samples, in fractions still an int

// The previous picture is converted when it differs by more than this in contrast or brightness (8-bit levels). Less
// comes from what enters and leaves the picture.
constexpr double kGainNoticed = 0.05;
constexpr double kOffsetNoticed = 2.0;
constexpr int kSampledLines = 4;  // one of so many tells the exposure

// Bytes are too coarse for a dark picture: they are stretched to this mean, by up to kMaxStretch.
constexpr double kStretchedMean = 110.0;
constexpr double kMaxStretch = 4.0;

// Samples around a point that a comparison needs.
constexpr double kSurroundings = 3.0;

}  // namespace

void AlignedSums::add(const AlignedSums& part) {
  hxx += part.hxx;
  hxy += part.hxy;
  hyy += part.hyy;
  gx += part.gx;
  gy += part.gy;
  luma += part.luma;
  difference += part.difference;
  energy += part.energy;
  bx += part.bx;
  by += part.by;
}

void AlignedSums::centre(float samples) {
  energy -= difference * difference / samples;
  bx -= gx * difference / samples;
  by -= gy * difference / samples;
  hxx -= gx * gx / samples;
  hxy -= gx * gy / samples;
  hyy -= gy * gy / samples;
}

AlignedPictures::~AlignedPictures() {
  std::free(current_);
  std::free(previous_);
  std::free(slopeX_);
  std::free(slopeY_);
  std::free(coarseCurrent_);
  std::free(coarsePrevious_);
}

bool AlignedPictures::allocate(int columns, int rows) {
  columns_ = columns;
  rows_ = rows;
  stride_ = (columns * kBlock + 2 * kPad + kRun - 1) / kRun * kRun;
  lines_ = rows * kBlock + 2 * kPad;
  const int samples = stride_ * lines_;
  current_ = allocateArray<int16_t>(samples);
  previous_ = allocateArray<int16_t>(samples);
  slopeX_ = allocateArray<int16_t>(samples);
  slopeY_ = allocateArray<int16_t>(samples);
  coarseCurrent_ = allocateArray<uint8_t>(samples / (kCoarse * kCoarse));
  coarsePrevious_ = allocateArray<uint8_t>(samples / (kCoarse * kCoarse));
  return current_ != nullptr && previous_ != nullptr && slopeX_ != nullptr && slopeY_ != nullptr &&
         coarseCurrent_ != nullptr && coarsePrevious_ != nullptr;
}

void AlignedPictures::read(const Image& previous, const Image& current, const PictureFrame& frame,
                           const GlobalMotion& motion, WorkerPool* pool) {
  readCurrent(current, pool);
  invert(frame, motion);
  drawPrevious(previous, pool);
  matchExposure(pool);
  makeCoarse(pool);
}

// The blocks' samples and one more on each side; edges are repeated.
void AlignedPictures::readCurrent(const Image& image, WorkerPool* pool) {
  const int width = columns_ * kBlock;
  const int height = rows_ * kBlock;
  const int shared = std::min(width, image.width);
  forBands(pool, height + 2, width, [&](int begin, int end) {
    for (int y = begin - 1; y < end - 1; ++y) {
      const int16_t* from = image.pixels + ptrdiff_t{std::clamp(y, 0, image.height - 1)} * image.width;
      int16_t* to = current_ + offset(0, y);
      for (int x = 0; x < shared; ++x) to[x] = static_cast<int16_t>((from[x] + 2) >> 2);
      to[-1] = to[0];
      for (int x = shared; x <= width; ++x) to[x] = to[shared - 1];
    }
  });
  forBands(pool, height, width, [&](int begin, int end) {
    for (int y = begin; y < end; ++y) {
      const ptrdiff_t line = offset(0, y);
      for (ptrdiff_t x = line; x < line + width; ++x) {
        slopeX_[x] = static_cast<int16_t>(current_[x + 1] - current_[x - 1]);
        slopeY_[x] = static_cast<int16_t>(current_[x + stride_] - current_[x - stride_]);
      }
    }
  });
}

void AlignedPictures::invert(const PictureFrame& frame, const GlobalMotion& motion) {
  // From pixels, the picture's corner at (0, 0), to samples, the first one's centre there.
  double pixels[6];
  frame.inverse(motion, &pixels);
  double* m = previousFromCurrent_;
  for (int row = 0; row < 6; row += 3) {
    m[row] = pixels[row];
    m[row + 1] = pixels[row + 1];
    m[row + 2] = 0.5 * (pixels[row] + pixels[row + 1]) + pixels[row + 2] / kScale - 0.5;
  }
  const double drift = std::max({std::fabs(m[0] - 1.0), std::fabs(m[1]), std::fabs(m[3]), std::fabs(m[4] - 1.0)});
  smooth_ = drift * (kRun / 2) < 1.0 / kFractions;
}

// One run, sample by sample; the previous picture's edges are repeated.
void AlignedPictures::drawRun(const Image& image, int x, int y, int16_t* to) const {
  const double* m = previousFromCurrent_;
  // In steps of a fraction, within a picture's width of the picture.
  const auto steps = [](double value, int size) {
    return static_cast<int>(std::clamp(value, -1.0 * size, 2.0 * size) * kFractions + (kFractions * size + 0.5)) -
           kFractions * size;
  };
  const int right = image.width - 1;
  const int bottom = image.height - 1;
  for (int i = 0; i < kRun; ++i) {
    const int stepX = std::clamp(steps(m[0] * (x + i) + m[1] * y + m[2], image.width), 0, right * kFractions);
    const int stepY = std::clamp(steps(m[3] * (x + i) + m[4] * y + m[5], image.height), 0, bottom * kFractions);
    const int left = stepX / kFractions;
    const int top = stepY / kFractions;
    const int fx = stepX % kFractions;
    const int fy = stepY % kFractions;
    const int next = std::min(left + 1, right);
    const int16_t* upper = image.pixels + ptrdiff_t{top} * image.width;
    const int16_t* lower = image.pixels + ptrdiff_t{std::min(top + 1, bottom)} * image.width;
    const int above = upper[left] * (kFractions - fx) + upper[next] * fx;
    const int below = lower[left] * (kFractions - fx) + lower[next] * fx;
    to[i] = static_cast<int16_t>((above * (kFractions - fy) + below * fy + 512) >> 10);
  }
}

void AlignedPictures::drawPrevious(const Image& image, WorkerPool* pool) {
  previousWidth_ = image.width;
  previousHeight_ = image.height;
  const double* m = previousFromCurrent_;
  forBands(pool, lines_, stride_ * 4, [&](int begin, int end) {
    for (int line = begin; line < end; ++line) {
      const int y = line - kPad;
      for (int run = 0; run < stride_; run += kRun) {
        const int x = run - kPad;
        int16_t* to = previous_ + ptrdiff_t{line} * stride_ + run;
        // The displacement in the run's middle.
        const double middle = x + 0.5 * (kRun - 1);
        const double atX = m[0] * middle + m[1] * y + m[2] - 0.5 * (kRun - 1);
        const double atY = m[3] * middle + m[4] * y + m[5];
        if (!smooth_ || !(atX >= 0.0 && atX < image.width - kRun - 1 && std::fabs(atY) < kMaxImageSide)) {
          drawRun(image, x, y, to);
          continue;
        }
        const auto stepX = static_cast<int>(atX * kFractions + 0.5);
        const int stepY = std::clamp(static_cast<int>(atY * kFractions + 0.5), 0, (image.height - 1) * kFractions);
        const int top = std::min(stepY / kFractions, image.height - 2);
        const int fx = stepX % kFractions;
        const int fy = stepY - top * kFractions;
        const int16_t* upper = image.pixels + ptrdiff_t{top} * image.width + stepX / kFractions;
        const int16_t* lower = upper + image.width;
        for (int i = 0; i < kRun; ++i) {
          const auto above = static_cast<uint16_t>(upper[i] * (kFractions - fx) + upper[i + 1] * fx + 8);
          const auto below = static_cast<uint16_t>(lower[i] * (kFractions - fx) + lower[i + 1] * fx + 8);
          const auto both = static_cast<uint16_t>((above >> 4) * (kFractions - fy) + (below >> 4) * fy + 32);
          to[i] = static_cast<int16_t>(both >> 6);
        }
      }
    }
  });
}

// Frames may differ in gain and offset.
void AlignedPictures::matchExposure(WorkerPool* pool) {
  const int width = columns_ * kBlock;
  int64_t samples = 0, sum = 0, otherSum = 0, squares = 0, otherSquares = 0;
  for (int y = 0; y < rows_ * kBlock; y += kSampledLines) {
    const int16_t* own = current_ + offset(0, y);
    const int16_t* other = previous_ + offset(0, y);
    int32_t lineSum = 0, otherLineSum = 0;
    for (int x = 0; x < width; ++x) {
      lineSum += own[x];
      otherLineSum += other[x];
      squares += own[x] * own[x];
      otherSquares += other[x] * other[x];
    }
    sum += lineSum;
    otherSum += otherLineSum;
    samples += width;
  }
  const auto count = static_cast<double>(samples);
  const double mean = static_cast<double>(sum) / count;
  const double otherMean = static_cast<double>(otherSum) / count;
  const double variance = static_cast<double>(squares) / count - mean * mean;
  const double otherVariance = static_cast<double>(otherSquares) / count - otherMean * otherMean;
  if (!(variance > 0.0 && otherVariance > 0.0)) return;
  const double gain = std::sqrt(variance / otherVariance);
  if (std::fabs(gain - 1.0) <= kGainNoticed && std::fabs(mean - otherMean) * kLevel <= kOffsetNoticed) return;
  const auto scale = static_cast<float>(gain);
  const auto brighter = static_cast<float>(mean - gain * otherMean) + 0.5f;
  forBands(pool, lines_, stride_ * 2, [&](int begin, int end) {
    for (ptrdiff_t i = ptrdiff_t{begin} * stride_; i < ptrdiff_t{end} * stride_; ++i) {
      previous_[i] =
          static_cast<int16_t>(std::clamp(scale * static_cast<float>(previous_[i]) + brighter, 0.0f, 1020.0f));
    }
  });
}

void AlignedPictures::makeCoarse(WorkerPool* pool) {
  int64_t sum = 0;
  for (int y = 0; y < rows_ * kBlock; y += kSampledLines) {
    for (int x = 0; x < columns_ * kBlock; ++x) sum += current_[offset(x, y)];
  }
  const int64_t samples = int64_t{columns_} * kBlock * ((rows_ * kBlock + kSampledLines - 1) / kSampledLines);
  const double mean = std::max(kLevel * static_cast<double>(sum) / static_cast<double>(samples), 1.0);
  const int stretch = static_cast<int>(16.0 * std::clamp(kStretchedMean / mean, 1.0, kMaxStretch));
  const int width = stride_ / kCoarse;
  forBands(pool, lines_ / kCoarse, stride_ * 2, [&](int begin, int end) {
    const auto halve = [&](const int16_t* upper, uint8_t* to) {
      const int16_t* lower = upper + stride_;
      for (int x = 0; x < width; ++x) {
        const int four = upper[2 * x] + upper[2 * x + 1] + lower[2 * x] + lower[2 * x + 1];
        to[x] = static_cast<uint8_t>(std::min((four * stretch + 128) >> 8, 255));
      }
    };
    for (int y = begin; y < end; ++y) {
      halve(current_ + ptrdiff_t{kCoarse} * y * stride_, coarseCurrent_ + ptrdiff_t{y} * width);
      halve(previous_ + ptrdiff_t{kCoarse} * y * stride_, coarsePrevious_ + ptrdiff_t{y} * width);
    }
  });
}

AlignedSums AlignedPictures::blockSums(int column, int row) const {
  using Lanes = NativeLanes;
  const Lanes one = Lanes::load(kOnes);
  const ptrdiff_t corner = offset(column * kBlock, row * kBlock);
  Lanes::Sum hxx, hxy, hyy, gx, gy, luma, difference, energy, bx, by;
  for (int y = 0; y < kBlock; y += 2) {
    const ptrdiff_t upper = corner + ptrdiff_t{y} * stride_;
    const ptrdiff_t lower = upper + stride_;
    const Lanes own = Lanes::loadFours(current_ + upper, current_ + lower);
    const Lanes off = own.minus(Lanes::loadFours(previous_ + upper, previous_ + lower));
    const Lanes slopeX = Lanes::loadFours(slopeX_ + upper, slopeX_ + lower);
    const Lanes slopeY = Lanes::loadFours(slopeY_ + upper, slopeY_ + lower);
    hxx.addProducts(slopeX, slopeX);
    hxy.addProducts(slopeX, slopeY);
    hyy.addProducts(slopeY, slopeY);
    gx.addProducts(slopeX, one);
    gy.addProducts(slopeY, one);
    luma.addProducts(own, one);
    difference.addProducts(off, one);
    energy.addProducts(off, off);
    bx.addProducts(slopeX, off);
    by.addProducts(slopeY, off);
  }
  const auto total = [](const Lanes::Sum& sum, float scale) { return static_cast<float>(sum.total()) * scale; };
  return {total(hxx, kEnergy / 4), total(hxy, kEnergy / 4), total(hyy, kEnergy / 4),   total(gx, kLevel / 2),
          total(gy, kLevel / 2),   total(luma, kLevel),     total(difference, kLevel), total(energy, kEnergy),
          total(bx, kEnergy / 2),  total(by, kEnergy / 2)};
}

template <class Lanes>
DisplacedSums AlignedPictures::windowSums(int left, int top, int dx, int dy) const {
  const Lanes one = Lanes::load(kOnes);
  const ptrdiff_t shift = -(ptrdiff_t{dy} * stride_ + dx);
  ptrdiff_t upper = offset(left * kBlock, top * kBlock);
  typename Lanes::Sum difference, energy, bx, by;
  const auto add = [&](const Lanes& own, const Lanes& other, const Lanes& slopeX, const Lanes& slopeY) {
    const Lanes off = own.minus(other);
    difference.addProducts(off, one);
    energy.addProducts(off, off);
    bx.addProducts(slopeX, off);
    by.addProducts(slopeY, off);
  };
  for (int y = 0; y < kWindow; y += 2, upper += ptrdiff_t{2} * stride_) {
    const ptrdiff_t lower = upper + stride_;
    for (const ptrdiff_t at : {upper, lower}) {
      add(Lanes::load(current_ + at), Lanes::load(previous_ + at + shift), Lanes::load(slopeX_ + at),
          Lanes::load(slopeY_ + at));
    }
    const auto fours = [&](const int16_t* plane) { return Lanes::loadFours(plane + upper + 8, plane + lower + 8); };
    add(fours(current_), fours(previous_ + shift), fours(slopeX_), fours(slopeY_));
  }
  return {difference.total(), energy.total(), bx.total(), by.total()};
}

template <class Lanes>
float AlignedPictures::blockEnergy(int column, int row, int dx, int dy) const {
  const int fx = -dx & (kFractions - 1);
  const int fy = -dy & (kFractions - 1);
  const ptrdiff_t shift = ptrdiff_t{(-dy - fy) / kFractions} * stride_ + (-dx - fx) / kFractions;
  typename Lanes::Sum energy;
  for (int y = 0; y < kBlock; y += 2) {
    const ptrdiff_t upper = offset(column * kBlock, row * kBlock + y);
    const ptrdiff_t lower = upper + stride_;
    const auto across = [&](ptrdiff_t by) {
      const int16_t* from = previous_ + shift + by;
      return Lanes::loadFours(from + upper, from + lower)
          .mixed(Lanes::loadFours(from + upper + 1, from + lower + 1), fx);
    };
    const Lanes own = Lanes::loadFours(current_ + upper, current_ + lower);
    const Lanes off = own.minus(across(0).mixed(across(stride_), fy));
    energy.addProducts(off, off);
  }
  return static_cast<float>(energy.total()) * kEnergy;
}

template <class Lanes>
CellMatch AlignedPictures::matchCell(int x, int y, int saving) const {
  const int stride = stride_ / kCoarse;
  const ptrdiff_t at = ptrdiff_t{y + kPad / kCoarse} * stride + x + kPad / kCoarse;
  const uint8_t* own = coarseCurrent_ + at;
  const uint8_t* other = coarsePrevious_ + at;
  CellMatch best = {0, 0, Lanes::differenceOf(own, other, stride) - saving};
  for (int dy = -kCoarseReach; dy <= kCoarseReach; ++dy) {
    for (int dx = -kCoarseReach; dx <= kCoarseReach; ++dx) {
      const int difference = Lanes::differenceOf(own, other - (ptrdiff_t{dy} * stride + dx), stride);
      if (difference < best.difference) best = {dx, dy, difference};
    }
  }
  return best;
}

bool AlignedPictures::wasInside(int column, int row, float dx, float dy) const {
  const double x = column * kBlock + 0.5 * (kBlock - 1) - static_cast<double>(dx);
  const double y = row * kBlock + 0.5 * (kBlock - 1) - static_cast<double>(dy);
  const double* m = previousFromCurrent_;
  const double atX = m[0] * x + m[1] * y + m[2];
  const double atY = m[3] * x + m[4] * y + m[5];
  return atX >= kSurroundings && atY >= kSurroundings && atX <= previousWidth_ - 1 - kSurroundings &&
         atY <= previousHeight_ - 1 - kSurroundings;
}

template DisplacedSums AlignedPictures::windowSums<NativeLanes>(int, int, int, int) const;
template float AlignedPictures::blockEnergy<NativeLanes>(int, int, int, int) const;
template CellMatch AlignedPictures::matchCell<NativeLanes>(int, int, int) const;
#if defined(__SSE2__) || defined(__ARM_NEON)
template DisplacedSums AlignedPictures::windowSums<PlainLanes>(int, int, int, int) const;
template float AlignedPictures::blockEnergy<PlainLanes>(int, int, int, int) const;
template CellMatch AlignedPictures::matchCell<PlainLanes>(int, int, int) const;
#endif

}  // namespace noxel::tracker
