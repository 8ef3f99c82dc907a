#include "enhance/clip_lines.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <utility>

namespace noxel::tool {
namespace {

constexpr std::string_view kErase = "\033[K";
constexpr std::string_view kCommand = "noxel: ";

std::string withoutStart(const std::string& line, std::string_view start) {
  return line.starts_with(start) ? line.substr(start.size()) : line;
}

// At most that many characters; a character of several bytes stays whole.
std::string cutTo(const std::string& text, size_t characters) {
  size_t count = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool starts = (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
    if (starts && count++ == characters) return text.substr(0, i);
  }
  return text;
}

}  // namespace

std::vector<std::string> ClipLines::take(std::string_view bytes) {
  std::vector<std::string> lines;
  for (const char byte : bytes) {
    if (byte == '\n') {
      const std::string line = withoutStart(withoutStart(line_, kErase), kCommand);
      if (!line.empty()) lines.push_back(line);
    }
    if (byte == '\n' || byte == '\r') {
      line_.clear();
      refreshed_ = byte == '\r';
    } else {
      line_ += byte;
    }
  }
  return lines;
}

std::string ClipLines::state() const {
  return refreshed_ && line_.starts_with(kErase) ? withoutStart(line_, kErase) : "";
}

void Screen::print(const std::string& line) {
  const std::string state = std::exchange(shown_, "");
  if (!state.empty()) std::fputs("\r\033[K", out_);
  std::fprintf(out_, "%s\n", line.c_str());
  show(state);
}

void Screen::show(const std::string& state) {
  if (!terminal_ || state == shown_) return;
  winsize size = {};
  const bool known = ioctl(fileno(out_), TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  std::fprintf(out_, "\r\033[K%s", cutTo(state, known ? size.ws_col - 1u : 79u).c_str());
  std::fflush(out_);
  shown_ = state;
}

}  // namespace noxel::tool
