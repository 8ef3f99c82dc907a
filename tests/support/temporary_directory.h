// A directory that is removed with its contents in the end.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace noxel {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "noxel-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    directory = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return directory; }  // no trailing slash
  std::string file(const std::string& name) const { return directory + "/" + name; }
  std::vector<std::string> names() const {  // of the files in it, sorted
    std::vector<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) result.push_back(entry.path().filename());
    std::sort(result.begin(), result.end());
    return result;
  }

 private:
  std::string directory;
};

}  // namespace noxel
