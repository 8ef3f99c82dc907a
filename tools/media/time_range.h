// A part of a clip.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace noxel::tool {

// In microseconds from the start of the file: the frames whose time stamps are in [start, start + duration).
struct TimeRange {
  int64_t startUs = 0;
  std::optional<int64_t> durationUs;  // none: to the end

  bool whole() const { return startUs == 0 && !durationUs; }
};

// Seconds, or [HH:]MM:SS[.mmm], in microseconds; none when it is neither, or negative.
std::optional<int64_t> parsedTime(const std::string& text);
// "12.5 s"
std::string timeText(int64_t microseconds);

}  // namespace noxel::tool
