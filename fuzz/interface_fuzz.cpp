// The whole interface, and the functions behind it, as a sequence of calls that the input spells out: up to three engines
// at once, live, stale and made-up handles, sizes, modes and parameters of every kind.
//
// Checked: what each call returns, that no byte around a frame is touched, nor the frame where the header says so, and
// that a frame right after a break comes back as it went in.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "api/engine_control.h"
#include "fuzz_input.h"
#include "platform/cache_directory.h"
#include "platform/frame_clock.h"
#include "platform/log.h"
#include "registration/registration_state.h"
#include "support/driver_required.h"
#include "support/temporary_directory.h"

namespace {

using namespace noxel;
using fuzz::Input;

constexpr int kSlots = 3;
constexpr int kMaxCalls = 48;
constexpr int kMaxEngines = 5;       // an input; each compiles its programs
constexpr int kMaxPixels = 96 * 64;  // the tracker finds a motion from about 64 x 48 on
constexpr int kFormats[] = {NOXEL_FORMAT_NV21, NOXEL_FORMAT_YV12, 1, 0, -1};
constexpr size_t kGuard = 64;
constexpr uint8_t kCanary = 0xA5;

struct Engine {
  _KRSuperResEngine* handle = nullptr;  // stays after release, as the caller's does
  bool live = false;
  int width = 0;
  int height = 0;
  int mode = kModeEnhance;
  int outputDelay = 2;
  int ringSlots = 2;
  int sync = 0;
  int format = NOXEL_FORMAT_NV21;
  bool fresh = true;  // no frame so far
};

// Whether the call's result is the engine's own when it returns, and with it all that is noted about the frame.
bool isBlocking(const Engine& engine) {
  return engine.sync == 1 && engine.ringSlots <= 1 && engine.outputDelay <= 1;
}

std::atomic<int64_t> clockMicroseconds = int64_t{1'700'000'000} * 1'000'000;

void setUpProcess() {
  static bool done = false;
  if (done) return;
  done = true;
  setenv("PERSIST_CAMERA_RTSP_LOG", "1", 1);  // every line is formatted, and goes nowhere
  platform::setLogLevel(2);
  platform::setLogSink([](void*, int, const char*, const char*) {}, nullptr);
  static const TemporaryDirectory cache;
  platform::setProgramCacheDirectory(cache.path().c_str());
  platform::setFrameClock(
      [](void*) {
        const int64_t now = clockMicroseconds.load();
        return platform::TimeOfDay{now / 1'000'000, now % 1'000'000};
      },
      nullptr);
}

// Value noise on a grid of eight pixels: a scene that the tracker can follow when it is painted somewhere else.
uint8_t sceneAt(uint64_t seed, size_t x, size_t y) {
  const auto corner = [seed](size_t column, size_t row) {
    const uint64_t mixed = (seed + column * 0x9E3779B97F4A7C15u + row * 0xC2B2AE3D27D4EB4Fu) * 0xFF51AFD7ED558CCDu;
    return static_cast<size_t>(mixed >> 56);
  };
  const size_t column = x / 8, row = y / 8, right = x % 8, down = y % 8;
  const size_t upper = corner(column, row) * (8 - right) + corner(column + 1, row) * right;
  const size_t lower = corner(column, row + 1) * (8 - right) + corner(column + 1, row + 1) * right;
  return static_cast<uint8_t>((upper * (8 - down) + lower * down) / 64);
}

// A frame between guards, and a copy of both.
class GuardedFrame {
 public:
  GuardedFrame(int width, size_t size, size_t misalignment, Input* input)
      : size_(size), offset_(kGuard + misalignment), bytes_(size + 2 * kGuard + misalignment, kCanary) {
    const auto seed = uint64_t{input->byte()};
    const size_t shift = input->byte();
    const auto columns = static_cast<size_t>(width);
    for (size_t i = 0; i < size; ++i) {
      bytes_[offset_ + i] = sceneAt(seed, i % columns + shift % 16, i / columns + shift / 16);
    }
    before_ = bytes_;
  }
  uint8_t* pixels() { return bytes_.data() + offset_; }
  bool untouched() const { return bytes_ == before_; }
  bool guardsHold() const {
    const auto isCanary = [](uint8_t byte) { return byte == kCanary; };
    return std::all_of(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(offset_), isCanary) &&
           std::all_of(bytes_.begin() + static_cast<ptrdiff_t>(offset_ + size_), bytes_.end(), isCanary);
  }

 private:
  size_t size_;
  size_t offset_;
  std::vector<uint8_t> bytes_;
  std::vector<uint8_t> before_;
};

class Session {
 public:
  explicit Session(Input* input) : input_(input) { clockMicroseconds += 10'000'000; }
  ~Session() {
    for (Engine& engine : engines_) {
      if (engine.live) release(&engine);
    }
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void call();

 private:
  Engine* slot() { return &engines_[input_->below(kSlots)]; }
  // A stale handle may be a live engine's again: memory is used twice.
  Engine* behind(const _KRSuperResEngine* handle) {
    for (Engine& engine : engines_) {
      if (engine.live && engine.handle == handle) return &engine;
    }
    return nullptr;
  }
  _KRSuperResEngine* anyHandle();
  int side();
  void initialize(bool publicCall);
  void release(Engine* engine);
  void releaseAny();
  void setParameter(_KRSuperResEngine* handle, bool publicCall);
  void advanceClock();
  void process(_KRSuperResEngine* handle);
  void processBesideOthers();
  void inspect();

  Input* input_;
  Engine engines_[kSlots];
  int made_ = 0;
  bool broken_ = false;  // the clock's last step was a break whatever came before
};

_KRSuperResEngine* Session::anyHandle() {
  const int kind = input_->below(16);
  if (kind == 0) return nullptr;
  if (kind == 1) return reinterpret_cast<_KRSuperResEngine*>(input_->take<uintptr_t>());
  return engines_[kind % kSlots].handle;
}

int Session::side() {
  constexpr int kOdd[] = {0, -1, INT32_MIN, INT32_MAX, 46341, 23170, 1000, 1001, 1300};
  const int kind = input_->byte();
  return kind < 9 ? kOdd[kind] : 1 + kind % 96;
}

void Session::initialize(bool publicCall) {
  Engine engine;
  engine.width = side();
  engine.height = side();
  const bool fits = engine.width > 0 && engine.height > 0 && int64_t{engine.width} * engine.height <= INT32_MAX / 4;
  if (fits && engine.width > kMaxPixels / engine.height) engine.height = std::max(1, kMaxPixels / engine.width);
  const int setUp = input_->byte();
  if (!publicCall) {
    engine.mode = setUp % 8 < 6 ? setUp % 8 : input_->take<int>();
    engine.sync = setUp / 8 % 2;
    engine.ringSlots = setUp / 16 % 4;
    engine.outputDelay = setUp / 64 % 4;
    if (input_->below(8) == 0) engine.outputDelay = input_->take<int>();
  }
  Engine* target = slot();
  if (fits && made_ == kMaxEngines) return;
  if (fits && target->live) release(target);
  auto* const before = reinterpret_cast<_KRSuperResEngine*>(&engine);
  engine.handle = before;
  _KRSuperResEngine** handle = setUp == 255 ? nullptr : &engine.handle;
  const int result = publicCall ? Noxel_Initialize(engine.width, engine.height, handle)
                                : initializeEngine(engine.width, engine.height, engine.mode, engine.ringSlots,
                                                   engine.outputDelay, engine.sync, nullptr, handle);
  FUZZ_CHECK(result == (fits && handle != nullptr ? 0 : 1));
  if (result != 0) {
    FUZZ_CHECK(engine.handle == before);
    return;
  }
  FUZZ_CHECK(engine.handle != before && engine.handle != nullptr);
  ++made_;
  engine.live = true;
  // Frames are read back in blocks of 4 x 2 pixels, mode 4's pictures as they are.
  const bool known = engine.mode >= kModeThreeFrames && engine.mode <= kModeClear;
  const bool readBack = engine.mode == kModeSynchronousRgba || (engine.width % 4 == 0 && engine.height % 2 == 0);
  if (known && driverRequired() && std::max(engine.width, engine.height) <= 1300)
    FUZZ_CHECK(engineReady(engine.handle) == readBack);
  *target = engine;
}

void Session::release(Engine* engine) {
  _KRSuperResEngine* const handle = engine->handle;
  FUZZ_CHECK((input_->byte() % 2 == 0 ? Noxel_Release(&engine->handle) : releaseEngine(&engine->handle)) == 0);
  FUZZ_CHECK(engine->handle == handle);
  engine->live = false;
}

void Session::releaseAny() {
  _KRSuperResEngine* handle = anyHandle();
  if (Engine* engine = behind(handle); engine != nullptr) {
    release(engine);
    return;
  }
  FUZZ_CHECK(Noxel_Release(&handle) == 1 && releaseEngine(&handle) == 1);
  FUZZ_CHECK(Noxel_Release(nullptr) == 1);
}

void Session::setParameter(_KRSuperResEngine* handle, bool publicCall) {
  constexpr unsigned kPublicIds[] = {9, 10, 16, 17, 19};
  unsigned id = input_->byte() % 24u;
  if (id == 23) id = input_->take<unsigned>();
  const bool known = publicCall ? id < 5 : id < 21 && (id < 13 || id > 15);
  const unsigned internalId = publicCall && known ? kPublicIds[id] : id;
  // Eight floats, read from an odd address.
  uint8_t bytes[1 + 8 * sizeof(float)];
  const int kind = input_->byte();
  const int small = kind < 200 ? kind % 3 : kind - 226;
  std::memcpy(bytes + 1, &small, sizeof(small));
  if (kind == 200) {
    for (size_t i = 0; i < 8; ++i) {
      const auto raw = input_->take<uint32_t>();  // of any bits, infinities and not-a-numbers too
      std::memcpy(bytes + 1 + i * sizeof(raw), &raw, sizeof(raw));
    }
  } else {
    for (size_t i = 1; i < 8; ++i) {
      const float corner = static_cast<float>(static_cast<int8_t>(input_->byte())) / 64.0f;
      std::memcpy(bytes + 1 + i * sizeof(corner), &corner, sizeof(corner));
    }
  }
  if (internalId == kParamImageFormat && kind != 200) {
    std::memcpy(bytes + 1, &kFormats[kind % 5], sizeof(int));
  }
  void* value = kind == 201 ? nullptr : bytes + 1;
  const bool needsValue =
      internalId != kParamQuadA && internalId != kParamQuadB && internalId != kParamForceStabilization;
  Engine* engine = behind(handle);
  const bool taken = known && engine != nullptr && (value != nullptr || !needsValue);
  FUZZ_CHECK((publicCall ? Noxel_SetParameter(id, value, handle) : KRSetParameter(id, value, handle)) ==
             (taken ? 0 : 1));
  if (taken && internalId == kParamImageFormat) std::memcpy(&engine->format, value, sizeof(int));
}

void Session::advanceClock() {
  constexpr int64_t kMilliseconds[] = {0, 199, 200, 201, 1499, 1500, 1501, 5000, -1, -5000, 1'000'000'000};
  const int kind = input_->byte();
  const int64_t step = kind < 11 ? kMilliseconds[kind] : 33;
  clockMicroseconds += step * 1000;
  broken_ = step > 1500;
}

void Session::process(_KRSuperResEngine* handle) {
  advanceClock();
  Engine* engine = behind(handle);
  const int kind = input_->byte();
  const size_t pixels =
      engine != nullptr ? static_cast<size_t>(engine->width) * static_cast<size_t>(engine->height) : 16;
  const bool rgba = engine != nullptr && engine->mode == kModeSynchronousRgba;
  GuardedFrame frame(engine != nullptr ? engine->width : 1, rgba ? 4 * pixels : pixels * 3 / 2,
                     static_cast<size_t>(kind % 4), input_);
  const bool withFrame = kind != 255;
  uint8_t* given = withFrame ? frame.pixels() : nullptr;
  const int result = kind / 4 % 2 == 0 ? Noxel_ProcessFrame(given, handle) : KRProcessFrame(given, handle);

  FUZZ_CHECK(result == (engine != nullptr && withFrame ? 0 : 1));
  FUZZ_CHECK(frame.guardsHold());
  if (result != 0) {
    FUZZ_CHECK(frame.untouched());
    return;
  }
  const bool knownFormat = engine->format == NOXEL_FORMAT_NV21 || engine->format == NOXEL_FORMAT_YV12;
  const bool startsSequence = engine->fresh || broken_;
  // With one read-back buffer the enhanced frame may be there before the call looks.
  const bool stillOwn = startsSequence && engine->sync != 1 && engine->outputDelay >= 2;
  if (!engineReady(handle) || (!rgba && (!knownFormat || stillOwn))) FUZZ_CHECK(frame.untouched());
  engine->fresh = false;
}

// A frame while other threads set a parameter, release the engine, or hand a frame to another one.
void Session::processBesideOthers() {
  Engine* engine = slot();
  Engine* other = slot();
  const int kind = input_->below(4);
  if (!engine->live || !other->live || engine->mode == kModeSynchronousRgba) return;
  clockMicroseconds += 33'000;
  const auto size = [](const Engine& of) { return static_cast<size_t>(of.width) * static_cast<size_t>(of.height) * 4; };
  GuardedFrame frame(engine->width, size(*engine), 0, input_);
  GuardedFrame otherFrame(other->width, size(*other), 0, input_);
  int value = input_->byte();
  const bool releases = kind == 0;
  std::thread beside([&] {
    FUZZ_CHECK(Noxel_SetParameter(NOXEL_PARAMETER_NOISE_REDUCTION, &value, other->handle) == 0);
    if (releases) {
      FUZZ_CHECK(Noxel_Release(&engine->handle) == 0);
    } else if (other != engine) {
      FUZZ_CHECK(Noxel_ProcessFrame(otherFrame.pixels(), other->handle) == 0);
    }
  });
  const int result = Noxel_ProcessFrame(frame.pixels(), engine->handle);
  beside.join();
  FUZZ_CHECK(result == 0 || releases);
  FUZZ_CHECK(result == 0 || frame.untouched());
  FUZZ_CHECK(frame.guardsHold() && otherFrame.guardsHold());
  engine->fresh = other->fresh = false;
  if (releases) engine->live = false;
}

void Session::inspect() {
  _KRSuperResEngine* handle = anyHandle();
  const int kind = input_->byte();
  const Engine* engine = behind(handle);
  FUZZ_CHECK(engine != nullptr || !engineReady(handle));
  const FrameReport report = lastFrameReport(handle);
  FUZZ_CHECK(report.status >= -1 && report.status <= 1);
  FUZZ_CHECK(std::isfinite(report.gamma) && std::isfinite(report.gain) && report.zoom >= 1.0f && report.zoom <= 32.0f);
  for (int i = 0; i < 9; ++i)
    FUZZ_CHECK(std::isfinite(report.previousFromCurrent[i]) && std::isfinite(report.stabilizedFromCurrent[i]));

  const bool masks = engine != nullptr && (engine->mode == kModeEnhance || engine->mode == kModeNeutralExposure);
  FUZZ_CHECK(captureGhostMask(handle, kind % 2 == 0) == (masks ? 0 : 1));
  std::vector<uint8_t> mask(static_cast<size_t>(kind), kCanary);
  int width = -1, height = -1;
  const bool written = lastGhostMask(handle, mask.data(), kind, &width, &height);
  FUZZ_CHECK(written ? masks && width > 0 && height > 0 && width * height <= kind : width == -1 && height == -1);

  if (engine != nullptr && !isBlocking(*engine)) return;  // a job may be writing the rest
  FUZZ_CHECK(report.pointsKept >= 0 && report.pointsKept <= report.pointsTracked);
  const int capacity = kind % 24 - 4;
  std::vector<_KRMatch> tracks(static_cast<size_t>(std::max(capacity, 0)));
  const int count = lastTracks(handle, tracks.data(), capacity);
  FUZZ_CHECK(count >= 0 && count <= std::max(capacity, 0) && (engine != nullptr || count == 0));
}

void Session::call() {
  const int kind = input_->below(32);
  if (kind < 2) return initialize(kind == 0);
  if (kind < 4) return releaseAny();
  if (kind < 12) return setParameter(anyHandle(), kind % 2 == 0);
  if (kind < 14) return inspect();
  if (kind < 16) return processBesideOthers();
  process(anyHandle());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setUpProcess();
  Input input(data, size);
  Session session(&input);
  for (int i = 0; i < kMaxCalls && !input.empty(); ++i) session.call();
  return 0;
}
