#include "commands/commands.h"

extern "C" {
#include <libavutil/log.h>
}

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

}  // namespace noxel::tool
