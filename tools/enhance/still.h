// `noxel enhance` of a single picture to a PNG file.
#pragma once

#include "enhance/enhance.h"

namespace noxel::tool {

bool isStill(const std::string& outputPath);  // by its extension, .png

// Through engine mode 4, at the picture's own size and with its alpha. Returns the exit code, or throws a ToolError.
int runStill(const EnhanceOptions& options);

}  // namespace noxel::tool
