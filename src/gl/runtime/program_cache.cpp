#include "gl/runtime/program_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"

namespace noxel {
namespace {

constexpr uint32_t kVersion = 10;
constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxFileSize = size_t{64} << 20;

// The cache can only miss: what goes wrong with it is told to those who want every word.
bool cacheCallFailed(const char* call, const char* path) {
  NOXEL_LOG_VERBOSE("program cache: %s failed with %d:\n\t%s\n", call, errno, path);
  return false;
}

bool readFully(int file, void* destination, size_t size) {
  auto* at = static_cast<unsigned char*>(destination);
  while (size > 0) {
    const ssize_t got = ::read(file, at, size);
    if (got <= 0) return false;
    at += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

bool writeFully(int file, const void* source, size_t size) {
  const auto* at = static_cast<const unsigned char*>(source);
  while (size > 0) {
    const ssize_t put = ::write(file, at, size);
    if (put <= 0) return false;
    at += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

// A FIFO in the cache's place must not hang the open, nor a device be read.
int openRegular(const char* path, size_t* size) {
  const int file = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) {
    NOXEL_LOG_ERROR("Unable to open file:\n\t%s\n", path);
    return -1;
  }
  struct stat status = {};
  const bool known = fstat(file, &status) == 0 || cacheCallFailed("fstat", path);
  const bool usable = known && S_ISREG(status.st_mode) && status.st_size > static_cast<off_t>(kHeaderSize) &&
                      status.st_size <= static_cast<off_t>(kMaxFileSize);
  if (!usable) {
    ::close(file);
    return -1;
  }
  *size = static_cast<size_t>(status.st_size);
  return file;
}

}  // namespace

ProgramBinary::~ProgramBinary() {
  std::free(blob);
}

bool ProgramBinary::allocate(size_t blobSize) {
  if (blobSize == 0 || blobSize > kMaxFileSize - kHeaderSize) return false;
  std::free(blob);
  blob = static_cast<unsigned char*>(std::calloc(blobSize, 1));
  size = blob != nullptr ? blobSize : 0;
  if (blob == nullptr) NOXEL_LOG_ERROR("no memory for a program binary");
  return blob != nullptr;
}

uint32_t ProgramBinary::checksum() const {
  uint32_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum += blob[i];
  return sum;
}

bool ProgramBinary::read(const char* path) {
  size_t fileSize = 0;
  const int file = openRegular(path, &fileSize);
  if (file < 0) return false;
  uint32_t header[3] = {};
  bool complete = allocate(fileSize - kHeaderSize);
  if (complete && !(readFully(file, header, sizeof(header)) && readFully(file, blob, size))) {
    NOXEL_LOG_ERROR("Error reading program binary:\n\t%s\n", path);
    complete = false;
  }
  if (::close(file) != 0) (void)cacheCallFailed("close", path);
  format = header[2];
  return complete && header[1] == kVersion && header[0] == checksum();
}

bool ProgramBinary::write(const char* path) const {
  Text temporary(path);
  temporary.append(".XXXXXX");
  if (temporary.failed()) {
    NOXEL_LOG_ERROR("no memory for the path of a program binary");
    return false;
  }
  char* name = const_cast<char*>(temporary.c_str());  // mkstemp fills in the template's last six characters
  const int file = mkstemp(name);
  if (file < 0) return cacheCallFailed("mkstemp", name);
  (void)fcntl(file, F_SETFD, FD_CLOEXEC);
  const uint32_t header[3] = {checksum(), kVersion, format};
  const bool written =
      (writeFully(file, header, sizeof(header)) && writeFully(file, blob, size)) || cacheCallFailed("write", name);
  const bool closed = ::close(file) == 0 || cacheCallFailed("close", name);
  const bool complete = written && closed && (std::rename(name, path) == 0 || cacheCallFailed("rename", path));
  if (!complete) ::unlink(name);
  return complete;
}

void ensureDirectory(const char* path) {
  struct stat status = {};
  if (stat(path, &status) == 0 || mkdir(path, 0700) == 0) return;
  (void)cacheCallFailed("stat and mkdir", path);
}

Text processName() {
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(getpid()));
  Text name;
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return name;
  char line[512] = {};  // Android caps a package name at 223 characters
  const ssize_t got = ::read(file, line, sizeof(line) - 1);
  ::close(file);
  if (got > 0) name.append(line, std::strcspn(line, "\n"));  // stops at the first NUL as well
  return name;
}

}  // namespace noxel
