// BMP files: pictures lie inside the file, and survive writing and reading again.
#include <sys/mman.h>
#include <unistd.h>

#include <initializer_list>

#include "fuzz_input.h"
#include "kernels/bmp.h"

namespace {

using noxel::kernels::BmpPicture;
using noxel::kernels::readBmp;
using noxel::kernels::writeBmp;

constexpr size_t kHeadersSize = 54;
constexpr size_t kPaletteSize = 1024;

void checkInside(const BmpPicture& picture, const uint8_t* data, size_t size) {
  FUZZ_CHECK(picture.width > 0 && picture.height > 0);
  FUZZ_CHECK(picture.plane.width == picture.width * static_cast<int>(picture.pixels));
  FUZZ_CHECK(picture.plane.height == picture.height);
  const auto bytes = static_cast<size_t>(picture.plane.width);
  for (const int y : {0, picture.height - 1}) {
    const uint8_t* row = picture.plane.row(y);
    FUZZ_CHECK(row >= data + kHeadersSize && row <= data + size && bytes <= static_cast<size_t>(data + size - row));
  }
}

void checkRoundTrip(const BmpPicture& picture) {
  static std::FILE* const file = fdopen(memfd_create("picture", MFD_CLOEXEC), "w+b");
  FUZZ_CHECK(file != nullptr);
  std::rewind(file);
  const char* reason = nullptr;
  FUZZ_CHECK(writeBmp(file, picture.plane, picture.pixels, &reason) && reason == nullptr);
  const auto size = static_cast<size_t>(std::ftell(file));
  auto* bytes = static_cast<uint8_t*>(std::malloc(size));
  FUZZ_CHECK(bytes != nullptr);
  std::rewind(file);
  FUZZ_CHECK(std::fread(bytes, 1, size, file) == size);

  BmpPicture again = {};
  FUZZ_CHECK(readBmp(bytes, size, &again, &reason));
  FUZZ_CHECK(again.width == picture.width && again.height == picture.height && again.pixels == picture.pixels);
  for (int y = 0; y < picture.height; ++y) {
    FUZZ_CHECK(std::memcmp(again.plane.row(y), picture.plane.row(y), static_cast<size_t>(picture.plane.width)) == 0);
  }
  std::free(bytes);
}

void checkFile(const uint8_t* data, size_t size) {
  BmpPicture picture = {};
  const char* reason = nullptr;
  const bool read = readBmp(data, size, &picture, &reason);
  FUZZ_CHECK(read == (reason == nullptr));
  if (!read) return;
  checkInside(picture, data, size);
  checkRoundTrip(picture);
}

// Mutation does not find 1024 exact bytes: insert the palette between the headers and the rest.
void checkWithGreyPalette(const uint8_t* data, size_t size) {
  const size_t fileSize = size + kPaletteSize;
  auto* file = static_cast<uint8_t*>(std::calloc(fileSize, 1));
  FUZZ_CHECK(file != nullptr);
  std::memcpy(file, data, kHeadersSize);
  for (size_t grey = 0; grey < 256; ++grey) std::memset(file + kHeadersSize + 4 * grey, static_cast<int>(grey), 3);
  std::memcpy(file + kHeadersSize + kPaletteSize, data + kHeadersSize, size - kHeadersSize);
  checkFile(file, fileSize);
  std::free(file);
}

}  // namespace

// The first byte chooses whether the palette is inserted.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t* file = data + 1;
  if (data[0] % 2 == 1 && size - 1 >= kHeadersSize) {
    checkWithGreyPalette(file, size - 1);
  } else {
    checkFile(file, size - 1);
  }
  return 0;
}
