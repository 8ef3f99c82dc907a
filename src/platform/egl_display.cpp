#include "platform/egl_display.h"

#include <cstdlib>
#include <cstring>

#include "platform/log.h"

namespace noxel::platform {

#if defined(__ANDROID__)

EGLDisplay engineDisplay() {
  return eglGetDisplay(EGL_DEFAULT_DISPLAY);
}

const char* engineDisplayName() {
  return "android";
}

#else

namespace {

bool isSet(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] != '\0';
}

// Whole words only, as every extension string is to be read.
bool hasWord(const char* words, const char* word) {
  const size_t length = std::strlen(word);
  for (const char* at = words; at != nullptr && *at != '\0';) {
    const size_t span = std::strcspn(at, " ");
    if (span == length && std::strncmp(at, word, length) == 0) return true;
    at += span;
    at += std::strspn(at, " ");
  }
  return false;
}

using GetPlatformDisplay = EGLDisplay (*)(EGLenum platform, void* nativeDisplay, const EGLint* attributes);

GetPlatformDisplay surfacelessEntryPoint() {
  if (isSet("EGL_PLATFORM") || isSet("WAYLAND_DISPLAY") || isSet("DISPLAY")) return nullptr;
  const char* extensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
  if (extensions == nullptr) {
    eglGetError();  // a client without EGL_EXT_client_extensions answers with EGL_BAD_DISPLAY
    return nullptr;
  }
  if (!hasWord(extensions, "EGL_MESA_platform_surfaceless")) return nullptr;
  if (!hasWord(extensions, "EGL_EXT_platform_base")) return nullptr;
  const auto found = reinterpret_cast<GetPlatformDisplay>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (found == nullptr) NOXEL_LOG_ERROR("could not find eglGetPlatformDisplayEXT");
  return found;
}

}  // namespace

EGLDisplay engineDisplay() {
  if (GetPlatformDisplay getPlatformDisplay = surfacelessEntryPoint(); getPlatformDisplay != nullptr) {
    return getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr, nullptr);
  }
  return eglGetDisplay(EGL_DEFAULT_DISPLAY);
}

const char* engineDisplayName() {
  if (isSet("EGL_PLATFORM")) return "default (EGL_PLATFORM)";
  if (isSet("WAYLAND_DISPLAY")) return "default (WAYLAND_DISPLAY)";
  if (isSet("DISPLAY")) return "default (DISPLAY)";
  return surfacelessEntryPoint() != nullptr ? "surfaceless" : "default";
}

#endif

}  // namespace noxel::platform
