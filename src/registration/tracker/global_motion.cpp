#include "registration/tracker/global_motion.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace noxel::tracker {
namespace {

// The similarity (tx, ty, a, b) as six parameters: dx = tx + a u + b v, dy = ty + a v - b u.
constexpr double kSimilarity[6][4] = {{1, 0, 0, 0}, {0, 0, 1, 0},  {0, 0, 0, 1},
                                      {0, 1, 0, 0}, {0, 0, 0, -1}, {0, 0, 1, 0}};

// The two shears of an affine: both are 0 for a similarity.
constexpr double kShear[2][6] = {{0, 1, 0, 0, 0, -1}, {0, 0, 1, 0, 1, 0}};

// Chi-squared with two degrees of freedom stays below this in 86 % of cases; a shear above it is partly real.
constexpr double kShearDoubt = 4.0;

// Inverse by Gauss-Jordan elimination with row pivoting. False for a singular matrix or one with a NaN.
template <int size>
bool invert(const double (&matrix)[size][size], double (&inverse)[size][size]) {
  double work[size][2 * size] = {};
  double maxEntry = 0.0;
  for (int i = 0; i < size; ++i) {
    for (int j = 0; j < size; ++j) {
      work[i][j] = matrix[i][j];
      maxEntry = std::max(maxEntry, std::fabs(matrix[i][j]));
    }
    work[i][size + i] = 1.0;
  }
  for (int column = 0; column < size; ++column) {
    int pivot = column;
    for (int row = column + 1; row < size; ++row) {
      if (std::fabs(work[row][column]) > std::fabs(work[pivot][column])) pivot = row;
    }
    if (!(std::fabs(work[pivot][column]) > 1e-9 * maxEntry)) return false;
    if (pivot != column) std::swap(work[pivot], work[column]);
    const double scale = 1.0 / work[column][column];
    for (double& value : work[column]) value *= scale;
    for (int row = 0; row < size; ++row) {
      if (row == column) continue;
      const double factor = work[row][column];
      for (int j = 0; j < 2 * size; ++j) work[row][j] -= factor * work[column][j];
    }
  }
  for (int i = 0; i < size; ++i) {
    for (int j = 0; j < size; ++j) inverse[i][j] = work[i][size + j];
  }
  return true;
}

}  // namespace

void MotionEquations::add(const MotionEquation& equation) {
  const double u = equation.u;
  const double v = equation.v;
  const double products[6] = {1.0, u, v, u * u, u * v, v * v};
  const double weight = equation.weight;
  for (int i = 0; i < 3; ++i) {
    const double slope = weight * equation.slope[i];
    const double noise = weight * weight * equation.noise[i];
    for (int j = 0; j < 6; ++j) slopeSums_.entries[i][j] += slope * products[j];
    for (int j = 0; j < 6; ++j) noiseSums_.entries[i][j] += noise * products[j];
  }
  for (int i = 0; i < 2; ++i) {
    const double right = weight * equation.rhs[i];
    for (int j = 0; j < 3; ++j) rhs_[3 * i + j] += right * products[j];
  }
}

void MotionEquations::Sums::expand(double (*matrix)[6][6]) const {
  constexpr int kProduct[3][3] = {{0, 1, 2}, {1, 3, 4}, {2, 4, 5}};
  for (int i = 0; i < 6; ++i) {
    for (int j = 0; j < 6; ++j) (*matrix)[i][j] = entries[i / 3 + j / 3][kProduct[i % 3][j % 3]];
  }
}

bool MotionEquations::solveSimilarity(GlobalMotion* motion) const {
  double slopes[6][6];
  slopeSums_.expand(&slopes);
  double target[6];  // right-hand side for the motion itself instead of a change to it
  for (int i = 0; i < 6; ++i) {
    target[i] = rhs_[i];
    for (int j = 0; j < 6; ++j) target[i] += slopes[i][j] * motion->p[j];
  }
  double reduced[4][4] = {};
  double right[4] = {};
  for (int i = 0; i < 4; ++i) {
    for (int k = 0; k < 6; ++k) {
      right[i] += kSimilarity[k][i] * target[k];
      for (int j = 0; j < 4; ++j) {
        for (int m = 0; m < 6; ++m) reduced[i][j] += kSimilarity[k][i] * slopes[k][m] * kSimilarity[m][j];
      }
    }
  }
  double inverse[4][4];
  if (!invert(reduced, inverse)) return false;
  double solution[4] = {};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) solution[i] += inverse[i][j] * right[j];
  }
  for (int k = 0; k < 6; ++k) {
    motion->p[k] = 0.0;
    for (int i = 0; i < 4; ++i) motion->p[k] += kSimilarity[k][i] * solution[i];
  }
  return true;
}

bool MotionEquations::solve(double noiseVariance, GlobalMotion* motion, double (*covariance)[6][6]) const {
  double slopes[6][6];
  double noises[6][6];
  slopeSums_.expand(&slopes);
  noiseSums_.expand(&noises);
  GlobalMotion similar = *motion;
  double inverse[6][6];
  if (!solveSimilarity(&similar) || !invert(slopes, inverse)) return false;
  GlobalMotion full = *motion;
  double half[6][6] = {};
  for (int i = 0; i < 6; ++i) {
    for (int j = 0; j < 6; ++j) {
      full.p[i] += inverse[i][j] * rhs_[j];
      for (int k = 0; k < 6; ++k) half[i][j] += inverse[i][k] * noises[k][j];
    }
  }
  for (int i = 0; i < 6; ++i) {
    for (int j = 0; j < 6; ++j) {
      double sum = 0.0;
      for (int k = 0; k < 6; ++k) sum += half[i][k] * inverse[j][k];
      (*covariance)[i][j] = noiseVariance * sum;
    }
  }

  double shear[2] = {};
  double spread[2][2] = {};
  for (int i = 0; i < 2; ++i) {
    for (int k = 0; k < 6; ++k) {
      shear[i] += kShear[i][k] * full.p[k];
      for (int j = 0; j < 2; ++j) {
        for (int m = 0; m < 6; ++m) spread[i][j] += kShear[i][k] * (*covariance)[k][m] * kShear[j][m];
      }
    }
  }
  double certainty[2][2];
  double share = 1.0;  // without noise all of the shear is real
  if (invert(spread, certainty)) {
    double chi = 0.0;
    for (int i = 0; i < 2; ++i) {
      for (int j = 0; j < 2; ++j) chi += shear[i] * certainty[i][j] * shear[j];
    }
    share = chi > kShearDoubt ? 1.0 - kShearDoubt / chi : 0.0;
  }
  for (int k = 0; k < 6; ++k) motion->p[k] = similar.p[k] + share * (full.p[k] - similar.p[k]);
  return true;
}

double significance(const GlobalMotion& motion, const double (&covariance)[6][6]) {
  double inverse[6][6];
  if (!invert(covariance, inverse)) return 0.0;
  double sum = 0.0;
  for (int i = 0; i < 6; ++i) {
    for (int j = 0; j < 6; ++j) sum += motion.p[i] * inverse[i][j] * motion.p[j];
  }
  return sum;
}

}  // namespace noxel::tracker
