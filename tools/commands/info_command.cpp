// `noxel info`: the command line.
#include <CLI/CLI.hpp>

#include "commands/commands.h"
#include "common/info.h"

namespace noxel::tool {

Command addInfo(CLI::App& app) {
  const auto verbose = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("info", "Show version, GL driver and program cache");
  command->add_flag("-v,--verbose", *verbose, "Show the engine's log");
  return {command, [verbose] { return runInfo(*verbose); }};
}

}  // namespace noxel::tool
