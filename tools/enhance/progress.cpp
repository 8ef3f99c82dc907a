#include "enhance/progress.h"

#include <algorithm>
#include <cmath>

namespace noxel::tool {
namespace {

constexpr std::chrono::milliseconds kRefresh{200};
constexpr std::chrono::seconds kPlainLineEvery{5};

}  // namespace

std::string progressText(int64_t frame, int64_t total, double seconds) {
  std::string text = "frame " + std::to_string(frame);
  if (total > 0) text.append("/").append(std::to_string(std::max(total, frame)));
  if (frame <= 0 || seconds <= 0) return text;
  const double rate = static_cast<double>(frame) / seconds;
  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), "  %.1f fps", rate);
  text += buffer;
  if (total <= 0) return text;
  const auto left = static_cast<long>(std::lround(static_cast<double>(std::max<int64_t>(0, total - frame)) / rate));
  if (left >= 3600) {
    std::snprintf(buffer, sizeof(buffer), "  %ld:%02ld:%02ld left", left / 3600, left / 60 % 60, left % 60);
  } else {
    std::snprintf(buffer, sizeof(buffer), "  %ld:%02ld left", left / 60, left % 60);
  }
  return text + buffer;
}

Progress::Progress(bool quiet, bool terminal, int64_t total, std::FILE* out)
    : quiet_(quiet), terminal_(terminal), total_(total), out_(out) {}

void Progress::frameDone(int64_t frames) {
  if (quiet_) return;
  const Clock::time_point now = Clock::now();
  if (terminal_ ? now - printed_ < kRefresh && lineShown_ : now - printed_ < kPlainLineEvery) return;
  printed_ = now;
  const std::string text = progressText(frames, total_, seconds());
  if (terminal_) {
    std::fprintf(out_, "\r\033[K%s", text.c_str());
    lineShown_ = true;
  } else {
    std::fprintf(out_, "%s\n", text.c_str());
  }
  std::fflush(out_);
}

void Progress::clear() {
  if (!lineShown_) return;
  std::fprintf(out_, "\r\033[K");
  std::fflush(out_);
  lineShown_ = false;
}

double Progress::seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

}  // namespace noxel::tool
