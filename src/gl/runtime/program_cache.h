// The program-binary cache: a file for each program, and one that tells which build they are of.
#pragma once

#include <cstddef>
#include <cstdint>

#include "gl/runtime/text.h"

namespace noxel {

// File: 32-bit words in host byte order: checksum (sum of the blob's bytes, wrapping), version (10), binary format; then the
// blob. Only a regular file of 13 bytes to 64 MiB with the right version and checksum is taken for one.
struct ProgramBinary {
  ProgramBinary() = default;
  ~ProgramBinary();
  ProgramBinary(const ProgramBinary&) = delete;
  ProgramBinary& operator=(const ProgramBinary&) = delete;

  bool allocate(size_t blobSize);      // zeroed; false when the size is out of range or memory ran out
  bool read(const char* path);         // false, and nothing to use, for whatever is not such a file
  bool write(const char* path) const;  // through a temporary file in the same directory, so that no reader sees a half

  uint32_t format = 0;
  size_t size = 0;                // of the blob
  unsigned char* blob = nullptr;  // owned

 private:
  uint32_t checksum() const;
};

// Where programs are kept. Converts from a bare path, of which nothing is known.
struct CacheDirectory {
  CacheDirectory(const char* directory) : path(directory != nullptr ? directory : "") {}
  ~CacheDirectory();
  CacheDirectory(CacheDirectory&& other) noexcept;

  const char* path;      // not owned; empty: nothing is kept
  bool readable = true;  // false: it holds no program of this build, so none is opened
  int lock = -1;         // shared, on the directory itself, so that no other build takes it over meanwhile; owned
};

// Opens the cache for the build with this fingerprint. When the file "fingerprint" in the directory is missing or of another
// build, all programs ("kr_...", "clear_...") are removed first and the file is replaced last, so that a process that dies in between never
// leaves another build's programs beside this fingerprint. Nothing is waited for: where another build has the cache open the
// path is empty, and the programs are compiled. On failure one log line, and an empty path.
CacheDirectory openProgramCache(const char* directory, const char* fingerprint);

// mkdir (mode 0700, one level) unless something of that name exists.
void ensureDirectory(const char* path);

// First argument of this process's command line: the package name of an Android application. Empty when unreadable.
Text processName();

}  // namespace noxel
