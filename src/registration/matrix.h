// Small matrices without heap storage.
#pragma once

#include "math/inverse.h"

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

// For the 3 x 3 matrices that registration hands out, row-major.
inline void setIdentity(float (&matrix)[9]) {
  for (int i = 0; i < 9; ++i) matrix[i] = i % 4 == 0 ? 1.0f : 0.0f;
}

template <int R, int C, typename From, typename To>
void copyMatrix(const KRMatrix<R, C, From>& from, KRMatrix<R, C, To>* to) {
  for (int i = 0; i < R * C; ++i) to->values[i] = static_cast<To>(from.values[i]);
}

// False, and the identity, for a singular matrix.
inline bool invert(const KRMatrix<3, 3, double>& matrix, KRMatrix<3, 3, double>* inverse) {
  return invert3x3(matrix.values, inverse->values);
}

}  // namespace noxel
