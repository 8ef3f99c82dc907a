// OpenGL ES 3.0, and the check of its error word.
#pragma once

#include <GLES3/gl3.h>

namespace noxel {

// Reads one error: true when there was none; otherwise logs it with the place it was noticed at and returns false.
bool checkGLError(const char* file, int line, const char* function);

// Takes what errors there are, so that the next one is of what comes next.
void forgetGLErrors();

}  // namespace noxel

#define NOXEL_CHECK_GL(function) ::noxel::checkGLError(__FILE_NAME__, __LINE__, function)
