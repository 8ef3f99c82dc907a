// Runs the built commands; NEEDS_DRIVER for tests that need a GL driver.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "common/tool_error.h"
#include "enhance/enhancer_session.h"
#include "support/driver_required.h"
#include "support/temporary_directory.h"

namespace noxel::tool {

inline std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

template <typename Bytes>
void writeFile(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
}

struct Outcome {
  int exitCode;
  std::string out;
  std::string error;
};

// Through the shell, with empty standard input. `environment`: prefix of the command, such as NAME=value.
inline Outcome runCommand(const std::string& executable, const std::string& arguments,
                          const std::string& environment = "") {
  const TemporaryDirectory output;
  const std::string command = environment + " '" + executable + "' " + arguments + " </dev/null >'" +
                              output.file("out") + "' 2>'" + output.file("error") + "'";
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(output.file("out")), contents(output.file("error"))};
}

inline Outcome noxel(const TemporaryDirectory& folder, const std::string& arguments,
                     const std::string& environment = "") {
  return runCommand(NOXEL_EXECUTABLE, arguments, environment + " XDG_CACHE_HOME='" + folder.file("cache") + "'");
}

// In place, of a session that waits for no later frame.
inline void enhanceOne(Enhancer& session, uint8_t* nv21, int64_t presentationUs) {
  EXPECT_TRUE(session.send(nv21, presentationUs));
  EXPECT_TRUE(session.receive(nv21));
}

inline std::string missingDriver() {
  try {
    noxel_config config;
    noxel_config_init(&config, sizeof(config), 16, 16);
    noxel_enhancer* enhancer = makeEnhancer(config);
    noxel_free(&enhancer);
    return "";
  } catch (const ToolError& error) {
    return error.what();
  }
}

// The ToolError that an action throws; kExitFine if none.
template <typename Action>
ToolError refusal(const Action& action) {
  try {
    action();
  } catch (const ToolError& error) {
    return error;
  }
  return {kExitFine, ""};
}

#define NEEDS_DRIVER()                                                 \
  if (const std::string missing = missingDriver(); !missing.empty()) { \
    if (driverRequired()) FAIL() << missing;                           \
    GTEST_SKIP() << missing;                                           \
  }                                                                    \
  static_assert(true)

}  // namespace noxel::tool
