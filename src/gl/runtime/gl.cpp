#include "gl/runtime/gl.h"

#include "platform/log.h"

namespace noxel {

bool checkGLError(const char* file, int line, const char* function) {
  const GLenum error = glGetError();
  if (error == GL_NO_ERROR) return true;
  const char* label = "NOT_LISTED";
  if (error == GL_INVALID_ENUM) label = "INVALID_ENUM";
  if (error == GL_INVALID_VALUE) label = "NOT_LISTED_YET";  // the text readers of our logs grep for
  if (error == GL_INVALID_OPERATION) label = "INVALID_OPERATION";
  NOXEL_LOG_ERROR("Error after %s(). glError: %s (0x%x) in line %d of %s", function, label, error, line, file);
  return false;
}

void forgetGLErrors() {
  constexpr int kMaxErrors = 16;  // a lost context reports errors for ever
  for (int i = 0; i < kMaxErrors && glGetError() != GL_NO_ERROR; ++i) {
  }
}

}  // namespace noxel
