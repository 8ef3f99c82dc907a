#include "view/view.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "common/engine_log.h"
#include "common/interrupt.h"
#include "common/program_cache_path.h"
#include "common/tool_error.h"
#include "enhance/look.h"
#include "media/nv21_frame.h"

namespace noxel::tool {
namespace {

using std::chrono::milliseconds;

constexpr int64_t kCameraIntervalUs = 33'000;  // however long a frame is shown: a skipped one or a pause is no cut
constexpr milliseconds kIdle(100);             // max delay until a signal is noticed
constexpr milliseconds kRateSpan(500);         // frames per second are measured over this
constexpr milliseconds kStillInterval(33);
constexpr milliseconds kMaxLag(1000);  // beyond it skipping does not help: play more slowly
constexpr int kMaxSkipped = 10;        // in a row
constexpr int kRepaintFrames = 2;      // the surface may take the window's new size one frame late
constexpr int kSettleFrames = 30;      // exposure eases by 0.2 per frame, twice: within about a hundredth after 30

// x, y of top left, bottom left, top right, bottom right.
constexpr float kWhole[8] = {-1, 1, -1, -1, 1, 1, 1, -1};
constexpr float kLeftHalf[8] = {-1, 1, -1, -1, 0, 1, 0, -1};
constexpr float kRightHalf[8] = {0, 1, 0, -1, 1, 1, 1, -1};

std::string nameOf(const std::string& input) {
  if (input == "-") return "standard input";
  const std::string name = std::filesystem::path(input).filename();
  return name.empty() ? input : name;
}

}  // namespace

WindowEngine::WindowEngine(Size frame, const SdlWindow& window, int mode) : size_(frame) {
  const std::string cache = programCacheDirectory();
  noxel_config config;
  noxel_config_init(&config, sizeof(config), frame.width, frame.height);
  config.mode = mode;
  config.delivery = NOXEL_LIVE;
  config.window = window.native();
  config.log = EngineLog::receive;
  config.cache_directory = cache.empty() ? nullptr : cache.c_str();
  const int result = noxel_create(&config, &enhancer_);
  if (result == NOXEL_OK) return;
  const std::string size = std::to_string(frame.width) + "x" + std::to_string(frame.height);
  if (result == NOXEL_ERROR_NO_GL)
    throw ToolError(kExitNoGl, "no usable OpenGL ES 3.0 in a window for frames of " + size);
  throw ToolError(kExitFailed, "cannot make an engine for frames of " + size);
}

WindowEngine::~WindowEngine() {
  noxel_free(&enhancer_);
}

void WindowEngine::set(const LiveLook& look) {
  const std::pair<int, double> settings[] = {
      {NOXEL_PER_FRAME, look.spatial ? 1 : 0},   {NOXEL_QUALITY, look.quality},
      {NOXEL_STRENGTH, look.strength},           {NOXEL_EXPOSURE, look.exposure},
      {NOXEL_STABILIZE, look.stabilize ? 1 : 0}, {NOXEL_DEGHOSTING, kDefaultDeghosting}};
  for (const auto& [setting, value] : settings) noxel_set(enhancer_, setting, value);
  noxel_set_corners(enhancer_, NOXEL_PICTURE_ENHANCED, look.split ? kLeftHalf : kWhole);
  noxel_set_corners(enhancer_, NOXEL_PICTURE_AS_IT_CAME, look.split ? kRightHalf : nullptr);
}

void WindowEngine::show(uint8_t* nv21) {
  noxel_frame frame;
  noxel_frame_init(&frame, sizeof(frame));
  frame.format = NOXEL_PLANES_NV21;
  frame.range = NOXEL_RANGE_FULL;
  frame.planes[0] = nv21;
  frame.planes[1] = nv21 + static_cast<ptrdiff_t>(size_.width) * size_.height;
  frame.strides[0] = frame.strides[1] = size_.width;
  frame.time_us = timeUs_ += kCameraIntervalUs;
  if (noxel_send(enhancer_, &frame) < NOXEL_OK) throw ToolError(kExitFailed, "the engine refused a frame");
}

uint64_t WindowEngine::framesDrawn() {
  while (noxel_receive(enhancer_, nullptr, nullptr) == NOXEL_OK) ++drawn_;
  return drawn_;
}

Viewer::Viewer(const ViewOptions& options)
    : options_(options),
      source_(options.input, options.format),
      window_(nameOf(options.input), {source_.displayWidth(), source_.displayHeight()}),
      engine_({source_.width(), source_.height()}, window_, options.look.engineMode),
      look_(options.look),
      nv21_(nv21Size(source_.width(), source_.height())) {
  engine_.set(look_);
  rateStart_ = Clock::now();
  clock_.start(rateStart_, source_.timeUs());
}

bool Viewer::step() {
  SDL_Event event;
  for (int wait = waitMs(); SDL_WaitEventTimeout(&event, wait) == 1; wait = 0) {
    if (!handle(event)) return false;
  }
  if (stopRequested()) return false;
  if (source_.live() && !ended_) {
    playLive();
  } else if (!paused_ && !ended_) {
    playClip();
  } else {
    showStill();
  }
  refreshTitle();
  return !(ended_ && options_.exitAtEnd);
}

int Viewer::waitMs() const {
  if (source_.live() && !ended_) return 0;  // reading the device waits
  Clock::time_point until = Clock::now() + kIdle;
  if (!paused_ && !ended_) {
    until = std::min(until, exhausted_ ? end_ : clock_.due(source_.timeUs()));
  } else if (stillFrames_ > 0) {
    until = std::min(until, stillDue_);
  }
  const auto wait = std::chrono::ceil<milliseconds>(until - Clock::now());
  return std::max(0, static_cast<int>(wait.count()));
}

bool Viewer::handle(const SDL_Event& event) {
  switch (event.type) {
    case SDL_QUIT:
      return false;
    case SDL_WINDOWEVENT:
      if (event.window.event == SDL_WINDOWEVENT_CLOSE) return false;
      if (event.window.event == SDL_WINDOWEVENT_EXPOSED || event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED) {
        repaint(kRepaintFrames);
      }
      return true;
    case SDL_KEYDOWN:
      switch (press(event.key.keysym.sym, event.key.repeat != 0, look_)) {
        case Press::kNothing:
          return true;
        case Press::kLookChanged:
          changeLook();
          return true;
        case Press::kPause:
          togglePause();
          return true;
        case Press::kQuit:
          return false;
      }
      return true;
    default:
      return true;
  }
}

void Viewer::changeLook() {
  engine_.set(look_);
  repaint(kSettleFrames);
  titleStale_ = true;
}

void Viewer::togglePause() {
  titleStale_ = true;
  if (ended_) {
    if (!source_.canRestart()) return;
    source_.restart();
    engine_.cut();
    exhausted_ = ended_ = false;
  } else {
    paused_ = !paused_;
  }
  clock_.start(Clock::now(), source_.timeUs());
}

// Reads on while paused, so that the device's queue holds no stale frames afterwards.
void Viewer::playLive() {
  if (paused_) {
    showStill();
  } else {
    show();
  }
  if (!source_.advance()) ended_ = exhausted_ = titleStale_ = true;
}

void Viewer::playClip() {
  const Clock::time_point now = Clock::now();
  if (exhausted_) {
    if (now >= end_) reachEnd();
    return;
  }
  if (now < clock_.due(source_.timeUs())) return;
  const std::chrono::microseconds interval(source_.intervalUs());
  for (int skipped = 0; skipped < kMaxSkipped && now - clock_.due(source_.timeUs()) > interval; ++skipped) {
    if (!source_.advance()) {
      exhausted_ = true;
      break;
    }
  }
  if (now - clock_.due(source_.timeUs()) > kMaxLag) clock_.start(now, source_.timeUs());
  show();
  end_ = clock_.due(source_.timeUs()) + interval;
  exhausted_ = exhausted_ || !source_.advance();
}

void Viewer::reachEnd() {
  if (options_.loop) {
    source_.restart();
    engine_.cut();
    exhausted_ = false;
    clock_.start(Clock::now(), source_.timeUs());
    return;
  }
  ended_ = titleStale_ = true;
}

// A still picture is processed again only after a change.
void Viewer::showStill() {
  if (stillFrames_ == 0 || framesShown_ == 0 || Clock::now() < stillDue_) return;
  engine_.show(nv21_.data());
  --stillFrames_;
  stillDue_ = Clock::now() + kStillInterval;
}

void Viewer::repaint(int frames) {
  stillFrames_ = std::max(stillFrames_, frames);
}

void Viewer::show() {
  source_.pack(nv21_.data());
  engine_.show(nv21_.data());
  engine_.framesDrawn();  // takes note of those that are done
  ++framesShown_;
  stillFrames_ = kRepaintFrames;  // in case playback stops here and the engine dropped this frame
}

void Viewer::refreshTitle() {
  const Clock::time_point now = Clock::now();
  if (const auto span = now - rateStart_; span >= kRateSpan) {
    const uint64_t drawn = engine_.framesDrawn();
    rate_ = static_cast<double>(drawn - drawnBefore_) / std::chrono::duration<double>(span).count();
    drawnBefore_ = drawn;
    rateStart_ = now;
    titleStale_ = true;
  }
  if (!titleStale_) return;
  titleStale_ = false;
  char rate[32];
  std::snprintf(rate, sizeof(rate), "%.0f fps", rate_);
  const std::string progress = ended_ ? "end" : paused_ ? "paused" : rate;
  window_.setTitle(nameOf(options_.input) + " - " + progress + " - " + describe(look_));
}

int runView(const ViewOptions& options) {
  if (options.look.spatial && options.look.stabilize) {
    throw ToolError(kExitUsage, "--stabilize has no effect with --denoise spatial");
  }
  if (options.loop && options.input == "-") {
    throw ToolError(kExitUsage, "--loop needs a file, standard input cannot be read again");
  }
  Viewer viewer(options);
  if (options.loop && viewer.live()) throw ToolError(kExitUsage, "--loop is for clips; a device has no end");
  while (viewer.step()) {
  }
  return kExitFine;
}

}  // namespace noxel::tool
