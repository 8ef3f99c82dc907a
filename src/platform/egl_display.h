// Which EGL display the engine renders on.
#pragma once

#if !defined(EGL_NO_X11)
#define EGL_NO_X11 1
#endif
#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cstdint>

namespace noxel::platform {

// On Android the default display. Elsewhere the default display too, except that without a display server named in the
// environment (EGL_PLATFORM, WAYLAND_DISPLAY, DISPLAY all unset) it is the surfaceless platform where the EGL client has
// it: Mesa's default display fails to initialise there. May be EGL_NO_DISPLAY. Not initialised by this call.
EGLDisplay engineDisplay();

// The choice that engineDisplay() makes now, for a person to read: "android", "default (EGL_PLATFORM)",
// "default (DISPLAY)", "default (WAYLAND_DISPLAY)", "surfaceless" or "default".
const char* engineDisplayName();

// The library passes windows as plain pointers; EGL's own type is a pointer on Android and an integer elsewhere.
inline EGLNativeWindowType nativeWindow(void* window) {
  return (EGLNativeWindowType) reinterpret_cast<uintptr_t>(window);
}

}  // namespace noxel::platform
