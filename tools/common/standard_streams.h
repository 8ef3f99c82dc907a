// Standard input, output and error as a user may hand them over: closed, full, or a pipe whose reader has left.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "common/tool_error.h"

namespace noxel::tool {

// Before anything else is opened. A closed descriptor 0, 1 or 2 would become that of the next file, and messages would be
// written into a clip. What is put in its place cannot be used in its direction, so that using it stays an error. A file
// that reaches the limit of its size becomes a write error, too.
inline void secureStandardStreams() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) continue;
    if (open("/dev/null", descriptor == 0 ? O_WRONLY : O_RDONLY) != descriptor) return;  // the lowest one that is free
  }
  std::signal(SIGXFSZ, SIG_IGN);
}

// ToolError when anything written to standard output so far was lost. `out`: a file in its place.
inline void flushStandardOutput(std::FILE* out = stdout) {
  errno = 0;  // a write that failed earlier has left its mark on the stream only
  if (std::fflush(out) == 0 && std::ferror(out) == 0) return;
  const char* reason = errno != 0 ? std::strerror(errno) : "an earlier write failed";
  throw ToolError(kExitFailed, std::string("cannot write standard output: ") + reason);
}

}  // namespace noxel::tool
