#include "registration/tracker/fixed_pattern.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "registration/tracker/bands.h"
#include "registration/tracker/lanes.h"
#include "registration/tracker/memory.h"

namespace noxel::tracker {
namespace {

constexpr int kLanes = 8;
constexpr int kSampledRow = 24;    // every so many rows one is watched
constexpr int kStepsPerUnit = 16;  // of the pattern, per unit of a sample
constexpr int kMaxSample = 4080;
constexpr float kMaxResidual = 1024;  // samples: 64 levels; more is something that moves on its own
constexpr double kMinMoved = 1.0;     // pixels, rms over the corners: closer frames share the pattern's neighbourhood
constexpr int kSlowest = 32;          // frames: 1 / rate in the long run
constexpr int kCaution = 4;           // frames of nothing that the first ones are averaged with
constexpr float kRowRate = 0.5f;
// Noise alone repeats by -0.3: what the last frame had at a place is missing from the next residual.
constexpr double kRepeats = 0.12;
constexpr double kRepetitionRate = 0.35;

}  // namespace

FixedPattern::~FixedPattern() {
  std::free(pattern_);
  std::free(residual_);
  std::free(signs_);
}

bool FixedPattern::allocate(const Image& image, const PictureFrame& frame) {
  frame_ = frame;
  width_ = image.width;
  height_ = image.height;
  pattern_ = allocateArray<int16_t>(width_ * height_);
  residual_ = allocateArray<int16_t>(width_ * height_);
  signs_ = allocateArray<Signs>(height_);
  return pattern_ != nullptr && residual_ != nullptr && signs_ != nullptr;
}

void FixedPattern::forget() {
  std::fill(pattern_, pattern_ + ptrdiff_t{width_} * height_, int16_t{0});
  learned_ = 0;
  repetition_ = 0.0;
  present_ = false;
}

void FixedPattern::subtract(const Image& image, WorkerPool* pool) const {
  if (!present_) return;
  forBands(pool, height_, width_, [&](int begin, int end) {
    for (ptrdiff_t i = ptrdiff_t{begin} * width_; i < ptrdiff_t{end} * width_; ++i) {
      const int value = image.pixels[i] - (pattern_[i] + kStepsPerUnit / 2) / kStepsPerUnit;
      image.pixels[i] = static_cast<int16_t>(std::clamp(value, 0, kMaxSample));
    }
  });
}

FixedPattern::Signs FixedPattern::learnRow(const Image& previous, const Image& current,
                                           const double (&previousFromCurrent)[6], int row, float rate) {
  const double* m = previousFromCurrent;
  const ptrdiff_t stride = width_;
  const int16_t* own = current.pixels + row * stride;
  int16_t* pattern = pattern_ + row * stride;
  int16_t* residual = residual_ + row * stride;
  // Residuals where the previous frame has the place, 0 elsewhere.
  float sum = 0.0f;
  int known = 0;
  std::fill(residual, residual + width_, int16_t{0});
  for (int x = 0; x + kLanes <= width_; x += kLanes) {
    const double fromX = m[0] * (x + 0.5 * kLanes) + m[1] * (row + 0.5) + m[2] - 0.5 * kLanes;
    const double fromY = m[3] * (x + 0.5 * kLanes) + m[4] * (row + 0.5) + m[5] - 0.5;
    if (!(fromX >= 0.0 && fromY >= 0.0 && fromX < width_ - kLanes - 1 && fromY < height_ - 2)) continue;
    const int stepX = static_cast<int>(fromX * 16.0 + 0.5);
    const int stepY = static_cast<int>(fromY * 16.0 + 0.5);
    const int16_t* at = previous.pixels + (stepY >> 4) * stride + (stepX >> 4);
    const auto across = [&](const int16_t* line) {
      return NativeLanes::load(line).mixed(NativeLanes::load(line + 1), stepX & 15);
    };
    NativeLanes::load(own + x).minus(across(at).mixed(across(at + stride), stepY & 15)).store(residual + x);
    known += kLanes;
  }
  for (int x = 0; x < width_; ++x) sum += residual[x];
  const float mean = known > 0 ? sum / static_cast<float>(known) : 0.0f;
  Signs signs = {};
  for (int x = 0; x < width_; ++x) {
    const float r = std::clamp(static_cast<float>(residual[x]), -kMaxResidual, kMaxResidual);
    const float p = pattern[x];
    signs.alike += p * r > 0.0f ? 1 : 0;
    signs.unlike += p * r < 0.0f ? 1 : 0;
    const float step = known > 0 ? rate * (r - mean) + kRowRate * mean : 0.0f;
    pattern[x] = static_cast<int16_t>(std::clamp(p + kStepsPerUnit * step, -32767.0f, 32767.0f));
  }
  return signs;
}

double FixedPattern::repetition() const {
  int alike = 0;
  int unlike = 0;
  for (int row = kSampledRow / 2; row < height_; row += kSampledRow) {
    alike += signs_[row].alike;
    unlike += signs_[row].unlike;
  }
  return alike + unlike > 0 ? static_cast<double>(alike - unlike) / (alike + unlike) : 0.0;
}

void FixedPattern::learn(const Image& previous, const Image& current, const GlobalMotion& motion, WorkerPool* pool) {
  if (frame_.cornerDistance(motion, {}) < kMinMoved) return;
  // The inverse of x' = x + D(x), on pixels.
  double m[6];
  frame_.inverse(motion, &m);
  const float rate = 1.0f / static_cast<float>(std::min(learned_ + kCaution, kSlowest));
  const int first = present_ ? 0 : kSampledRow / 2;
  const int step = present_ ? 1 : kSampledRow;
  const int rows = height_ > first ? (height_ - first - 1) / step + 1 : 0;
  forBands(pool, rows, width_, [&](int begin, int end) {
    for (int i = begin; i < end; ++i) {
      const int row = first + i * step;
      signs_[row] = learnRow(previous, current, m, row, rate);
    }
  });
  ++learned_;
  if (present_) return;
  repetition_ += kRepetitionRate * (repetition() - repetition_);
  if (repetition_ > kRepeats) {
    present_ = true;
    learned_ = 0;
  }
}

}  // namespace noxel::tracker
