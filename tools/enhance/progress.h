// How far the run is, on standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace noxel::tool {

// "frame 120/1500  24.0 fps  0:57 left"; without a total (0) neither it nor the time left.
std::string progressText(int64_t frame, int64_t total, double seconds);

// A line that is refreshed on a terminal, a plain line every few seconds elsewhere, nothing when quiet. One thread.
class Progress {
 public:
  Progress(bool quiet, bool terminal, int64_t total, std::FILE* out = stderr);
  void restart() { printed_ = start_ = Clock::now(); }  // before the first frame; what came earlier is not counted
  void frameDone(int64_t frames);
  void clear();  // takes the refreshed line away, so that another can be printed
  double seconds() const;

 private:
  using Clock = std::chrono::steady_clock;

  const bool quiet_;
  const bool terminal_;
  const int64_t total_;
  std::FILE* const out_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point printed_ = start_;
  bool lineShown_ = false;
};

}  // namespace noxel::tool
