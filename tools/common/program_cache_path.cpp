#include "common/program_cache_path.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

namespace noxel::tool {
namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::string programCacheDirectory() {
  std::string base = environment("XDG_CACHE_HOME");
  // A relative XDG path counts as none.
  if (base.empty() || base.front() != '/') {
    const std::string home = environment("HOME");
    if (home.empty()) return "";
    base = home + "/.cache";
  }
  std::string directory = base + "/noxel/";
  std::error_code error;
  std::filesystem::create_directories(base, error);
  mkdir(directory.c_str(), 0700);  // private, as the driver loads these files; fails if it exists
  return std::filesystem::is_directory(directory, error) ? directory : "";
}

}  // namespace noxel::tool
