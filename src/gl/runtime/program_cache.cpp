#include "gl/runtime/program_cache.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "platform/log.h"

namespace noxel {
namespace {

constexpr uint32_t kVersion = 10;
constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxFileSize = size_t{64} << 20;

// The cache can only miss: failures go to the verbose log only.
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

struct Bytes {
  const void* data;
  size_t size;
};

// Through a temporary file in the same directory, so that no reader sees a half.
bool replaceFile(const char* path, std::initializer_list<Bytes> parts) {
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
  bool written = true;
  for (const Bytes& part : parts) written = written && writeFully(file, part.data, part.size);
  if (!written) (void)cacheCallFailed("write", name);
  const bool closed = ::close(file) == 0 || cacheCallFailed("close", name);
  const bool complete = written && closed && (std::rename(name, path) == 0 || cacheCallFailed("rename", path));
  if (!complete) ::unlink(name);
  return complete;
}

// False while another build of the library uses the cache, or a process is about to take it over: this start does without.
bool lockNow(int directory, int kind) {
  if (flock(directory, kind | LOCK_NB) == 0 || errno != EWOULDBLOCK) return true;  // or a file system without locks
  NOXEL_LOG_VERBOSE("program cache: in use by another build\n");
  return false;
}

// False for whatever is not a regular file with exactly this text.
bool contains(const char* path, const char* text) {
  const int file = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) {
    if (errno != ENOENT) NOXEL_LOG_VERBOSE("Unable to open file:\n\t%s\n", path);
    return false;
  }
  char found[256] = {};
  struct stat status = {};
  const size_t size = std::strlen(text);
  const bool comparable = fstat(file, &status) == 0 ? S_ISREG(status.st_mode) && size <= sizeof(found) &&
                                                          status.st_size == static_cast<off_t>(size)
                                                    : cacheCallFailed("fstat", path);
  const bool read = comparable && readFully(file, found, size);
  if (comparable && !read) NOXEL_LOG_ERROR("Error reading program fingerprint:\n\t%s\n", path);
  if (::close(file) != 0) (void)cacheCallFailed("close", path);
  return read && std::memcmp(found, text, size) == 0;
}

bool isProgram(const char* name) {
  return std::strncmp(name, "kr_", 3) == 0 || std::strncmp(name, "clear_", 6) == 0;
}

// And what a process that was killed left of them. A directory of such a name is no program, and stays.
bool removePrograms(const char* directory) {
  DIR* entries = opendir(directory);
  if (entries == nullptr) return cacheCallFailed("opendir", directory);
  bool removed = true;
  while (const dirent* entry = readdir(entries)) {
    if (!isProgram(entry->d_name)) continue;
    if (unlinkat(dirfd(entries), entry->d_name, 0) == 0 || errno == ENOENT || errno == EISDIR) continue;
    removed = cacheCallFailed("unlink", entry->d_name);
  }
  closedir(entries);
  return removed;
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
  const uint32_t header[3] = {checksum(), kVersion, format};
  return replaceFile(path, {{header, sizeof(header)}, {blob, size}});
}

CacheDirectory::~CacheDirectory() {
  if (lock >= 0 && ::close(lock) != 0) (void)cacheCallFailed("close", path);
}

CacheDirectory::CacheDirectory(CacheDirectory&& other) noexcept
    : path(other.path), readable(other.readable), lock(std::exchange(other.lock, -1)) {}

CacheDirectory openProgramCache(const char* directory, const char* fingerprint) {
  CacheDirectory cache(directory);
  if (cache.path[0] == '\0') return cache;
  Text file(directory);
  if (directory[std::strlen(directory) - 1] != '/') file.append("/");
  file.append("fingerprint");
  if (file.failed()) {
    NOXEL_LOG_ERROR("no memory for the path of the program cache");
    return nullptr;
  }
  ensureDirectory(directory);
  cache.lock = ::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (cache.lock < 0) {
    NOXEL_LOG_VERBOSE("Unable to open file:\n\t%s\n", directory);
  } else {
    if (!lockNow(cache.lock, LOCK_SH)) return nullptr;
    cache.readable = contains(file.c_str(), fingerprint);
    if (cache.readable) return cache;
    if (!lockNow(cache.lock, LOCK_EX)) return nullptr;
    const bool replaced =
        removePrograms(directory) && replaceFile(file.c_str(), {{fingerprint, std::strlen(fingerprint)}});
    if (replaced && lockNow(cache.lock, LOCK_SH)) return cache;
  }
  NOXEL_LOG_ERROR("the program cache cannot be written, so programs are compiled at each start:\n\t%s\n", directory);
  return nullptr;
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
