// Which EGL display the engine renders on, and who may terminate it.
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

// Whether EGL counts the eglInitialize calls on this initialised display, so that an eglTerminate takes back one of them and
// no more: Android's EGL does, others with EGL_KHR_display_reference. Where it does not, eglTerminate ends every context on
// the display, other libraries' included.
bool displayCountsUsers(EGLDisplay display);

// For a display that is never terminated: keeps EGL loaded until the process ends, as an unloaded EGL would leave the
// driver's screen and threads behind, once more each time. Logs once why. Any thread.
void keepDisplay();

// The choice that engineDisplay() makes now, for a person to read: "android", "default (EGL_PLATFORM)",
// "default (DISPLAY)", "default (WAYLAND_DISPLAY)", "surfaceless" or "default".
const char* engineDisplayName();

// The library passes windows as plain pointers; EGL's own type is a pointer on Android and an integer elsewhere.
inline EGLNativeWindowType nativeWindow(void* window) {
  return (EGLNativeWindowType) reinterpret_cast<uintptr_t>(window);
}

}  // namespace noxel::platform
