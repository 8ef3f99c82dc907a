// How far pictures are from a reference: PSNR, SSIM and flicker, as they are and with the tone taken out. Samples have
// 8 bits, full range. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/luma_histogram.h"

namespace noxel::tool {

struct PlaneView {
  const uint8_t* samples;
  ptrdiff_t stride;
  int width;
  int height;
  const uint8_t* row(int y) const { return samples + y * stride; }
  double count() const { return static_cast<double>(width) * height; }
};

// 10 log10(255^2 / error), at most kMaxPsnr: that of equal pictures.
constexpr double kMaxPsnr = 99;
double psnr(double meanSquaredError);

// The level that stands for each level of a clip.
using ToneTable = std::array<double, kLevels>;
ToneTable sameTone();

// How often which level of a clip stands where its reference has which. All planes of one size.
class JointHistogram {
 public:
  JointHistogram() : counts_(size_t{kLevels} * kLevels) {}
  void add(const PlaneView& clip, const PlaneView& reference);

  // The table that never falls and leaves the least squared error (pool adjacent violators), linear between the levels
  // that the clip has.
  ToneTable fitted() const;
  double meanSquaredError(const ToneTable& table) const;

 private:
  std::vector<uint64_t> counts_;  // [clip][reference]
};

// Sums over the samples of a chroma plane, from which errors and the best straight line follow.
struct ChromaSums {
  double count = 0, clip = 0, reference = 0, clipSquared = 0, product = 0, referenceSquared = 0;

  void add(const PlaneView& plane, const PlaneView& referencePlane);
  void add(const ChromaSums& more);
};

struct ChromaLine {
  double gain = 1;
  double offset = 0;
};
ChromaLine fittedLine(const ChromaSums& sums);
double meanSquaredError(const ChromaSums& sums, const ChromaLine& line);

// Mean SSIM of luma over a Gaussian window of 11 x 11, sigma 1.5, peak 255; mirrored at the borders.
class StructuralSimilarity {
 public:
  void setReference(const PlaneView& reference);
  double of(const PlaneView& picture, const ToneTable& table);

 private:
  using Plane = std::vector<float>;
  void blur(const Plane& plane, Plane& blurred);

  int width_ = 0;
  int height_ = 0;
  Plane reference_, referenceMean_, referenceSquares_;
  Plane picture_, mean_, squares_, products_;
  Plane squared_, rows_, mirrored_;  // scratch
};

// Luma errors of the frames of a clip, one after the other.
class ErrorSequence {
 public:
  struct Errors {
    double meanSquared;
    double flicker;  // mean absolute change of the error since the frame before; of a first frame NaN
  };
  Errors next(const PlaneView& picture, const PlaneView& reference, const ToneTable& table);

 private:
  std::vector<float> previous_;
};

}  // namespace noxel::tool
