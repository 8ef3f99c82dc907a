// Each frame's pictures as BMP files, for debugging.
#pragma once

#include <cstdint>
#include <string>

#include "media/av_types.h"

namespace noxel::tool {

// Files are frame-000000-NAME.bmp and so on, never partial. ToolError when one cannot be written.
class FrameDump {
 public:
  explicit FrameDump(std::string folder);  // created if missing

  // 24-bit. `planar` is in the engine's colours; its top left width x height pixels are written.
  void picture(int64_t frame, const char* name, const AVFrame& planar, int width, int height) const;
  // 8-bit.
  void grey(int64_t frame, const char* name, const uint8_t* pixels, int width, int height) const;

 private:
  std::string folder_;
};

// Usage error when the folder is not empty and must not be overwritten.
void checkMayDump(const std::string& folder, bool overwrite);

}  // namespace noxel::tool
