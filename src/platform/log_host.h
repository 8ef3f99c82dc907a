// The host's own log.
#pragma once

#include <cstdarg>

namespace noxel::platform {

// A line that no engine's target takes. Any thread.
void printToHost(int priority, const char* tag, const char* format, va_list arguments);

}  // namespace noxel::platform
