// `noxel info`
#pragma once

namespace noxel::tool {

// Prints version, driver and program cache; `json`: as one object, in which `gl` is null without a usable driver. Returns the
// exit code.
int runInfo(bool verbose, bool json = false);

}  // namespace noxel::tool
