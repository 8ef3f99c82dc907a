// Standard streams that are closed, full, or a pipe without a reader.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "common/tool_error.h"

namespace noxel::tool {

// Call before anything is opened: the next file would get a closed descriptor 0, 1 or 2, and messages would go into a clip.
// The placeholder is opened for the opposite direction, so using it is still an error. Exceeding the file size limit becomes
// a write error as well.
inline void secureStandardStreams() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) continue;
    if (open("/dev/null", descriptor == 0 ? O_WRONLY : O_RDONLY) != descriptor) return;  // gets the lowest free one
  }
  std::signal(SIGXFSZ, SIG_IGN);
}

// ToolError when anything written to standard output so far was lost. `out`: for tests.
inline void flushStandardOutput(std::FILE* out = stdout) {
  errno = 0;  // an earlier failure set the stream's error flag only
  if (std::fflush(out) == 0 && std::ferror(out) == 0) return;
  const char* reason = errno != 0 ? std::strerror(errno) : "an earlier write failed";
  throw ToolError(kExitFailed, std::string("cannot write standard output: ") + reason);
}

}  // namespace noxel::tool
