// Ctrl-C: the run stops after the current frame and finishes the file.
#pragma once

namespace noxel::tool {

// SIGINT and SIGTERM request a stop; a second one kills the process. SIGPIPE becomes a write error.
void installInterruptHandlers();

bool stopRequested();

// As the handler does; for tests.
void requestStop(bool stop);

}  // namespace noxel::tool
