// The measured noise curve against the truth.
//
//   noxel_noise_bench [--width W] [--height H] [--frames N] [--mean LUMA] [--seed S] [photo.pgm...]
//
// Clips of photos, or of procedural scenes, that stand still, pan by fractions of a pixel, or have depth; Gaussian and
// Poisson noise, white and correlated by a mosaic's interpolation. Registered as noxel-register does it. A row has the
// ratio of the measured to the true variance, in all entries of the curve that cover at least one pixel in 200: of all
// frames from the third on, the share of them within 15 % and above 1.5, then of the second frame, the first that has a
// difference, and of the first frame alone; then that of the chroma from the third frame on. Time is processor time on one thread, without the registration.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/percentile.h"
#include "processor_time.h"
#include "registration/noise_curve.h"
#include "registration/plane_registration.h"
#include "scenes/scenes.h"
#include "scenes/sensor_noise.h"

namespace noxel {
namespace {

using scenes::Movement;
using scenes::Sensor;

constexpr double kMinShare = 1.0 / 200;
constexpr int kProceduralPhotos = 2;

struct Options {
  int width = 640;
  int height = 360;
  int frames = 12;
  double mean = 60;
  uint64_t seed = 1;
  bool verbose = false;
  std::vector<double> sigmas = {1, 2, 4, 8, 16};
  std::vector<std::string> photos;
};

[[noreturn]] void fail(const std::string& reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "noxel_noise_bench: %s\n", reason.c_str());
  std::exit(1);
}

struct Ratios {
  std::vector<double> first;
  std::vector<double> second;
  std::vector<double> later;
  std::vector<double> chroma;  // U and V, of all frames from the third on
  std::vector<double> milliseconds;
  int lost = 0;

  void append(const Ratios& other) {
    first.insert(first.end(), other.first.begin(), other.first.end());
    second.insert(second.end(), other.second.begin(), other.second.end());
    later.insert(later.end(), other.later.begin(), other.later.end());
    milliseconds.insert(milliseconds.end(), other.milliseconds.begin(), other.milliseconds.end());
    chroma.insert(chroma.end(), other.chroma.begin(), other.chroma.end());
    lost += other.lost;
  }
};

void print(const std::string& label, const Ratios& r) {
  const auto p = [](const std::vector<double>& values, double percent) { return tool::percentile(values, percent); };
  const auto max = [](const std::vector<double>& v) { return v.empty() ? 0 : *std::max_element(v.begin(), v.end()); };
  const auto min = [](const std::vector<double>& v) { return v.empty() ? 0 : *std::min_element(v.begin(), v.end()); };
  const auto percentOf = [](const std::vector<double>& v, auto&& counts) {
    return 100 * static_cast<double>(std::count_if(v.begin(), v.end(), counts)) /
           static_cast<double>(std::max<size_t>(v.size(), 1));
  };
  const auto near = [](double ratio) { return std::fabs(ratio - 1) <= 0.15; };
  const auto tooHigh = [](double ratio) { return ratio > 1.5; };
  std::printf(
      "%-28s | %5.2f %5.2f %5.2f %5.2f %5.2f | %5.1f %5.2f | %5.2f %5.2f %5.2f %5.1f | %5.2f %5.2f %5.2f %5.1f | "
      "%5.2f %5.2f %5.2f %5.1f %5.2f | %5.2f | %d\n",
      label.c_str(), min(r.later), p(r.later, 10), p(r.later, 50), p(r.later, 90), max(r.later),
      percentOf(r.later, near), percentOf(r.later, tooHigh), min(r.second), p(r.second, 50), max(r.second),
      percentOf(r.second, tooHigh), min(r.first), p(r.first, 50), max(r.first), percentOf(r.first, tooHigh),
      p(r.chroma, 10), p(r.chroma, 50), p(r.chroma, 90), percentOf(r.chroma, near), percentOf(r.chroma, tooHigh),
      p(r.milliseconds, 50), r.lost);
  std::fflush(stdout);
}

// As the engine has it: 3 x 3, the centre of the first pixel at (0.5, 0.5).
void previousFromCurrent(const PlaneRegistration& registration, float (*motion)[9]) {
  double a[6];
  registration.currentFromPrevious(a);
  const scenes::Affine inverse = scenes::inverse({{a[0], a[1], a[2], a[3], a[4], a[5]}});
  for (int row = 0; row < 2; ++row) {
    const double* m = inverse.m + 3 * row;
    (*motion)[3 * row] = static_cast<float>(m[0]);
    (*motion)[3 * row + 1] = static_cast<float>(m[1]);
    (*motion)[3 * row + 2] = static_cast<float>(m[2] + 0.5 - 0.5 * (m[0] + m[1]));
  }
  (*motion)[6] = (*motion)[7] = 0;
  (*motion)[8] = 1;
}

Ratios runCase(const std::vector<std::vector<float>>& clean, const Options& options, Sensor sensor, double sigma,
               uint64_t seed) {
  scenes::Random random = {seed, static_cast<uint64_t>(sensor), static_cast<uint64_t>(sigma * 64)};
  std::vector<std::vector<uint8_t>> noisy;
  std::vector<std::vector<uint8_t>> noisyChroma;  // V, U pairs
  scenes::TrueNoise truth;
  scenes::TrueNoise chromaTruth[2];
  for (const std::vector<float>& frame : clean) {
    noisyChroma.emplace_back();
    noisy.push_back(
        scenes::shootNoise(frame, options.width, options.height, sensor, sigma, random, &noisyChroma.back()));
    truth.add(frame, noisy.back());
    const std::vector<float> luma = scenes::halved(frame, options.width, options.height);
    for (int plane = 0; plane < 2; ++plane) {
      std::vector<float> shown;
      for (size_t i = 0; i < luma.size(); ++i) shown.push_back(noisyChroma.back()[2 * i + (plane == 0 ? 1 : 0)]);
      chromaTruth[plane].add(luma, scenes::cleanChroma(frame, options.width, options.height, plane), shown);
    }
  }
  const auto entries = truth.entries(NoiseCurve::kEntries);
  const decltype(entries) chromaEntries[2] = {chromaTruth[0].entries(NoiseCurve::kEntries),
                                              chromaTruth[1].entries(NoiseCurve::kEntries)};
  PlaneRegistration registration;
  NoiseMeter meter;
  if (!registration.create(options.width, options.height, false, nullptr) ||
      !meter.allocate(options.width, options.height)) {
    fail("no registration of this size");
  }
  Ratios ratios;
  for (size_t frame = 0; frame < noisy.size(); ++frame) {
    const bool valid = registration.measure(noisy[frame].data());
    ratios.lost += frame > 0 && !valid ? 1 : 0;
    float motion[9];
    previousFromCurrent(registration, &motion);
    const double start = processorMilliseconds();
    const uint8_t* chroma = noisyChroma[frame].data();
    meter.measure(noisy[frame].data(), valid ? motion : nullptr, {{chroma + 1, chroma}, 2, options.width / 2 * 2});
    ratios.milliseconds.push_back(processorMilliseconds() - start);
    if (!meter.curve().known) continue;
    for (size_t plane = 0; frame > 1 && meter.curve().chromaKnown && plane < 2; ++plane) {
      for (size_t i = 0; i < NoiseCurve::kEntries; ++i) {
        const auto& entry = chromaEntries[plane][i];
        if (entry.share < kMinShare) continue;
        ratios.chroma.push_back(static_cast<double>(meter.curve().chromaVariance[plane][i]) / entry.variance);
      }
    }
    std::vector<double>& to = frame == 0 ? ratios.first : frame == 1 ? ratios.second : ratios.later;
    for (int i = 0; i < NoiseCurve::kEntries; ++i) {
      const auto& entry = entries[static_cast<size_t>(i)];
      if (entry.share < kMinShare) continue;
      to.push_back(static_cast<double>(meter.curve().variance[i]) / entry.variance);
      if (options.verbose && frame + 1 == noisy.size()) {
        std::printf("    entry %2d share %.3f true %8.2f measured %8.2f ratio %.3f\n", i, entry.share, entry.variance,
                    static_cast<double>(meter.curve().variance[i]), to.back());
      }
    }
  }
  return ratios;
}

void run(const Options& options) {
  std::vector<scenes::NamedPhoto> photos;
  std::string unreadable;
  if (!scenes::loadPhotos(options.photos, kProceduralPhotos, options.width, options.height, options.seed, &photos,
                          &unreadable)) {
    fail(unreadable + " is not a binary PGM or PPM of 8 bits");
  }
  std::printf("%d x %d, %d frames, %zu photos, mean luma %.0f, seed %llu\n", options.width, options.height,
              options.frames, photos.size(), options.mean, static_cast<unsigned long long>(options.seed));
  std::printf("%-28s | %5s %5s %5s %5s %5s | %5s %5s | %-23s | %-23s | %-29s | %5s | %s\n", "measured / true variance",
              "min", "p10", "p50", "p90", "max", "<15 %", ">1.5", "2nd: min p50 max  >1.5", "1st: min p50 max  >1.5",
              "U, V: p10 p50 p90 <15 % >1.5", "cpu ms", "lost");
  std::vector<Ratios> rows(std::size(scenes::kMovements) * std::size(scenes::kSensors) * options.sigmas.size());
  for (size_t photo = 0; photo < photos.size(); ++photo) {
    size_t row = 0;
    for (const Movement movement : scenes::kMovements) {
      const auto clean = scenes::renderClip(photos[photo].photo, movement, options.width, options.height,
                                            options.frames, options.mean, options.seed + photo);
      for (const Sensor sensor : scenes::kSensors) {
        for (const double sigma : options.sigmas) {
          if (options.verbose)
            std::printf("  %s %s %s %g\n", photos[photo].name.c_str(), nameOf(movement), nameOf(sensor), sigma);
          rows[row++].append(runCase(clean, options, sensor, sigma, options.seed + photo));
        }
      }
    }
  }
  size_t row = 0;
  Ratios all;
  for (const Movement movement : scenes::kMovements) {
    for (const Sensor sensor : scenes::kSensors) {
      for (const double sigma : options.sigmas) {
        char label[64];
        std::snprintf(label, sizeof(label), "%s %s %g", nameOf(movement), nameOf(sensor), sigma);
        if (!rows[row].later.empty()) print(label, rows[row]);
        all.append(rows[row++]);
      }
    }
  }
  print("all", all);
}

}  // namespace
}  // namespace noxel

int main(int argc, char** argv) {
  noxel::Options options;
  CLI::App app("The measured noise curve against the truth");
  app.add_option("--width", options.width, "Frame width in pixels")->check(CLI::Range(64, 4096));
  app.add_option("--height", options.height, "Frame height in pixels")->check(CLI::Range(64, 4096));
  app.add_option("--frames", options.frames, "Frames of a clip")->check(CLI::Range(2, 1000));
  app.add_option("--mean", options.mean, "Mean luma of the clips; 0: as the photos")->check(CLI::Range(0, 200));
  app.add_option("--seed", options.seed, "Seed of scenes, motions and noise");
  app.add_option("--sigma", options.sigmas, "Noise in levels")->check(CLI::Range(0.0, 64.0));
  app.add_flag("--entries", options.verbose, "Print each entry after the last frame");
  app.add_option("photos", options.photos, "Binary PGM or PPM files, larger than the frame");
  CLI11_PARSE(app, argc, argv);
  noxel::run(options);
  return 0;
}
