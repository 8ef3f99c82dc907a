// How long the engine's passes take.
#pragma once

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/quantiles.h"

namespace noxel::tool {

// Figures are per frame, over the frames that drew the pass: times of one frame add up.
class PassTimes {
 public:
  void add(const std::string& pass, uint64_t nanoseconds);  // in the order drawn; 0: time unknown
  void endFrame();

  // Rows in the order drawn. Share: of the time of all passes, 0..1.
  nlohmann::ordered_json json() const;
  void print(std::FILE* out) const;

 private:
  struct Pass {
    std::string name;
    int64_t drawn = 0;
    double inFrame = 0;  // ms, of the current frame
    Quantiles ms = {};   // of the frames with a known time
  };

  std::vector<Pass> passes_;
  size_t next_ = 0;  // where a new pass of the current frame belongs
};

}  // namespace noxel::tool
