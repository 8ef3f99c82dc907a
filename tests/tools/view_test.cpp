#include "view/view.h"

#include <SDL.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "clips.h"
#include "common/interrupt.h"
#include "common/tool_error.h"
#include "run_command.h"
#include "support/virtual_screen.h"

namespace noxel::tool {
namespace {

constexpr int kWidth = 96;
constexpr int kHeight = 64;

struct Colour {
  int y, u, v;
};
// Top left, top right, bottom left, bottom right: dark red, green, blue and grey.
constexpr Colour kQuarters[] = {{60, 110, 170}, {60, 105, 100}, {60, 160, 115}, {50, 128, 128}};

std::array<int, 3> toRgb(const Colour& colour) {
  const double u = colour.u - 128;
  const double v = colour.v - 128;
  const auto code = [](double value) { return static_cast<int>(std::lround(std::clamp(value, 0.0, 255.0))); };
  return {code(colour.y + 1.402 * v), code(colour.y - 0.344136 * u - 0.714136 * v), code(colour.y + 1.772 * u)};
}

FramePtr quartered() {
  FramePtr frame = flatPlanar(kWidth, kHeight, 0, 0, 0);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const Colour& colour = kQuarters[2 * (2 * y / kHeight) + 2 * x / kWidth];
      sample(*frame, 0, x, y) = static_cast<uint8_t>(colour.y);
      sample(*frame, 1, x / 2, y / 2) = static_cast<uint8_t>(colour.u);
      sample(*frame, 2, x / 2, y / 2) = static_cast<uint8_t>(colour.v);
    }
  }
  return frame;
}

ClipSpec quarteredClip(int frames) {
  ClipSpec spec;
  spec.width = kWidth;
  spec.height = kHeight;
  spec.times.clear();
  for (int i = 0; i < frames; ++i) spec.times.push_back(40 * i);
  spec.picture = [](int) { return quartered(); };
  return spec;
}

// The colour at the centre of a quarter of the window.
std::array<int, 3> seenIn(const Picture& picture, int quarter) {
  const int x = picture.width * (quarter % 2 == 0 ? 1 : 3) / 4;
  const int y = picture.height * (quarter / 2 == 0 ? 1 : 3) / 4;
  return {picture.at(x, y, 0), picture.at(x, y, 1), picture.at(x, y, 2)};
}

int brightness(const std::array<int, 3>& rgb) {
  return rgb[0] + rgb[1] + rgb[2];
}

// Six codes: coding error on flat areas, two roundings, and a weight of up to 1.8 on chroma.
bool isUntouched(const Picture& seen, int where, int quarter) {
  const std::array<int, 3> wanted = toRgb(kQuarters[quarter]);
  const std::array<int, 3> rgb = seenIn(seen, where);
  for (int c = 0; c < 3; ++c) {
    if (std::abs(rgb[c] - wanted[c]) > 6) return false;
  }
  return true;
}

// At least 1.5 times as bright with the same strongest channel; grey stays grey within the same six codes.
bool isEnhanced(const Picture& seen, int where, int quarter) {
  const std::array<int, 3> before = toRgb(kQuarters[quarter]);
  const std::array<int, 3> rgb = seenIn(seen, where);
  if (2 * brightness(rgb) < 3 * brightness(before)) return false;
  const auto [min, max] = std::minmax_element(rgb.begin(), rgb.end());
  if (quarter == 3) return *max - *min <= 6;
  return max - rgb.begin() == std::max_element(before.begin(), before.end()) - before.begin() && *max - *min > 40;
}

std::string colours(const Picture& picture) {
  std::ostringstream text;
  text << picture.width << " x " << picture.height;
  for (int quarter = 0; quarter < 4 && !picture.rgba.empty(); ++quarter) {
    const std::array<int, 3> rgb = seenIn(picture, quarter);
    text << "  " << rgb[0] << ',' << rgb[1] << ',' << rgb[2];
  }
  return text.str();
}

class View : public ScreenTest {
 protected:
  View() {
    options_.input = folder_.file("quarters.mkv");
    options_.loop = true;
    writeClip(options_.input, quarteredClip(50));
  }
  ~View() override { requestStop(false); }

  // Plays until the window looks as wanted.
  ::testing::AssertionResult comesToShow(Viewer& viewer, const std::function<bool(const Picture&)>& wanted) {
    Picture seen;
    const bool shown = playsUntil(viewer, [&] { return wanted(seen = screen->capture(viewer.window().id())); });
    return shown ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "shows " << colours(seen);
  }

  static bool playsUntil(Viewer& viewer, const std::function<bool()>& holds) {
    return eventually([&] { return !viewer.step() || holds(); }) && holds();
  }

  static void press(std::initializer_list<SDL_Keycode> keys) {
    for (const SDL_Keycode key : keys) {
      SDL_Event event = {};
      event.type = SDL_KEYDOWN;
      event.key.state = SDL_PRESSED;
      event.key.keysym.sym = key;
      SDL_PushEvent(&event);
    }
  }

  static double secondsToTheEnd(Viewer& viewer) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(playsUntil(viewer, [&] { return viewer.atEnd(); }));
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  static std::string title(const Viewer& viewer) { return SDL_GetWindowTitle(viewer.window().get()); }

  const TemporaryDirectory folder_;
  ViewOptions options_;
};

TEST_F(View, ShowsTheClipEnhancedAndInASplitHalfOriginal) {
  for (const auto& [mode, spatial] : {std::pair{1, false}, {1, true}, {5, false}, {5, true}}) {
    SCOPED_TRACE(mode);
    options_.look.engineMode = mode;
    options_.look.spatial = spatial;
    Viewer viewer(options_);
    EXPECT_TRUE(comesToShow(viewer, [](const Picture& seen) {
      return seen.width == kWidth && seen.height == kHeight && isEnhanced(seen, 0, 0) && isEnhanced(seen, 1, 1) &&
             isEnhanced(seen, 2, 2) && isEnhanced(seen, 3, 3);
    })) << spatial;
    press({SDLK_s, SDLK_f, SDLK_b});
    EXPECT_TRUE(comesToShow(viewer, [](const Picture& seen) {
      return isEnhanced(seen, 0, 0) && isUntouched(seen, 1, 1) && isEnhanced(seen, 2, 2) && isUntouched(seen, 3, 3);
    })) << spatial;
    EXPECT_EQ(viewer.look().quality, mode == 5 ? kBest : kBalanced);
  }
}

TEST_F(View, TurnsAClipUpright) {
  ClipSpec spec = quarteredClip(50);
  spec.rotated = true;             // clockwise, as FFmpeg's own player turns it
  spec.video = AV_CODEC_ID_MJPEG;  // full range by itself; MP4 does not tag it
  options_.input = folder_.file("turned.mp4");
  writeClip(options_.input, spec);
  options_.look.split = true;
  Viewer viewer(options_);
  EXPECT_TRUE(comesToShow(viewer, [](const Picture& seen) {
    return seen.width == kHeight && seen.height == kWidth && isEnhanced(seen, 0, 2) && isUntouched(seen, 1, 0) &&
           isEnhanced(seen, 2, 3) && isUntouched(seen, 3, 1);
  }));
}

TEST_F(View, TheTitleShowsFramesPerSecondAndLook) {
  Viewer viewer(options_);
  EXPECT_TRUE(playsUntil(viewer, [&] {
    return title(viewer).ends_with(" fps - temporal, balanced, strength 50, exposure 50") &&
           title(viewer).find(" 0 fps") == std::string::npos;
  })) << title(viewer);
  press({SDLK_SPACE, SDLK_d, SDLK_UP, SDLK_e, SDLK_b, SDLK_f, SDLK_f});
  ASSERT_TRUE(viewer.step());
  EXPECT_EQ(title(viewer), "quarters.mkv - paused - spatial, fast, strength 55, exposure 75");
  press({SDLK_d, SDLK_s});
  ASSERT_TRUE(viewer.step());
  EXPECT_EQ(title(viewer), "quarters.mkv - paused - temporal, fast, strength 55, exposure 75, stabilised, split");
}

TEST_F(View, APausedPictureFollowsKeysAndWindowSizeUntilSpace) {
  Viewer viewer(options_);
  ASSERT_TRUE(playsUntil(viewer, [&] { return viewer.framesShown() > 5; }));
  press({SDLK_SPACE, SDLK_s});
  ASSERT_TRUE(viewer.step());
  EXPECT_TRUE(viewer.paused());
  const int64_t shown = viewer.framesShown();
  EXPECT_TRUE(
      comesToShow(viewer, [](const Picture& seen) { return isEnhanced(seen, 0, 0) && isUntouched(seen, 1, 1); }));
  SDL_SetWindowSize(viewer.window().get(), 150, 120);
  EXPECT_TRUE(comesToShow(viewer, [](const Picture& seen) {
    return seen.width == 150 && isEnhanced(seen, 0, 0) && isUntouched(seen, 3, 3);
  }));
  EXPECT_EQ(viewer.framesShown(), shown);

  press({SDLK_SPACE});
  EXPECT_TRUE(playsUntil(viewer, [&] { return viewer.framesShown() > shown + 3; }));
  press({SDLK_ESCAPE});
  EXPECT_FALSE(viewer.step());
}

TEST_F(View, PlaysInRealTimeAndSpaceRestartsItAtTheEnd) {
  constexpr int kFrames = 15;
  writeClip(options_.input, quarteredClip(kFrames));
  options_.loop = false;
  Viewer viewer(options_);
  EXPECT_GE(secondsToTheEnd(viewer), 0.04 * kFrames);
  EXPECT_LE(viewer.framesShown(), kFrames);
  EXPECT_GE(viewer.framesShown(), 2) << "a busy machine skips frames, but not all";
  EXPECT_TRUE(comesToShow(viewer, [](const Picture& seen) { return brightness(seenIn(seen, 0)) > 0; }));

  const int64_t shown = viewer.framesShown();
  press({SDLK_SPACE});
  EXPECT_TRUE(playsUntil(viewer, [&] { return viewer.framesShown() > shown; }));
  EXPECT_FALSE(viewer.atEnd());
}

TEST_F(View, SkipsLateFrames) {
  options_.loop = false;
  Viewer viewer(options_);
  ASSERT_TRUE(playsUntil(viewer, [&] { return viewer.framesShown() > 0; }));
  SDL_Delay(600);  // 15 frames become due
  const int64_t shown = viewer.framesShown();
  ASSERT_TRUE(viewer.step());
  EXPECT_LE(viewer.framesShown(), shown + 1);
  // Of the clip's 2.0 s 1.4 are left; without skipping the rest would take 1.96.
  EXPECT_LT(secondsToTheEnd(viewer), 1.7);
  EXPECT_LE(viewer.framesShown(), 40);
}

TEST_F(View, ShowsALiveDeviceUntilStopped) {
  options_.input = std::getenv("DISPLAY");
  options_.format = "x11grab";
  options_.loop = false;
  options_.look.spatial = true;
  Viewer viewer(options_);
  EXPECT_TRUE(playsUntil(viewer, [&] { return viewer.framesShown() >= 5; }));
  press({SDLK_SPACE});
  ASSERT_TRUE(viewer.step());
  const int64_t shown = viewer.framesShown();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(viewer.step());
  EXPECT_EQ(viewer.framesShown(), shown);
  requestStop(true);
  EXPECT_FALSE(viewer.step());
}

TEST_F(View, CommandReturnsExitCodes) {
  writeClip(options_.input, quarteredClip(5));
  const std::string clip = options_.input;
  const std::pair<std::string, int> cases[] = {{clip + " --exit --split --exposure 0 --quality fast", kExitFine},
                                               {clip + " --exit --stabilize --engine-mode 1", kExitFine},
                                               {clip + " --engine-mode 4", kExitUsage},
                                               {clip + " --engine-mode 1 --quality fast", kExitUsage},
                                               {"--format lavfi testsrc=size=50x38:duration=0.2 --exit", kExitFine},
                                               {"--format no-such-kind x", kExitUnreadable},
                                               {"/dev/video-none", kExitUnreadable},
                                               {clip + " --denoise spatial --stabilize", kExitUsage},
                                               {clip + " --loop --exit", kExitUsage},
                                               {"- --loop", kExitUsage}};
  for (const auto& [arguments, code] : cases)
    EXPECT_EQ(noxel(folder_, "view " + arguments).exitCode, code) << arguments;
  const Outcome withoutDisplay = noxel(folder_, "view " + clip, "env -u DISPLAY");
  EXPECT_EQ(withoutDisplay.exitCode, kExitFailed);
  EXPECT_NE(withoutDisplay.error.find("DISPLAY is not set"), std::string::npos) << withoutDisplay.error;
  const std::string noDriver = "__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent";
  EXPECT_EQ(noxel(folder_, "view " + clip + " --exit", noDriver).exitCode, kExitNoGl);
}

TEST(ViewControls, StrengthAloneRepeatsAndStaysInRange) {
  LiveLook look;
  look.strength = 98;
  look.exposure = 30;
  EXPECT_EQ(press(SDLK_UP, true, look), Press::kLookChanged);
  EXPECT_EQ(look.strength, 100);
  for (int i = 0; i < 21; ++i) press(SDLK_DOWN, true, look);
  EXPECT_EQ(look.strength, 0);
  EXPECT_EQ(press(SDLK_s, true, look), Press::kNothing);
  EXPECT_FALSE(look.split);
  std::vector<int> exposures;
  for (int i = 0; i < 5; ++i) {
    press(SDLK_e, false, look);
    exposures.push_back(look.exposure);
  }
  EXPECT_EQ(exposures, (std::vector<int>{50, 75, 100, 0, 25}));
}

TEST(ViewControls, ALargeClipIsScaledToFitTheDesktop) {
  const Size landscape = fitInto({3840, 2160}, {1920, 1000});
  EXPECT_EQ(landscape.height, 1000);
  EXPECT_NEAR(landscape.width, 1000 * 16 / 9, 1);
  EXPECT_EQ(fitInto({1080, 1920}, {1920, 1080}).height, 1080);
  EXPECT_EQ(fitInto({64, 48}, {1920, 1080}).width, 64) << "a small one is not scaled";
}

}  // namespace
}  // namespace noxel::tool
