#include "media/time_range.h"

extern "C" {
#include <libavutil/parseutils.h>
}

#include <cstdio>

namespace noxel::tool {

std::optional<int64_t> parsedTime(const std::string& text) {
  int64_t time = 0;
  if (av_parse_time(&time, text.c_str(), 1) < 0 || time < 0) return std::nullopt;
  return time;
}

std::string timeText(int64_t microseconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.6f", static_cast<double>(microseconds) / 1e6);
  std::string seconds = text;
  seconds.erase(seconds.find_last_not_of('0') + 1);
  if (seconds.back() == '.') seconds.pop_back();
  return seconds + " s";
}

}  // namespace noxel::tool
