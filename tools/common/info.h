// `noxel info`
#pragma once

namespace noxel::tool {

// Prints version, driver and program cache. Returns the exit code.
int runInfo(bool verbose);

}  // namespace noxel::tool
