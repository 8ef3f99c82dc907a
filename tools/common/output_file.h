// Files that appear under their name only when they are whole.
#pragma once

#include <string>

namespace noxel::tool {

// Usage error when `path` exists and may not be overwritten, is no regular file, or lies in no folder that there is.
void checkMayWrite(const std::string& path, bool overwrite);

// A file beside the final one, empty at first, removed again unless commit() was reached.
class PendingFile {
 public:
  explicit PendingFile(const std::string& path);  // ToolError where it cannot be made
  ~PendingFile();
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  const std::string& temporaryPath() const { return temporaryPath_; }
  void commit();  // replaces what stood under the final name

 private:
  std::string path_;
  std::string temporaryPath_;
  bool committed_ = false;
};

void writeWholeFile(const std::string& path, const void* data, size_t size);

}  // namespace noxel::tool
