// An X server for tests, and screenshots of its windows.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>

#include "support/picture.h"

namespace noxel {

// Xvfb on a free display number, with DISPLAY set to it. 640 x 480, 24-bit, no window manager.
class VirtualScreen {
 public:
  VirtualScreen();
  ~VirtualScreen();
  VirtualScreen(const VirtualScreen&) = delete;
  VirtualScreen& operator=(const VirtualScreen&) = delete;

  bool runs() const { return display_ != nullptr; }

  // Screenshot of an X11 window, which must not be covered. Empty while it is not mapped.
  Picture capture(unsigned long window) const;
  // Of the whole screen.
  Picture capture() const;

 private:
  pid_t server_ = -1;
  void* display_ = nullptr;  // Xlib's
};

// One screen for the whole program, as EGL's display stays connected to it. Without Xvfb or a driver every test is skipped,
// or fails with NOXEL_REQUIRE_GL=1.
class ScreenTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  void SetUp() override;

  static std::unique_ptr<VirtualScreen> screen;
  static bool driverDraws;
};

// Polls until `holds` or the limit: a window shows a frame some time after the call that drew it.
bool eventually(const std::function<bool()>& holds, std::chrono::seconds limit = std::chrono::seconds(10));

}  // namespace noxel
