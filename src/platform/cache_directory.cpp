#include "platform/cache_directory.h"

#include <cstring>

namespace noxel::platform {
namespace {

constexpr char kDefaultDirectory[] = "/data/lshaders/";
char replacement[kCacheDirectoryMax];
bool replaced = false;

}  // namespace

const char* programCacheDirectory() {
  return replaced ? replacement : kDefaultDirectory;
}

bool setProgramCacheDirectory(const char* directory) {
  if (directory == nullptr) {
    replaced = false;
    return true;
  }
  const size_t length = std::strlen(directory);
  if (length >= sizeof(replacement)) return false;
  std::memcpy(replacement, directory, length + 1);
  replaced = true;
  return true;
}

}  // namespace noxel::platform
