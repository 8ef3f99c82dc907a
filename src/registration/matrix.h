// Small matrices without heap storage.
#pragma once

#include <cmath>

namespace noxel {

template <int R, int C, typename T>
struct KRMatrix {
  T values[R * C];  // row-major

  T& operator()(int row, int column) { return values[row * C + column]; }
  const T& operator()(int row, int column) const { return values[row * C + column]; }
};

template <int R, int C, typename T>
void setIdentity(KRMatrix<R, C, T>* matrix) {
  for (int i = 0; i < R * C; ++i) matrix->values[i] = i / C == i % C ? T{1} : T{0};
}

// The 3 x 3 matrices that leave the registration, row-major.
inline void setIdentity(float (&matrix)[9]) {
  for (int i = 0; i < 9; ++i) matrix[i] = i % 4 == 0 ? 1.0f : 0.0f;
}

template <int R, int C, typename From, typename To>
void copyMatrix(const KRMatrix<R, C, From>& from, KRMatrix<R, C, To>* to) {
  for (int i = 0; i < R * C; ++i) to->values[i] = static_cast<To>(from.values[i]);
}

// False, and the identity, for a singular matrix: one whose determinant is at most 1e-10 of the product of its diagonal, as
// the normal matrix of points in a line or in one place is, or no number.
inline bool invert(const KRMatrix<3, 3, double>& matrix, KRMatrix<3, 3, double>* inverse) {
  const double* m = matrix.values;
  const double adjugate[9] = {m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                              m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                              m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
  const double determinant = m[0] * adjugate[0] + m[1] * adjugate[3] + m[2] * adjugate[6];
  if (!(std::fabs(determinant) > 1e-10 * std::fabs(m[0] * m[4] * m[8]))) {
    setIdentity(inverse);
    return false;
  }
  for (int i = 0; i < 9; ++i) inverse->values[i] = adjugate[i] / determinant;
  return true;
}

}  // namespace noxel
