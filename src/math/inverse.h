// The inverse of a 3 x 3 matrix, for registration's fits and the engine's warps.
#pragma once

#include <cmath>

namespace noxel {

// Row-major; adjugate over determinant. False, and the identity, for a singular matrix: one whose determinant is at
// most 1e-10 of the product of its diagonal, as the normal matrix of points on a line or in one place is, or is not
// finite.
inline bool invert3x3(const double (&m)[9], double (&inverse)[9]) {
  const double adjugate[9] = {m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                              m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                              m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
  const double determinant = m[0] * adjugate[0] + m[1] * adjugate[3] + m[2] * adjugate[6];
  const bool regular = std::isfinite(determinant) && std::fabs(determinant) > 1e-10 * std::fabs(m[0] * m[4] * m[8]);
  for (int i = 0; i < 9; ++i) inverse[i] = regular ? adjugate[i] / determinant : (i % 4 == 0 ? 1.0 : 0.0);
  return regular;
}

}  // namespace noxel
