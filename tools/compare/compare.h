// `noxel compare`: one clip scored against another.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace noxel::tool {

struct CompareOptions {
  std::string clip;       // under test; a file, or without tone "-": standard input, as the others
  std::string reference;  // what it should look like
  std::string input;      // what the clip was made of: its scores are what gains are counted from; empty: none
  std::string original;   // the reference as it looks well exposed; empty: none
  std::string jsonFile;   // empty: none; "-": standard output, with the table on standard error
  int64_t fromFrame = 0;  // earlier ones are not scored
  int ssimEvery = 1;      // of how many frames one has its SSIM measured
  bool tone = true;       // also score with the difference in tone taken out
  bool perFrame = false;  // a row for each frame in the table
  bool overwrite = false;
};

// Returns the exit code, or throws a ToolError. `out`: for tests.
int runCompare(const CompareOptions& options, std::FILE* out = stdout);

}  // namespace noxel::tool
