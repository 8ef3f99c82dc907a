#include "view/sdl_window.h"

#include <SDL.h>
#include <SDL_syswm.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

ToolError sdlError(const std::string& what) {
  return ToolError(kExitFailed, what + ": " + SDL_GetError());
}

Size desktopSize(Size fallback) {
  SDL_Rect bounds;
  if (SDL_GetDisplayUsableBounds(0, &bounds) != 0 || bounds.w < 1 || bounds.h < 1) return fallback;
  return {bounds.w, bounds.h};
}

}  // namespace

SdlVideo::SdlVideo() {
  SDL_SetMainReady();
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  SDL_SetHint(SDL_HINT_VIDEO_X11_NET_WM_BYPASS_COMPOSITOR, "0");
  // Not Wayland: the engine takes an X11 window id.
  SDL_SetHintWithPriority(SDL_HINT_VIDEODRIVER, "x11", SDL_HINT_OVERRIDE);
  if (SDL_Init(SDL_INIT_VIDEO) != 0) {
    const char* display = std::getenv("DISPLAY");
    if (display == nullptr || display[0] == '\0') {
      throw ToolError(kExitFailed, "no X11 display to open a window on; DISPLAY is not set");
    }
    throw sdlError(std::string("cannot open a window on the X11 display ") + display);
  }
  SDL_StopTextInput();  // an input method would swallow some keys
  // The engine must open the same kind of display as the window's.
  if (const char* before = std::getenv("EGL_PLATFORM"); before != nullptr) eglPlatformBefore_ = before;
  setenv("EGL_PLATFORM", "x11", 1);
}

SdlVideo::~SdlVideo() {
  SDL_Quit();
  if (eglPlatformBefore_) {
    setenv("EGL_PLATFORM", eglPlatformBefore_->c_str(), 1);
  } else {
    unsetenv("EGL_PLATFORM");
  }
}

Size fitInto(Size size, Size limit) {
  const double factor = std::min({1.0, static_cast<double>(limit.width) / size.width,  //
                                  static_cast<double>(limit.height) / size.height});
  const auto scaled = [factor](int length) { return std::max(1, static_cast<int>(std::lround(length * factor))); };
  return {scaled(size.width), scaled(size.height)};
}

SdlWindow::SdlWindow(const std::string& title, Size size) {
  const Size fitting = fitInto(size, desktopSize(size));
  window_ = SDL_CreateWindow(title.c_str(), SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, fitting.width,
                             fitting.height, SDL_WINDOW_RESIZABLE);
  if (window_ == nullptr) throw sdlError("cannot open a window");
}

SdlWindow::~SdlWindow() {
  SDL_DestroyWindow(window_);
}

unsigned long SdlWindow::id() const {
  SDL_SysWMinfo info;
  SDL_VERSION(&info.version);
  if (SDL_GetWindowWMInfo(window_, &info) != SDL_TRUE || info.subsystem != SDL_SYSWM_X11) {
    throw sdlError("the window is not an X11 window");
  }
  return info.info.x11.window;
}

}  // namespace noxel::tool
