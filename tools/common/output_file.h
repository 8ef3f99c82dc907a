// Files that appear under their name only when complete.
#pragma once

#include <string>

namespace noxel::tool {

// Usage error when `path` exists and must not be overwritten, is not a regular file, or its folder is missing.
void checkMayWrite(const std::string& path, bool overwrite);

// Those of the PendingFiles that exist, up to a limit. For a signal handler.
void removePendingFiles();

// The PendingFiles of another process, to be removed when that crashed. Made before it is forked.
class PendingFilesOfProcess {
 public:
  PendingFilesOfProcess();  // std::bad_alloc
  ~PendingFilesOfProcess();
  PendingFilesOfProcess(const PendingFilesOfProcess&) = delete;
  PendingFilesOfProcess& operator=(const PendingFilesOfProcess&) = delete;

  void keep();  // called there: its PendingFiles from now on, up to a limit
  void remove() const;

 private:
  void* shared_;
};

// An empty temporary file beside the final one, removed unless commit() was reached.
class PendingFile {
 public:
  explicit PendingFile(const std::string& path);  // ToolError when it cannot be made
  ~PendingFile();
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  const std::string& temporaryPath() const { return temporaryPath_; }
  void commit();  // renames it to the final name

 private:
  std::string path_;
  std::string temporaryPath_;
  bool committed_ = false;
};

// ToolError that says `name` when it fails.
void writeBytes(const std::string& path, const void* data, size_t size, const std::string& name);

void writeWholeFile(const std::string& path, const void* data, size_t size);

}  // namespace noxel::tool
