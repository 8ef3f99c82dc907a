#include "support/virtual_screen.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "gl/runtime/driver_info.h"
#include "support/driver_required.h"

namespace noxel {
namespace {

constexpr int kStartMs = 15000;

// By default Xlib exits on an error, but a window may close during a capture.
int ignoreError(Display*, XErrorEvent*) {
  return 0;
}

// The display number, which the server writes when it listens; empty when it did not start.
std::string readNumber(int pipe) {
  std::string number;
  pollfd ready = {pipe, POLLIN, 0};
  char letter;
  while (poll(&ready, 1, kStartMs) == 1 && read(pipe, &letter, 1) == 1) {
    if (letter == '\n') return number;
    number += letter;
  }
  return "";
}

[[noreturn]] void becomeServer(int pipe, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // no server outlives a crashed test
  if (getppid() != parent) _exit(1);
  const int null = open("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, standard);
  const std::string number = std::to_string(pipe);
  execlp("Xvfb", "Xvfb", "-displayfd", number.c_str(), "-screen", "0", "640x480x24", "-nolisten", "tcp", nullptr);
  _exit(127);
}

}  // namespace

VirtualScreen::VirtualScreen() {
  int pipes[2];
  if (pipe(pipes) != 0) return;
  fcntl(pipes[0], F_SETFD, FD_CLOEXEC);
  const pid_t self = getpid();
  server_ = fork();
  if (server_ == 0) becomeServer(pipes[1], self);
  close(pipes[1]);
  const std::string number = server_ > 0 ? readNumber(pipes[0]) : "";
  close(pipes[0]);
  if (number.empty()) return;
  const std::string name = ":" + number;
  setenv("DISPLAY", name.c_str(), 1);
  XSetErrorHandler(ignoreError);
  display_ = XOpenDisplay(name.c_str());
}

VirtualScreen::~VirtualScreen() {
  if (display_ != nullptr) XCloseDisplay(static_cast<Display*>(display_));
  unsetenv("DISPLAY");
  if (server_ <= 0) return;
  kill(server_, SIGTERM);
  waitpid(server_, nullptr, 0);
}

Picture VirtualScreen::capture(unsigned long window) const {
  auto* display = static_cast<Display*>(display_);
  XWindowAttributes attributes;
  if (XGetWindowAttributes(display, window, &attributes) == 0 || attributes.map_state != IsViewable) return {};
  XImage* image = XGetImage(display, window, 0, 0, static_cast<unsigned>(attributes.width),
                            static_cast<unsigned>(attributes.height), AllPlanes, ZPixmap);
  if (image == nullptr) return {};
  Picture picture(attributes.width, attributes.height);
  for (int y = 0; y < picture.height; ++y) {
    for (int x = 0; x < picture.width; ++x) {
      const unsigned long pixel = XGetPixel(image, x, y);
      for (int c = 0; c < 3; ++c) picture.at(x, y, c) = static_cast<uint8_t>(pixel >> (16 - 8 * c));
    }
  }
  XDestroyImage(image);
  return picture;
}

Picture VirtualScreen::capture() const {
  return capture(DefaultRootWindow(static_cast<Display*>(display_)));
}

std::unique_ptr<VirtualScreen> ScreenTest::screen;
bool ScreenTest::driverDraws = false;

void ScreenTest::SetUpTestSuite() {
  if (screen != nullptr) return;
  screen = std::make_unique<VirtualScreen>();
  DriverInfo driver;
  driverDraws = screen->runs() && queryDriver(&driver);
}

void ScreenTest::SetUp() {
  if (driverDraws) return;
  const char* missing = screen->runs() ? "no OpenGL ES 3.0 on the screen" : "no Xvfb";
  ASSERT_FALSE(driverRequired()) << missing << ", and NOXEL_REQUIRE_GL is 1";
  GTEST_SKIP() << missing;
}

bool eventually(const std::function<bool()>& holds, std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace noxel
