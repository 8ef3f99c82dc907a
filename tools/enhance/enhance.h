// `noxel enhance`: a clip in, the same clip enhanced out.
#pragma once

#include <string>
#include <vector>

#include "enhance/enhancer_session.h"
#include "media/time_range.h"
#include "media/video_encoder.h"

namespace noxel::tool {

constexpr int kDefaultPictureFrame = 25;

struct EnhanceOptions {
  std::string input;   // a file, or "-": standard input
  std::string output;  // as containerOf, .png for a single picture, or "-": Y4M on standard output
  TimeRange range;     // of the input
  Look look;
  std::vector<std::string> given;  // names of the options on the command line
  EncodingChoice encoding;
  bool compare = false;
  bool overlay = false;
  bool automatic = false;  // look at the clip beforehand, and choose what was not given
  bool explain = false;    // say why
  bool warmUp = true;
  bool passes = false;
  bool quiet = false;
  bool verbose = false;
  bool overwrite = false;
  bool resume = false;                      // leave an output that is whole, write any other anew
  bool shownOnTerminal = false;             // though standard error is none itself
  std::string statsFile;                    // empty: none
  std::string reportFile;                   // empty: none
  std::string dumpFolder;                   // empty: none
  std::string pictureFile;                  // empty: none
  int pictureFrame = kDefaultPictureFrame;  // from 0
};

// Usage errors that show before the input is opened.
void checkEnhance(const EnhanceOptions& options);

// The mode's session.
std::unique_ptr<Enhancer> makeSession(const EnhancerSettings& settings);

// Returns the exit code, or throws a ToolError. The factory replaces the engine in tests.
int runEnhance(const EnhanceOptions& options);
int runEnhance(const EnhanceOptions& options, const EnhancerFactory& factory);

}  // namespace noxel::tool
