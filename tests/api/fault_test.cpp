// Every call that can fail, failing, in the life of an engine.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>

#include "api/properties.h"
#include "platform/cache_directory.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "support/test_engine.h"
#include "support/watchdog.h"

namespace noxel {
namespace {

constexpr int kWidth = 16;
constexpr int kHeight = 8;

struct Setting {
  int mode;
  bool onWindow;
  int syncWithCaller;
};

enum class Cache { kNone, kCold, kWarm };  // of compiled programs: not to be had, empty, filled

struct FaultRow {
  const char* name;
  Fault fault;
  Cache cache;
};

// Of each row, spread over all its calls, unless NOXEL_FAULTS says another number: programs ask for memory hundreds of times.
constexpr int kFaultsPerRow = 48;

constexpr FaultRow kRows[] = {
    {"Memory", Fault::kMemory, Cache::kNone},
    {"Threads", Fault::kThread, Cache::kNone},
    {"Egl", Fault::kEgl, Cache::kNone},
    {"Shaders", Fault::kShader, Cache::kNone},
    {"StoredPrograms", Fault::kShader, Cache::kWarm},
    {"Framebuffers", Fault::kFramebuffer, Cache::kNone},
    {"Maps", Fault::kMap, Cache::kNone},
    {"Reads", Fault::kRead, Cache::kNone},
    {"FilesWritten", Fault::kFile, Cache::kCold},
    {"FilesRead", Fault::kFile, Cache::kWarm},
};

// What a person finds in the log. A call that is not here is named itself.
const std::map<std::string, std::string>& logWords() {
  static const std::map<std::string, std::string> words = {
      {"malloc", "no memory"},
      {"calloc", "no memory"},
      {"realloc", "no memory"},
      {"new", "no memory"},
      {"new[]", "no memory"},
      {"pthread_create", "could not start"},
      {"eglCreatePbufferSurface", "surface creation failed"},
      {"eglCreateWindowSurface", "surface creation failed"},
      {"eglCreateContext", "context creation failed"},
      {"eglMakeCurrent", "make current failed"},
      {"eglGetProcAddress", "could not find"},
      {"glCompileShader", "Could not compile shader"},
      {"glCreateShader", "Could not create shader"},
      {"glLinkProgram", "Could not link program"},
      {"glCreateProgram", "Could not create program"},
      {"glCheckFramebufferStatus", "is INCOMPLETE"},
      {"open", "Unable to open file"},
      {"read", "Error reading program"},
      {"eglQueryString", ""},  // for a person to read: nothing follows from it
      {"stat", ""},            // the directory is made then, which is there or not
  };
  return words;
}

using Picture = std::vector<unsigned char>;

// Flat, each plane or channel at a level of its own, and another one with each frame.
Picture given(const Setting& setting, int index) {
  const auto level = static_cast<unsigned char>(index % 2 == 0 ? 40 : 52);
  if (setting.mode == kModeSynchronousRgba) {
    Picture picture;
    for (int i = 0; i < kWidth * kHeight; ++i) picture.insert(picture.end(), {level, 60, 50, 200});
    return picture;
  }
  return TestFrame(kWidth, kHeight, level, 150, 100).bytes;
}

size_t channelOf(size_t byte, const Setting& setting) {
  if (setting.mode == kModeSynchronousRgba) return byte % 4;
  return byte < kWidth * kHeight ? 0 : 1 + byte % 2;
}

// The levels that frames of a faultless life have, by channel.
struct Levels {
  unsigned char min[4] = {255, 255, 255, 255};
  unsigned char max[4] = {};

  void add(const Picture& picture, const Setting& setting) {
    for (size_t i = 0; i < picture.size(); ++i) {
      const size_t channel = channelOf(i, setting);
      min[channel] = std::min(min[channel], picture[i]);
      max[channel] = std::max(max[channel], picture[i]);
    }
  }

  void add(const Levels& other) {
    for (int channel = 0; channel < 4; ++channel) {
      min[channel] = std::min(min[channel], other.min[channel]);
      max[channel] = std::max(max[channel], other.max[channel]);
    }
  }

  // One level aside: a frame less in the history, or in the exposure's average, moves the rounding.
  testing::AssertionResult hold(const Picture& picture, const Setting& setting) const {
    for (size_t i = 0; i < picture.size(); ++i) {
      const size_t channel = channelOf(i, setting);
      if (picture[i] + 1 < min[channel] || picture[i] > max[channel] + 1) {
        return testing::AssertionFailure() << "channel " << channel << " at " << int{picture[i]} << ", not within "
                                           << int{min[channel]} << " to " << int{max[channel]};
      }
    }
    return testing::AssertionSuccess();
  }
};

struct Life {
  bool made = false;
  bool ready = false;
  Levels levels;
  std::vector<std::string> drawn;  // the passes, of a faultless life
};

// Five light frames, and four that follow a motion, after a break.
constexpr int kFrames = 10;
constexpr int kLightModeChange = 5;
constexpr int kKept = 8;   // where blends are enabled, its past is kept, and offered to the next frame
constexpr int kBreak = 6;  // a frame as dark as the first: an output that is never written shows one level only

// Initialise, frames, a parameter changed, a break, frames, release. `levels` null: whatever comes is taken down.
Life live(const Setting& setting, const Levels* levels) {
  constexpr unsigned kLongestLifeSeconds = 60;  // a sanitizer on a busy machine takes seconds
  watch(kLongestLifeSeconds);
  TestClock clock;
  FakeWindow window(kWidth, kHeight);
  auto* const marker = reinterpret_cast<_KRSuperResEngine*>(uintptr_t{8});
  _KRSuperResEngine* engine = marker;
  const int slots = setting.syncWithCaller == 1 ? 1 : 2;
  Life life;
  life.made = initializeEngine(kWidth, kHeight, setting.mode, slots, slots, setting.syncWithCaller,
                               setting.onWindow ? window.native() : nullptr, &engine) == 0;
  if (!life.made) {
    EXPECT_EQ(engine, marker);
    return life;
  }
  life.ready = engineReady(engine);
  engine->registration.motionSource = [](void*, const LumaImage&, bool, MotionEstimate*) { return true; };
  if (levels == nullptr) {
    const auto note = [](void* drawn, const char* pass, uint64_t) {
      static_cast<std::vector<std::string>*>(drawn)->push_back(pass);
    };
    EXPECT_EQ(observePasses(engine, note, &life.drawn), 0);
  }
  const bool blends = setting.mode == kModeClear && setting.syncWithCaller == 1 && enableBlends(engine) == 0;
  EXPECT_TRUE(blends || levels != nullptr || setting.mode != kModeClear || setting.syncWithCaller == 0 ||
              setting.onWindow || !life.ready);
  std::vector<uint16_t> words(blendWords(kWidth, kHeight));
  // Levels are taken of two frames more: a caller that is held up gets the output after the one it would have got.
  const int frames = levels != nullptr ? kFrames : kFrames + 2;
  for (int i = 0; i < frames; ++i) {
    clock.advance(i == kBreak ? 2000 : 33);
    const int temporal = 0;
    if (i == kLightModeChange) {
      EXPECT_EQ(KRSetParameter(kParamLightMode, &temporal, engine), 0);
    }
    if (blends && i == kKept) {
      EXPECT_EQ(keepBlend(engine, words.data()), 0);
    }
    if (blends && i == kKept + 1) {
      EXPECT_EQ(offerBlend(engine, words.data()), 0);
    }
    const Picture original = given(setting, i);
    Picture frame = original;
    EXPECT_EQ(KRProcessFrame(frame.data(), engine), 0);
    const bool untouched = frame == original;
    if (!life.ready || (setting.onWindow && setting.mode != kModeSynchronousRgba)) {
      EXPECT_TRUE(untouched);
    }
    if (levels != nullptr && !untouched) {
      EXPECT_TRUE(levels->hold(frame, setting)) << "frame " << i << " is damaged";
    }
    const bool startsPath = i == 0 || i == kLightModeChange || i == kBreak;
    if (!untouched || !startsPath) life.levels.add(frame, setting);
    EXPECT_TRUE(drains(engine));
  }
  EXPECT_EQ(releaseEngine(&engine), 0);
  return life;
}

// That the faultless life is one: each kind of frame was drawn, and what was drawn came back.
void expectWhole(const Life& life, const Setting& setting) {
  // Of a light frame, and of one that has a past.
  static const std::string kLight = "light frame to RGB";
  static const std::string kPasses[][2] = {
      {kLight, "mean of three"}, {kLight, "blend"}, {kLight, "sharpen"}, {kLight, "blend"}, {}, {"anchor", "past"}};
  const bool inPlace = setting.mode == kModeSynchronousRgba;
  if (!inPlace) {
    for (const std::string& pass : kPasses[setting.mode]) {
      EXPECT_NE(std::find(life.drawn.begin(), life.drawn.end(), pass), life.drawn.end()) << pass;
    }
  }
  if (setting.onWindow && !inPlace) return;
  EXPECT_GE(life.levels.max[0] - life.levels.min[0], 6) << "the frames do not come back";
}

void logVerbosely(bool on) {
  setenv("PERSIST_CAMERA_RTSP_LOG", on ? "1" : "0", 1);
  forgetPropertyInterface();
  readDebugProperty();
}

class FaultWalk : public ::testing::TestWithParam<std::tuple<Setting, FaultRow>> {
 protected:
  FaultWalk() { logVerbosely(true); }  // a cache that cannot be used is a verbose line
  ~FaultWalk() override {
    logVerbosely(false);
    platform::setProgramCacheDirectory(nullptr);
  }
};

TEST_P(FaultWalk, LosesNothingAndSaysWhatFailed) {
  const Setting setting = std::get<0>(GetParam());
  const FaultRow row = std::get<1>(GetParam());
  const TemporaryDirectory folder;
  int cold = 0;
  const auto freshCache = [&] {
    if (row.cache == Cache::kNone) return;
    const std::string name = row.cache == Cache::kCold ? std::to_string(cold++) : "warm";
    platform::setProgramCacheDirectory(folder.file(name).c_str());
  };
  freshCache();
  Levels levels;
  {
    const LogCapture log;
    const Life life = live(setting, nullptr);  // fills the cache, and the driver's own
    if (!life.ready) {
      if (driverRequired()) FAIL() << log.text();
      GTEST_SKIP() << "no usable GL driver";
    }
    expectWhole(life, setting);
    levels = life.levels;
    // A caller that is held up misses an output, and its levels lack that one: twice is unlikely.
    if (setting.syncWithCaller == 0) levels.add(live(setting, nullptr).levels);
  }
  ASSERT_EQ(held(), Held{});
  int calls = 0;
  {
    const LogCapture log;
    freshCache();
    const FaultInjection counting(row.fault, -1);
    live(setting, &levels);
    calls = counting.calls();
  }
  const char* const wanted = std::getenv("NOXEL_FAULTS");
  const int faults = wanted != nullptr ? std::max(std::atoi(wanted), 1) : kFaultsPerRow;
  const int step = std::max(1, (calls + faults - 1) / faults);
  int injected = 0;
  for (int nth = 0; nth < calls; nth += step) {
    for (const Lasting lasting : {Lasting::kOnce, Lasting::kFromThenOn}) {
      if (lasting == Lasting::kFromThenOn && nth / step % 4 != 0) continue;
      const LogCapture log;
      freshCache();
      std::string failed;
      {
        const FaultInjection fault(row.fault, nth, lasting);
        std::snprintf(watchedFor, sizeof(watchedFor), "hangs: %s, call %d, %s\n", row.name, nth,
                      lasting == Lasting::kOnce ? "once" : "from then on");
        live(setting, &levels);
        if (fault.failedCall() == nullptr) continue;  // calls that depend on how threads meet
        failed = fault.failedCall();
      }
      ++injected;
      const auto known = logWords().find(failed);
      const std::string word = known != logWords().end() ? known->second : failed;
      EXPECT_TRUE(log.contains(word)) << "nothing says \"" << word << "\":\n" << log.text();
      const Held left = held();
      EXPECT_EQ(left, Held{}) << left.allocations << " allocations, " << left.threads << " threads, " << left.glObjects
                              << " GL objects";
      if (HasFailure())
        FAIL() << failed << ", call " << nth << " of " << calls
               << (lasting == Lasting::kOnce ? " alone" : " and later");
    }
  }
  // Nothing is read back for a window.
  const bool reads = !setting.onWindow || setting.mode == kModeSynchronousRgba;
  EXPECT_EQ(injected > 0, reads || (row.fault != Fault::kMap && row.fault != Fault::kRead));
  const LogCapture log;
  freshCache();
  EXPECT_TRUE(live(setting, &levels).ready) << "after all faults: " << log.text();
  watch(0);
  RecordProperty("injected", injected);
  std::printf("%d faults in %d calls\n", injected, calls);
}

std::string nameOf(const ::testing::TestParamInfo<std::tuple<Setting, FaultRow>>& named) {
  const auto& [setting, row] = named.param;
  return std::string(row.name) + "InMode" + std::to_string(setting.mode) + (setting.onWindow ? "OnWindow" : "") +
         (setting.syncWithCaller == 1 ? "Synchronous" : "");
}

// A compositor that takes no frame for a while.
TEST(Stall, OfASwapHoldsTheGpuThreadAndNeverTheCaller) {
  for (const bool releasedMeanwhile : {false, true}) {
    FakeWindow window(kWidth, kHeight);
    TestClock clock;
    _KRSuperResEngine* engine = nullptr;
    ASSERT_EQ(initializeEngine(kWidth, kHeight, kModeEnhance, 2, 2, 0, window.native(), &engine), 0);
    if (!engineReady(engine)) {
      releaseEngine(&engine);
      ASSERT_FALSE(driverRequired());
      GTEST_SKIP() << "no usable GL driver";
    }
    std::thread release;
    {
      const StalledGpu stall(Gate::kSwap);
      for (int i = 0; i < 10; ++i) {
        clock.advance(33);
        TestFrame frame(kWidth, kHeight, 40);
        ASSERT_EQ(KRProcessFrame(frame.bytes.data(), engine), 0);
        ASSERT_LE(engine->queuedFrames.load(), 2);
      }
      ASSERT_TRUE(stall.isHolding());
      if (releasedMeanwhile) release = std::thread([&] { EXPECT_EQ(releaseEngine(&engine), 0); });
    }
    if (release.joinable()) {
      release.join();
      continue;
    }
    EXPECT_TRUE(drains(engine));
    EXPECT_EQ(releaseEngine(&engine), 0);
  }
  EXPECT_EQ(held(), Held{});
}

TEST(Stall, OfOneEnginesSwapHoldsNoOtherEngine) {
  constexpr unsigned kLongestSeconds = 60;
  std::snprintf(watchedFor, sizeof(watchedFor), "one engine waits for another's swap\n");
  watch(kLongestSeconds);
  FakeWindow window(kWidth, kHeight);
  TestClock clock;
  _KRSuperResEngine* stalled = nullptr;
  ASSERT_EQ(initializeEngine(kWidth, kHeight, kModeEnhance, 2, 2, 0, window.native(), &stalled), 0);
  {
    const StalledGpu stall(Gate::kSwap, Whom::kFirst);
    for (int i = 0; i < 2; ++i) {
      TestFrame frame(kWidth, kHeight, 40);
      ASSERT_EQ(KRProcessFrame(frame.bytes.data(), stalled), 0);
    }
    if (engineReady(stalled)) {
      ASSERT_TRUE(stall.isHolding());
      const auto secondIsUploading = [&] {
        Lock lock(frameMutex);
        return stalled->bufferBeingRead == stalled->frameBuffers[1];
      };
      while (!secondIsUploading()) std::this_thread::yield();
    }
    int strength = 50;
    EXPECT_EQ(Noxel_SetParameter(NOXEL_PARAMETER_NOISE_REDUCTION, &strength, stalled), 0);
    for (const Setting& other : {Setting{kModeEnhance, false, 1}, Setting{kModeSynchronousRgba, false, 1}}) {
      _KRSuperResEngine* engine = nullptr;
      ASSERT_EQ(initializeEngine(kWidth, kHeight, other.mode, 1, 1, other.syncWithCaller, nullptr, &engine), 0);
      EXPECT_EQ(Noxel_SetParameter(NOXEL_PARAMETER_NOISE_REDUCTION, &strength, engine), 0);
      for (int i = 0; i < 3; ++i) {
        Picture frame = given(other, i);
        EXPECT_EQ(KRProcessFrame(frame.data(), engine), 0);
        EXPECT_EQ(frame == given(other, i), !engineReady(engine));
      }
      EXPECT_EQ(releaseEngine(&engine), 0);
    }
  }
  EXPECT_EQ(releaseEngine(&stalled), 0);
  watch(0);
}

INSTANTIATE_TEST_SUITE_P(
    Lives, FaultWalk,
    ::testing::Combine(::testing::Values(Setting{0, false, 0}, Setting{2, false, 1}, Setting{3, false, 0},
                                         Setting{1, false, 0}, Setting{1, false, 1}, Setting{1, true, 0},
                                         Setting{1, true, 1}, Setting{4, false, 0}, Setting{4, false, 1},
                                         Setting{4, true, 0}, Setting{4, true, 1}, Setting{5, false, 0},
                                         Setting{5, false, 1}, Setting{5, true, 0}),
                       ::testing::ValuesIn(kRows)),
    nameOf);

}  // namespace
}  // namespace noxel
