// Where this command keeps compiled shader programs.
#pragma once

#include <string>

namespace noxel::tool {

// $XDG_CACHE_HOME/noxel/, else ~/.cache/noxel/, with its parents made; empty (no cache) without a home that can be
// written.
std::string makeProgramCacheDirectory();

// Makes it the engine's.
void useProgramCache();

}  // namespace noxel::tool
