#include "platform/egl_display.h"

#include <dlfcn.h>

#include <atomic>
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

bool displayCountsUsers(EGLDisplay /*display*/) {
  return true;
}

void keepDisplay() {}

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
using QueryDisplayAttribute = EGLBoolean (*)(EGLDisplay display, EGLint name, EGLAttrib* value);

bool clientHas(const char* extension) {
  const char* extensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
  if (extensions == nullptr) eglGetError();  // a client without EGL_EXT_client_extensions answers with EGL_BAD_DISPLAY
  return hasWord(extensions, extension);
}

GetPlatformDisplay surfacelessEntryPoint() {
  if (isSet("EGL_PLATFORM") || isSet("WAYLAND_DISPLAY") || isSet("DISPLAY")) return nullptr;
  if (!clientHas("EGL_MESA_platform_surfaceless") || !clientHas("EGL_EXT_platform_base")) return nullptr;
  const auto found = reinterpret_cast<GetPlatformDisplay>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (found == nullptr) NOXEL_LOG_ERROR("could not find eglGetPlatformDisplayEXT");
  return found;
}

}  // namespace

EGLDisplay engineDisplay() {
  if (GetPlatformDisplay getPlatformDisplay = surfacelessEntryPoint(); getPlatformDisplay != nullptr) {
    const EGLint counted[] = {EGL_TRACK_REFERENCES_KHR, EGL_TRUE, EGL_NONE};
    const EGLint* attributes = clientHas("EGL_KHR_display_reference") ? counted : nullptr;
    return getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr, attributes);
  }
  return eglGetDisplay(EGL_DEFAULT_DISPLAY);
}

const char* engineDisplayName() {
  if (isSet("EGL_PLATFORM")) return "default (EGL_PLATFORM)";
  if (isSet("WAYLAND_DISPLAY")) return "default (WAYLAND_DISPLAY)";
  if (isSet("DISPLAY")) return "default (DISPLAY)";
  return surfacelessEntryPoint() != nullptr ? "surfaceless" : "default";
}

bool displayCountsUsers(EGLDisplay display) {
  if (!clientHas("EGL_KHR_display_reference")) return false;
  const auto query = reinterpret_cast<QueryDisplayAttribute>(eglGetProcAddress("eglQueryDisplayAttribKHR"));
  EGLAttrib counts = EGL_FALSE;
  return query != nullptr && query(display, EGL_TRACK_REFERENCES_KHR, &counts) == EGL_TRUE && counts == EGL_TRUE;
}

void keepDisplay() {
  static std::atomic<bool> kept = false;
  if (kept.exchange(true, std::memory_order_relaxed)) return;
  // In an executable that links EGL itself the address is the executable's own: it cannot be opened, and needs no keeping.
  Dl_info egl = {};
  if (dladdr(reinterpret_cast<void*>(&eglGetCurrentContext), &egl) != 0) {
    (void)dlopen(egl.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
  }
  NOXEL_LOG_INFO("the EGL display stays initialised until the process ends: it may have other users");
}

#endif

}  // namespace noxel::platform
