#include "kernels/bmp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace noxel {
namespace {

using Bytes = std::vector<uint8_t>;
using kernels::BmpPicture;
using kernels::BmpPixels;

constexpr size_t kHeaders = 54;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

std::string written(std::FILE* file, const kernels::ConstPlane& plane, BmpPixels pixels) {
  const char* reason = nullptr;
  const bool good = kernels::writeBmp(file, plane, pixels, &reason);
  EXPECT_EQ(good, reason == nullptr);
  return good ? "" : reason;
}

Bytes fileOf(const kernels::ConstPlane& plane, BmpPixels pixels) {
  const File file(std::tmpfile(), std::fclose);
  EXPECT_EQ(written(file.get(), plane, pixels), "");
  Bytes bytes(static_cast<size_t>(std::ftell(file.get())));
  std::rewind(file.get());
  EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
  return bytes;
}

// Reads every pixel of the picture found, for an address sanitizer.
std::string refusal(const Bytes& file, Bytes* content = nullptr) {
  BmpPicture picture = {};
  const char* reason = nullptr;
  const auto exact = std::make_unique<uint8_t[]>(file.size());  // no spare bytes behind the end
  std::copy(file.begin(), file.end(), exact.get());
  if (!kernels::readBmp(exact.get(), file.size(), &picture, &reason)) return reason;
  EXPECT_EQ(picture.plane.width, picture.width * static_cast<int>(picture.pixels));
  EXPECT_EQ(picture.plane.height, picture.height);
  Bytes pixels;
  for (int y = 0; y < picture.height; ++y) {
    const uint8_t* row = picture.plane.row(y);
    EXPECT_TRUE(row >= exact.get() + kHeaders && row + picture.plane.width <= exact.get() + file.size());
    pixels.insert(pixels.end(), row, row + picture.plane.width);
  }
  EXPECT_LE(pixels.size(), file.size());
  if (content != nullptr) *content = pixels;
  return "";
}

Bytes changed(Bytes file, size_t at, uint32_t value, size_t bytes = 4) {
  for (size_t i = 0; i < bytes; ++i) file[at + i] = static_cast<uint8_t>(value >> (8 * i));
  return file;
}

// 3 x 2 pixels.
Bytes smallFile(BmpPixels pixels) {
  const Bytes content = {11, 12, 13, 14, 15, 16, 17, 18, 19, 21, 22, 23, 24, 25, 26, 27, 28, 29};
  return fileOf(kernels::packed(content.data(), 3 * static_cast<int>(pixels), 2), pixels);
}

TEST(Bmp, WritesTheExactFile) {
  const Bytes colours = {
      'B',  'M',  78, 0,  0,    0,    0,  0,  0,  0, 54, 0, 0, 0,  // file size, offset of the pixels
      40,   0,    0,  0,  3,    0,    0,  0,  2,  0, 0,  0,        // header size, width, height: positive is bottom-up
      1,    0,    24, 0,  0,    0,    0,  0,  24, 0, 0,  0,        // planes, bits, no compression, size of the pixels
      0x13, 0x0b, 0,  0,  0x13, 0x0b, 0,  0,                       // 2835 pixels a metre
      0,    0,    0,  0,  0,    0,    0,  0,                       // no palette
      21,   22,   23, 24, 25,   26,   27, 28, 29, 0, 0,  0,        // the lower row, padded to 12
      11,   12,   13, 14, 15,   16,   17, 18, 19, 0, 0,  0};
  EXPECT_EQ(smallFile(BmpPixels::kBlueGreenRed), colours);

  Bytes grey = {'B', 'M', 0x3e, 4, 0, 0, 0, 0, 0, 0, 0x36, 4,    0,    0, 40, 0,    0,    0, 3, 0, 0, 0, 2, 0, 0, 0, 1,
                0,   8,   0,    0, 0, 0, 0, 8, 0, 0, 0,    0x13, 0x0b, 0, 0,  0x13, 0x0b, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  for (int i = 0; i < 256; ++i) grey.insert(grey.end(), {uint8_t(i), uint8_t(i), uint8_t(i), 0});
  grey.insert(grey.end(), {14, 15, 16, 0, 11, 12, 13, 0});
  EXPECT_EQ(smallFile(BmpPixels::kGrey), grey);
}

TEST(Bmp, ReadsBackWhatItWrote) {
  std::mt19937 random(1);
  for (const BmpPixels pixels : {BmpPixels::kGrey, BmpPixels::kBlueGreenRed}) {
    for (const int width : {1, 2, 3, 4, 5, 17, 33}) {  // every padding
      constexpr int kHeight = 3;
      const int rowBytes = width * static_cast<int>(pixels);
      Bytes sheet(static_cast<size_t>((rowBytes + 7) * kHeight));  // 7 bytes of padding to be skipped
      for (uint8_t& byte : sheet) byte = static_cast<uint8_t>(random());
      const kernels::ConstPlane plane = {sheet.data(), rowBytes, kHeight, rowBytes + 7};
      Bytes expected;
      for (int y = 0; y < kHeight; ++y) expected.insert(expected.end(), plane.row(y), plane.row(y) + rowBytes);

      Bytes content;
      EXPECT_EQ(refusal(fileOf(plane, pixels), &content), "");
      EXPECT_EQ(content, expected) << width;
    }
  }
  Bytes topDown;
  EXPECT_EQ(refusal(changed(smallFile(BmpPixels::kBlueGreenRed), 22, static_cast<uint32_t>(-2)), &topDown), "");
  EXPECT_EQ(topDown, (Bytes{21, 22, 23, 24, 25, 26, 27, 28, 29, 11, 12, 13, 14, 15, 16, 17, 18, 19}));
}

TEST(Bmp, WriterSaysWhatItCannotWrite) {
  const Bytes content(12, 7);
  const File file(std::tmpfile(), std::fclose);
  EXPECT_EQ(written(file.get(), kernels::packed(content.data(), 0, 2), BmpPixels::kGrey), "the picture is empty");
  EXPECT_EQ(written(file.get(), kernels::packed(content.data(), 4, 3), BmpPixels::kBlueGreenRed),
            "a row is not of whole pixels");
  EXPECT_EQ(written(file.get(), {content.data(), 0x7ffffffe, 0x7fffffff, 0}, BmpPixels::kGrey),
            "the picture is too large for a BMP file");
  EXPECT_EQ(std::ftell(file.get()), 0) << "a refused picture leaves no bytes";

  if (const File full(std::fopen("/dev/full", "wb"), std::fclose); full != nullptr) {
    EXPECT_EQ(written(full.get(), kernels::packed(content.data(), 4, 3), BmpPixels::kGrey),
              "the file cannot be written");
  }
}

TEST(Bmp, ReaderNamesWhatIsWrong) {
  const Bytes grey = smallFile(BmpPixels::kGrey);
  const Bytes colours = smallFile(BmpPixels::kBlueGreenRed);
  const struct {
    Bytes file;
    const char* reason;
  } kCases[] = {
      {{}, "shorter than the headers"},
      {changed(grey, 0, 'C', 1), "not a BMP file"},
      {changed(grey, 2, static_cast<uint32_t>(grey.size()) + 1), "cut short"},
      {changed(grey, 14, 124), "the header is of another kind"},
      {changed(grey, 26, 2, 2), "not one plane"},
      {changed(grey, 28, 4, 2), "neither 8 nor 24 bits a pixel"},
      {changed(grey, 28, 32, 2), "neither 8 nor 24 bits a pixel"},
      {changed(grey, 30, 1), "compressed"},
      {changed(grey, 18, 0), "the picture is empty"},
      {changed(grey, 22, 0), "the picture is empty"},
      {changed(grey, 18, 0x80000000u), "the picture is too large"},
      {changed(grey, 22, 0x80000000u), "the picture is too large"},
      {changed(colours, 18, 0x40000000u), "the picture is too large"},
      {changed(grey, 18, 0x7ffffffcu), "the pixels go beyond the file"},
      {changed(grey, 22, 0x7fffffffu), "the pixels go beyond the file"},
      {changed(grey, 22, 3), "the pixels go beyond the file"},
      {changed(grey, 46, 16), "the palette is not of 256 colours"},
      {changed(colours, 46, 0xffffffffu), "the pixels are not behind the headers"},
      {changed(grey, 10, kHeaders), "the pixels are not behind the headers"},
      {changed(grey, 10, static_cast<uint32_t>(grey.size()) + 1), "the pixels are not behind the headers"},
      {changed(grey, 10, static_cast<uint32_t>(grey.size())), "the pixels go beyond the file"},
      {changed(grey, kHeaders + 4 * 100, 0x636465), "the palette is not grey"},
      {changed(grey, 34, 7), "the size of the pixels is wrong"},
      {changed(grey, 34, 9), "the size of the pixels is wrong"},
      // Harmless variants of other writers.
      {changed(grey, 34, 0), ""},
      {changed(grey, 46, 0), ""},
      {changed(grey, 6, 0xffffffffu), ""},
      {changed(grey, kHeaders + 3, 0xff, 1), ""},
  };
  for (const auto& wrong : kCases) EXPECT_EQ(refusal(wrong.file), wrong.reason);
}

TEST(Bmp, StaysInsideCutAndDamagedFiles) {
  std::mt19937 random(2);
  for (const BmpPixels pixels : {BmpPixels::kGrey, BmpPixels::kBlueGreenRed}) {
    const Bytes good = smallFile(pixels);
    for (size_t size = 0; size < good.size(); ++size) {
      const Bytes cut(good.begin(), good.begin() + static_cast<ptrdiff_t>(size));
      EXPECT_NE(refusal(cut), "") << size;
      // With a header that agrees.
      EXPECT_NE(size < kHeaders ? "cut" : refusal(changed(cut, 2, static_cast<uint32_t>(size))), "") << size;
    }
    for (size_t at = 0; at < kHeaders; ++at) {
      for (uint32_t value = 0; value < 256; ++value) refusal(changed(good, at, value, 1));
    }
    for (int n = 0; n < 20000; ++n) {  // fields of four bytes, several at once, with values near the edges
      Bytes damaged = good;
      for (unsigned i = random() % 3 + 1; i > 0; --i) {
        const auto any = static_cast<uint32_t>(random());
        const uint32_t kinds[] = {any, any % 64, 0 - any % 64, 0x80000000u - any % 4, 1u << any % 32};
        damaged = changed(damaged, 2 + random() % (kHeaders - 5), kinds[random() % 5]);
      }
      refusal(damaged);
    }
  }
}

}  // namespace
}  // namespace noxel
