#include "gl/runtime/driver_info.h"

#include <cstdio>

#include "gl/runtime/egl_engine.h"
#include "gl/runtime/gl.h"

namespace noxel {
namespace {

template <int kSize>
void copyText(char (&to)[kSize], const char* from) {
  std::snprintf(to, kSize, "%s", from != nullptr ? from : "");
}

const char* glText(GLenum name) {
  return reinterpret_cast<const char*>(glGetString(name));
}

}  // namespace

bool queryDriver(DriverInfo* info) {
  *info = {};
  EGLEngine egl;
  const bool usable = egl.Initialize(1, 1) == 1;
  if (usable) {
    copyText(info->eglVendor, eglQueryString(egl.display, EGL_VENDOR));
    copyText(info->eglVersion, eglQueryString(egl.display, EGL_VERSION));
    copyText(info->glVendor, glText(GL_VENDOR));
    copyText(info->glRenderer, glText(GL_RENDERER));
    copyText(info->glVersion, glText(GL_VERSION));
    glGetIntegerv(GL_NUM_PROGRAM_BINARY_FORMATS, &info->programBinaryFormats);
  }
  egl.Release();
  return usable;
}

}  // namespace noxel
