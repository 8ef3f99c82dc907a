// Between the caller's layout and the internal one, NV21.
#pragma once

namespace noxel {

inline constexpr int kFormatNv21 = 17;
inline constexpr int kFormatYv12 = 0x32315659;

// Frames of width * height * 3/2 bytes (truncated), no row padding, no overlap. An unknown format copies nothing.
void copyAndConvertInput(unsigned char* destination, const unsigned char* frame, int width, int height,
                         int imageFormat);
void copyAndConvertOutput(unsigned char* frame, const unsigned char* source, int width, int height, int imageFormat);

}  // namespace noxel
