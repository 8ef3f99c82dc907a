// Ctrl-C: the run ends after the frame in hand and the file is finished.
#pragma once

namespace noxel::tool {

// SIGINT and SIGTERM ask for the end; a second one of the same kind ends the process at once. SIGPIPE becomes a write
// error.
void installInterruptHandlers();

bool stopRequested();

// What the handler does; for tests.
void requestStop(bool stop);

}  // namespace noxel::tool
