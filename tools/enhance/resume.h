// Outputs of an earlier run.
#pragma once

#include <optional>
#include <string>

#include "enhance/enhance.h"

namespace noxel::tool {

// Why the output must be written anew; empty: there is none yet; none: it is whole. Whole: it can be opened, its comment does not
// say that it is partial, and it has as many frames as the input's range, give or take 1 % or two, as a damaged input's may
// not all be decodable. Frames are counted by reading both files without decoding; MP4 and MOV have their count in the index.
std::optional<std::string> reasonToWrite(const EnhanceOptions& options);

// True, with a note, when the output is whole.
bool leaveWhole(const EnhanceOptions& options);

}  // namespace noxel::tool
