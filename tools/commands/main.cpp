// The command `noxel`.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "common/standard_streams.h"
#include "common/tool_error.h"
#include "noxel/enhancer.h"

namespace noxel::tool {
namespace {

constexpr char kFooter[] = R"(Exit codes:
  0  success
  1  failed while running; no partial file is left behind
  2  usage error
  3  no usable OpenGL ES 3.0
  4  the input cannot be read
  129, 130, 143  stopped by SIGHUP, SIGINT (Ctrl-C), SIGTERM: the output is whole up to that frame
)";

int run(int argc, char** argv) {
  CLI::App app("Noxel brightens and denoises dark video.", "noxel");
  app.set_version_flag("--version", std::string("noxel ") + noxel_version());
  app.require_subcommand(1);
  app.footer(std::string(kFooter) + "\nSee also noxel COMMAND --help.\n");
  const Command commands[] = {addEnhance(app), addView(app), addAnalyze(app), addCompare(app), addInfo(app)};

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {  // --help, --version
    const int code = app.exit(asked);
    flushStandardOutput();
    return code;
  } catch (const CLI::ParseError& error) {
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    if (parsed.empty() && argc > 1 && argv[1][0] != '-') {
      throw ToolError(kExitUsage, std::string("no command ") + argv[1] + "; see noxel --help");
    }
    const std::string command = parsed.empty() ? "" : parsed[0]->get_name() + " ";
    throw ToolError(kExitUsage, std::string(error.what()) + "; see noxel " + command + "--help");
  }
  for (const Command& command : commands) {
    if (!command.app->parsed()) continue;
    const int code = command.run();
    flushStandardOutput();
    return code;
  }
  return kExitUsage;
}

}  // namespace
}  // namespace noxel::tool

int main(int argc, char** argv) {
  noxel::tool::secureStandardStreams();
  try {
    return noxel::tool::run(argc, argv);
  } catch (const noxel::tool::ToolError& error) {
    std::fprintf(stderr, "noxel: %s\n", error.what());
    return error.code();
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "noxel: out of memory; try a smaller video\n");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "noxel: %s\n", error.what());
  }
  return noxel::tool::kExitFailed;
}
