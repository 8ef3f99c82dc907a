#include "kernels/bmp.h"

#include <climits>

namespace noxel::kernels {
namespace {

constexpr uint32_t kFileHeaderSize = 14;
constexpr uint32_t kInfoHeaderSize = 40;
constexpr uint32_t kHeadersSize = kFileHeaderSize + kInfoHeaderSize;
constexpr uint32_t kGreys = 256;
constexpr uint32_t kPaletteSize = 4 * kGreys;  // blue, green, red, unused
constexpr uint32_t kPixelsPerMetre = 2835;     // 72 dpi

uint32_t paletteSize(BmpPixels pixels) {
  return pixels == BmpPixels::kGrey ? kPaletteSize : 0;
}

uint64_t paddedRow(uint64_t bytes) {
  return (bytes + 3) / 4 * 4;
}

// Little-endian on every processor.
void put(uint8_t* at, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t get(const uint8_t* at, int bytes) {
  uint32_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= static_cast<uint32_t>(at[i]) << (8 * i);
  return value;
}

bool write(std::FILE* file, const void* bytes, size_t count) {
  return std::fwrite(bytes, 1, count, file) == count;
}

bool writePalette(std::FILE* file) {
  uint8_t palette[kPaletteSize] = {};
  for (uint32_t grey = 0; grey < kGreys; ++grey) put(palette + 4 * grey, grey * 0x010101, 4);
  return write(file, palette, sizeof(palette));
}

bool writeRows(std::FILE* file, const ConstPlane& picture) {
  constexpr uint8_t kPadding[3] = {};
  const auto bytes = static_cast<size_t>(picture.width);
  for (int y = picture.height - 1; y >= 0; --y) {
    if (!write(file, picture.row(y), bytes) || !write(file, kPadding, paddedRow(bytes) - bytes)) return false;
  }
  return true;
}

bool isGreyPalette(const uint8_t* palette) {
  for (uint32_t grey = 0; grey < kGreys; ++grey) {
    if (get(palette + 4 * grey, 3) != grey * 0x010101) return false;
  }
  return true;
}

const char* writeFailure(std::FILE* file, const ConstPlane& picture, BmpPixels pixels) {
  const int pixelBytes = static_cast<int>(pixels);
  if (picture.width <= 0 || picture.height <= 0) return "the picture is empty";
  if (picture.width % pixelBytes != 0) return "a row is not of whole pixels";
  const uint64_t imageSize = paddedRow(static_cast<uint64_t>(picture.width)) * static_cast<uint64_t>(picture.height);
  const uint32_t offset = kHeadersSize + paletteSize(pixels);
  if (imageSize > UINT32_MAX - offset) return "the picture is too large for a BMP file";

  uint8_t headers[kHeadersSize] = {'B', 'M'};
  put(headers + 2, offset + static_cast<uint32_t>(imageSize), 4);
  put(headers + 10, offset, 4);
  put(headers + 14, kInfoHeaderSize, 4);
  put(headers + 18, static_cast<uint32_t>(picture.width / pixelBytes), 4);
  put(headers + 22, static_cast<uint32_t>(picture.height), 4);
  put(headers + 26, 1, 2);  // planes
  put(headers + 28, static_cast<uint32_t>(8 * pixelBytes), 2);
  put(headers + 34, static_cast<uint32_t>(imageSize), 4);
  put(headers + 38, kPixelsPerMetre, 4);
  put(headers + 42, kPixelsPerMetre, 4);
  put(headers + 46, paletteSize(pixels) / 4, 4);
  const bool written = write(file, headers, sizeof(headers)) && (pixels != BmpPixels::kGrey || writePalette(file)) &&
                       writeRows(file, picture) && std::fflush(file) == 0;
  return written ? nullptr : "the file cannot be written";
}

const char* readFailure(const uint8_t* data, size_t size, BmpPicture* picture) {
  if (size < kHeadersSize) return "shorter than the headers";
  if (data[0] != 'B' || data[1] != 'M') return "not a BMP file";
  const uint32_t fileSize = get(data + 2, 4);
  const uint32_t offset = get(data + 10, 4);
  if (fileSize > size) return "cut short";
  if (get(data + 14, 4) != kInfoHeaderSize) return "the header is of another kind";
  if (get(data + 26, 2) != 1) return "not one plane";
  const uint32_t bits = get(data + 28, 2);
  if (bits != 8 && bits != 24) return "neither 8 nor 24 bits a pixel";
  if (get(data + 30, 4) != 0) return "compressed";

  const uint32_t width = get(data + 18, 4);
  const uint32_t height = get(data + 22, 4);
  const bool topDown = height > INT32_MAX;  // negative
  const uint32_t rows = topDown ? 0 - height : height;
  const BmpPixels pixels = bits == 8 ? BmpPixels::kGrey : BmpPixels::kBlueGreenRed;
  const uint64_t rowBytes = uint64_t{width} * (bits / 8);
  if (width == 0 || rows == 0) return "the picture is empty";
  if (width > INT32_MAX || rows > INT32_MAX || rowBytes > INT_MAX) return "the picture is too large";

  const uint32_t colours = get(data + 46, 4);
  if (bits == 8 && colours != 0 && colours != kGreys) return "the palette is not of 256 colours";
  const uint64_t palette = bits == 8 ? kPaletteSize : uint64_t{colours} * 4;
  if (offset < kHeadersSize + palette || offset > fileSize) return "the pixels are not behind the headers";
  if (bits == 8 && !isGreyPalette(data + kHeadersSize)) return "the palette is not grey";
  const uint64_t room = fileSize - offset;
  const uint64_t stride = paddedRow(rowBytes);
  if (stride > room / rows) return "the pixels go beyond the file";
  const uint32_t imageSize = get(data + 34, 4);  // may be 0 without compression
  if (imageSize != 0 && (imageSize < stride * rows || imageSize > room)) return "the size of the pixels is wrong";

  const auto step = static_cast<ptrdiff_t>(stride);
  const uint8_t* first = data + offset;
  const uint8_t* top = topDown ? first : first + static_cast<ptrdiff_t>(rows - 1) * step;
  *picture = {static_cast<int>(width),
              static_cast<int>(rows),
              pixels,
              {top, static_cast<int>(rowBytes), static_cast<int>(rows), topDown ? step : -step}};
  return nullptr;
}

}  // namespace

bool writeBmp(std::FILE* file, const ConstPlane& picture, BmpPixels pixels, const char** reason) {
  *reason = writeFailure(file, picture, pixels);
  return *reason == nullptr;
}

bool readBmp(const uint8_t* data, size_t size, BmpPicture* picture, const char** reason) {
  *reason = readFailure(data, size, picture);
  return *reason == nullptr;
}

}  // namespace noxel::kernels
