#include "common/output_file.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <span>
#include <system_error>

#include "common/tool_error.h"

namespace noxel::tool {

namespace fs = std::filesystem;

namespace {

// Names of temporary files, for a signal handler on any thread: a name is written before `used` is set, and never freed.
struct Pending {
  std::atomic<bool> used = false;
  char path[PATH_MAX] = {};
};
constexpr size_t kPendingFiles = 8;
Pending ownFiles[kPendingFiles];
Pending* pendingFiles = ownFiles;

std::span<Pending> inUse(void* files) {
  return {static_cast<Pending*>(files), kPendingFiles};
}

void removeAll(void* files) {
  for (const Pending& pending : inUse(files)) {
    if (pending.used) unlink(pending.path);
  }
}

void remember(const std::string& path) {
  for (Pending& pending : inUse(pendingFiles)) {
    if (pending.used || path.size() >= sizeof(pending.path)) continue;
    std::strcpy(pending.path, path.c_str());
    pending.used = true;
    return;
  }
}

void forget(const std::string& path) {
  for (Pending& pending : inUse(pendingFiles)) {
    if (pending.used && path == pending.path) pending.used = false;
  }
}

}  // namespace

void removePendingFiles() {
  removeAll(pendingFiles);
}

// Zeros are entries that are not used.
PendingFilesOfProcess::PendingFilesOfProcess()
    : shared_(mmap(nullptr, sizeof(ownFiles), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
  if (shared_ == MAP_FAILED) throw std::bad_alloc();
}

PendingFilesOfProcess::~PendingFilesOfProcess() {
  munmap(shared_, sizeof(ownFiles));
}

void PendingFilesOfProcess::keep() {
  pendingFiles = static_cast<Pending*>(shared_);
}

void PendingFilesOfProcess::remove() const {
  removeAll(shared_);
}

void checkMayWrite(const std::string& path, bool overwrite) {
  std::error_code ignored;
  const fs::path folder = fs::path(path).parent_path();
  if (!folder.empty() && !fs::is_directory(folder, ignored)) {
    throw ToolError(kExitUsage, path + " cannot be written: there is no folder " + folder.string());
  }
  const fs::file_status status = fs::status(path, ignored);
  if (!fs::exists(status)) return;
  if (!fs::is_regular_file(status)) {
    throw ToolError(kExitUsage, path + " is not a regular file; choose another name, or - for standard output");
  }
  if (!overwrite) throw ToolError(kExitUsage, path + " exists; -y overwrites it");
}

// mkstemps: nobody can have planted a link under this name. The permissions are those of any new file.
PendingFile::PendingFile(const std::string& path) : path_(path), temporaryPath_(path + ".XXXXXX.part") {
  const int file = mkstemps(temporaryPath_.data(), 5);
  if (file < 0) throw ToolError(kExitFailed, "cannot write " + path + ": " + std::strerror(errno));
  remember(temporaryPath_);
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(file, 0666 & ~mask);
  close(file);
}

PendingFile::~PendingFile() {
  if (!committed_) std::remove(temporaryPath_.c_str());
  forget(temporaryPath_);
}

void PendingFile::commit() {
  std::error_code error;
  fs::rename(temporaryPath_, path_, error);
  if (error) throw ToolError(kExitFailed, "cannot write " + path_ + ": " + error.message());
  committed_ = true;
}

void writeBytes(const std::string& path, const void* data, size_t size, const std::string& name) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  bool written = file != nullptr && std::fwrite(data, 1, size, file) == size;
  int error = errno;
  if (file != nullptr && std::fclose(file) != 0 && written) {
    written = false;
    error = errno;
  }
  if (!written) throw ToolError(kExitFailed, "cannot write " + name + ": " + std::strerror(error));
}

void writeWholeFile(const std::string& path, const void* data, size_t size) {
  PendingFile pending(path);
  writeBytes(pending.temporaryPath(), data, size, path);
  pending.commit();
}

}  // namespace noxel::tool
