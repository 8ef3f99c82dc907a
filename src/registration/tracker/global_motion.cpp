#include "registration/tracker/global_motion.h"

#include <algorithm>
#include <cmath>
#include <limits>

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

// S^T full S for the columns S of the similarity.
void reduce(const double (&full)[6][6], double (*reduced)[4][4]) {
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      double sum = 0.0;
      for (int k = 0; k < 6; ++k) {
        for (int m = 0; m < 6; ++m) sum += kSimilarity[k][i] * full[k][m] * kSimilarity[m][j];
      }
      (*reduced)[i][j] = sum;
    }
  }
}

// Right-hand side of a similarity's equations for the motion itself instead of a change to it.
void targetOf(const double (&slopes)[6][6], const double (&rhs)[6], const GlobalMotion& motion, double (*target)[4]) {
  for (int i = 0; i < 4; ++i) (*target)[i] = 0.0;
  for (int k = 0; k < 6; ++k) {
    double sum = rhs[k];
    for (int j = 0; j < 6; ++j) sum += slopes[k][j] * motion.p[j];
    for (int i = 0; i < 4; ++i) (*target)[i] += kSimilarity[k][i] * sum;
  }
}

GlobalMotion similarityOf(const double (&similarity)[4]) {
  GlobalMotion motion;
  for (int k = 0; k < 6; ++k) {
    for (int i = 0; i < 4; ++i) motion.p[k] += kSimilarity[k][i] * similarity[i];
  }
  return motion;
}

// Leaves the eigenvalues of a symmetric matrix on its diagonal; *vectors: eigenvectors as columns. Jacobi rotations.
void diagonalize(double (*matrix)[4][4], double (*vectors)[4][4]) {
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) (*vectors)[i][j] = i == j ? 1.0 : 0.0;
  }
  constexpr int kSweeps = 10;  // converges quadratically: 4 to 6 are enough
  for (int rotation = 0; rotation < kSweeps * 6; ++rotation) {
    constexpr int kPairs[6][2] = {{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}};
    const int p = kPairs[rotation % 6][0];
    const int q = kPairs[rotation % 6][1];
    const double angle = 0.5 * std::atan2(2.0 * (*matrix)[p][q], (*matrix)[q][q] - (*matrix)[p][p]);
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    const auto turn = [&](double* a, double* b) {
      const double before = *a;
      *a = c * before - s * *b;
      *b = s * before + c * *b;
    };
    for (int k = 0; k < 4; ++k) turn(&(*matrix)[k][p], &(*matrix)[k][q]);
    for (int k = 0; k < 4; ++k) turn(&(*matrix)[p][k], &(*matrix)[q][k]);
    for (int k = 0; k < 4; ++k) turn(&(*vectors)[k][p], &(*vectors)[k][q]);
  }
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

void MotionEquations::addExposure(const MotionEquation& equation, const ExposureEquation& exposure) {
  const double u = equation.u;
  const double v = equation.v;
  const double products[6] = {1.0, u, v, u * u, u * v, v * v};
  const double weight = equation.weight * equation.weight;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 6; ++j) sharedSums_.entries[i][j] += weight * equation.slope[i] * products[j];
    for (int j = 0; j < 6; ++j) ownSums_.entries[i][j] += weight * equation.noise[i] * products[j];
    exposureSums_[i] += weight * exposure.samples[i];
  }
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 3; ++j) {
      sharedRhs_[3 * i + j] += weight * equation.rhs[i] * products[j];
      for (int k = 0; k < 2; ++k) exposureSlopes_[k][3 * i + j] += weight * exposure.slope[k][i] * products[j];
    }
    exposureRhs_[i] += weight * exposure.rhs[i];
  }
}

bool MotionEquations::solveSimilarity(GlobalMotion* motion) const {
  double slopes[6][6];
  slopeSums_.expand(&slopes);
  double right[4];
  targetOf(slopes, rhs_, *motion, &right);
  double reduced[4][4];
  reduce(slopes, &reduced);
  double inverse[4][4];
  if (!invert(reduced, inverse)) return false;
  double solution[4] = {};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) solution[i] += inverse[i][j] * right[j];
  }
  *motion = similarityOf(solution);
  return true;
}

bool MotionEquations::determine(const GlobalMotion& motion, double noiseVariance, double scale,
                                Determinacy* determinacy) const {
  // The exposure's two unknowns are eliminated from the equations, from both sides of them alike.
  double slopes[6][6];
  double noises[6][6];
  double right[6];
  sharedSums_.expand(&slopes);
  ownSums_.expand(&noises);
  const double sums[2][2] = {{exposureSums_[0], exposureSums_[1]}, {exposureSums_[1], exposureSums_[2]}};
  double inverseSums[2][2];
  if (!invert(sums, inverseSums)) return false;
  for (int i = 0; i < 6; ++i) {
    right[i] = sharedRhs_[i];
    for (int k = 0; k < 2; ++k) {
      for (int m = 0; m < 2; ++m) {
        const double factor = exposureSlopes_[k][i] * inverseSums[k][m];
        right[i] -= factor * exposureRhs_[m];
        for (int j = 0; j < 6; ++j) slopes[i][j] -= factor * exposureSlopes_[m][j] / scale;
      }
    }
  }
  double shared[4][4];
  double own[4][4];
  double target[4];
  reduce(slopes, &shared);
  reduce(noises, &own);
  for (double(&row)[4] : own) {
    for (double& entry : row) entry /= scale;
  }
  targetOf(slopes, right, motion, &target);

  // own = L L^T turns the problem into the ordinary one of L^-1 shared L^-T.
  double lower[4][4] = {};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j <= i; ++j) {
      double sum = own[i][j];
      for (int k = 0; k < j; ++k) sum -= lower[i][k] * lower[j][k];
      if (i == j && !(sum > 1e-12 * own[i][i])) return false;
      lower[i][j] = i == j ? std::sqrt(sum) : sum / lower[j][j];
    }
  }
  double inverse[4][4];
  if (!invert(lower, inverse)) return false;
  double matrix[4][4] = {};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      for (int k = 0; k < 4; ++k) {
        for (int m = 0; m < 4; ++m) matrix[i][j] += inverse[i][k] * shared[k][m] * inverse[j][m];
      }
    }
  }
  double vectors[4][4];
  diagonalize(&matrix, &vectors);
  int order[4] = {0, 1, 2, 3};
  std::sort(order, order + 4, [&](int a, int b) { return matrix[a][a] > matrix[b][b]; });
  const auto share = [&](int i) { return matrix[order[i]][order[i]]; };
  const double minShare = std::clamp(kMinRelativeShare * share(0), kMinShare, kSafeShare);
  const bool all = share(3) > minShare;
  bool shifts = false;
  *determinacy = {};
  determinacy->leastShare = share(3);
  const bool even = share(3) > kEdgeShare * share(0);
  determinacy->noise = even ? 1.0 : kEdgeNoise;
  double maxDeviation = all ? kMaxWeakDeviation : kMaxDirectionDeviation;
  if (all && even) maxDeviation = std::numeric_limits<double>::infinity();
  for (int i = 0; i < 4 && share(i) > minShare; ++i) {
    const int at = determinacy->followed;
    double v[4] = {};
    double square = 0.0;  // corners are one radius away: rms of the displacement there
    for (int j = 0; j < 4; ++j) {
      for (int k = 0; k < 4; ++k) v[j] += inverse[k][j] * vectors[k][order[i]];
      square += v[j] * v[j];
    }
    // own is the covariance of the right-hand side but for the noise's variance and the scale, and v^T own v is 1.
    const double variance = determinacy->noise * noiseVariance * scale / (share(i) * share(i));
    if (!(variance * square <= maxDeviation * maxDeviation)) continue;
    determinacy->variances[at] = variance;
    for (int k = 0; k < 4; ++k) {
      determinacy->rows[at][k] = 0.0;
      for (int j = 0; j < 4; ++j) determinacy->rows[at][k] += own[k][j] * v[j];
      determinacy->values[at] += v[k] * target[k] / share(i);
    }
    ++determinacy->followed;
    shifts = shifts || v[0] * v[0] + v[1] * v[1] > kMinShift * square;
  }
  if (!shifts) determinacy->followed = 0;
  return true;
}

bool followDetermined(const Determinacy& determinacy, const GlobalMotion& held, GlobalMotion* motion,
                      double (*followed)[6][6], double (*covariance)[6][6], double* significance) {
  constexpr double kHand[4] = {kHandShift * kHandShift, kHandShift * kHandShift, kHandTurn * kHandTurn,
                               kHandTurn * kHandTurn};
  const int count = determinacy.followed;
  const double(&rows)[4][4] = determinacy.rows;
  const double heldSimilarity[4] = {held.p[0], held.p[3], 0.5 * (held.p[1] + held.p[5]), 0.5 * (held.p[2] - held.p[4])};

  // similarity = held + gain (values - rows held), gain = hand rows^T (rows hand rows^T)^-1
  double away[4] = {};
  const double(&variances)[4] = determinacy.variances;
  double gram[4][4] = {};
  *significance = 0.0;
  for (int i = 0; i < 4; ++i) {
    gram[i][i] = 1.0;
    if (i >= count) continue;
    away[i] = determinacy.values[i];
    if (variances[i] > 0.0) *significance += determinacy.values[i] * determinacy.values[i] / variances[i];
    for (int k = 0; k < 4; ++k) away[i] -= rows[i][k] * heldSimilarity[k];
    for (int j = 0; j < count; ++j) {
      gram[i][j] = 0.0;
      for (int k = 0; k < 4; ++k) gram[i][j] += rows[i][k] * kHand[k] * rows[j][k];
    }
  }
  double inverse[4][4];
  if (!invert(gram, inverse)) return false;
  double gain[4][4] = {};
  double similarity[4];
  for (int k = 0; k < 4; ++k) {
    similarity[k] = heldSimilarity[k];
    for (int i = 0; i < count; ++i) {
      for (int j = 0; j < count; ++j) gain[k][i] += kHand[k] * rows[j][k] * inverse[j][i];
      similarity[k] += gain[k][i] * away[i];
    }
  }
  *motion = similarityOf(similarity);

  double known[4][4] = {};
  double total[4][4] = {};
  for (int k = 0; k < 4; ++k) {
    for (int m = 0; m < 4; ++m) {
      total[k][m] = k == m ? kHand[k] : 0.0;
      for (int i = 0; i < count; ++i) {
        known[k][m] += gain[k][i] * variances[i] * gain[m][i];
        total[k][m] -= gain[k][i] * rows[i][m] * kHand[m];
      }
      total[k][m] += known[k][m];
    }
  }
  for (int i = 0; i < 6; ++i) {
    for (int j = 0; j < 6; ++j) {
      (*followed)[i][j] = (*covariance)[i][j] = 0.0;
      for (int k = 0; k < 4; ++k) {
        for (int m = 0; m < 4; ++m) {
          (*followed)[i][j] += kSimilarity[i][k] * known[k][m] * kSimilarity[j][m];
          (*covariance)[i][j] += kSimilarity[i][k] * total[k][m] * kSimilarity[j][m];
        }
      }
    }
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
