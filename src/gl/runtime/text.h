// A growing C string that handles out-of-memory.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace noxel {

// Owns its bytes. Once an allocation failed, failed() stays true and c_str() empty, so that one test after a chain of appends
// is enough. std::string would throw, and the library is built without exceptions.
class Text {
 public:
  Text() = default;
  explicit Text(const char* text) { append(text); }
  Text(Text&& other) noexcept : bytes(other.bytes), used(other.used), reserved(other.reserved), broken(other.broken) {
    other.bytes = nullptr;
    other.used = other.reserved = 0;
  }
  Text& operator=(Text&& other) noexcept {
    if (this != &other) {
      std::free(bytes);
      bytes = other.bytes;
      used = other.used;
      reserved = other.reserved;
      broken = other.broken;
      other.bytes = nullptr;
      other.used = other.reserved = 0;
    }
    return *this;
  }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  ~Text() { std::free(bytes); }

  Text& append(const char* text) { return append(text, std::strlen(text)); }

  Text& append(const char* text, size_t length) {
    if (length == 0 || broken || !reserve(used + length + 1)) return *this;
    std::memcpy(bytes + used, text, length);
    used += length;
    bytes[used] = '\0';
    return *this;
  }

  const char* c_str() const { return broken || bytes == nullptr ? "" : bytes; }
  size_t length() const { return broken ? 0 : used; }
  bool empty() const { return length() == 0; }
  bool failed() const { return broken; }

 private:
  bool reserve(size_t size) {
    if (size <= reserved) return true;
    const size_t wanted = size < 2 * reserved ? 2 * reserved : size;
    char* grown = static_cast<char*>(std::realloc(bytes, wanted));
    if (grown == nullptr) {
      broken = true;
      return false;
    }
    bytes = grown;
    reserved = wanted;
    return true;
  }

  char* bytes = nullptr;
  size_t used = 0;
  size_t reserved = 0;
  bool broken = false;
};

}  // namespace noxel
