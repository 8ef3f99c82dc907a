#include "commands.h"

extern "C" {
#include <libavutil/log.h>
}

#include "engine_log.h"
#include "interrupt.h"
#include "program_cache_path.h"
#include "tool_error.h"

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

}  // namespace noxel::tool
