// Ctrl-C and its like: the run stops after the current frame and finishes the file.
#pragma once

#include "common/tool_error.h"

namespace noxel::tool {

// SIGINT, SIGTERM and SIGHUP request a stop. A SIGINT after that removes the unfinished files and kills the process; of the
// others a second one means nothing, as a closed terminal or `timeout` sends two. An ignored SIGHUP (nohup) stays ignored.
// SIGPIPE becomes a write error.
void installInterruptHandlers();

bool stopRequested();

// Of a run that was stopped: 128 and the signal's number, as a shell has it. kExitFine without a stop.
ExitCode stoppedExitCode();
ToolError stoppedBeforeTheFirstFrame();

// As SIGINT does; for tests.
void requestStop(bool stop);

}  // namespace noxel::tool
