// Hand shake left in the stabilised picture, with the true motion and with the measured one.
//
//   noxel_shake_bench [--light clean|dim|dark] [--low HZ] [--high HZ] [--slope N] [--drift PX] [--shift PX]
//                     [--roll MRAD] [--zoom %] [--lose N] [photo.pgm...]
//
// Clips of a still scene, from photos or procedural, under a known camera path about the frame's centre: slow drift up
// to a quarter of a hertz, and shake, a sum of sinusoids of random phase between two frequencies, with amplitudes that
// fall with the frequency to the power `slope`.
//
// The camera path maps scene to frame, the stabilisation matrix frame to picture; a viewer sees their product. For
// shift, roll and log scale over the frames:
//
//   residual = rms of the second difference of the picture's / rms of the second difference of the frame's
//
// x and y together, at the frame's centre and at its top-left corner, about which the smoother turns and scales. The
// last row is the same for the difference of the two pictures: what measurement errors add.
//
// With --lose N every Nth frame is black, so that its motion and the next one's are not known. Then the table is
//
//   largest step of the picture's middle and of its corners from one frame to the next, pixels
//
// for the clip as filmed, for a path that restarts at a loss, and for one that coasts over it; black frames are left out.
// The last two rows are the steps of the stabilisation alone, into each frame whose motion is not known.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "registration/camera_path.h"
#include "registration/plane_registration.h"
#include "scenes/scenes.h"

namespace noxel {
namespace {

using scenes::Light;
using scenes::Photo;

constexpr int kProceduralPhotos = 2;
constexpr int kTones = 16;  // sinusoids of the shake
constexpr double kDriftLowHz = 0.05;
constexpr double kDriftHighHz = 0.25;
constexpr int kDriftTones = 3;
constexpr double kDriftRadians = 0.005;  // rms, as kDriftZoom
constexpr double kDriftZoom = 0.003;

struct Options {
  int width = 640;
  int height = 360;
  int frames = 150;
  double framesPerSecond = 30;
  std::string light = "dark";
  double lowHz = 2;
  double highHz = 9;
  double slope = 0;
  double driftPixels = 6;  // rms along each axis, as shiftPixels
  double shiftPixels = 4;
  double rollMilliradians = 4;
  double zoomPercent = 0.3;
  int lose = 0;  // every such frame; 0: none
  uint64_t seed = 1;
  std::vector<std::string> photos;
};

[[noreturn]] void fail(const std::string& reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "noxel_shake_bench: %s\n", reason.c_str());
  std::exit(1);
}

// z -> scale * z + shift on pixels x + iy; the centre of the first pixel is (0.5, 0.5).
struct Similarity {
  std::complex<double> scale = 1;
  std::complex<double> shift = 0;

  std::complex<double> operator()(std::complex<double> z) const { return scale * z + shift; }
};

Similarity operator*(const Similarity& outer, const Similarity& inner) {
  return {outer.scale * inner.scale, outer(inner.shift)};
}

Similarity inverse(const Similarity& similarity) {
  return {1.0 / similarity.scale, -similarity.shift / similarity.scale};
}

// One value of the camera's path over time.
class Wander {
 public:
  Wander(double lowHz, double highHz, int tones, double slope, double rms, std::mt19937_64& random) {
    double power = 0;
    for (int i = 0; i < tones; ++i) {
      const double hz = lowHz + (highHz - lowHz) * (i + 0.5) / tones;
      const double phase = 2 * std::numbers::pi * static_cast<double>(random() >> 11) * 0x1p-53;
      tones_.push_back({std::pow(hz, -slope), 2 * std::numbers::pi * hz, phase});
      power += 0.5 * tones_.back().amplitude * tones_.back().amplitude;
    }
    for (Tone& tone : tones_) tone.amplitude *= rms / std::sqrt(power);
  }
  double at(double seconds) const {
    double sum = 0;
    for (const Tone& tone : tones_) sum += tone.amplitude * std::sin(tone.radiansPerSecond * seconds + tone.phase);
    return sum;
  }

 private:
  struct Tone {
    double amplitude;
    double radiansPerSecond;
    double phase;
  };
  std::vector<Tone> tones_;
};

// Scene to frame, per frame of the clip.
std::vector<Similarity> cameraPath(const Options& options, uint64_t seed) {
  std::mt19937_64 random(seed);
  const auto wander = [&](double driftRms, double shakeRms) {
    return std::array<Wander, 2>{Wander(kDriftLowHz, kDriftHighHz, kDriftTones, 0, driftRms, random),
                                 Wander(options.lowHz, options.highHz, kTones, options.slope, shakeRms, random)};
  };
  const std::array<std::array<Wander, 2>, 4> values = {
      wander(options.driftPixels, options.shiftPixels), wander(options.driftPixels, options.shiftPixels),
      wander(kDriftRadians, 1e-3 * options.rollMilliradians), wander(kDriftZoom, 1e-2 * options.zoomPercent)};

  const std::complex<double> centre(0.5 * options.width, 0.5 * options.height);
  std::vector<Similarity> path;
  for (int frame = 0; frame < options.frames; ++frame) {
    const double seconds = frame / options.framesPerSecond;
    double now[4];
    for (size_t i = 0; i < 4; ++i) now[i] = values[i][0].at(seconds) + values[i][1].at(seconds);
    const std::complex<double> scale = std::polar(std::exp(now[3]), now[2]);
    path.push_back({scale, centre + std::complex<double>(now[0], now[1]) - scale * centre});
  }
  return path;
}

// For pixels whose first centre is (0, 0).
scenes::Affine sceneFromFrame(const Similarity& frameFromScene) {
  const Similarity s = inverse(frameFromScene);
  const std::complex<double> half(0.5, 0.5);
  const std::complex<double> shift = s(half) - half;
  return {{s.scale.real(), -s.scale.imag(), shift.real(), s.scale.imag(), s.scale.real(), shift.imag()}};
}

// The engine's camera path, fed frame by frame; each call returns the frame's stabilisation matrix.
class Stabilizer {
 public:
  explicit Stabilizer(const Options& options) {
    if (!registration_.create(options.width, options.height, true, nullptr)) fail("no registration of this size");
  }

  void coastOverLosses() { registration_.coastOverLosses(); }
  Similarity measured(const std::vector<uint8_t>& frame) {
    const bool first = frames_++ == 0;
    if (!registration_.measure(frame.data()) && !first) ++lost_;
    return matrix();
  }
  Similarity known(const Similarity& currentFromPrevious) {
    const std::complex<double> scale = currentFromPrevious.scale;
    const std::complex<double> shift = currentFromPrevious.shift;
    const float similarity[4] = {static_cast<float>(shift.real()), static_cast<float>(shift.imag()),
                                 static_cast<float>(scale.real() - 1), static_cast<float>(-scale.imag())};
    if (!stepStabilization(registration_.stabilization(), similarity)) fail("the true path is out of bounds");
    return matrix();
  }
  int lost() const { return lost_; }

 private:
  Similarity matrix() {
    const float* m = registration_.stabilization()->stabilizationMatrix;
    return {std::complex<double>(static_cast<double>(m[0]), -static_cast<double>(m[1])),
            std::complex<double>(static_cast<double>(m[2]), static_cast<double>(m[5]))};
  }

  PlaneRegistration registration_;
  int frames_ = 0;
  int lost_ = 0;
};

// Values of a path: x and y at the centre, x and y at the corner, roll, log scale.
constexpr size_t kValues = 6;
using Values = std::array<double, kValues>;

Values valuesOf(const Similarity& path, std::complex<double> centre) {
  const std::complex<double> atCentre = path(centre);
  return {atCentre.real(),   atCentre.imag(),      path.shift.real(),
          path.shift.imag(), std::arg(path.scale), std::log(std::abs(path.scale))};
}

// Sums of squared second differences.
void addShake(const std::vector<Values>& path, Values* shake) {
  for (size_t i = 2; i < path.size(); ++i) {
    for (size_t value = 0; value < kValues; ++value) {
      const double second = path[i][value] - 2 * path[i - 1][value] + path[i - 2][value];
      (*shake)[value] += second * second;
    }
  }
}

struct Shake {
  Values input = {};
  Values known = {};
  Values measured = {};
  Values difference = {};
  int frames = 0;
  int lost = 0;

  void add(const Shake& other) {
    for (size_t i = 0; i < kValues; ++i) {
      input[i] += other.input[i];
      known[i] += other.known[i];
      measured[i] += other.measured[i];
      difference[i] += other.difference[i];
    }
    frames += other.frames;
    lost += other.lost;
  }
};

Shake shakeOf(const Photo& photo, Light light, const Options& options, uint64_t seed) {
  const scenes::StillScene scene = scenes::drawStillScene(photo, options.width, options.height, seed);
  const std::vector<Similarity> camera = cameraPath(options, seed);
  const std::complex<double> centre(0.5 * options.width, 0.5 * options.height);
  Stabilizer tracked(options);
  Stabilizer told(options);
  double gain = 0;
  std::vector<Values> input;
  std::vector<Values> known;
  std::vector<Values> measured;
  std::vector<Values> difference;
  for (size_t i = 0; i < camera.size(); ++i) {
    const std::vector<float> view = scenes::renderView(scene, sceneFromFrame(camera[i]), options.width, options.height);
    if (i == 0) gain = scenes::gainFor(light, view);
    const Similarity byTracker = tracked.measured(scenes::expose(view, light, gain, seed * 100'000 + i));
    const Similarity byTruth = i == 0 ? Similarity() : told.known(camera[i] * inverse(camera[i - 1]));
    input.push_back(valuesOf(camera[i], centre));
    known.push_back(valuesOf(byTruth * camera[i], centre));
    measured.push_back(valuesOf(byTracker * camera[i], centre));
    Values apart;
    for (size_t value = 0; value < kValues; ++value) apart[value] = measured[i][value] - known[i][value];
    difference.push_back(apart);
  }
  Shake shake;
  addShake(input, &shake.input);
  addShake(known, &shake.known);
  addShake(measured, &shake.measured);
  addShake(difference, &shake.difference);
  shake.frames = options.frames;
  shake.lost = tracked.lost();
  return shake;
}

void printRow(const char* label, const Values& output, const Values& input) {
  const auto ratio = [&](size_t first, size_t last) {
    double above = 0;
    double below = 0;
    for (size_t i = first; i <= last; ++i) {
      above += output[i];
      below += input[i];
    }
    return std::sqrt(above / below);
  };
  std::printf("  %-14s %8.4f %8.4f %8.4f %8.4f\n", label, ratio(0, 1), ratio(2, 3), ratio(4, 4), ratio(5, 5));
}

void print(const std::string& label, const Shake& shake) {
  std::printf("%s: %d of %d frames lost\n", label.c_str(), shake.lost, shake.frames);
  printRow("true motion", shake.known, shake.input);
  printRow("measured", shake.measured, shake.input);
  printRow("apart", shake.difference, shake.input);
  std::fflush(stdout);
}

// Largest steps over the clips: of the picture's middle and of the corners.
struct Steps {
  double middle = 0;
  double corner = 0;

  void add(const Similarity& before, const Similarity& after, const Options& options) {
    const auto distance = [&](double x, double y) { return std::abs(after({x, y}) - before({x, y})); };
    middle = std::max(middle, distance(0.5 * options.width, 0.5 * options.height));
    for (const double x : {0, options.width}) {
      for (const double y : {0, options.height}) corner = std::max(corner, distance(x, y));
    }
  }
};

struct LossSteps {
  Steps input;
  Steps restarting;
  Steps coasting;
  Steps restart;
  Steps coast;
  int lost = 0;
};

void addLosses(const Photo& photo, Light light, const Options& options, uint64_t seed, LossSteps* steps) {
  const scenes::StillScene scene = scenes::drawStillScene(photo, options.width, options.height, seed);
  const std::vector<Similarity> camera = cameraPath(options, seed);
  Stabilizer restarting(options);
  Stabilizer coasting(options);
  coasting.coastOverLosses();
  const std::vector<uint8_t> black(static_cast<size_t>(options.width) * static_cast<size_t>(options.height));
  double gain = 0;
  Similarity last[3];
  Similarity lastMatrix[2];
  int lost = 0;
  for (size_t i = 0; i < camera.size(); ++i) {
    const std::vector<float> view = scenes::renderView(scene, sceneFromFrame(camera[i]), options.width, options.height);
    if (i == 0) gain = scenes::gainFor(light, view);
    const bool lose = i % static_cast<size_t>(options.lose) == static_cast<size_t>(options.lose) - 1;
    const std::vector<uint8_t> frame = lose ? black : scenes::expose(view, light, gain, seed * 100'000 + i);
    const Similarity matrix[2] = {restarting.measured(frame), coasting.measured(frame)};
    if (coasting.lost() > lost) {
      steps->restart.add(lastMatrix[0], matrix[0], options);
      steps->coast.add(lastMatrix[1], matrix[1], options);
    }
    std::copy_n(matrix, 2, lastMatrix);
    lost = coasting.lost();
    if (lose) continue;
    const Similarity now[3] = {camera[i], matrix[0] * camera[i], matrix[1] * camera[i]};
    Steps* const largest[3] = {&steps->input, &steps->restarting, &steps->coasting};
    for (int row = 0; row < 3; ++row) {
      if (i > 0) largest[row]->add(last[row], now[row], options);
      last[row] = now[row];
    }
  }
  steps->lost += lost;
}

void print(const LossSteps& steps) {
  std::printf("%d frames lost\n  %-14s %8s %8s\n", steps.lost, "largest step", "middle", "corner");
  const auto printSteps = [](const char* label, const Steps& row) {
    std::printf("  %-14s %8.2f %8.2f\n", label, row.middle, row.corner);
  };
  printSteps("as filmed", steps.input);
  printSteps("restarting", steps.restarting);
  printSteps("coasting", steps.coasting);
  printSteps("restart", steps.restart);
  printSteps("coast", steps.coast);
}

void run(const Options& options) {
  std::printf(
      "%d frames of %d x %d, %g/s, %s; shake of %g..%g Hz, slope %g, rms %g px (drift %g px) along x and along y, %g "
      "mrad, %g %%\n",
      options.frames, options.width, options.height, options.framesPerSecond, options.light.c_str(), options.lowHz,
      options.highHz, options.slope, options.shiftPixels, options.driftPixels, options.rollMilliradians,
      options.zoomPercent);
  Light light = Light::Clean;
  for (Light candidate : scenes::kLights) {
    if (options.light == scenes::nameOf(candidate)) light = candidate;
  }
  Shake everything;
  uint64_t seed = options.seed;
  std::vector<scenes::NamedPhoto> photos;
  std::string unreadable;
  if (!scenes::loadPhotos(options.photos, kProceduralPhotos, options.width, options.height, options.seed, &photos,
                          &unreadable)) {
    fail(unreadable + " is not a binary PGM or PPM of 8 bits");
  }
  if (options.lose > 0) {
    LossSteps steps;
    for (const auto& named : photos) addLosses(named.photo, light, options, seed++, &steps);
    print(steps);
    return;
  }
  std::printf("  %-14s %8s %8s %8s %8s\n", "residual", "x,y mid", "corner", "roll", "scale");
  for (const auto& [name, photo] : photos) {
    const Shake shake = shakeOf(photo, light, options, seed++);
    print(name, shake);
    everything.add(shake);
  }
  print("all", everything);
}

}  // namespace
}  // namespace noxel

int main(int argc, char** argv) {
  noxel::Options options;
  CLI::App app("Residual shake of the stabilised picture");
  app.add_option("--width", options.width, "Frame width in pixels")->check(CLI::Range(64, 1000));
  app.add_option("--height", options.height, "Frame height in pixels")->check(CLI::Range(64, 1000));
  app.add_option("--frames", options.frames, "Frames per clip")->check(CLI::Range(3, 100'000));
  app.add_option("--fps", options.framesPerSecond, "Frames per second")->check(CLI::PositiveNumber);
  app.add_option("--light", options.light, "How the clip is exposed")->check(CLI::IsMember({"clean", "dim", "dark"}));
  app.add_option("--low", options.lowHz, "Lowest frequency of the shake, Hz")->check(CLI::PositiveNumber);
  app.add_option("--high", options.highHz, "Highest frequency of the shake, Hz")->check(CLI::PositiveNumber);
  app.add_option("--slope", options.slope, "Exponent by which shake falls with frequency");
  app.add_option("--drift", options.driftPixels, "Slow drift along each axis, rms, pixels");
  app.add_option("--shift", options.shiftPixels, "Shake along each axis, rms, pixels");
  app.add_option("--roll", options.rollMilliradians, "Rolling shake, rms, milliradians");
  app.add_option("--zoom", options.zoomPercent, "Scaling shake, rms, percent");
  app.add_option("--lose", options.lose, "Blackens every so manieth frame; 0: none")->check(CLI::Range(0, 100'000));
  app.add_option("--seed", options.seed, "Seed of scenes, paths and noise");
  app.add_option("photos", options.photos, "Binary PGM or PPM files, larger than the frame");
  CLI11_PARSE(app, argc, argv);
  noxel::run(options);
  return 0;
}
