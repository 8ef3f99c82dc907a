// `noxel enhance`: a clip in, the same clip enhanced out.
#pragma once

#include <string>
#include <vector>

#include "enhance/enhancer_session.h"
#include "media/video_encoder.h"

namespace noxel::tool {

constexpr int kDefaultPictureFrame = 25;

struct EnhanceOptions {
  std::string input;   // a file, or "-": standard input
  std::string output;  // as containerOf, .png for a single picture, or "-": Y4M on standard output
  Look look;
  std::vector<std::string> given;  // names of the options on the command line
  EncodingChoice encoding;
  bool compare = false;
  bool overlay = false;
  bool warmUp = true;
  bool passes = false;
  bool quiet = false;
  bool verbose = false;
  bool overwrite = false;
  std::string statsFile;                    // empty: none
  std::string reportFile;                   // empty: none
  std::string dumpFolder;                   // empty: none
  std::string pictureFile;                  // empty: none
  int pictureFrame = kDefaultPictureFrame;  // from 0
};

// Returns the exit code, or throws a ToolError. The factory replaces the engine in tests.
int runEnhance(const EnhanceOptions& options);
int runEnhance(const EnhanceOptions& options, const EnhancerFactory& factory);

}  // namespace noxel::tool
