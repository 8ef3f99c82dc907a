#include "registration/affine_fit.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace noxel {
namespace {

constexpr int kRefinements = 20;
constexpr float kExactSigma = 1e-7f;     // pixels; below, the fit is exact
constexpr double kMadToSigma = 1.4826;   // of a normal distribution
constexpr float kSineEnd = 3.14f;        // where Andrews' sine ends, in sigmas
constexpr float kWeightFloor = 0.0001f;  // keeps the normal matrix regular
constexpr int kMinPairsToFit = 30;
constexpr int kMinPairsToJudge = 16;
constexpr float kNoFit = 999.0f;       // pixels
constexpr float kGoodFit = 1.0f;       // median residual in pixels
constexpr float kMaxResidual = 50.0f;  // median, of a fit that is used at all
constexpr float kPoorFit = 5.0f;       // noise scales
constexpr float kNoiseScale = 1.0f;    // of plain matches, which carry none

bool isInside(const _KRMatch& pair, int cx, int cy, int r) {
  const float x = std::fabs(pair.sourceX - static_cast<float>(cx));
  const float y = std::fabs(pair.sourceY - static_cast<float>(cy));
  constexpr float kFar = 1e9f;  // beyond, the value would not fit an int
  return x < kFar && y < kFar && static_cast<int>(x) + static_cast<int>(y) < r;
}

// weights: null for one each.
template <typename T>
bool fit(const PointPairs& pairs, const float* weights, KRMatrix<2, 3, T>* matrix) {
  float xx = 0, yy = 0, xy = 0, x = 0, y = 0, n = 0;
  float toX[3] = {};
  float toY[3] = {};
  for (const _KRMatch& pair : pairs) {
    const float w = weights != nullptr ? weights[&pair - pairs.begin()] : 1.0f;
    const float wx = w * pair.sourceX;
    const float wy = w * pair.sourceY;
    xx += wx * pair.sourceX;
    yy += wy * pair.sourceY;
    xy += wx * pair.sourceY;
    x += wx;
    y += wy;
    n += w;
    toX[0] += wx * pair.targetX;
    toX[1] += wy * pair.targetX;
    toX[2] += w * pair.targetX;
    toY[0] += wx * pair.targetY;
    toY[1] += wy * pair.targetY;
    toY[2] += w * pair.targetY;
  }
  const KRMatrix<3, 3, double> normal = {{xx, xy, x, xy, yy, y, x, y, n}};
  KRMatrix<3, 3, double> inverse;
  if (!invert(normal, &inverse)) {
    setIdentity(matrix);
    return false;
  }
  for (int column = 0; column < 3; ++column) {
    double sums[2] = {};
    for (int i = 0; i < 3; ++i) {
      sums[0] += inverse(column, i) * static_cast<double>(toX[i]);
      sums[1] += inverse(column, i) * static_cast<double>(toY[i]);
    }
    for (int row = 0; row < 2; ++row) (*matrix)(row, column) = static_cast<T>(sums[row]);
  }
  return true;
}

template <typename T>
void residualsOf(const PointPairs& pairs, const KRMatrix<2, 3, T>& matrix, float* residuals) {
  KRMatrix<2, 3, double> m;
  copyMatrix(matrix, &m);
  for (const _KRMatch& pair : pairs) {
    const double x = pair.sourceX;
    const double y = pair.sourceY;
    const double dx = pair.targetX - (m(0, 0) * x + m(0, 1) * y + m(0, 2));
    const double dy = pair.targetY - (m(1, 0) * x + m(1, 1) * y + m(1, 2));
    *residuals++ = static_cast<float>(std::sqrt(dx * dx + dy * dy));
  }
}

template <typename T>
float medianOf(const PointPairs& pairs, const KRMatrix<2, 3, T>& matrix) {
  float residuals[kMaxPoints];
  residualsOf(pairs, matrix, residuals);
  return median(residuals, pairs.size());
}

float andrewsWeight(float u) {
  if (u >= kSineEnd || u <= -kSineEnd) return kWeightFloor;
  return (u == 0.0f ? 1.0f : std::sin(u) / u) + kWeightFloor;
}

// Solves the normal equations in double precision, eliminating tx and ty:
//   W tx        + X a + Y b = Dx       W, X, Y, S: sums of w, w x, w y, w (x^2 + y^2)
//          W ty + Y a - X b = Dy       Dx, Dy: sums of w dx, w dy with (dx, dy) = target - source
//   X tx + Y ty + S a       = P        P: sum of w (x dx + y dy)
//   Y tx - X ty       + S b = Q        Q: sum of w (y dx - x dy)
void fitSimilarity(const PointPairs& pairs, const float* weights, float* similarity) {
  double w = 0, x = 0, y = 0, s = 0, dx = 0, dy = 0, p = 0, q = 0;
  for (const _KRMatch& pair : pairs) {
    const double weight = *weights++;
    const double sourceX = pair.sourceX;
    const double sourceY = pair.sourceY;
    const double moveX = pair.targetX - sourceX;
    const double moveY = pair.targetY - sourceY;
    w += weight;
    x += weight * sourceX;
    y += weight * sourceY;
    s += weight * (sourceX * sourceX + sourceY * sourceY);
    dx += weight * moveX;
    dy += weight * moveY;
    p += weight * (sourceX * moveX + sourceY * moveY);
    q += weight * (sourceY * moveX - sourceX * moveY);
  }
  double a = 0, b = 0, tx = 0, ty = 0;
  if (w > 0.0) {
    const double spread = s - (x * x + y * y) / w;
    if (spread > 1e-10 * s) {  // points in one place determine a translation only
      a = (p - (x * dx + y * dy) / w) / spread;
      b = (q - (y * dx - x * dy) / w) / spread;
    }
    tx = (dx - x * a - y * b) / w;
    ty = (dy - y * a + x * b) / w;
  }
  const double solution[4] = {tx, ty, a, b};
  for (int i = 0; i < 4; ++i) similarity[i] = static_cast<float>(solution[i]);
}

template <typename T>
bool refine(const PointPairs& pairs, KRMatrix<2, 3, T>* matrix, float* similarity) {
  const int count = pairs.size();
  float residuals[kMaxPoints];
  float deviations[kMaxPoints];
  float weights[kMaxPoints];
  std::fill_n(weights, count, 1.0f);
  bool fitted = true;
  for (int i = 0; i < kRefinements && fitted; ++i) {
    residualsOf(pairs, *matrix, residuals);
    const float middle = median(residuals, count);
    for (int k = 0; k < count; ++k) deviations[k] = std::fabs(residuals[k] - middle);
    const auto sigma = static_cast<float>(kMadToSigma * static_cast<double>(median(deviations, count)));
    if (sigma < kExactSigma) break;
    for (int k = 0; k < count; ++k) weights[k] = andrewsWeight(residuals[k] / sigma);
    fitted = fit(pairs, weights, matrix);
  }
  if (similarity != nullptr) fitSimilarity(pairs, weights, similarity);
  return fitted;
}

void storeHomogeneous(const KRMatrix<3, 3, double>& from, float (&to)[9]) {
  for (int i = 0; i < 9; ++i) to[i] = static_cast<float>(from.values[i]);
}

template <typename T>
float estimate(const PointPairs& all, float noiseScale, float (&motion)[9], float (&inverseMotion)[9], int cx, int cy,
               int r, float* similarity) {
  const int radii[3] = {r, 2 * r, 3 * r};
  int inside[3] = {};
  if (all.size() > kMinPairsToFit) {
    for (int i = 0; i < 3; ++i) {
      inside[i] = static_cast<int>(std::count_if(
          all.begin(), all.end(), [&](const _KRMatch& pair) { return isInside(pair, cx, cy, radii[i]); }));
    }
  }
  // The smallest radius with enough pairs.
  const auto radiusWith = [&](int enough, int otherwise) {
    for (int i = 0; i < 3; ++i) {
      if (inside[i] >= enough) return radii[i];
    }
    return otherwise;
  };

  KRMatrix<2, 3, T> chosen;
  setIdentity(&chosen);
  float error = kNoFit;
  if (inside[2] >= kMinPairsToFit) {
    const PointPairs local(all, cx, cy, radiusWith(kMinPairsToFit, radii[2]));
    if (fit(local, nullptr, &chosen) && refine(local, &chosen, similarity))
      error = medianOf(PointPairs(all, cx, cy, radiusWith(kMinPairsToJudge, radii[2])), chosen);
  }
  if (!(error <= kGoodFit) && all.size() > 0) {
    KRMatrix<2, 3, T> global;
    if (fit(all, nullptr, &global) && refine(all, &global, similarity)) {
      const float globalError = medianOf(PointPairs(all, cx, cy, radiusWith(kMinPairsToJudge, kEverywhere)), global);
      if (globalError < error) {
        chosen = global;
        error = globalError;
      }
    }
  }

  KRMatrix<3, 3, double> forward;
  KRMatrix<3, 3, double> backward;
  setIdentity(&forward);
  for (int i = 0; i < 6; ++i) forward.values[i] = static_cast<double>(chosen.values[i]);
  const bool usable = error <= kMaxResidual && all.size() > 3 && invert(forward, &backward);
  if (!usable) {
    setIdentity(&forward);
    setIdentity(&backward);
  }
  storeHomogeneous(backward, motion);
  storeHomogeneous(forward, inverseMotion);
  return usable && error < kPoorFit * noiseScale ? error : -1.0f;
}

}  // namespace

PointPairs::PointPairs(const _KROFRegistration& registration)
    : count_(std::clamp(registration.pointCount, 0, kMaxPoints)) {
  for (int i = 0; i < count_; ++i) {
    const KRPoint source = registration.sourcePoints[i];
    const KRPoint target = registration.targetPoints[i];
    pairs_[i] = {source.x, source.y, target.x, target.y};
  }
}

PointPairs::PointPairs(const _KRMatch* matches, int count) : count_(std::clamp(count, 0, kMaxPoints)) {
  std::copy_n(matches, count_, pairs_);
}

PointPairs::PointPairs(const PointPairs& all, int cx, int cy, int r) : count_(0) {
  for (const _KRMatch& pair : all) {
    if (r == kEverywhere || isInside(pair, cx, cy, r)) pairs_[count_++] = pair;
  }
}

template <typename T>
bool fitAffine(const PointPairs& points, KRMatrix<2, 3, T>* matrix, int cx, int cy, int r) {
  return fit(PointPairs(points, cx, cy, r), nullptr, matrix);
}

template <typename T>
bool fitAffineWeighted(const PointPairs& points, KRMatrix<2, 3, T>* matrix, const float* weights, int cx, int cy,
                       int r) {
  return fit(PointPairs(points, cx, cy, r), weights, matrix);
}

template <typename T>
void affineResiduals(const PointPairs& points, const KRMatrix<2, 3, T>& matrix, float* residuals, int cx, int cy, int r,
                     int* residualCount) {
  const PointPairs inside(points, cx, cy, r);
  residualsOf(inside, matrix, residuals);
  if (residualCount != nullptr) *residualCount = inside.size();
}

template <typename T>
float medianResidual(const PointPairs& points, const KRMatrix<2, 3, T>& matrix, int cx, int cy, int r) {
  return medianOf(PointPairs(points, cx, cy, r), matrix);
}

template <typename T>
bool refineAffine(const PointPairs& points, KRMatrix<2, 3, T>* matrix, int cx, int cy, int r, float* similarity) {
  return refine(PointPairs(points, cx, cy, r), matrix, similarity);
}

template bool fitAffine(const PointPairs&, AffineMatrix*, int, int, int);
template bool fitAffine(const PointPairs&, AffineMatrixF*, int, int, int);
template bool fitAffineWeighted(const PointPairs&, AffineMatrix*, const float*, int, int, int);
template bool fitAffineWeighted(const PointPairs&, AffineMatrixF*, const float*, int, int, int);
template void affineResiduals(const PointPairs&, const AffineMatrix&, float*, int, int, int, int*);
template void affineResiduals(const PointPairs&, const AffineMatrixF&, float*, int, int, int, int*);
template float medianResidual(const PointPairs&, const AffineMatrix&, int, int, int);
template float medianResidual(const PointPairs&, const AffineMatrixF&, int, int, int);
template bool refineAffine(const PointPairs&, AffineMatrix*, int, int, int, float*);
template bool refineAffine(const PointPairs&, AffineMatrixF*, int, int, int, float*);

float estimateMotion(const _KROFRegistration& registration, float (&motion)[9], float (&inverseMotion)[9], int cx,
                     int cy, int r, float* similarity) {
  return estimate<double>(PointPairs(registration), registration.noiseScale, motion, inverseMotion, cx, cy, r,
                          similarity);
}

float estimateMotion(const _KRMatch* matches, int count, float (&motion)[9], float (&inverseMotion)[9], int cx, int cy,
                     int r, float* similarity) {
  return estimate<float>(PointPairs(matches, count), kNoiseScale, motion, inverseMotion, cx, cy, r, similarity);
}

float median(const float* values, int count) {
  float sorted[kMaxPoints];
  count = std::clamp(count, 0, kMaxPoints);
  for (int i = 0; i < count; ++i) {
    sorted[i] = std::isnan(values[i]) ? std::numeric_limits<float>::infinity() : values[i];
  }
  const int middle = (count - 1) / 2;
  if (count >= 6) {
    std::nth_element(sorted, sorted + middle, sorted + count);
    return sorted[middle];
  }
  for (int i = 0; i < count; ++i) {
    const auto below = std::count_if(sorted, sorted + count, [&](float value) { return value < sorted[i]; });
    const auto above = std::count_if(sorted, sorted + count, [&](float value) { return value > sorted[i]; });
    if (below <= middle && above < count - middle) return sorted[i];
  }
  return 0.0f;
}

}  // namespace noxel
