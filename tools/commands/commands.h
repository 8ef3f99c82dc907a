// The subcommands of `noxel`: each adds itself to the command line. After parsing, `run` does the work and returns the exit
// code or throws a ToolError.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace noxel::tool {

struct Command {
  CLI::App* app;  // owned by its parent
  std::function<int()> run;
};

// Sets up what every command with an engine needs: clean stop on Ctrl-C, program cache, and the engine's errors on standard
// error when there is no usable GL. `verbose`: the whole log, and FFmpeg's warnings.
int runWithEngine(bool verbose, const std::function<int()>& run);

// Check for a floating-point option (CLI::Range accepts NaN): empty, or an error message.
std::string outsideOf(double min, double max, const std::string& text);

// --denoise, --quality, --strength and --exposure. Their targets must outlive the command line.
void addDenoising(CLI::App* command, const char* group, const std::function<void(bool spatial)>& setPath, int& quality,
                  int& strength, int& exposure);
// To be called when the command line was read: without --strength, the mode's own.
void takeDefaultStrength(const CLI::App* command, int mode, int& strength);

Command addAnalyze(CLI::App& app);
Command addCompare(CLI::App& app);
Command addEnhance(CLI::App& app);
Command addInfo(CLI::App& app);
Command addView(CLI::App& app);

}  // namespace noxel::tool
