// A clip on standard input, for FFmpeg to read.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "media/av_types.h"

namespace noxel::tool {

// A redirected file is read where it is. A pipe is read as it comes; but an MP4 or MOV whose index comes after its data is
// first spooled to a temporary file without a name, in $TMPDIR, else /tmp. One thread; one at a time.
class StandardInput {
 public:
  // ToolError: kExitUnreadable when it cannot be read or spooled, kExitFailed when a stop was requested.
  StandardInput();
  ~StandardInput();
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

  AVIOContext* io() const { return io_; }
  bool isY4m() const;

 private:
  void peek(size_t bytes);
  bool mustSeek();
  void spool();
  int read(uint8_t* data, int size);
  static int onRead(void* self, uint8_t* data, int size);
  static int64_t onSeek(void* self, int64_t offset, int whence);

  std::vector<uint8_t> peeked_;  // read from the pipe, to be given first
  size_t given_ = 0;             // bytes of it
  std::FILE* spooled_ = nullptr;
  int descriptor_ = 0;  // read after what was peeked
  AVIOContext* io_ = nullptr;
};

}  // namespace noxel::tool
