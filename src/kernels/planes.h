// Byte kernels of the frame path: chroma interleaving, downscale, smoothing. Plain memory in, plain memory out; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel::kernels {

// pairs[2i] = first[i], pairs[2i + 1] = second[i], for i < count. No overlap.
void interleave(const uint8_t* first, const uint8_t* second, uint8_t* pairs, size_t count);

// The inverse.
void deinterleave(const uint8_t* pairs, uint8_t* first, uint8_t* second, size_t count);

// Halves width and height (truncating): each output pixel is the mean of its 2 x 2 block, rounded half up.
void downscaleByTwo(const uint8_t* source, int width, int height, uint8_t* destination);

// The same from the block's upper left and lower right pixel alone: half the reads.
void downscaleByTwoDiagonal(const uint8_t* source, int width, int height, uint8_t* destination);

// Two 4 x 4 box filters in place, the first over offsets -2..1, the second over -1..2, each (sum + 8) >> 4 with the edge
// pixels repeated: together they shift nothing. `scratch` holds width * height bytes.
void smoothTwice(uint8_t* image, int width, int height, uint8_t* scratch);

// Chroma noise: each component of interleaved pairs (width x height of them) is replaced by the mean over 2 * radius + 1
// neighbours, horizontally `iterations` times, then vertically `iterations` times, edge pairs repeated, means rounded half
// up. `scratch` holds max(width, height) bytes.
void smoothChroma(uint8_t* pairs, int width, int height, int radius, int iterations, uint8_t* scratch);

}  // namespace noxel::kernels
