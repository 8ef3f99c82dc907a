#include "commands/commands.h"

extern "C" {
#include <libavutil/log.h>
}

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "common/engine_log.h"
#include "common/interrupt.h"
#include "common/tool_error.h"
#include "enhance/look.h"

namespace noxel::tool {

int runWithEngine(bool verbose, const std::function<int()>& run) {
  av_log_set_level(verbose ? AV_LOG_WARNING : AV_LOG_QUIET);
  installInterruptHandlers();
  const EngineLog log(verbose);
  try {
    return run();
  } catch (const ToolError& error) {
    if (error.code() == kExitNoGl) log.printErrors();
    throw;
  }
}

std::string outsideOf(double min, double max, const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end != text.c_str() && *end == '\0' && value >= min && value <= max) return "";
  std::ostringstream message;
  message << text << " is not a number from " << min << " to " << max;
  return message.str();
}

void addDenoising(CLI::App* command, const char* group, const std::function<void(bool spatial)>& setPath, int& quality,
                  int& strength, int& exposure) {
  command
      ->add_option_function<std::string>(
          "--denoise", [setPath](const std::string& path) { setPath(path == "spatial"); },
          "temporal: blends along the camera's motion; spatial: each frame by itself")
      ->check(CLI::IsMember({"temporal", "spatial"}))
      ->default_str("temporal")
      ->group(group);
  command
      ->add_option_function<std::string>(
          "--quality",
          [&quality](const std::string& name) {
            quality = static_cast<int>(std::ranges::find(kQualityNames, name) - kQualityNames);
          },
          "How much work to put into a frame. Mode 5")
      ->check(CLI::IsMember(std::vector<std::string>(std::begin(kQualityNames), std::end(kQualityNames))))
      ->default_str(kQualityNames[quality])
      ->group(group);
  command->add_option("--strength", strength, "Noise reduction; mode 5: 0 leaves frames as they came but for the tone")
      ->check(CLI::Range(0, 100))
      ->default_str(std::to_string(defaultStrength(NOXEL_MODE_CLEAR)) +
                    "; modes 0 to 3: " + std::to_string(defaultStrength(NOXEL_MODE_ENHANCE)))
      ->group(group);
  command->add_option("--exposure", exposure, "Brightening of dark pictures")
      ->check(CLI::Range(0, 100))
      ->capture_default_str()
      ->group(group);
}

void takeDefaultStrength(const CLI::App* command, int mode, int& strength) {
  if (command->count("--strength") == 0) strength = defaultStrength(mode);
}

}  // namespace noxel::tool
