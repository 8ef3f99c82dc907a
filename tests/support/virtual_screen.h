// An X server of the test's own, and a look at what is on its screen.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>

#include "support/picture.h"

namespace noxel {

// Xvfb on a free display number, which DISPLAY names while it lives. 640 x 480, 24 bits, no window manager.
class VirtualScreen {
 public:
  VirtualScreen();
  ~VirtualScreen();
  VirtualScreen(const VirtualScreen&) = delete;
  VirtualScreen& operator=(const VirtualScreen&) = delete;

  bool runs() const { return display_ != nullptr; }

  // What a window of X11 shows, in its present size; it must not be covered. Empty while it is not on the screen.
  Picture capture(unsigned long window) const;

 private:
  pid_t server_ = -1;
  void* display_ = nullptr;  // Xlib's
};

// One screen for the whole program, as EGL's display stays connected to it, and a driver that draws on it. Without them
// every test is skipped, or fails where the environment says NOXEL_REQUIRE_GL=1.
class ScreenTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  void SetUp() override;

  static std::unique_ptr<VirtualScreen> screen;
  static bool driverDraws;
};

// Tries again until it holds or the time is over: what a window shows follows the call that drew it some time later.
bool eventually(const std::function<bool()>& holds, std::chrono::seconds limit = std::chrono::seconds(10));

}  // namespace noxel
