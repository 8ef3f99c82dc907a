// What registration says of scenes that determine a motion only partly, and of frames in which something stays while
// the scene moves.
//
//   noxel_honesty_bench [--width W] [--height H] [--frames N] [--seed S] [--only sparse|fixed] [photo.pgm...]
//
// Clips under a still camera and under a known tremor. Columns:
//
//   valid    frames with a motion, %
//   moved    largest distance by which stabilisation moves a corner of a still scene, pixels
//   p50 p90  error, pixels: of sparse scenes along the gradient, where moving the picture changes it, rms weighted by
//            the squared gradient; of photos rms over the corners
//   max      the largest of these
//   over 3 s frames whose error over the corners exceeds three times the stated deviation, %
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <numbers>
#include <string>
#include <vector>

#include "common/percentile.h"
#include "registration/plane_registration.h"
#include "registration/point_tracker.h"
#include "scenes/scenes.h"
#include "scenes/sparse.h"

namespace noxel {
namespace {

using scenes::Affine;

struct Options {
  int width = 640;
  int height = 360;
  int frames = 60;
  uint64_t seed = 1;
  double noise = 5;
  std::string only;
  bool perFrame = false;
  std::vector<std::string> photos;
};

[[noreturn]] void fail(const std::string& reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "noxel_honesty_bench: %s\n", reason.c_str());
  std::exit(1);
}

Affine product(const Affine& a, const Affine& b) {
  const double* m = a.m;
  const double* n = b.m;
  return {{m[0] * n[0] + m[1] * n[3], m[0] * n[1] + m[1] * n[4], m[0] * n[2] + m[1] * n[5] + m[2],
           m[3] * n[0] + m[4] * n[3], m[3] * n[1] + m[4] * n[4], m[3] * n[2] + m[4] * n[5] + m[5]}};
}

// Tremor of a hand at frame `index`, 30 frames a second: 2 pixels and 2 mrad rms, 2 to 9 Hz.
Affine tremor(int index, const Options& options) {
  const auto wander = [&](double phase) {
    double sum = 0;
    for (int tone = 0; tone < 5; ++tone) {
      const double hz = 2.3 + 1.5 * tone;
      sum += std::sin(2 * std::numbers::pi * (hz * index / 30 + phase * (tone + 1) * 0.618));
    }
    return sum / std::sqrt(2.5);
  };
  const double s = static_cast<double>(options.seed);
  const double angle = 0.002 * wander(0.11 + s);
  const double x0 = 0.5 * (options.width - 1);
  const double y0 = 0.5 * (options.height - 1);
  const double c = std::cos(angle);
  const double sn = std::sin(angle);
  return {{c, -sn, x0 - c * x0 + sn * y0 + 2 * wander(0.37 + s), sn, c, y0 - sn * x0 - c * y0 + 2 * wander(0.73 + s)}};
}

// Weighted by the squared gradient of the picture: the error that changes it.
double errorAlongGradient(const std::vector<float>& frame, const Affine& measured, const Affine& truth, int width,
                          int height) {
  double squares = 0;
  double weights = 0;
  for (int y = 1; y < height - 1; y += 2) {
    for (int x = 1; x < width - 1; x += 2) {
      const float* at = frame.data() + static_cast<ptrdiff_t>(y) * width + x;
      const double gx = 0.5 * static_cast<double>(at[1] - at[-1]);
      const double gy = 0.5 * static_cast<double>(at[width] - at[-width]);
      double e[2];
      for (int i = 0; i < 2; ++i) {
        e[i] = 0;
        const double place[3] = {static_cast<double>(x), static_cast<double>(y), 1};
        for (int k = 0; k < 3; ++k) e[i] += (measured.m[3 * i + k] - truth.m[3 * i + k]) * place[k];
      }
      squares += (gx * e[0] + gy * e[1]) * (gx * e[0] + gy * e[1]);
      weights += gx * gx + gy * gy;
    }
  }
  return weights > 0 ? std::sqrt(squares / weights) : 0;
}

struct Row {
  int frames = 0;
  int valid = 0;
  double moved = 0;
  std::vector<double> errors;
  int understated = 0;

  void print(const std::string& label) const {
    std::printf("%-24s %7.1f %7.2f", label.c_str(), 100.0 * valid / frames, moved);
    if (errors.empty()) {
      std::printf("\n");
    } else {
      std::printf(" %8.3f %8.3f %8.2f %7.1f\n", tool::percentile(errors, 50), tool::percentile(errors, 90),
                  *std::max_element(errors.begin(), errors.end()), 100.0 * understated / valid);
    }
    std::fflush(stdout);
  }
};

// render: frame and its clean picture at an index; frameFromScene: the camera at an index.
void measureClip(const Options& options, const std::function<std::vector<uint8_t>(int, std::vector<float>*)>& render,
                 const std::function<Affine(int)>& frameFromScene, bool alongGradient, Row* row) {
  PlaneRegistration registration;
  if (!registration.create(options.width, options.height, true, nullptr)) fail("no registration of this size");
  std::vector<float> clean;
  for (int i = 0; i < options.frames; ++i) {
    const bool valid = registration.measure(render(i, &clean).data());
    if (i == 0) continue;
    ++row->frames;
    const float* s = registration.stabilization()->stabilizationMatrix;
    for (int corner = 0; corner < 4; ++corner) {
      const double x = corner % 2 * (options.width - 1.0);
      const double y = corner / 2 * (options.height - 1.0);
      const auto at = [&](int k) { return static_cast<double>(s[k]); };
      row->moved =
          std::max(row->moved, std::hypot(at(0) * x + at(1) * y + at(2) - x, at(3) * x + at(4) * y + at(5) - y));
    }
    if (options.perFrame) std::printf("  %d valid %d", i, valid ? 1 : 0);
    if (valid) {
      ++row->valid;
      Affine measured;
      registration.currentFromPrevious(measured.m);
      const Affine truth = product(frameFromScene(i), scenes::inverse(frameFromScene(i - 1)));
      const double atCorners = scenes::cornerError(measured, truth, options.width, options.height);
      const double error =
          alongGradient ? errorAlongGradient(clean, measured, truth, options.width, options.height) : atCorners;
      row->errors.push_back(error);
      const double stated = motionDeviation(registration.state());
      row->understated += atCorners > 3 * stated ? 1 : 0;
      if (options.perFrame) {
        std::printf(" error %.3f corners %.3f stated %.3f truth %.2f %.2f measured %.2f %.2f", error, atCorners, stated,
                    truth.m[2], truth.m[5], measured.m[2], measured.m[5]);
      }
    }
    if (options.perFrame) std::printf("\n");
  }
}

void header(const char* what) {
  std::printf("%-24s %7s %7s %8s %8s %8s %7s\n", what, "valid", "moved", "p50 px", "p90 px", "max px", "over 3s");
}

void runSparse(const Options& options) {
  header("sparse");
  for (const bool moving : {false, true}) {
    for (const scenes::Sparse scene : scenes::kSparse) {
      Row row;
      const auto camera = [&](int i) { return moving ? tremor(i, options) : Affine(); };
      std::vector<float> still;
      const auto render = [&](int i, std::vector<float>* clean) {
        if (moving || clean->empty()) {
          *clean = scenes::renderSparse(scene, scenes::inverse(camera(i)), options.width, options.height);
        }
        return scenes::shootWithNoise(*clean, options.noise, options.seed * 1000 + static_cast<uint64_t>(i));
      };
      measureClip(options, render, camera, true, &row);
      row.print(std::string(scenes::nameOf(scene)) + (moving ? " tremor" : " still"));
    }
  }
}

void runFixed(const Options& options) {
  std::vector<scenes::NamedPhoto> photos;
  std::string unreadable;
  if (!scenes::loadPhotos(options.photos, 3, options.width, options.height, options.seed, &photos, &unreadable)) {
    fail(unreadable + " is not a binary PGM or PPM of 8 bits");
  }
  header("fixed, on dark photos");
  std::vector<std::vector<std::vector<float>>> rendered(photos.size());  // per photo and frame
  const auto camera = [&](int i) { return tremor(i, options); };
  const auto over = [&](const std::string& label, const std::function<void(int, std::vector<float>*)>& change) {
    Row row;
    for (size_t p = 0; p < photos.size(); ++p) {
      const scenes::StillScene scene =
          scenes::drawStillScene(photos[p].photo, options.width, options.height, options.seed + p);
      double gain = 0;
      std::vector<std::vector<float>>& views = rendered[p];
      const auto render = [&](int i, std::vector<float>* clean) {
        if (views.size() <= static_cast<size_t>(i)) {
          views.push_back(scenes::renderView(scene, scenes::inverse(camera(i)), options.width, options.height));
        }
        *clean = views[static_cast<size_t>(i)];
        if (i == 0) gain = scenes::gainFor(scenes::Light::Dark, *clean);
        for (float& value : *clean) value *= static_cast<float>(gain);
        change(i, clean);
        return scenes::shootWithNoise(*clean, 8, options.seed * 1000 + static_cast<uint64_t>(i));
      };
      measureClip(options, render, camera, false, &row);
    }
    row.print(label);
  };
  for (const scenes::Fixed what : scenes::kFixed) {
    over(scenes::nameOf(what), [&](int, std::vector<float>* frame) {
      scenes::layOver(what, options.seed, options.width, options.height, frame);
    });
  }
  // Bands that wander by this share of their distance a frame.
  for (const double step : {0.1, 0.25, 0.37, 0.5}) {
    char label[32];
    std::snprintf(label, sizeof(label), "banding by %.2f", step);
    over(label,
         [&](int i, std::vector<float>* frame) { scenes::addBanding(step * i, options.width, options.height, frame); });
  }
}

}  // namespace
}  // namespace noxel

int main(int argc, char** argv) {
  noxel::Options options;
  CLI::App app("Registration of scenes that determine a motion only partly, and of what stays");
  app.add_option("--width", options.width, "Frame width in pixels")->check(CLI::Range(64, 1000));
  app.add_option("--height", options.height, "Frame height in pixels")->check(CLI::Range(64, 1000));
  app.add_option("--frames", options.frames, "Frames per clip")->check(CLI::Range(2, 100000));
  app.add_option("--seed", options.seed, "Seed of scenes and noise");
  app.add_option("--noise", options.noise, "Noise of the sparse scenes, levels");
  app.add_option("--only", options.only, "One part of it")->check(CLI::IsMember({"sparse", "fixed"}));
  app.add_flag("--per-frame", options.perFrame, "A line for each frame");
  app.add_option("photos", options.photos, "Binary PGM or PPM files, larger than the frame");
  CLI11_PARSE(app, argc, argv);
  if (options.only != "fixed") noxel::runSparse(options);
  if (options.only != "sparse") noxel::runFixed(options);
  return 0;
}
