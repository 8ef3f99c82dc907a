// What the fuzz targets share: the entry point, a check that ends the run, and an input taken apart byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// In every build, also without assertions.
#define FUZZ_CHECK(condition)                                                             \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                       \
    }                                                                                     \
  } while (false)

namespace noxel::fuzz {

// Zeros behind the end.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), left_(size) {}

  bool empty() const { return left_ == 0; }
  const uint8_t* rest() const { return at_; }
  size_t restSize() const { return left_; }

  template <typename T>
  T take() {
    T value = {};
    const size_t count = left_ < sizeof(T) ? left_ : sizeof(T);
    if (count > 0) std::memcpy(&value, at_, count);
    at_ += count;
    left_ -= count;
    return value;
  }
  uint8_t byte() { return take<uint8_t>(); }
  int below(int end) { return byte() % end; }

 private:
  const uint8_t* at_;
  size_t left_;
};

}  // namespace noxel::fuzz
