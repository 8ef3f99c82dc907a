// `noxel enhance`: a clip in, the same clip enhanced out.
#pragma once

#include <string>

#include "enhancer_session.h"

namespace noxel::tool {

constexpr int kDefaultPictureFrame = 25;

struct EnhanceOptions {
  std::string input;                 // a file, or "-": Y4M on standard input
  std::string output;                // .mp4, .mkv, .y4m, or "-": Y4M on standard output
  std::string denoise = "temporal";  // or "spatial"
  int strength = 65;                 // 0..100, as the next
  int exposure = 50;
  int crf = 18;  // 0..51
  bool neutralExposure = false;
  bool stabilize = false;
  bool compare = false;
  bool overlay = false;  // temporal only, as stabilize
  bool warmUp = true;
  bool quiet = false;
  bool verbose = false;
  bool overwrite = false;
  std::string statsFile;                    // empty: none
  std::string pictureFile;                  // empty: none
  int pictureFrame = kDefaultPictureFrame;  // from 0
};

// Returns the exit code, or throws a ToolError. The factory makes what enhances; by default it is the engine.
int runEnhance(const EnhanceOptions& options);
int runEnhance(const EnhanceOptions& options, const EnhancerFactory& factory);

}  // namespace noxel::tool
