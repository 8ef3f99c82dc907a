// `noxel enhance` of a single picture to a PNG file.
#pragma once

#include "enhance/enhance.h"

namespace noxel::tool {

bool isStill(const std::string& outputPath);  // by its name: .png

// At the picture's own resolution and with its alpha, through engine mode 4. Returns the exit code, or throws a ToolError.
int runStill(const EnhanceOptions& options);

}  // namespace noxel::tool
