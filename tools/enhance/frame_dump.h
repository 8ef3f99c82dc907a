// Each frame's pictures as BMP files, for a person who looks for a fault.
#pragma once

#include <cstdint>
#include <string>

#include "media/av_types.h"

namespace noxel::tool {

// Files are frame-000000-NAME.bmp and so on, each there only when it is whole. ToolError where one cannot be written.
class FrameDump {
 public:
  explicit FrameDump(std::string folder);  // made when it is not there

  // 24 bits. Planar, in the engine's colours, of which the upper left width x height pixels are written.
  void picture(int64_t frame, const char* name, const AVFrame& planar, int width, int height) const;
  // 8 bits.
  void grey(int64_t frame, const char* name, const uint8_t* pixels, int width, int height) const;

 private:
  std::string folder_;
};

// Usage error when the folder holds anything and may not be written into.
void checkMayDump(const std::string& folder, bool overwrite);

}  // namespace noxel::tool
