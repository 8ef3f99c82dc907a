// `noxel info`: the command line.
#include <CLI/CLI.hpp>

#include "commands/commands.h"
#include "common/info.h"

namespace noxel::tool {

Command addInfo(CLI::App& app) {
  struct Options {
    bool verbose = false;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("info", "Show version, GL driver and program cache");
  command->add_flag("-v,--verbose", options->verbose, "Show the engine's log");
  command->add_flag("--json", options->json, "As JSON");
  return {command, [options] { return runInfo(options->verbose, options->json); }};
}

}  // namespace noxel::tool
