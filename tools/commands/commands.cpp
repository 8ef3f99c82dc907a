#include "commands/commands.h"

extern "C" {
#include <libavutil/log.h>
}

#include <cstdlib>
#include <sstream>

#include "common/engine_log.h"
#include "common/interrupt.h"
#include "common/program_cache_path.h"
#include "common/tool_error.h"

namespace noxel::tool {

int runWithEngine(bool verbose, const std::function<int()>& run) {
  av_log_set_level(verbose ? AV_LOG_WARNING : AV_LOG_QUIET);
  installInterruptHandlers();
  useProgramCache();
  const EngineLog log(verbose);
  try {
    return run();
  } catch (const ToolError& error) {
    if (error.code() == kExitNoGl) log.printErrors();
    throw;
  }
}

std::string outsideOf(double least, double most, const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end != text.c_str() && *end == '\0' && value >= least && value <= most) return "";
  std::ostringstream message;
  message << text << " is no number from " << least << " to " << most;
  return message.str();
}

}  // namespace noxel::tool
