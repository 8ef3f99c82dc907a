// Random numbers that are equal on every machine: the standard distributions differ between libraries.
#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <numbers>
#include <random>
#include <vector>

namespace noxel::scenes {

class Random {
 public:
  Random(std::initializer_list<uint64_t> seeds) {
    std::vector<uint32_t> words;
    for (uint64_t seed : seeds) {
      words.push_back(static_cast<uint32_t>(seed));
      words.push_back(static_cast<uint32_t>(seed >> 32));
    }
    std::seed_seq sequence(words.begin(), words.end());
    engine_.seed(sequence);
  }

  double uniform(double low, double high) {
    return low + (high - low) * (static_cast<double>(engine_() >> 11) * 0x1p-53);
  }
  int below(size_t count) { return static_cast<int>(engine_() % count); }
  double direction() { return uniform(-std::numbers::pi, std::numbers::pi); }

  double gaussian() {  // Box and Muller, two at a time
    if (hasSpare_) {
      hasSpare_ = false;
      return spare_;
    }
    const double radius = std::sqrt(-2 * std::log(1 - uniform(0, 1)));
    const double angle = direction();
    spare_ = radius * std::sin(angle);
    hasSpare_ = true;
    return radius * std::cos(angle);
  }

 private:
  std::mt19937_64 engine_;
  double spare_ = 0;
  bool hasSpare_ = false;
};

}  // namespace noxel::scenes
