// `noxel enhance` with several clips.
#pragma once

#include <string>
#include <vector>

#include "enhance/enhance.h"

namespace noxel::tool {

constexpr char kDefaultSuffix[] = "-noxel";
constexpr char kNamePlace[] = "{name}";  // in names of files of which each clip has one

struct BatchOptions {
  EnhanceOptions clip;  // for each; without input and output
  std::vector<std::string> inputs;
  std::string outputFolder;  // created if missing
  std::string suffix = kDefaultSuffix;
  std::string container;  // an extension without the dot; empty: the input's where it can be written, else mp4
  int jobs = 0;           // clips at once; 0: jobsFor() of this machine
};

// FOLDER/night-noxel.mp4 for night.mp4.
std::string outputFor(const std::string& input, const BatchOptions& options);

// How many clips at once: see docs/decisions/many-clips.md.
int jobsFor(int clips, int cores, int64_t availableMiB);

// Each clip in a process of its own: what harms it, such as a damaged file in a decoder, ends that clip only, and its memory is
// free afterwards. The calling process has no other thread. Usage errors come before the first clip; after that a clip
// that fails does not stop the others. Returns the exit code: that of all failed clips when it is the same, else kExitFailed.
int runBatch(const BatchOptions& options);
int runBatch(const BatchOptions& options, const EnhancerFactory& factory);

}  // namespace noxel::tool
