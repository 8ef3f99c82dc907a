// How the command ends when something goes wrong.
#pragma once

#include <stdexcept>
#include <string>

namespace noxel::tool {

enum ExitCode : int {
  kExitFine = 0,
  kExitFailed = 1,      // failed while running
  kExitUsage = 2,       // the command line asks for something that cannot be done
  kExitNoGl = 3,        // no usable OpenGL ES 3.0
  kExitUnreadable = 4,  // the input cannot be read
};

// One clear line for the user: what failed and what to do about it. Without "noxel: " before it and a newline after it.
class ToolError : public std::runtime_error {
 public:
  ToolError(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace noxel::tool
