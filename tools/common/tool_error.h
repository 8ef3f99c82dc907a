// Errors and exit codes of the tool.
#pragma once

#include <stdexcept>
#include <string>

namespace noxel::tool {

enum ExitCode : int {
  kExitFine = 0,
  kExitFailed = 1,      // failed while running
  kExitUsage = 2,       // usage error
  kExitNoGl = 3,        // no usable OpenGL ES 3.0
  kExitUnreadable = 4,  // the input cannot be read
  kExitHangup = 129,    // stopped by SIGHUP, SIGINT or SIGTERM
  kExitInterrupted = 130,
  kExitTerminated = 143,
};

// One line for the user: what failed and what to do about it. Without the leading "noxel: " and without a newline.
class ToolError : public std::runtime_error {
 public:
  ToolError(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace noxel::tool
