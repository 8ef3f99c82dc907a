// Frames at full speed for hours, with parameters changed and sequences broken at random, then engines made and released one
// after the other. Prints what the process holds meanwhile; exit code 1 when that grows. The driver is not unloaded between
// engines (tests/support/kept_modules.cpp): Mesa's keeps a little each time it is.
#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "api/threads.h"
#include "platform/frame_clock.h"
#include "platform/log.h"
#include "support/faults.h"

namespace {

using namespace noxel;

int entries(const char* folder) {
  int count = 0;
  DIR* listing = opendir(folder);
  while (listing != nullptr && readdir(listing) != nullptr) ++count;
  if (listing != nullptr) closedir(listing);
  return count - 3;  // ".", "..", and the listing's own
}

struct Holding {
  long residentKb = 0;
  long heapKb = 0;  // what malloc has handed out, the driver's included
  int threads = 0;
  int files = 0;
  Held held;

  static Holding now() {
    Holding holding;
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    holding.residentKb = pages * (sysconf(_SC_PAGESIZE) / 1024);
    holding.heapKb = static_cast<long>(mallinfo2().uordblks / 1024);
    holding.threads = entries("/proc/self/task") + 1;
    holding.files = entries("/proc/self/fd");
    holding.held = noxel::held();
    return holding;
  }

  void print(const char* unit, int at) const {
    std::printf(
        "%-6s %7d  resident %7ld KiB  heap %6ld KiB  threads %3d  files %3d  GL objects %3d  allocations %4ld\n", unit,
        at, residentKb, heapKb, threads, files, held.glObjects, held.allocations);
    std::fflush(stdout);
  }
};

// What is handed out may not grow; the pages that hold it may breathe with how the allocator lays them out.
bool isFlat(const Holding& from, const Holding& to) {
  const bool flat = to.heapKb <= from.heapKb + std::max(from.heapKb / 50, 16L) &&
                    to.residentKb <= from.residentKb + from.residentKb / 20 && to.threads <= from.threads &&
                    to.files <= from.files && to.held.glObjects <= from.held.glObjects &&
                    to.held.allocations <= from.held.allocations;
  if (!flat) std::printf("GROWN\n");
  return flat;
}

std::atomic<int64_t> clockUs = int64_t{1'700'000'000} * 1'000'000;

struct Options {
  int width = 64;
  int height = 48;
  int mode = kModeEnhance;
  int frames = 100'000;
  int cycles = 1000;
  unsigned seed = 1;
};

class Soak {
 public:
  explicit Soak(const Options& given) : options(given), random(given.seed), frame(frameBytes(given)) {}

  bool make() {
    return initializeEngine(options.width, options.height, options.mode, 2, 2, 0, nullptr, &engine) == 0 &&
           engineReady(engine);
  }

  void release() { releaseEngine(&engine); }

  // Each frame is taken: the next waits for a free slot.
  void process() {
    for (unsigned char& byte : frame) byte = static_cast<unsigned char>(random() >> 24);
    clockUs += draw(400) == 0 ? 2'000'000 : 33'000;
    KRProcessFrame(frame.data(), engine);
    while (engine->queuedFrames.load() >= 2) std::this_thread::sleep_for(std::chrono::microseconds(50));
    if (draw(20) == 0) changeParameter();
  }

  void drain() {
    while (engine->queuedFrames.load() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    joinUploadJobs(engine, Jobs::kAll);
  }

 private:
  static size_t frameBytes(const Options& options) {
    const auto pixels = static_cast<size_t>(options.width) * static_cast<size_t>(options.height);
    return options.mode == kModeSynchronousRgba ? pixels * 4 : pixels * 3 / 2;
  }

  int draw(int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); }

  void changeParameter() {
    constexpr unsigned kIds[] = {
        kParamLightMode,  kParamLightMode,        kParamStabilization, kParamNoiseReductionStrength,
        kParamSharpening, kParamExposureStrength, kParamDeghosting,    kParamContrast,
        kParamQuality};
    const unsigned id = kIds[draw(9)];
    const int value = draw(id == kParamLightMode || id == kParamStabilization ? 2 : 101);
    KRSetParameter(id, &value, engine);
  }

  const Options options;
  std::mt19937 random;
  std::vector<unsigned char> frame;
  _KRSuperResEngine* engine = nullptr;
};

bool soakFrames(const Options& options) {
  Soak soak(options);
  if (!soak.make()) {
    std::fprintf(stderr, "no usable OpenGL ES 3.0\n");
    return false;
  }
  const auto start = std::chrono::steady_clock::now();
  Holding early, latest;
  for (int i = 1; i <= options.frames; ++i) {
    soak.process();
    if (i != 1000 && i % std::max(options.frames / 10, 1) != 0) continue;
    soak.drain();
    latest = Holding::now();
    latest.print("frame", i);
    if (i == 1000) early = latest;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  soak.release();
  std::printf("%d frames of %d x %d in %.0f s\n", options.frames, options.width, options.height, seconds);
  return options.frames < 2000 || isFlat(early, latest);
}

bool soakCycles(const Options& options) {
  constexpr int kSettled = 200;  // the records of the last released engines are kept, and the driver's caches fill
  Holding early, latest;
  for (int i = 1; i <= options.cycles; ++i) {
    Soak soak(options);
    if (!soak.make()) return false;
    for (int frame = 0; frame < i % 4; ++frame) soak.process();
    soak.release();
    if (i != kSettled && i % std::max(options.cycles / 10, 1) != 0) continue;
    latest = Holding::now();
    latest.print("cycle", i);
    if (i == kSettled) early = latest;
  }
  return options.cycles < 2 * kSettled || isFlat(early, latest);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Runs the engine for long and watches what it holds", "soak");
  app.option_defaults()->always_capture_default();
  app.add_option("--width", options.width);
  app.add_option("--height", options.height);
  app.add_option("--mode", options.mode, "engine mode")->check(CLI::Range(0, 5));
  app.add_option("--frames", options.frames);
  app.add_option("--cycles", options.cycles, "engines made and released");
  app.add_option("--seed", options.seed);
  CLI11_PARSE(app, argc, argv);
  // The driver's short-lived threads would spread its memory over sixteen heaps, which takes hundreds of engines to settle.
  mallopt(M_ARENA_MAX, 1);
  platform::setLogLevel(8);
  platform::setFrameClock(
      [](void*) {
        return platform::TimeOfDay{clockUs.load() / 1'000'000, clockUs.load() % 1'000'000};
      },
      nullptr);
  const bool framesFlat = soakFrames(options);
  const bool cyclesFlat = soakCycles(options);
  std::printf("%s\n", framesFlat && cyclesFlat ? "flat" : "not flat");
  return framesFlat && cyclesFlat ? 0 : 1;
}
