// Where the tool caches compiled shader programs.
#pragma once

#include <string>

namespace noxel::tool {

// $XDG_CACHE_HOME/noxel/, else ~/.cache/noxel/, created with its parents; empty (no cache) without a writable home.
std::string programCacheDirectory();

}  // namespace noxel::tool
