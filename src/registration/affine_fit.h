// The global motion of a frame pair from its point pairs, by least squares that outliers do not move.
//
//   x' = m00 x + m01 y + m02     (x, y) a point of the previous frame, (x', y') the same point of the current one
//   y' = m10 x + m11 y + m12
//
// Every operation exists for the tracker's point arrays, with matrices in double precision, and for an array of matches, with
// matrices in single precision; at most kMaxPoints matches are looked at. Nothing allocates, and the same pairs give the same
// bits. Any thread.
//
// A region (cx, cy, r) holds the pairs whose source lies in the diamond |trunc(x - cx)| + |trunc(y - cy)| < r. Residuals and
// weights of a region are packed: one for each pair inside, in the order of the pairs.
#pragma once

#include "registration/matrix.h"
#include "registration/registration_state.h"

namespace noxel {

using AffineMatrix = KRMatrix<2, 3, double>;
using AffineMatrixF = KRMatrix<2, 3, float>;

// Least squares. False, and the identity, when the pairs do not determine an affine: none, or all in a line.
bool fitAffine(const _KROFRegistration& points, AffineMatrix* matrix);
bool fitAffine(const _KROFRegistration& points, AffineMatrix* matrix, int cx, int cy, int r);
bool fitAffine(const _KRMatch* points, int count, AffineMatrixF* matrix);
bool fitAffine(const _KRMatch* points, int count, AffineMatrixF* matrix, int cx, int cy, int r);

// The same with a weight for each pair.
bool fitAffineWeighted(const _KROFRegistration& points, AffineMatrix* matrix, const float* weights);
bool fitAffineWeighted(const _KROFRegistration& points, AffineMatrix* matrix, const float* weights, int cx, int cy,
                       int r);
bool fitAffineWeighted(const _KRMatch* points, int count, AffineMatrixF* matrix, const float* weights);
bool fitAffineWeighted(const _KRMatch* points, int count, AffineMatrixF* matrix, const float* weights, int cx, int cy,
                       int r);

// Distances in pixels between the targets and where the matrix takes the sources.
void affineResiduals(const _KROFRegistration& points, const AffineMatrix& matrix, float* residuals);
void affineResiduals(const _KROFRegistration& points, const AffineMatrix& matrix, float* residuals, int cx, int cy,
                     int r, int* residualCount);
void affineResiduals(const _KRMatch* points, int count, const AffineMatrixF& matrix, float* residuals);
void affineResiduals(const _KRMatch* points, int count, const AffineMatrixF& matrix, float* residuals, int cx, int cy,
                     int r, int* residualCount);

float medianResidual(const _KROFRegistration& points, const AffineMatrix& matrix, int cx, int cy, int r);
float medianResidual(const _KRMatch* points, int count, const AffineMatrixF& matrix, int cx, int cy, int r);

// Improves a fit by re-weighting: at most 20 least-squares fits, each with Andrews' sine weights of the residuals of the fit
// before, sin(u) / u with u = r / sigma up to pi and next to nothing beyond, sigma from the median absolute deviation. Then
// fits, with the last weights, `similarity` (null: not wanted) = (tx, ty, a, b):
//
//   x' = (1 + a) x + b y + tx        scale sqrt((1 + a)^2 + b^2), angle atan(b / (1 + a)), about the top-left corner
//   y' = -b x + (1 + a) y + ty
//
// False, and the identity, when a weighted fit fails.
bool refineAffine(const _KROFRegistration& points, AffineMatrix* matrix, float* similarity);
bool refineAffine(const _KROFRegistration& points, AffineMatrix* matrix, int cx, int cy, int r, float* similarity);
bool refineAffine(const _KRMatch* points, int count, AffineMatrixF* matrix, float* similarity);
bool refineAffine(const _KRMatch* points, int count, AffineMatrixF* matrix, int cx, int cy, int r, float* similarity);

// The motion of the frame: a fit around the centre, in the smallest of the radii r, 2r and 3r with enough pairs, or one of
// all pairs where that is not to be had or has a median residual above one pixel and above that of all pairs.
//   inverseMotion  3 x 3, the fit: current from previous
//   motion         3 x 3, its inverse: previous from current
//   similarity     as refineAffine writes it, of the last fit that was refined, which need not be the one chosen; left
//                  alone when no pairs determined an affine
// The median residual in pixels; -1 when it reaches 5 times the noise scale (1 for matches), or when no fit was good enough
// (both matrices are the identity then).
float estimateMotion(const _KROFRegistration& registration, float (&motion)[9], float (&inverseMotion)[9], int cx,
                     int cy, int r, float* similarity);
float estimateMotion(const _KRMatch* points, int count, float (&motion)[9], float (&inverseMotion)[9], int cx, int cy,
                     int r, float* similarity);

// The middle value, of an even count the lower of the two, 0 of none. A value that is no number counts as infinite. At most
// kMaxPoints values are looked at.
float median(const float* values, int count);

}  // namespace noxel
