// A directory of a test's own, gone with all it holds when the test ends.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace noxel {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "noxel-test-XXXXXX").string();
    if (mkdtemp(name.data()) != nullptr) directory = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return directory; }  // no trailing slash; empty when it could not be made

 private:
  std::string directory;
};

}  // namespace noxel
