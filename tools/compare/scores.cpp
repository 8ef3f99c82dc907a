#include "compare/scores.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace noxel::tool {
namespace {

constexpr double kPeak = 255;
constexpr int kWindowRadius = 5;
constexpr double kWindowSigma = 1.5;

std::array<float, 2 * kWindowRadius + 1> window() {
  std::array<float, 2 * kWindowRadius + 1> weights;
  double sum = 0;
  for (int i = -kWindowRadius; i <= kWindowRadius; ++i) sum += std::exp(-i * i / (2 * kWindowSigma * kWindowSigma));
  for (int i = -kWindowRadius; i <= kWindowRadius; ++i) {
    weights[static_cast<size_t>(i + kWindowRadius)] =
        static_cast<float>(std::exp(-i * i / (2 * kWindowSigma * kWindowSigma)) / sum);
  }
  return weights;
}

// Without repeating the border: -1 is 1, `size` is size - 2.
int mirrored(int index, int size) {
  if (size == 1) return 0;
  while (index < 0 || index >= size) index = index < 0 ? -index : 2 * size - 2 - index;
  return index;
}

size_t areaOf(int width, int height) {
  return static_cast<size_t>(width) * static_cast<size_t>(height);
}

void multiply(const std::vector<float>& a, const std::vector<float>& b, std::vector<float>& product) {
  product.resize(a.size());
  std::transform(a.begin(), a.end(), b.begin(), product.begin(), [](float x, float y) { return x * y; });
}

// Of least squared error among those that never fall: runs that would fall are pooled into their weighted mean.
std::vector<double> neverFalling(const std::vector<double>& values, const std::vector<double>& weights) {
  struct Pool {
    double mean, weight;
    size_t count;
  };
  std::vector<Pool> pools;
  for (size_t i = 0; i < values.size(); ++i) {
    pools.push_back({values[i], weights[i], 1});
    while (pools.size() > 1 && pools[pools.size() - 2].mean > pools.back().mean) {
      const Pool last = pools.back();
      pools.pop_back();
      Pool& joined = pools.back();
      const double weight = joined.weight + last.weight;
      joined = {(joined.mean * joined.weight + last.mean * last.weight) / weight, weight, joined.count + last.count};
    }
  }
  std::vector<double> result;
  for (const Pool& pool : pools) result.insert(result.end(), pool.count, pool.mean);
  return result;
}

}  // namespace

double psnr(double meanSquaredError) {
  return meanSquaredError <= 0 ? kMaxPsnr : std::min(kMaxPsnr, 10 * std::log10(kPeak * kPeak / meanSquaredError));
}

ToneTable sameTone() {
  ToneTable table;
  for (size_t level = 0; level < table.size(); ++level) table[level] = static_cast<double>(level);
  return table;
}

void JointHistogram::add(const PlaneView& clip, const PlaneView& reference) {
  for (int y = 0; y < clip.height; ++y) {
    const uint8_t* from = clip.row(y);
    const uint8_t* to = reference.row(y);
    for (int x = 0; x < clip.width; ++x) ++counts_[size_t{from[x]} * kLevels + to[x]];
  }
}

ToneTable JointHistogram::fitted() const {
  std::vector<size_t> levels;  // those that the clip has
  std::vector<double> means;
  std::vector<double> weights;
  for (size_t level = 0; level < kLevels; ++level) {
    double count = 0, sum = 0;
    for (size_t reference = 0; reference < kLevels; ++reference) {
      const auto pixels = static_cast<double>(counts_[level * kLevels + reference]);
      count += pixels;
      sum += pixels * static_cast<double>(reference);
    }
    if (count == 0) continue;
    levels.push_back(level);
    means.push_back(sum / count);
    weights.push_back(count);
  }
  if (levels.empty()) return sameTone();
  means = neverFalling(means, weights);
  ToneTable table;
  for (size_t level = 0; level < kLevels; ++level) {
    const auto above = static_cast<size_t>(std::ranges::lower_bound(levels, level) - levels.begin());
    if (above == levels.size()) {
      table[level] = means.back();
    } else if (above == 0 || levels[above] == level) {
      table[level] = means[above];
    } else {
      const double part =
          static_cast<double>(level - levels[above - 1]) / static_cast<double>(levels[above] - levels[above - 1]);
      table[level] = means[above - 1] + part * (means[above] - means[above - 1]);
    }
  }
  return table;
}

double JointHistogram::meanSquaredError(const ToneTable& table) const {
  double count = 0, sum = 0;
  for (size_t level = 0; level < kLevels; ++level) {
    for (size_t reference = 0; reference < kLevels; ++reference) {
      const auto pixels = static_cast<double>(counts_[level * kLevels + reference]);
      const double error = table[level] - static_cast<double>(reference);
      count += pixels;
      sum += pixels * error * error;
    }
  }
  return count > 0 ? sum / count : 0;
}

void ChromaSums::add(const PlaneView& plane, const PlaneView& referencePlane) {
  // Whole numbers: those of a plane of up to 2^47 samples are exact.
  uint64_t a = 0, b = 0, aa = 0, ab = 0, bb = 0;
  for (int y = 0; y < plane.height; ++y) {
    const uint8_t* from = plane.row(y);
    const uint8_t* to = referencePlane.row(y);
    for (int x = 0; x < plane.width; ++x) {
      const uint32_t u = from[x], v = to[x];
      a += u;
      b += v;
      aa += u * u;
      ab += u * v;
      bb += v * v;
    }
  }
  add({plane.count(), static_cast<double>(a), static_cast<double>(b), static_cast<double>(aa), static_cast<double>(ab),
       static_cast<double>(bb)});
}

void ChromaSums::add(const ChromaSums& more) {
  count += more.count;
  clip += more.clip;
  reference += more.reference;
  clipSquared += more.clipSquared;
  product += more.product;
  referenceSquared += more.referenceSquared;
}

ChromaLine fittedLine(const ChromaSums& sums) {
  const double n = std::max(sums.count, 1.0);
  const double variance = sums.clipSquared / n - (sums.clip / n) * (sums.clip / n);
  const double covariance = sums.product / n - sums.clip / n * sums.reference / n;
  ChromaLine line;
  line.gain = variance > 1e-9 ? covariance / variance : 0;  // one colour: only the offset is known
  line.offset = (sums.reference - line.gain * sums.clip) / n;
  return line;
}

// The mean of (gain c + offset - r)^2, written out.
double meanSquaredError(const ChromaSums& sums, const ChromaLine& line) {
  const double g = line.gain, o = line.offset;
  const double sum = g * g * sums.clipSquared + sums.referenceSquared + o * o * sums.count - 2 * g * sums.product +
                     2 * g * o * sums.clip - 2 * o * sums.reference;
  return sums.count > 0 ? std::max(0.0, sum / sums.count) : 0;
}

void StructuralSimilarity::setReference(const PlaneView& reference) {
  width_ = reference.width;
  height_ = reference.height;
  reference_.clear();
  for (int y = 0; y < height_; ++y) reference_.insert(reference_.end(), reference.row(y), reference.row(y) + width_);
  blur(reference_, referenceMean_);
  multiply(reference_, reference_, squared_);
  blur(squared_, referenceSquares_);
}

double StructuralSimilarity::of(const PlaneView& picture, const ToneTable& table) {
  picture_.resize(reference_.size());
  for (int y = 0; y < height_; ++y) {
    float* to = picture_.data() + areaOf(width_, y);
    const uint8_t* from = picture.row(y);
    for (int x = 0; x < width_; ++x) to[x] = static_cast<float>(table[from[x]]);
  }
  blur(picture_, mean_);
  multiply(picture_, picture_, squared_);
  blur(squared_, squares_);
  multiply(picture_, reference_, squared_);
  blur(squared_, products_);
  constexpr float kC1 = (0.01f * 255) * (0.01f * 255), kC2 = (0.03f * 255) * (0.03f * 255);
  double sum = 0;
  for (size_t i = 0; i < picture_.size(); ++i) {
    const float a = mean_[i], b = referenceMean_[i];
    const float variances = squares_[i] - a * a + referenceSquares_[i] - b * b;
    const float covariance = products_[i] - a * b;
    sum +=
        static_cast<double>((2 * a * b + kC1) * (2 * covariance + kC2) / ((a * a + b * b + kC1) * (variances + kC2)));
  }
  return sum / static_cast<double>(picture_.size());
}

void StructuralSimilarity::blur(const Plane& plane, Plane& blurred) {
  static const auto weights = window();
  const auto width = static_cast<size_t>(width_);
  rows_.assign(plane.size(), 0);
  mirrored_.resize(width + 2 * kWindowRadius);
  for (int y = 0; y < height_; ++y) {
    const float* from = plane.data() + areaOf(width_, y);
    float* to = rows_.data() + areaOf(width_, y);
    for (size_t x = 0; x < mirrored_.size(); ++x) {
      mirrored_[x] = from[mirrored(static_cast<int>(x) - kWindowRadius, width_)];
    }
    for (size_t tap = 0; tap < weights.size(); ++tap) {
      for (size_t x = 0; x < width; ++x) to[x] += weights[tap] * mirrored_[x + tap];
    }
  }
  blurred.assign(plane.size(), 0);
  for (int y = 0; y < height_; ++y) {
    float* to = blurred.data() + areaOf(width_, y);
    for (size_t tap = 0; tap < weights.size(); ++tap) {
      const float* from = rows_.data() + areaOf(width_, mirrored(y + static_cast<int>(tap) - kWindowRadius, height_));
      for (size_t x = 0; x < width; ++x) to[x] += weights[tap] * from[x];
    }
  }
}

ErrorSequence::Errors ErrorSequence::next(const PlaneView& picture, const PlaneView& reference,
                                          const ToneTable& table) {
  const bool first = previous_.empty();
  previous_.resize(areaOf(picture.width, picture.height));
  double squares = 0, changes = 0;
  float* previous = previous_.data();
  for (int y = 0; y < picture.height; ++y) {
    const uint8_t* from = picture.row(y);
    const uint8_t* to = reference.row(y);
    for (int x = 0; x < picture.width; ++x, ++previous) {
      const auto error = static_cast<float>(table[from[x]] - static_cast<double>(to[x]));
      squares += static_cast<double>(error * error);
      changes += static_cast<double>(std::abs(error - *previous));
      *previous = error;
    }
  }
  const double count = picture.count();
  return {squares / count, first ? std::numeric_limits<double>::quiet_NaN() : changes / count};
}

}  // namespace noxel::tool
