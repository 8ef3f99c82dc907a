// Texture-space warps from pixel-space motion.
#pragma once

namespace noxel {

// 3 x 3, row-major, double: warps are products of several matrices and end in half a texel of a 4K image.
struct Warp {
  double m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
};

Warp multiply(const Warp& left, const Warp& right);

// Identity for a singular matrix, which no camera motion is.
Warp inverse(const Warp& warp);

// D X D^-1 with D = diag(1 / width, 1 / height, 1): what the pixel-space matrix does to texture coordinates.
Warp textureSpace(const float* pixelSpace3x3, int width, int height);

// Zoom about the image's middle: a texture coordinate of the zoomed picture to one of the whole picture.
Warp zoomAboutCentre(double inverseZoom);

// Column-major 4 x 4 for GL, the translation in the fourth column.
void widen(const Warp& warp, float* matrix4x4);

}  // namespace noxel
