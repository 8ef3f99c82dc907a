// An SDL window on X11 for the engine to render into. SDL itself never draws.
#pragma once

#include <SDL_events.h>
#include <SDL_video.h>

#include <optional>
#include <string>

namespace noxel::tool {

// SDL's video subsystem. One at a time, on the thread that polls events. ToolError without an X11 display.
class SdlVideo {
 public:
  SdlVideo();
  ~SdlVideo();
  SdlVideo(const SdlVideo&) = delete;
  SdlVideo& operator=(const SdlVideo&) = delete;

 private:
  std::optional<std::string> eglPlatformBefore_;
};

struct Size {
  int width;
  int height;
};

// Scales `size` down to fit, keeping the aspect ratio.
Size fitInto(Size size, Size limit);

// Resizable. Needs an SdlVideo; an engine on it must be released first.
class SdlWindow {
 public:
  // Limited to the desktop's size.
  SdlWindow(const std::string& title, Size size);
  ~SdlWindow();
  SdlWindow(const SdlWindow&) = delete;
  SdlWindow& operator=(const SdlWindow&) = delete;

  void setTitle(const std::string& title) { SDL_SetWindowTitle(window_, title.c_str()); }
  SDL_Window* get() const { return window_; }
  unsigned long id() const;                                       // X11's
  void* native() const { return reinterpret_cast<void*>(id()); }  // as Noxel_InitializeWithWindow takes it

 private:
  SDL_Window* window_;
};

}  // namespace noxel::tool
