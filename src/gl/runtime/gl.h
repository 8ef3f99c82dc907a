// OpenGL ES 3.0, and the check of its error word.
#pragma once

#include <GLES3/gl3.h>

namespace noxel {

// Reads one error: true when there was none; otherwise logs it with the place of the check and returns false.
bool checkGLError(const char* file, int line, const char* function);

// Clears the error word, so that the next error belongs to the calls that follow.
void forgetGLErrors();

}  // namespace noxel

#define NOXEL_CHECK_GL(function) ::noxel::checkGLError(__FILE_NAME__, __LINE__, function)
