// Engines that render into windows.
#include <EGL/egl.h>
#include <SDL.h>

#include <array>
#include <atomic>
#include <thread>

#include "api/engine_control.h"
#include "noxel/noxel.h"
#include "support/virtual_screen.h"
#include "view/sdl_window.h"

namespace {

bool windowsHaveNoAlpha = false;

}  // namespace

// Imitates a driver that refuses configs with alpha for windows without; Mesa accepts them.
extern "C" {
EGLSurface __real_eglCreateWindowSurface(EGLDisplay, EGLConfig, EGLNativeWindowType, const EGLint*);
EGLSurface __wrap_eglCreateWindowSurface(EGLDisplay display, EGLConfig config, EGLNativeWindowType window,
                                         const EGLint* attributes) {
  EGLint alpha = 0;
  eglGetConfigAttrib(display, config, EGL_ALPHA_SIZE, &alpha);
  if (windowsHaveNoAlpha && alpha > 0) return EGL_NO_SURFACE;
  return __real_eglCreateWindowSurface(display, config, window, attributes);
}
}

namespace noxel {
namespace {

using tool::SdlVideo;
using tool::SdlWindow;

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr std::chrono::milliseconds kCameraInterval(33);

enum Chroma { kReddish, kBluish };

std::vector<unsigned char> flatFrame(Chroma chroma) {
  std::vector<unsigned char> frame(kWidth * kHeight * 3 / 2, 60);
  for (size_t i = kWidth * kHeight; i < frame.size(); i += 2) {
    frame[i] = chroma == kReddish ? 180 : 110;      // V
    frame[i + 1] = chroma == kReddish ? 110 : 180;  // U
  }
  return frame;
}

// An engine that renders one colour into a window.
class Stream {
 public:
  Stream(const SdlWindow& window, Chroma chroma, int mode = kModeEnhance, int lightMode = 0)
      : frame_(flatFrame(chroma)) {
    EXPECT_EQ(initializeEngine(kWidth, kHeight, mode, 2, 2, 0, window.native(), &engine_), 0);
    EXPECT_EQ(KRSetParameter(kParamLightMode, &lightMode, engine_), 0);
    EXPECT_TRUE(engineReady(engine_));
  }
  ~Stream() { release(); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  int process() { return Noxel_ProcessFrame(frame_.data(), engine_); }
  int release() {
    const int result = engine_ != nullptr ? Noxel_Release(&engine_) : 0;
    engine_ = nullptr;
    return result;
  }
  const std::vector<unsigned char>& frame() const { return frame_; }

 private:
  std::vector<unsigned char> frame_;
  _KRSuperResEngine* engine_ = nullptr;
};

// Checks two opposite corners; what is not drawn is black.
bool isFilledWith(const Picture& picture, Chroma chroma) {
  if (picture.rgba.empty()) return false;
  const int strong = chroma == kReddish ? 0 : 2;
  const auto shows = [&](int x, int y) { return picture.at(x, y, strong) > picture.at(x, y, 2 - strong) + 40; };
  return shows(1, 1) && shows(picture.width - 2, picture.height - 2);
}

class Window : public ScreenTest {
 protected:
  void SetUp() override {
    ScreenTest::SetUp();
    if (!IsSkipped() && !HasFatalFailure()) video_.emplace();
  }

  // Feeds frames until the window is filled with the colour and has this width.
  static bool comesToShow(const SdlWindow& window, Chroma chroma, std::initializer_list<Stream*> streams,
                          int width = kWidth) {
    return eventually([&] {
      SDL_PumpEvents();
      for (Stream* stream : streams) EXPECT_EQ(stream->process(), 0);
      std::this_thread::sleep_for(kCameraInterval);
      const Picture seen = screen->capture(window.id());
      return seen.width == width && isFilledWith(seen, chroma);
    });
  }

  std::optional<SdlVideo> video_;
};

TEST_F(Window, TwoEnginesDrawIntoTheirOwnWindowsAndEitherMayGoFirst) {
  const SdlWindow left("left", {kWidth, kHeight});
  const SdlWindow right("right", {kWidth, kHeight});
  SDL_SetWindowPosition(left.get(), 0, 0);
  SDL_SetWindowPosition(right.get(), 200, 0);
  Stream red(left, kReddish);
  Stream blue(right, kBluish);
  EXPECT_TRUE(comesToShow(left, kReddish, {&red, &blue}));
  EXPECT_TRUE(comesToShow(right, kBluish, {&red, &blue}));
  EXPECT_EQ(red.frame(), flatFrame(kReddish));

  // The display is shared: releasing one engine must not destroy the other's context.
  EXPECT_EQ(red.release(), 0);
  SDL_SetWindowSize(right.get(), kWidth + 20, kHeight + 20);
  EXPECT_TRUE(comesToShow(right, kBluish, {&blue}, kWidth + 20));
}

TEST_F(Window, NeedsNoAlphaAndIsFilledAfterEachResize) {
  const SdlWindow window("resized", {kWidth, kHeight});
  windowsHaveNoAlpha = true;
  Stream stream(window, kReddish);
  windowsHaveNoAlpha = false;
  for (const auto& [width, height] : {std::array{200, 90}, {31, 77}, {3, 3}, {kWidth, kHeight}}) {
    SDL_SetWindowSize(window.get(), width, height);
    EXPECT_TRUE(comesToShow(window, kReddish, {&stream}, width)) << width << " x " << height;
  }
}

TEST_F(Window, EveryModeDrawsIntoIt) {
  for (const auto& [mode, lightMode] : {std::pair{0, 0}, {0, 1}, {2, 0}, {2, 1}, {3, 0}, {5, 0}, {5, 1}}) {
    const SdlWindow window("mode", {kWidth, kHeight});
    Stream stream(window, kReddish, mode, lightMode);
    EXPECT_TRUE(comesToShow(window, kReddish, {&stream})) << "mode " << mode << ", light mode " << lightMode;
  }
}

TEST_F(Window, MayBeDestroyedUnderARunningEngine) {
  for (int round = 0; round < 3; ++round) {
    auto window = std::make_unique<SdlWindow>("doomed", tool::Size{kWidth, kHeight});
    Stream stream(*window, kBluish);
    std::atomic<int> processed = 0, refused = 0;
    std::thread camera([&] {
      while (processed < 40) {
        refused += stream.process();
        ++processed;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
    while (processed < 10) std::this_thread::yield();
    window.reset();
    camera.join();
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(stream.release(), 0);
  }

  const SdlWindow window("next", {kWidth, kHeight});
  Stream stream(window, kReddish);
  EXPECT_TRUE(comesToShow(window, kReddish, {&stream})) << "the driver still works";
}

}  // namespace
}  // namespace noxel
