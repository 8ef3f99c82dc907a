// Whole frames through the engine: time against the bare GL passes, throughput, first start, memory.
//
//   noxel_engine_bench [frames|throughput|clear|start|memory|all] [number of frames]
//
// The number of frames goes for the sections frames, throughput and clear (100 unless given). Everything runs on the machine's
// own EGL driver; two minutes on two cores with a software renderer.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "api/engine.h"
#include "api/engine_control.h"
#include "common/percentile.h"
#include "gl/engine/gpu_engine.h"
#include "platform/cache_directory.h"
#include "platform/egl_display.h"
#include "platform/frame_clock.h"
#include "platform/log.h"
#include "processor_time.h"
#include "support/temporary_directory.h"

namespace noxel {
namespace {

constexpr int kWarmUpFrames = 10;  // programs reach their final form, clocks and caches settle
constexpr int kSpatial = 1;        // light modes
constexpr int kTemporal = 0;
constexpr int kPanCycle = 16;  // frames; the pan goes out for half of them and comes back

[[noreturn]] void fail(const std::string& reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "noxel_engine_bench: %s\n", reason.c_str());
  std::exit(1);
}

double millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

const char* nameOf(int lightMode) {
  return lightMode == kSpatial ? "spatial" : "temporal";
}

// 30 frames a second whatever the machine does: no frame is late enough to break the sequence.
platform::TimeOfDay steadyCamera(void* context) {
  auto* frames = static_cast<int64_t*>(context);
  const int64_t milliseconds = 33 * ++*frames;
  return {milliseconds / 1000, milliseconds % 1000 * 1000};
}
int64_t cameraFrames = 0;

// Where in the scene a frame begins, in pixels; the same in x and y.
int panAt(int frame) {
  const int phase = frame % kPanCycle;
  return 2 * std::min(phase, kPanCycle - phase);
}

// One cycle of a dark, noisy view that pans over a scene of soft blotches.
class Camera {
 public:
  Camera(int width, int height) {
    std::mt19937 random(7);
    std::normal_distribution<float> noise(0.0f, 4.0f);
    for (std::vector<unsigned char>& frame : frames) {
      const int pan = panAt(static_cast<int>(&frame - frames));
      frame.assign(frameSize(width, height), 0);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const int scene = 24 + ((x + pan) / 24 * 7 + (y + pan) / 20 * 11) % 23;
          frame[static_cast<size_t>(y * width + x)] = toByte(static_cast<float>(scene) + noise(random));
        }
      }
      const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
      for (size_t i = luma; i < frame.size(); ++i) frame[i] = toByte(128.0f + noise(random));
    }
  }

  const std::vector<unsigned char>& frame(int index) const { return frames[index % kPanCycle]; }

 private:
  static unsigned char toByte(float value) { return static_cast<unsigned char>(std::clamp(value, 0.0f, 255.0f)); }

  std::vector<unsigned char> frames[kPanCycle];
};

void translate(float (&matrix)[9], float by) {
  const float translation[9] = {1, 0, by, 0, 1, by, 0, 0, 1};
  std::memcpy(matrix, translation, sizeof(matrix));
}

// What a scene point does between two frames of the pan: previous position - current position = panAt(frame) -
// panAt(before).
MotionEstimate motionOf(int frame) {
  const auto step = static_cast<float>(panAt(frame) - panAt(frame + kPanCycle - 1));
  MotionEstimate estimate;
  translate(estimate.previousFromCurrent, step);
  translate(estimate.currentFromPrevious, -step);
  translate(estimate.stabilizedFromCurrent, 0.0f);
  return estimate;
}

// In place of measured motion, in pixels of the registration image.
struct KnownPan {
  int resolutionFactor;  // frame pixels per registration pixel
  int frame;             // the next to be asked about

  static bool measure(void* context, const LumaImage&, bool, MotionEstimate* estimate) {
    auto* pan = static_cast<KnownPan*>(context);
    *estimate = motionOf(pan->frame++);
    for (float* matrix : {estimate->previousFromCurrent, estimate->currentFromPrevious}) {
      matrix[2] /= static_cast<float>(pan->resolutionFactor);
      matrix[5] /= static_cast<float>(pan->resolutionFactor);
    }
    return true;
  }
};

// An engine with the motion of the camera's pan.
class Engine {
 public:
  Engine(int width, int height, int ringSlots, int outputDelay, int syncWithCaller, int lightMode,
         int mode = kModeEnhance) {
    if (initializeEngine(width, height, mode, ringSlots, outputDelay, syncWithCaller, nullptr, &engine) != 0 ||
        !engineReady(engine)) {
      fail("no engine: is there an EGL driver with OpenGL ES 3.0?");
    }
    pan.resolutionFactor = engine->registration.resolutionFactor;
    engine->registration.motionSource = KnownPan::measure;
    engine->registration.motionSourceContext = &pan;
    KRSetParameter(kParamLightMode, &lightMode, engine);
  }
  ~Engine() { releaseEngine(&engine); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void process(std::vector<unsigned char>* frame) {
    if (KRProcessFrame(frame->data(), engine) != 0) fail("a frame was refused");
  }
  // Blocks while the ring has no room: every frame that is handed in is enhanced.
  void waitForRoom(int slots) {
    while (engine->queuedFrames.load(std::memory_order_acquire) >= slots) usleep(100);
  }
  FrameReport report() { return lastFrameReport(engine); }
  void set(unsigned id, int value) { KRSetParameter(id, &value, engine); }

 private:
  _KRSuperResEngine* engine = nullptr;
  KnownPan pan = {1, 0};
};

// The passes of an engine on this thread: nothing is handed from one thread to another, and nobody waits but for the
// GPU.
class BarePasses {
 public:
  BarePasses(int width, int height) : output(frameSize(width, height)) {
    const HandOver handOver = {output.data(), &frameMutex, &queuedFrames, &sequence, &initialized, 0, 1,
                               &callerSignal, &ready};
    CreateGPUEngine(width, height, handOver, kModeEnhance, &gpu);
    if (gpu == nullptr || !gpu->ready) fail("no second GL context");
  }
  ~BarePasses() { DestroyGPUEngine(&gpu); }
  BarePasses(const BarePasses&) = delete;
  BarePasses& operator=(const BarePasses&) = delete;

  void process(const Frame& frame) {
    queuedFrames.fetch_add(1);
    if (frame.status == kRegistrationOff) {
      loadPackedTextures(gpu, frame.buffer);
    } else {
      loadTextures(gpu, frame.buffer);
    }
    prepareFrame(gpu, frame);
    processFrame(gpu);
  }

  std::vector<unsigned char> output;

 private:
  _KRGPUEngine* gpu = nullptr;
  std::atomic<int> queuedFrames = 0;
  std::atomic<uint32_t> sequence = 0;
  std::atomic<int> initialized = 1;
  std::atomic<int> ready = 1;
  _KRSignal callerSignal;
};

Frame frameFor(int index, const FrameReport& report, std::vector<unsigned char>* pixels) {
  Frame frame;
  frame.buffer = pixels->data();
  frame.status = report.status;
  frame.tone = {report.gamma, report.gain};
  frame.settings.zoom = report.zoom;
  if (report.status >= kRegistrationValid) {
    const MotionEstimate motion = motionOf(index);
    std::memcpy(frame.motion.frameMatrixA, motion.previousFromCurrent, sizeof(motion.previousFromCurrent));
    std::memcpy(frame.motion.frameMatrixB, motion.currentFromPrevious, sizeof(motion.currentFromPrevious));
  }
  return frame;
}

// The frames take turns, so that whatever else the machine does meets both. Both pictures must be the same bytes, or
// the ratio would compare different work.
void compareWithBarePasses(int width, int height, int lightMode, int frames) {
  const Camera camera(width, height);
  Engine engine(width, height, 1, 1, 1, lightMode);
  BarePasses bare(width, height);
  std::vector<double> engineMs;
  std::vector<double> bareMs;
  for (int i = 0; i < kWarmUpFrames + frames; ++i) {
    std::vector<unsigned char> enhanced = camera.frame(i);
    std::vector<unsigned char> pixels = camera.frame(i);
    auto start = std::chrono::steady_clock::now();
    engine.process(&enhanced);
    const double engineTime = millisecondsSince(start);

    const FrameReport report = engine.report();
    const int expectedStatus = lightMode == kSpatial ? kRegistrationOff
                               : i == 0              ? kRegistrationFailed
                                                     : kRegistrationValid;
    if (report.status != expectedStatus) fail("a frame took the wrong path");
    const Frame frame = frameFor(i, report, &pixels);
    start = std::chrono::steady_clock::now();
    bare.process(frame);
    const double bareTime = millisecondsSince(start);

    if (enhanced != bare.output) fail("the engine's picture is not that of the bare passes");
    if (i < kWarmUpFrames) continue;
    engineMs.push_back(engineTime);
    bareMs.push_back(bareTime);
  }
  const double engineMedian = tool::percentile(engineMs, 50);
  const double bareMedian = tool::percentile(bareMs, 50);
  const double engineTail = tool::percentile(engineMs, 95);
  const double bareTail = tool::percentile(bareMs, 95);
  std::printf("%4dx%-4d  %-8s  %8.2f %8.2f  %8.2f %8.2f  %7.3f %7.3f\n", width, height, nameOf(lightMode), engineMedian,
              engineTail, bareMedian, bareTail, engineMedian / bareMedian, engineTail / bareTail);
  std::fflush(stdout);
}

void framesSection(int frames) {
  std::printf(
      "One frame, milliseconds (%d frames each; engine and bare passes in turns; aim: p50 ratio 1.10 or less)\n",
      frames);
  std::printf("%-9s  %-8s  %8s %8s  %8s %8s  %7s %7s\n", "size", "path", "engine50", "engine95", "bare50", "bare95",
              "ratio50", "ratio95");
  for (const int lightMode : {kSpatial, kTemporal}) {
    compareWithBarePasses(640, 360, lightMode, frames);
    compareWithBarePasses(1280, 720, lightMode, frames);
  }
}

void throughputOf(int width, int height, int lightMode, int frames) {
  constexpr int kRingSlots = 2;
  const Camera camera(width, height);
  Engine engine(width, height, kRingSlots, 2, 0, lightMode);
  std::vector<unsigned char> frame;
  const auto push = [&](int from, int to) {
    for (int i = from; i < to; ++i) {
      frame = camera.frame(i);
      engine.waitForRoom(kRingSlots);
      engine.process(&frame);
    }
    engine.waitForRoom(1);
  };
  push(0, kWarmUpFrames);
  const auto start = std::chrono::steady_clock::now();
  push(kWarmUpFrames, kWarmUpFrames + frames);
  const double elapsed = millisecondsSince(start);
  std::printf("%4dx%-4d  %-8s  %10.1f  %10.2f\n", width, height, nameOf(lightMode), frames * 1000.0 / elapsed,
              elapsed / frames);
  std::fflush(stdout);
}

void throughputSection(int frames) {
  std::printf(
      "\nThroughput of the pipelined set-up, two slots and two read-back buffers (%d frames, as fast as it takes "
      "them)\n",
      frames);
  std::printf("%-9s  %-8s  %10s  %10s\n", "size", "path", "frames/s", "ms/frame");
  for (const int lightMode : {kSpatial, kTemporal}) {
    throughputOf(640, 360, lightMode, frames);
    throughputOf(1280, 720, lightMode, frames);
  }
}

// The clear picture in each quality beside the temporal frame, in turns, with known motion: what is compared is the passes,
// the noise meter and the tone. Processor time is that of the whole process; a software driver draws on its own threads.
void clearOf(int width, int height, int frames) {
  struct Row {
    const char* name;
    int mode;
    int quality;
    std::unique_ptr<Engine> engine;
    std::vector<double> wallMs;
    std::vector<double> processorMs;
  };
  Row rows[] = {{"mode 1, temporal", kModeEnhance, 1, {}, {}, {}},
                {"mode 5, fast", kModeClear, 0, {}, {}, {}},
                {"mode 5, balanced", kModeClear, 1, {}, {}, {}},
                {"mode 5, best", kModeClear, 2, {}, {}, {}}};
  const Camera camera(width, height);
  for (Row& row : rows) {
    row.engine = std::make_unique<Engine>(width, height, 1, 1, 1, kTemporal, row.mode);
    row.engine->set(kParamQuality, row.quality);
    row.engine->set(kParamNoiseReductionStrength, 50);
  }
  for (int i = 0; i < kWarmUpFrames + frames; ++i) {
    for (Row& row : rows) {
      std::vector<unsigned char> frame = camera.frame(i);
      const double processor = processorMilliseconds();
      const auto start = std::chrono::steady_clock::now();
      row.engine->process(&frame);
      if (i < kWarmUpFrames) continue;
      row.wallMs.push_back(millisecondsSince(start));
      row.processorMs.push_back(processorMilliseconds() - processor);
    }
  }
  const double wall = tool::percentile(rows[0].wallMs, 50), processor = tool::percentile(rows[0].processorMs, 50);
  for (const Row& row : rows) {
    const double wallMs = tool::percentile(row.wallMs, 50), processorMs = tool::percentile(row.processorMs, 50);
    std::printf("%4dx%-4d  %-18s  %8.2f %7.2f  %9.2f %7.2f\n", width, height, row.name, wallMs, wallMs / wall,
                processorMs, processorMs / processor);
  }
  std::fflush(stdout);
}

void clearSection(int frames) {
  std::printf("\nThe clear picture, milliseconds (p50 of %d frames each, in turns; aim: fast 4, balanced 8, best 16)\n",
              frames);
  std::printf("%-9s  %-18s  %8s %7s  %9s %7s\n", "size", "path", "wall", "ratio", "processor", "ratio");
  clearOf(640, 360, frames);
}

// Runs this program again with `arguments` and answers what it wrote to standard output. An empty `mesaCache` leaves
// the environment as it is.
std::string runAgain(std::vector<std::string> arguments, const std::string& mesaCache) {
  int ends[2];
  if (pipe(ends) != 0) fail("no pipe");
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) fail("no child process");
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    if (!mesaCache.empty()) {
      setenv("MESA_SHADER_CACHE_DIR", mesaCache.c_str(), 1);
      setenv("MESA_GLSL_CACHE_DIR", mesaCache.c_str(), 1);  // its name before Mesa 21
    }
    arguments.insert(arguments.begin(), "noxel_engine_bench");
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    execv("/proc/self/exe", pointers.data());
    _exit(127);
  }
  close(ends[1]);
  std::string text;
  char piece[256];
  for (ssize_t count; (count = read(ends[0], piece, sizeof(piece))) > 0;)
    text.append(piece, static_cast<size_t>(count));
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    fail("a child process failed");
  return text;
}

// In a child: milliseconds of initialise and of the first frame, in which a driver may still compile.
void startOnce(const char* programCache) {
  if (!platform::setProgramCacheDirectory(programCache)) fail("the cache directory's name is too long");
  const Camera camera(640, 360);
  std::vector<unsigned char> frame = camera.frame(0);
  auto start = std::chrono::steady_clock::now();
  Engine engine(640, 360, 1, 1, 1, kSpatial);
  const double initialiseMs = millisecondsSince(start);
  start = std::chrono::steady_clock::now();
  engine.process(&frame);
  std::printf("%f %f\n", initialiseMs, millisecondsSince(start));
}

void startSection() {
  constexpr int kRounds = 5;
  const char* disabled = std::getenv("MESA_SHADER_CACHE_DISABLE");
  std::printf("\nFirst start at 640x360, milliseconds, each in a process of its own (median of %d)\n", kRounds);
  if (disabled != nullptr) {
    std::printf("MESA_SHADER_CACHE_DISABLE=%s is set: Mesa then offers no program binaries, and nothing can be kept.\n",
                disabled);
  } else {
    std::printf(
        "Mesa's own shader cache is on, in a fresh directory where it says empty: switched off, Mesa offers no program "
        "binaries.\n");
  }
  struct Case {
    const char* name;
    bool programsKept;
    bool mesaKept;
    std::vector<double> initialise;
    std::vector<double> firstFrame;
  };
  Case cases[] = {{"both empty", false, false, {}, {}},
                  {"program cache filled, Mesa's empty", true, false, {}, {}},
                  {"program cache empty, Mesa's filled", false, true, {}, {}},
                  {"both filled", true, true, {}, {}}};
  size_t files = 0;
  for (int round = 0; round < kRounds; ++round) {
    const TemporaryDirectory directory;
    const auto make = [&directory](const std::string& name) {
      std::filesystem::create_directory(directory.file(name));
      return directory.file(name);
    };
    const std::string keptPrograms = make("programs");
    const std::string keptMesa = make("mesa");
    runAgain({"start-once", keptPrograms}, keptMesa);
    files = static_cast<size_t>(std::distance(std::filesystem::directory_iterator(keptPrograms), {}));
    int number = 0;
    for (Case& one : cases) {
      const std::string suffix = std::to_string(number++);
      const std::string text = runAgain({"start-once", one.programsKept ? keptPrograms : make("programs" + suffix)},
                                        one.mesaKept ? keptMesa : make("mesa" + suffix));
      double initialiseMs = 0.0;
      double firstFrameMs = 0.0;
      if (std::sscanf(text.c_str(), "%lf %lf", &initialiseMs, &firstFrameMs) != 2) fail("a child said: " + text);
      one.initialise.push_back(initialiseMs);
      one.firstFrame.push_back(firstFrameMs);
    }
  }
  std::printf("%-36s  %10s  %11s\n", "", "initialise", "first frame");
  for (const Case& one : cases) {
    std::printf("%-36s  %10.1f  %11.1f\n", one.name, tool::percentile(one.initialise, 50),
                tool::percentile(one.firstFrame, 50));
  }
  std::printf("%zu programs kept\n", files);
}

long residentKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  fail("/proc/self/status has no VmRSS");
}

// In a child, whose heap nothing else has used: resident kilobytes early and late in a run.
void memoryOnce(int mode, int lightMode) {
  constexpr int kEarly = 50;
  constexpr int kLate = 2000;
  const Camera camera(160, 96);
  Engine engine(160, 96, 2, 2, 0, lightMode, mode);
  std::vector<unsigned char> frame;
  for (int i = 1; i <= kLate; ++i) {
    frame = camera.frame(i);
    engine.waitForRoom(2);
    engine.process(&frame);
    if (i == kEarly || i == kLate) {
      engine.waitForRoom(1);
      std::printf("%ld\n", residentKilobytes());
    }
  }
}

// In a child: how many kilobytes a 1920x1080 engine adds to a process that has drawn with another one.
void memoryAddedOnce(int mode) {
  const Camera camera(1920, 1080);
  Engine small(64, 48, 1, 1, 1, kTemporal, mode);
  std::vector<unsigned char> frame(frameSize(64, 48));
  for (int i = 0; i < 3; ++i) small.process(&frame);
  const long before = residentKilobytes();
  Engine engine(1920, 1080, 2, 2, 0, kTemporal, mode);
  for (int i = 0; i < 5; ++i) {
    frame = camera.frame(i);
    engine.waitForRoom(2);
    engine.process(&frame);
  }
  engine.waitForRoom(1);
  std::printf("%ld\n", residentKilobytes() - before);
}

void memorySection() {
  const struct {
    const char* name;
    int mode;
    int lightMode;
  } kinds[] = {
      {"spatial", kModeEnhance, kSpatial}, {"temporal", kModeEnhance, kTemporal}, {"clear", kModeClear, kTemporal}};
  std::printf("\nResident memory at 160x96, pipelined set-up, kilobytes (aim: equal within 1 %%)\n");
  std::printf("%-8s  %10s  %10s  %7s\n", "path", "frame 50", "frame 2000", "ratio");
  for (const auto& kind : kinds) {
    const std::string text = runAgain({"memory-once", std::to_string(kind.mode), std::to_string(kind.lightMode)}, "");
    long early = 0;
    long late = 0;
    if (std::sscanf(text.c_str(), "%ld %ld", &early, &late) != 2) fail("a child said: " + text);
    std::printf("%-8s  %10ld  %10ld  %7.4f\n", kind.name, early, late,
                static_cast<double>(late) / static_cast<double>(early));
    std::fflush(stdout);
  }
  std::printf("\nResident memory that an engine for 1920x1080 adds, kilobytes (aim: clear at most 1.5 of temporal)\n");
  long temporal = 0;
  for (const auto& kind : kinds) {
    if (kind.lightMode == kSpatial) continue;
    const long added = std::atol(runAgain({"memory-added", std::to_string(kind.mode)}, "").c_str());
    if (kind.mode == kModeEnhance) temporal = added;
    std::printf("%-8s  %10ld  %7.2f\n", kind.name, added, static_cast<double>(added) / static_cast<double>(temporal));
  }
}

int run(const std::vector<std::string>& arguments) {
  const std::string& section = arguments[0];
  if (std::getenv("NOXEL_LOG_LEVEL") == nullptr) platform::setLogLevel(8);  // silent: the tables stay readable
  platform::setFrameClock(steadyCamera, &cameraFrames);
  platform::setProgramCacheDirectory("");
  if (section == "start-once" && arguments.size() == 2) {
    startOnce(arguments[1].c_str());
    return 0;
  }
  if (section == "memory-once" && arguments.size() == 3) {
    memoryOnce(std::atoi(arguments[1].c_str()), std::atoi(arguments[2].c_str()));
    return 0;
  }
  if (section == "memory-added" && arguments.size() == 2) {
    memoryAddedOnce(std::atoi(arguments[1].c_str()));
    return 0;
  }

  const bool all = section == "all";
  const bool known = all || section == "frames" || section == "throughput" || section == "clear" ||
                     section == "start" || section == "memory";
  const int frames = arguments.size() > 1 ? std::atoi(arguments[1].c_str()) : 100;
  if (!known || frames < 1) {
    std::fprintf(stderr, "usage: noxel_engine_bench [frames|throughput|clear|start|memory|all] [number of frames]\n");
    return 2;
  }
  std::printf("EGL display: %s; %ld processors\n\n", platform::engineDisplayName(), sysconf(_SC_NPROCESSORS_ONLN));
  if (all || section == "frames") framesSection(frames);
  if (all || section == "throughput") throughputSection(frames);
  if (all || section == "clear") clearSection(frames);
  if (all || section == "start") startSection();
  if (all || section == "memory") memorySection();
  return 0;
}

}  // namespace
}  // namespace noxel

int main(int count, char** arguments) {
  std::vector<std::string> given(arguments + 1, arguments + count);
  if (given.empty()) given.emplace_back("all");
  return noxel::run(given);
}
