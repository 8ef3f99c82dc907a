// The subcommands of `noxel`. Each adds its page to the command line; `run` does the work once that was parsed, and returns
// the exit code or throws a ToolError.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace noxel::tool {

struct Command {
  CLI::App* app;  // owned by the one it was added to
  std::function<int()> run;
};

// Runs what works with the engine: Ctrl-C ends it in order, programs are cached, and where there is no usable GL the engine's
// log says why. `verbose` shows all of that log, and FFmpeg's warnings.
int runWithEngine(bool verbose, const std::function<int()>& run);

// For the check of a floating-point option, as CLI::Range lets what is not a number pass: empty, or what is wrong.
std::string outsideOf(double least, double most, const std::string& text);

// --denoise, --strength and --exposure. What they change outlives the command line.
void addDenoising(CLI::App* command, const char* group, const std::function<void(bool spatial)>& setPath, int& strength,
                  int& exposure);

Command addAnalyze(CLI::App& app);
Command addEnhance(CLI::App& app);
Command addInfo(CLI::App& app);
Command addView(CLI::App& app);

}  // namespace noxel::tool
