#include "common/quantiles.h"

#include <algorithm>
#include <cmath>

#include "common/percentile.h"

namespace noxel::tool {
namespace {

constexpr double kSmallest = 1e-6;  // all below share a bin: a nanosecond, as milliseconds
constexpr double kWidth = 1.01;
constexpr double kBins = 3500;  // up to 1e9

}  // namespace

size_t Quantiles::binOf(double sample) {
  if (!(sample > kSmallest)) return 0;
  return static_cast<size_t>(std::min(1 + std::log(sample / kSmallest) / std::log(kWidth), kBins - 1));
}

double Quantiles::centreOf(size_t bin) {
  return bin == 0 ? 0 : kSmallest * std::pow(kWidth, static_cast<double>(bin) - 0.5);
}

void Quantiles::add(double sample) {
  ++count_;
  sum_ += sample;
  max_ = std::max(max_, sample);
  if (count_ <= kExact) {
    samples_.push_back(sample);
    return;
  }
  if (bins_.empty()) {
    bins_.resize(static_cast<size_t>(kBins));
    for (const double earlier : samples_) ++bins_[binOf(earlier)];
    samples_ = {};
  }
  ++bins_[binOf(sample)];
}

double Quantiles::percentile(double percent) const {
  if (bins_.empty()) return tool::percentile(samples_, percent);
  const double rank = std::max(std::ceil(percent / 100 * static_cast<double>(count_)), 1.0);
  double below = 0;
  for (size_t bin = 0; bin < bins_.size(); ++bin) {
    below += bins_[bin];
    if (below >= rank) return std::min(centreOf(bin), max_);
  }
  return max_;
}

}  // namespace noxel::tool
