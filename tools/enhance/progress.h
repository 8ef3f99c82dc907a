// Progress on standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace noxel::tool {

// "frame 120/1500  24.0 fps  0:57 left"; total 0: unknown, "frame 120  24.0 fps".
std::string progressText(int64_t frame, int64_t total, double seconds);

// On a terminal one line that is refreshed, elsewhere a line every few seconds; nothing when quiet. One thread.
class Progress {
 public:
  using Clock = std::chrono::steady_clock;

  Progress(bool quiet, bool terminal, int64_t total, std::FILE* out = stderr);
  void startedAt(Clock::time_point start) { start_ = start; }  // earlier than this was made: the rate counts that, too
  void frameDone(int64_t frames);
  void clear();  // erases the refreshed line before another is printed
  double seconds() const;

 private:
  const bool quiet_;
  const bool terminal_;
  const int64_t total_;
  std::FILE* const out_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point printed_ = start_;
  bool lineShown_ = false;
};

}  // namespace noxel::tool
