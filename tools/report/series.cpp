#include "report/series.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace noxel::tool {
namespace {

// Three digits are more than a plot shows.
nlohmann::ordered_json rounded(double value) {
  return std::isnan(value) ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(std::round(value * 1e3) / 1e3);
}

}  // namespace

void Spread::add(double value) {
  if (!std::isnan(value)) add({value, value, value, 1});
}

void Spread::add(const Spread& more) {
  if (more.count == 0) return;
  min = count > 0 ? std::min(min, more.min) : more.min;
  max = count > 0 ? std::max(max, more.max) : more.max;
  sum += more.sum;
  count += more.count;
}

double Spread::mean() const {
  return count > 0 ? sum / static_cast<double>(count) : std::numeric_limits<double>::quiet_NaN();
}

Series::Series(std::vector<std::string> names) : names_(std::move(names)) {
  bins_.reserve(kMaxBins);
}

void Series::add(double seconds, const std::vector<double>& values) {
  if (bins_.empty() || bins_.back().time.count == framesPerBin_) {
    if (bins_.size() == kMaxBins) halve();
    bins_.push_back({{}, std::vector<Spread>(names_.size())});
  }
  Bin& bin = bins_.back();
  bin.time.add(seconds);
  for (size_t i = 0; i < names_.size(); ++i) bin.values[i].add(values[i]);
}

void Series::halve() {
  for (size_t i = 0; i < kMaxBins / 2; ++i) {
    Bin joined = std::move(bins_[2 * i]);
    const Bin& second = bins_[2 * i + 1];
    joined.time.add(second.time);
    for (size_t value = 0; value < names_.size(); ++value) joined.values[value].add(second.values[value]);
    bins_[i] = std::move(joined);
  }
  bins_.resize(kMaxBins / 2);
  framesPerBin_ *= 2;
}

Spread Series::all(const std::string& name) const {
  const auto index = static_cast<size_t>(std::ranges::find(names_, name) - names_.begin());
  Spread spread;
  for (const Bin& bin : bins_) spread.add(bin.values.at(index));
  return spread;
}

nlohmann::ordered_json Series::json() const {
  using Json = nlohmann::ordered_json;
  Json result = {{"time", Json::array()}};
  for (const Bin& bin : bins_) result["time"].push_back(rounded(bin.time.mean()));
  for (size_t i = 0; i < names_.size(); ++i) {
    Json mean = Json::array(), min = Json::array(), max = Json::array();
    for (const Bin& bin : bins_) {
      const Spread& spread = bin.values[i];
      mean.push_back(rounded(spread.mean()));
      min.push_back(spread.count > 0 ? rounded(spread.min) : Json(nullptr));
      max.push_back(spread.count > 0 ? rounded(spread.max) : Json(nullptr));
    }
    Json& named = result[names_[i]] = {{"mean", std::move(mean)}};
    if (framesPerBin_ == 1) continue;
    named["min"] = std::move(min);
    named["max"] = std::move(max);
  }
  return result;
}

}  // namespace noxel::tool
