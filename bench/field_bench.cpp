// The motion field against ground truth, beside OpenCV's dense flow when OpenCV is found.
//
//   noxel_field_bench [--width W] [--height H] [--pairs N] [--earlier N] [--seed S] [--smooth SIGMA] [--dump DIR]
//                     [photo.pgm...]
//
// Seeded pairs of layered scenes at three levels of light, from the photos or from procedural ones. Scored are the
// 8 x 8 blocks of the registration image that show one layer only, by the displacement of their centre beside the
// common motion:
//
//   in .5, in 1   share within half a pixel, and within a pixel, of the truth
//   found         share within a pixel of those that move by more than 1.5 pixels
//   wrong         share displaced by more than half a pixel of those that move by less than 0.25
//
// Ours alone sees the --earlier frames before each pair, which OpenCV has no use for. Pixels are those of the frame. OpenCV's flow is averaged over each block, less the common motion that we measured.
// Its input is smoothed by a Gaussian and stretched to a mean of 110, neither of which counts as its time. Time is
// processor time on one thread; all methods take turns on each pair.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "common/percentile.h"
#include "processor_time.h"
#include "registration/luminance.h"
#include "registration/plane_registration.h"
#include "registration/tracker/motion_field_estimator.h"
#include "scenes/layers.h"

#if NOXEL_BENCH_OPENCV
#include "opencv_flow.h"
#endif

namespace noxel {
namespace {

using scenes::Affine;
using scenes::apply;
using Vector = scenes::Point;
using scenes::FramePair;
using scenes::LayeredPair;
using scenes::Light;

constexpr double kMoves = 1.5;   // pixels
constexpr double kStill = 0.25;  // pixels
constexpr int kProceduralPhotos = 6;

struct Options {
  int width = 640;
  int height = 360;
  int pairs = 12;
  int earlier = 0;
  uint64_t seed = 1;
  double smooth = -1;
  bool alone = false;
  std::string dump;
  std::vector<std::string> photos;
};

[[noreturn]] void fail(const std::string& reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "noxel_field_bench: %s\n", reason.c_str());
  std::exit(1);
}

// Displacement of p, in the current frame, beside the common motion, when it was at `before` in the previous one.
Vector beside(const Affine& common, Vector p, Vector before) {
  const Vector carried = apply(common, before);
  return {p.x - carried.x, p.y - carried.y};
}

// Blocks of `side` pixels from the corner.
struct Grid {
  int side;
  int columns;
  int rows;
  int width;
  int height;

  size_t count() const { return static_cast<size_t>(columns) * static_cast<size_t>(rows); }
  Vector centre(size_t block) const {
    const int column = static_cast<int>(block) % columns;
    const int row = static_cast<int>(block) / columns;
    return {column * side + 0.5 * (side - 1), row * side + 0.5 * (side - 1)};
  }
  template <class Visit>
  void forPixels(size_t block, const Visit& visit) const {
    const int left = static_cast<int>(block) % columns * side;
    const int top = static_cast<int>(block) / columns * side;
    for (int y = top; y < std::min(top + side, height); ++y) {
      for (int x = left; x < std::min(left + side, width); ++x) {
        visit(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x));
      }
    }
  }
};

// Of each block, the layer that all its pixels show, or kMixed.
std::vector<uint8_t> layersOf(const LayeredPair& pair, const Grid& grid) {
  std::vector<uint8_t> layers;
  for (size_t block = 0; block < grid.count(); ++block) {
    int layer = -1;
    grid.forPixels(block, [&](size_t pixel) {
      const int here = pair.layer[pixel];
      layer = layer < 0 || here == layer ? here : LayeredPair::kMixed;
    });
    layers.push_back(static_cast<uint8_t>(layer));
  }
  return layers;
}

struct Score {
  int64_t blocks = 0, inHalf = 0, inOne = 0, moving = 0, found = 0, still = 0, wrong = 0;
  std::vector<double> milliseconds;

  void add(const Score& other) {
    blocks += other.blocks;
    inHalf += other.inHalf;
    inOne += other.inOne;
    moving += other.moving;
    found += other.found;
    still += other.still;
    wrong += other.wrong;
    milliseconds.insert(milliseconds.end(), other.milliseconds.begin(), other.milliseconds.end());
  }
  void print(const std::string& label, const char* method) const {
    const auto share = [](int64_t part, int64_t whole) {
      return whole > 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0;
    };
    std::printf("%-15s %-22s %7.2f %7.2f %7.2f %7.2f %8.2f\n", label.c_str(), method, share(inHalf, blocks),
                share(inOne, blocks), share(found, moving), share(wrong, still), tool::percentile(milliseconds, 50));
  }
};

using Field = std::vector<Vector>;  // displacement of each block beside the common motion

void score(const LayeredPair& pair, const std::vector<uint8_t>& layers, const Grid& grid, const Affine& common,
           const Field& field, Score* result) {
  for (size_t block = 0; block < grid.count(); ++block) {
    if (layers[block] == LayeredPair::kMixed) continue;
    const Vector p = grid.centre(block);
    const Vector truth = beside(common, p, apply(pair.previousFromCurrent[layers[block]], p));
    const double length = std::hypot(truth.x, truth.y);
    const double error = std::hypot(field[block].x - truth.x, field[block].y - truth.y);
    const auto one = [](bool yes) { return yes ? 1 : 0; };
    ++result->blocks;
    result->inHalf += one(error <= 0.5);
    result->inOne += one(error <= 1);
    result->moving += one(length > kMoves);
    result->found += one(length > kMoves && error <= 1);
    result->still += one(length < kStill);
    result->wrong += one(length < kStill && std::hypot(field[block].x, field[block].y) > 0.5);
  }
}

Field inFramePixels(const MotionField& found, double factor) {
  Field field;
  for (int i = 0; i < found.columns * found.rows; ++i) {
    field.push_back(
        {factor * static_cast<double>(found.blocks[i].dx), factor * static_cast<double>(found.blocks[i].dy)});
  }
  return field;
}

// A displacement as a colour: grey for none, hue by direction, full at 12 pixels and beyond.
std::array<uint8_t, 3> colourOf(Vector d) {
  const double length = std::min(std::hypot(d.x, d.y) / 12, 1.0);
  const double angle = std::atan2(d.y, d.x);
  std::array<uint8_t, 3> colour;
  for (size_t i = 0; i < 3; ++i) {
    const double wave = std::cos(angle - 2 * std::numbers::pi / 3 * static_cast<double>(i));
    colour[i] = static_cast<uint8_t>(128 + 127 * std::sqrt(length) * wave);
  }
  return colour;
}

// The frame, the truth and a field, side by side, as a PPM. Black: blocks that show several layers.
void dump(const std::string& path, const FramePair& frames, const LayeredPair& pair, const std::vector<uint8_t>& layers,
          const Grid& grid, const Affine& common, const Field& field) {
  const auto width = static_cast<size_t>(grid.width), height = static_cast<size_t>(grid.height);
  std::vector<uint8_t> picture(width * 3 * height * 3);
  for (size_t block = 0; block < grid.count(); ++block) {
    const Vector p = grid.centre(block);
    std::array<uint8_t, 3> truth = {};
    if (layers[block] != LayeredPair::kMixed) {
      truth = colourOf(beside(common, p, apply(pair.previousFromCurrent[layers[block]], p)));
    }
    grid.forPixels(block, [&](size_t pixel) {
      uint8_t* to = &picture[3 * (pixel / width * width * 3 + pixel % width)];
      std::fill_n(to, 3, static_cast<uint8_t>(std::min(frames.current[pixel] * 2, 255)));
      std::copy_n(truth.data(), 3, to + 3 * width);
      std::copy_n(colourOf(field[block]).data(), 3, to + 6 * width);
    });
  }
  std::ofstream file(path, std::ios::binary);
  file << "P6\n" << width * 3 << ' ' << height << "\n255\n";
  file.write(reinterpret_cast<const char*>(picture.data()), static_cast<std::streamsize>(picture.size()));
  if (!file.flush()) fail("cannot write " + path);
}

struct Method {
  std::string name;
  std::function<void(const FramePair&)> prepare;
  std::function<void(const FramePair&)> measure;
  std::function<Field(const Grid&, const Affine&)> field;  // beside this common motion
};

// The field alone, along a motion that is given. Registration has built the pyramids.
class FieldAlone {
 public:
  FieldAlone(int width, int height) : frame_(width, height), width_(width), height_(height) {
    if (!previous_.allocate(width, height, kLevels) || !current_.allocate(width, height, kLevels) ||
        !estimator_.allocate(width, height)) {
      fail("out of memory");
    }
  }
  void prepare(const FramePair& frames, const Affine& common) {
    previous_.buildFinest(frames.previous.data(), nullptr);
    previous_.buildCoarser(nullptr);
    current_.buildFinest(frames.current.data(), nullptr);
    current_.buildCoarser(nullptr);
    estimator_.clear();
    const double cx = 0.5 * width_, cy = 0.5 * height_;
    const double radius = std::hypot(cx, cy);
    const Vector centre = apply(common, {cx - 0.5, cy - 0.5});
    const double* m = common.m;
    const double p[6] = {centre.x - (cx - 0.5), (m[0] - 1) * radius, m[1] * radius,
                         centre.y - (cy - 0.5), m[3] * radius,       (m[4] - 1) * radius};
    std::copy_n(p, 6, motion_.p);
  }
  void measure() { estimator_.estimate(previous_, current_, frame_, motion_, nullptr); }
  MotionField field() const { return estimator_.field(); }

 private:
  static constexpr int kLevels = 5;
  tracker::ImagePyramid previous_;
  tracker::ImagePyramid current_;
  tracker::PictureFrame frame_;
  tracker::GlobalMotion motion_;
  tracker::MotionFieldEstimator estimator_;
  int width_;
  int height_;
};

#if NOXEL_BENCH_OPENCV
Method openCvMethod(const char* name, scenes::FlowMethod kind, double sigma) {
  auto flow = std::make_shared<scenes::OpenCvFlow>(kind);
  return {name, [=](const FramePair& f) { flow->prepare(f.previous, f.current, f.width, f.height, sigma); },
          [=](const FramePair&) { flow->measure(); },
          [=](const Grid& grid, const Affine& common) {
            Field field;
            for (size_t block = 0; block < grid.count(); ++block) {
              Vector sum = {};
              int count = 0;
              grid.forPixels(block, [&](size_t pixel) {
                const Vector p = {static_cast<double>(pixel % static_cast<size_t>(grid.width)),
                                  static_cast<double>(pixel / static_cast<size_t>(grid.width))};
                const float* f = flow->flow() + 2 * pixel;
                const Vector d = beside(common, p, {p.x + static_cast<double>(f[0]), p.y + static_cast<double>(f[1])});
                sum = {sum.x + d.x, sum.y + d.y};
                ++count;
              });
              field.push_back({sum.x / count, sum.y / count});
            }
            return field;
          }};
}
#endif

void run(const Options& options) {
  std::vector<scenes::NamedPhoto> named;
  std::string unreadable;
  if (!scenes::loadPhotos(options.photos, kProceduralPhotos, options.width, options.height, options.seed, &named,
                          &unreadable)) {
    fail(unreadable + " is not a binary PGM or PPM of 8 bits");
  }
  std::vector<scenes::Photo> photos;
  for (scenes::NamedPhoto& one : named) photos.push_back(std::move(one.photo));
  std::printf("%d x %d, %d pairs per scene and light, seed %llu, %zu %s\n", options.width, options.height,
              options.pairs, static_cast<unsigned long long>(options.seed), photos.size(),
              options.photos.empty() ? "procedural photos" : "photos");

  const int factor = resolutionFactor(options.width, options.height);
  const int columns = (options.width / factor + kMotionBlockSide - 1) / kMotionBlockSide;
  const int rows = (options.height / factor + kMotionBlockSide - 1) / kMotionBlockSide;
  const Grid grid = {kMotionBlockSide * factor, columns, rows, options.width, options.height};

  // A new registration for each pair: one learns from every frame, and would see these again and again.
  std::unique_ptr<PlaneRegistration> plain, ours;
  std::vector<std::vector<uint8_t>> earlier;  // frames before the pair
  const auto prime = [&](std::unique_ptr<PlaneRegistration>* registration, bool field, const FramePair& frames) {
    *registration = std::make_unique<PlaneRegistration>();
    if (!(*registration)->create(options.width, options.height, false, nullptr) ||
        (field && !(*registration)->enableField())) {
      fail("out of memory");
    }
    for (const std::vector<uint8_t>& frame : earlier) (*registration)->measure(frame.data());
    (*registration)->measure(frames.previous.data());
  };
  Affine common;  // as measured
  std::vector<Method> methods;
  methods.push_back({"ours", [&](const FramePair& f) { prime(&ours, true, f); },
                     [&](const FramePair& f) { ours->measure(f.current.data()); },
                     [&](const Grid&, const Affine&) { return inFramePixels(ours->field(), factor); }});
  methods.push_back({"(common motion alone)", [&](const FramePair& f) { prime(&plain, false, f); },
                     [&](const FramePair& f) { plain->measure(f.current.data()); },
                     [&](const Grid& g, const Affine&) { return Field(g.count()); }});
  FieldAlone alone(options.width, options.height);
  if (factor == 1) {
    methods.push_back({"field alone", [&](const FramePair& f) { alone.prepare(f, common); },
                       [&](const FramePair&) { alone.measure(); },
                       [&](const Grid&, const Affine&) { return inFramePixels(alone.field(), 1); }});
  }
#if NOXEL_BENCH_OPENCV
  if (!options.alone) {
    std::vector<double> sigmas = {1, 2, 3};
    if (options.smooth >= 0) sigmas = {options.smooth};
    for (const double sigma : sigmas) {
      char digits[16];
      std::snprintf(digits, sizeof(digits), " %.1f", sigma);
      using scenes::FlowMethod;
      methods.push_back(openCvMethod("DIS medium", FlowMethod::DisMedium, sigma));
      methods.back().name += digits;
      methods.push_back(openCvMethod("DIS ultrafast", FlowMethod::DisUltrafast, sigma));
      methods.back().name += digits;
      methods.push_back(openCvMethod("Farneback", FlowMethod::Farneback, sigma));
      methods.back().name += digits;
    }
  }
#else
  std::printf("built without OpenCV: no peers to compare with\n");
#endif

  if (!options.dump.empty()) std::filesystem::create_directories(options.dump);
  std::printf("%-15s %-22s %7s %7s %7s %7s %8s\n", "", "", "in .5 %", "in 1 %", "found %", "wrong %", "cpu ms");
  size_t turn = 0;
  constexpr size_t kLightCount = std::size(scenes::kLights);
  for (const scenes::Layers layers : scenes::kLayers) {
    std::array<std::vector<Score>, kLightCount> scores;
    std::array<int, kLightCount> lost = {};
    for (auto& one : scores) one.resize(methods.size());
    for (int index = 0; index < options.pairs; ++index) {
      const LayeredPair pair =
          renderLayers(photos, layers, options.width, options.height, options.seed, index, options.earlier);
      const std::vector<uint8_t> blockLayers = layersOf(pair, grid);
      for (size_t light = 0; light < kLightCount; ++light) {
        const FramePair frames =
            scenes::expose(pair.frames, scenes::kLights[light], options.seed + static_cast<uint64_t>(index));
        const double gain = scenes::gainFor(scenes::kLights[light], pair.frames.previous);
        earlier.clear();
        for (const std::vector<float>& frame : pair.earlier) {
          const uint64_t seed = 1000 * (options.seed + static_cast<uint64_t>(index)) + earlier.size();
          earlier.push_back(scenes::expose(frame, scenes::kLights[light], gain, seed));
        }
        prime(&ours, true, frames);
        if (!ours->measure(frames.current.data())) {
          ++lost[light];
          continue;
        }
        double measured[6];
        ours->currentFromPrevious(measured);
        std::copy_n(measured, 6, common.m);
        for (size_t i = 0; i < methods.size(); ++i) {
          const Method& method = methods[(turn + i) % methods.size()];
          Score& result = scores[light][(turn + i) % methods.size()];
          method.prepare(frames);
          const double start = processorMilliseconds();
          method.measure(frames);
          result.milliseconds.push_back(processorMilliseconds() - start);
          const Field field = method.field(grid, common);
          score(pair, blockLayers, grid, common, field, &result);
          if (!options.dump.empty() && &method == &methods[0]) {
            dump(options.dump + '/' + nameOf(layers) + '_' + nameOf(scenes::kLights[light]) + '_' +
                     std::to_string(index) + ".ppm",
                 frames, pair, blockLayers, grid, common, field);
          }
        }
        ++turn;
      }
    }
    for (size_t light = 0; light < kLightCount; ++light) {
      const std::string label = std::string(nameOf(layers)) + ' ' + nameOf(scenes::kLights[light]);
      for (size_t i = 0; i < methods.size(); ++i) scores[light][i].print(label, methods[i].name.c_str());
      if (lost[light] > 0) std::printf("%-15s without a common motion: %d\n", label.c_str(), lost[light]);
    }
    std::fflush(stdout);
  }
}

}  // namespace
}  // namespace noxel

int main(int argc, char** argv) {
  noxel::Options options;
  CLI::App app("The motion field against ground truth");
  app.add_option("--width", options.width, "Frame width in pixels")->check(CLI::Range(64, 4096));
  app.add_option("--height", options.height, "Frame height in pixels")->check(CLI::Range(64, 4096));
  app.add_option("--pairs", options.pairs, "Frame pairs per scene and light")->check(CLI::Range(1, 10000));
  app.add_option("--earlier", options.earlier, "Frames before each pair")->check(CLI::Range(0, 100));
  app.add_option("--seed", options.seed, "Seed of scenes, motions and noise");
  app.add_option("--smooth", options.smooth, "Sigma of OpenCV's input, pixels; without it 1, 2 and 3");
  app.add_flag("--alone", options.alone, "Only our own field");
  app.add_option("--dump", options.dump, "Write frame, truth and field of every pair into this directory, as pictures");
  app.add_option("photos", options.photos, "Binary PGM or PPM files, larger than the frame");
  CLI11_PARSE(app, argc, argv);
  noxel::run(options);
  return 0;
}
