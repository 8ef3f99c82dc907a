// Figures over the length of a run, in bounded memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace noxel::tool {

// Least, mean and largest of a figure; NaN while there is none.
struct Spread {
  double min = 0;
  double max = 0;
  double sum = 0;
  int64_t count = 0;

  void add(double value);  // NaN: nothing
  void add(const Spread& more);
  double mean() const;
};

// Some figures of each frame. Frames share bins, twice as many each time the bins run out: 500 to 1000 bins, however
// long the run.
class Series {
 public:
  static constexpr size_t kMaxBins = 1000;

  explicit Series(std::vector<std::string> names);
  void add(double seconds, const std::vector<double>& values);  // in the order of the names; NaN: not known

  int64_t framesPerBin() const { return framesPerBin_; }
  Spread all(const std::string& name) const;
  // {"time": [...], NAME: {"mean": [...], "min": [...], "max": [...]}}; null: not known in any frame of the bin.
  // Without min and max while each frame has its own bin.
  nlohmann::ordered_json json() const;

 private:
  struct Bin {
    Spread time;
    std::vector<Spread> values;
  };
  void halve();

  const std::vector<std::string> names_;
  std::vector<Bin> bins_;
  int64_t framesPerBin_ = 1;
};

}  // namespace noxel::tool
