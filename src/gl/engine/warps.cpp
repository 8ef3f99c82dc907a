#include "gl/engine/warps.h"

#include "math/inverse.h"

namespace noxel {

Warp multiply(const Warp& left, const Warp& right) {
  Warp product;
  for (int row = 0; row < 3; ++row) {
    for (int column = 0; column < 3; ++column) {
      double sum = 0.0;
      for (int k = 0; k < 3; ++k) sum += left.m[3 * row + k] * right.m[3 * k + column];
      product.m[3 * row + column] = sum;
    }
  }
  return product;
}

Warp inverse(const Warp& warp) {
  Warp result;
  invert3x3(warp.m, result.m);
  return result;
}

Warp textureSpace(const float* pixelSpace3x3, int width, int height) {
  const double toTexture[3] = {1.0 / width, 1.0 / height, 1.0};
  Warp warp;
  for (int row = 0; row < 3; ++row) {
    for (int column = 0; column < 3; ++column) {
      warp.m[3 * row + column] =
          toTexture[row] * static_cast<double>(pixelSpace3x3[3 * row + column]) / toTexture[column];
    }
  }
  return warp;
}

Warp zoomAboutCentre(double inverseZoom) {
  const double shift = 0.5 - 0.5 * inverseZoom;
  return {{inverseZoom, 0, shift, 0, inverseZoom, shift, 0, 0, 1}};
}

void widen(const Warp& warp, float* matrix4x4) {
  constexpr int kWide[3] = {0, 1, 3};  // x, y and the homogeneous coordinate; z stays as it is
  for (int i = 0; i < 16; ++i) matrix4x4[i] = i == 10 ? 1.0f : 0.0f;
  for (int row = 0; row < 3; ++row) {
    for (int column = 0; column < 3; ++column) {
      matrix4x4[4 * kWide[column] + kWide[row]] = static_cast<float>(warp.m[3 * row + column]);
    }
  }
}

}  // namespace noxel
