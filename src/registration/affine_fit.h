// Global motion of a frame pair from its point pairs: least squares that outliers do not move.
//
//   x' = m00 x + m01 y + m02     (x, y) a point of the previous frame, (x', y') the same point of the current one
//   y' = m10 x + m11 y + m12
//
// Operations take either the tracker's point arrays, `registration`, or an array of matches, `{matches, count}`, and a
// matrix in double or single precision. No allocation; equal input gives equal bits. Any thread.
//
// A region (cx, cy, r) holds the pairs whose source lies in the diamond |trunc(x - cx)| + |trunc(y - cy)| < r.
// Residuals and weights of a region are packed: one per pair inside, in the order of the pairs. Without a region: all
// pairs.
#pragma once

#include "registration/matrix.h"
#include "registration/registration_state.h"

namespace noxel {

using AffineMatrix = KRMatrix<2, 3, double>;
using AffineMatrixF = KRMatrix<2, 3, float>;

inline constexpr int kEverywhere = 100000;  // a radius that takes in every pair

// The pairs an operation works on, copied: at most kMaxPoints.
class PointPairs {
 public:
  PointPairs(const _KROFRegistration& registration);
  PointPairs(const _KRMatch* matches, int count);
  PointPairs(const PointPairs& all, int cx, int cy, int r);

  const _KRMatch* begin() const { return pairs_; }
  const _KRMatch* end() const { return pairs_ + count_; }
  int size() const { return count_; }

 private:
  _KRMatch pairs_[kMaxPoints];
  int count_;
};

// Least squares. False, and the identity, when the pairs do not determine an affine: none, or all on a line.
template <typename T>
bool fitAffine(const PointPairs& points, KRMatrix<2, 3, T>* matrix, int cx = 0, int cy = 0, int r = kEverywhere);

// The same with a weight per pair.
template <typename T>
bool fitAffineWeighted(const PointPairs& points, KRMatrix<2, 3, T>* matrix, const float* weights, int cx = 0,
                       int cy = 0, int r = kEverywhere);

// Distances in pixels between each target and where the matrix takes its source. residualCount may be null.
template <typename T>
void affineResiduals(const PointPairs& points, const KRMatrix<2, 3, T>& matrix, float* residuals, int cx = 0,
                     int cy = 0, int r = kEverywhere, int* residualCount = nullptr);

template <typename T>
float medianResidual(const PointPairs& points, const KRMatrix<2, 3, T>& matrix, int cx, int cy, int r);

// Improves a fit by iterative re-weighting: at most 20 least-squares fits, each weighted by Andrews' sine of the
// residuals u (in sigmas, from the median absolute deviation) of the fit before it: sin(u) / u up to pi, next to
// nothing beyond. Then fits, with the last weights, `similarity` (may be null) = (tx, ty, a, b):
//
//   x' = (1 + a) x + b y + tx        scale sqrt((1 + a)^2 + b^2), angle atan(b / (1 + a)), about the top-left corner
//   y' = -b x + (1 + a) y + ty
//
// False, and the identity, when a weighted fit fails.
template <typename T>
bool refineAffine(const PointPairs& points, KRMatrix<2, 3, T>* matrix, int cx, int cy, int r, float* similarity);
template <typename T>
bool refineAffine(const PointPairs& points, KRMatrix<2, 3, T>* matrix, float* similarity) {
  return refineAffine(points, matrix, 0, 0, kEverywhere, similarity);
}

// Motion of the frame: a fit around the centre, in the smallest of the radii r, 2r and 3r with enough pairs; or one of
// all pairs, where there are too few, or where the local fit's median residual is above one pixel and the global fit's
// is lower.
//   inverseMotion  3 x 3, the fit: current from previous
//   motion         3 x 3, its inverse: previous from current
//   similarity     as refineAffine writes it, of the last fit that was refined, which need not be the one chosen;
//                  untouched when no fit succeeded
// Returns the median residual in pixels; -1 when it is 5 times the noise scale or more (1 for matches), or when no fit
// was good enough (both matrices are the identity then).
float estimateMotion(const _KROFRegistration& registration, float (&motion)[9], float (&inverseMotion)[9], int cx,
                     int cy, int r, float* similarity);
float estimateMotion(const _KRMatch* matches, int count, float (&motion)[9], float (&inverseMotion)[9], int cx, int cy,
                     int r, float* similarity);

// The lower middle value; 0 of none. A NaN counts as infinite. Only the first kMaxPoints values are looked at.
float median(const float* values, int count);

}  // namespace noxel
