// Motion registration against ground truth, beside OpenCV's trackers when OpenCV is found.
//
//   noxel_motion_bench [--width W] [--height H] [--pairs N] [--seed S] [--full] [--dump DIR] [photo.pgm...]
//
// Seeded frame pairs of every class of motion at three levels of light, from the photos or from procedural scenes. A
// pair's error is the rms over the frame's corners of the distance between the measured and the true position, in frame
// pixels. It failed above 3 pixels or without a result, which counts as infinite.
//
// Time is processor time on one thread. Ours is for a frame within a sequence, including finding the next frame's
// points and, at half size, the downscale; a sequence's first frame is reported separately. All methods take turns on
// each pair, so that other load affects all alike.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/percentile.h"
#include "processor_time.h"
#include "registration/plane_registration.h"
#include "scenes/scenes.h"

#if NOXEL_BENCH_OPENCV
#include "opencv_rows.h"
#endif

namespace noxel {
namespace {

using scenes::Affine;
using scenes::FramePair;
using scenes::Light;
using scenes::Motion;
using scenes::Photo;

constexpr double kFailurePixels = 3;
constexpr int kProceduralPhotos = 6;

struct Options {
  int width = 640;
  int height = 360;
  int pairs = 20;
  uint64_t seed = 1;
  bool full = false;
  bool alone = false;
  std::string dump;
  std::vector<std::string> photos;
};

[[noreturn]] void fail(const std::string& reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "noxel_motion_bench: %s\n", reason.c_str());
  std::exit(1);
}

// Registration as the engine uses it, on frames of one size.
class OurRegistration {
 public:
  OurRegistration(int width, int height, bool full) {
    if (!registration_.create(width, height, full, nullptr)) fail("no registration of this size");
  }

  void prime(const std::vector<uint8_t>& frame) {
    registration_.restart();
    const double start = processorMilliseconds();
    registration_.measure(frame.data());
    primeMilliseconds.push_back(processorMilliseconds() - start);
  }

  bool measure(const std::vector<uint8_t>& frame, Affine* currentFromPrevious) {
    if (!registration_.measure(frame.data())) return false;
    double affine[6];
    registration_.currentFromPrevious(affine);
    std::copy_n(affine, 6, std::begin(currentFromPrevious->m));
    return true;
  }

  std::vector<double> primeMilliseconds;

 private:
  PlaneRegistration registration_;
};

struct Method {
  std::string name;
  std::function<void(const FramePair&)> prepare;  // before the clock starts
  std::function<bool(const FramePair&, Affine*)> measure;
};

struct Results {
  std::vector<double> errors;  // pixels, infinite without a result
  std::vector<double> milliseconds;

  void append(const Results& other) {
    errors.insert(errors.end(), other.errors.begin(), other.errors.end());
    milliseconds.insert(milliseconds.end(), other.milliseconds.begin(), other.milliseconds.end());
  }
};

// All methods on one pair, starting with another one each time: the first has cold caches.
void runPair(const std::vector<Method>& methods, const FramePair& frames, const Affine& truth, size_t turn,
             std::vector<Results>* results) {
  for (size_t i = 0; i < methods.size(); ++i) {
    const size_t at = (turn + i) % methods.size();
    if (methods[at].prepare) methods[at].prepare(frames);
    Affine measured;
    const double start = processorMilliseconds();
    const bool valid = methods[at].measure(frames, &measured);
    Results& result = (*results)[at];
    result.milliseconds.push_back(processorMilliseconds() - start);
    const double error = scenes::cornerError(measured, truth, frames.width, frames.height);
    result.errors.push_back(valid && std::isfinite(error) ? error : std::numeric_limits<double>::infinity());
  }
}

void printHeader(const std::vector<Method>& methods) {
  std::printf("%-18s", "");
  for (const Method& method : methods) std::printf(" | %-32s", method.name.c_str());
  std::printf("\n%-18s", "");
  for (size_t i = 0; i < methods.size(); ++i) std::printf(" | %8s %8s %6s %7s", "p50 px", "p90 px", "fail %", "cpu ms");
  std::printf("\n");
}

void printRow(const std::string& label, const std::vector<Results>& results) {
  std::printf("%-18s", label.c_str());
  for (const Results& result : results) {
    const auto failed =
        std::count_if(result.errors.begin(), result.errors.end(), [](double error) { return error > kFailurePixels; });
    std::printf(" | %8.3f %8.3f %6.1f %7.2f", tool::percentile(result.errors, 50), tool::percentile(result.errors, 90),
                100.0 * static_cast<double>(failed) / static_cast<double>(result.errors.size()),
                tool::percentile(result.milliseconds, 50));
  }
  std::printf("\n");
  std::fflush(stdout);
}

void dumpPair(const std::string& stem, const FramePair& frames, const Affine& truth) {
  std::ofstream planes(stem + ".raw", std::ios::binary);
  for (const std::vector<uint8_t>* plane : {&frames.previous, &frames.current}) {
    planes.write(reinterpret_cast<const char*>(plane->data()), static_cast<std::streamsize>(plane->size()));
  }
  std::ofstream text(stem + ".txt");
  text.precision(17);
  for (double value : truth.m) text << value << '\n';
  if (!planes.flush() || !text.flush()) fail("cannot write " + stem);
}

std::vector<Photo> photosFor(const Options& options) {
  std::vector<scenes::NamedPhoto> named;
  std::string unreadable;
  if (!scenes::loadPhotos(options.photos, kProceduralPhotos, options.width, options.height, options.seed, &named,
                          &unreadable)) {
    fail(unreadable + " is not a binary PGM or PPM of 8 bits");
  }
  std::printf("scenes: %zu %s\n", named.size(), options.photos.empty() ? "procedural (no photos given)" : "photos");
  std::vector<Photo> photos;
  for (scenes::NamedPhoto& one : named) photos.push_back(std::move(one.photo));
  return photos;
}

// Unrelated frames, a cut at each: measured against the previous one.
struct Cuts {
  int measured = 0;
  int taken = 0;  // accepted as a motion
  std::vector<uint8_t> before;

  void add(OurRegistration* ours, const std::vector<uint8_t>& frame) {
    if (!before.empty()) {
      Affine unused;
      ours->prime(before);
      ++measured;
      taken += ours->measure(frame, &unused) ? 1 : 0;
    }
    before = frame;
  }
};

std::vector<Method> allMethods(OurRegistration* ours, [[maybe_unused]] bool alone) {
  std::vector<Method> methods;
  methods.push_back(
      {"ours", [ours](const FramePair& frames) { ours->prime(frames.previous); },
       [ours](const FramePair& frames, Affine* motion) { return ours->measure(frames.current, motion); }});
#if NOXEL_BENCH_OPENCV
  if (alone) return methods;
  scenes::prepareOpenCv();
  for (const scenes::OpenCvRow& row : scenes::kOpenCvRow) {
    methods.push_back({row.name, {}, [&row](const FramePair& frames, Affine* motion) {
                         return row.measure(frames.previous.data(), frames.current.data(), frames.width, frames.height,
                                            motion);
                       }});
  }
#else
  std::printf("built without OpenCV: no peers to compare with\n");
#endif
  return methods;
}

// Median over the pairs of our time relative to the other's.
double timeShare(const Results& ours, const Results& other) {
  std::vector<double> shares;
  for (size_t i = 0; i < ours.milliseconds.size(); ++i) {
    shares.push_back(ours.milliseconds[i] / other.milliseconds[i]);
  }
  return tool::percentile(shares, 50);
}

void run(const Options& options) {
  std::printf("%d x %d, %d pairs per class and light, seed %llu\n", options.width, options.height, options.pairs,
              static_cast<unsigned long long>(options.seed));
  const std::vector<Photo> photos = photosFor(options);
  OurRegistration ours(options.width, options.height, options.full);
  const std::vector<Method> methods = allMethods(&ours, options.alone);
  if (!options.dump.empty()) std::filesystem::create_directories(options.dump);

  printHeader(methods);
  std::map<Light, std::vector<Results>> everything;
  for (Light light : scenes::kLights) everything[light].resize(methods.size());
  std::map<Light, Cuts> cuts;
  size_t turn = 0;
  for (Motion motion : scenes::kMotions) {
    std::map<Light, std::vector<Results>> results;
    for (Light light : scenes::kLights) results[light].resize(methods.size());
    for (int index = 0; index < options.pairs; ++index) {
      const scenes::ScenePair pair =
          scenes::renderPair(photos, motion, options.width, options.height, options.seed, index);
      for (Light light : scenes::kLights) {
        const FramePair frames = scenes::expose(pair, light, options.seed + static_cast<uint64_t>(index));
        runPair(methods, frames, pair.currentFromPrevious, turn++, &results[light]);
        cuts[light].add(&ours, frames.current);
        if (!options.dump.empty()) {
          dumpPair(options.dump + "/" + nameOf(motion) + "_" + nameOf(light) + "_" + std::to_string(index), frames,
                   pair.currentFromPrevious);
        }
      }
    }
    for (Light light : scenes::kLights) {
      printRow(std::string(nameOf(motion)) + " " + nameOf(light), results[light]);
      for (size_t i = 0; i < methods.size(); ++i) everything[light][i].append(results[light][i]);
    }
  }

  for (Light light : scenes::kLights) printRow(std::string("all ") + nameOf(light), everything[light]);
  for (Light light : scenes::kLights) {
    for (size_t i = 1; i < methods.size(); ++i) {
      std::printf("%s: our time is %.3f of %s\n", nameOf(light), timeShare(everything[light][0], everything[light][i]),
                  methods[i].name.c_str());
    }
  }
  for (Light light : scenes::kLights) {
    std::printf("%s: %d of %d cuts accepted as a motion\n", nameOf(light), cuts[light].taken, cuts[light].measured);
  }
  std::printf("our first frame of a sequence: %.2f ms\n", tool::percentile(ours.primeMilliseconds, 50));
}

}  // namespace
}  // namespace noxel

int main(int argc, char** argv) {
  noxel::Options options;
  CLI::App app("Motion registration against ground truth");
  app.add_option("--width", options.width, "Frame width in pixels")->check(CLI::Range(64, 4096));
  app.add_option("--height", options.height, "Frame height in pixels")->check(CLI::Range(64, 4096));
  app.add_option("--pairs", options.pairs, "Frame pairs per class and light")->check(CLI::Range(1, 10000));
  app.add_option("--seed", options.seed, "Seed of scenes, motions and noise");
  app.add_flag("--full", options.full, "Register large frames at full size, not at half");
  app.add_flag("--alone", options.alone, "Only our own registration");
  app.add_option("--dump", options.dump, "Write every pair into this directory: two planes, and the true motion");
  app.add_option("photos", options.photos, "Binary PGM or PPM files, larger than the frame");
  CLI11_PARSE(app, argc, argv);
  noxel::run(options);
  return 0;
}
