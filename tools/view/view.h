// `noxel view`: a clip or camera, enhanced as it plays, in a window.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "noxel/enhancer.h"
#include "view/sdl_window.h"
#include "view/view_controls.h"
#include "view/view_source.h"

namespace noxel::tool {

struct ViewOptions {
  std::string input;   // a file, a camera, or "-": standard input
  std::string format;  // an FFmpeg input format; empty: detected
  LiveLook look;
  bool loop = false;
  bool exitAtEnd = false;
  bool verbose = false;
};

// An enhancer that draws into a window, which must outlive it.
class WindowEngine {
 public:
  WindowEngine(Size frame, const SdlWindow& window, int mode);
  ~WindowEngine();
  WindowEngine(const WindowEngine&) = delete;
  WindowEngine& operator=(const WindowEngine&) = delete;

  void set(const LiveLook& look);
  void show(uint8_t* nv21);  // leaves the frame unchanged
  // The next frame follows none.
  void cut() { timeUs_ += 1'000'000'000; }
  // Fewer than shown: frames are dropped while the engine is busy. To be asked about as often as frames are shown.
  uint64_t framesDrawn();

 private:
  const Size size_;
  noxel_enhancer* enhancer_ = nullptr;
  int64_t timeUs_ = 0;
  uint64_t drawn_ = 0;
};

// A clip plays by the steady clock and skips frames rather than lag; a device's frames are shown as they come. The last
// frame stays until the user quits, unless the options ask for a loop or an exit. One thread.
class Viewer {
 public:
  explicit Viewer(const ViewOptions& options);

  // Handles events, shows a frame if one is due, else waits a little. False when the viewer should close.
  bool step();

  const LiveLook& look() const { return look_; }
  bool live() const { return source_.live(); }
  bool paused() const { return paused_; }
  bool atEnd() const { return ended_; }
  int64_t framesShown() const { return framesShown_; }  // handed to the engine
  const SdlWindow& window() const { return window_; }

 private:
  using Clock = std::chrono::steady_clock;

  int waitMs() const;
  bool handle(const SDL_Event& event);
  void changeLook();
  void togglePause();
  void playLive();
  void playClip();
  void reachEnd();
  void showStill();
  void repaint(int frames);
  void show();
  void refreshTitle();

  const ViewOptions options_;
  ViewSource source_;
  SdlVideo video_;
  SdlWindow window_;
  WindowEngine engine_;
  LiveLook look_;
  std::vector<uint8_t> nv21_;  // latest frame

  PlaybackClock clock_;
  bool paused_ = false;
  bool exhausted_ = false;  // the latest frame is the last
  bool ended_ = false;      // and has been shown for its time
  Clock::time_point end_;   // when that will be
  int stillFrames_ = 0;     // how many more times to show the still picture
  Clock::time_point stillDue_;

  int64_t framesShown_ = 0;
  uint64_t drawnBefore_ = 0;  // frames drawn until rateStart_
  double rate_ = 0.0;         // frames drawn per second
  Clock::time_point rateStart_;
  bool titleStale_ = true;
};

// Returns the exit code, or throws a ToolError.
int runView(const ViewOptions& options);

}  // namespace noxel::tool
