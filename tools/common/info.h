// `noxel info`
#pragma once

namespace noxel::tool {

// Prints what the engine would run on. Returns the exit code.
int runInfo(bool verbose);

}  // namespace noxel::tool
