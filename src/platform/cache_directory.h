// Where compiled shader programs are kept between runs.
#pragma once

namespace noxel::platform {

inline constexpr int kCacheDirectoryMax = 4096;  // bytes, the terminator included

// "/data/lshaders/" unless replaced. An empty text means no cache.
const char* programCacheDirectory();

// Copies `directory` (its parents must exist); null restores the default, a text too long to hold is refused with false.
// Read once per engine, when the GPU thread sets up its programs: set it while no engine is being initialised.
bool setProgramCacheDirectory(const char* directory);

}  // namespace noxel::platform
