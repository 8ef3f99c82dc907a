// Y4M on standard input, as the command reads it: frames of one size with increasing times, or a ToolError. FFmpeg
// itself is not instrumented: this tests our handling of its results.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>

#include "common/tool_error.h"
#include "fuzz_input.h"
#include "media/clip_input.h"
#include "media/nv21_frame.h"

namespace {

using namespace noxel::tool;

constexpr long kMaxSide = 96;  // pixels: larger frames are slow and hold more bytes than an input
constexpr int kMaxFrames = 40;

// A size follows its letter, possibly after blanks. FFmpeg decides where fields end, so every such letter is taken as
// one.
bool isSmall(const std::string& header) {
  for (size_t at = header.find_first_of("WH"); at != std::string::npos; at = header.find_first_of("WH", at + 1)) {
    if (std::strtol(header.c_str() + at + 1, nullptr, 10) > kMaxSide) return false;
  }
  return true;
}

void checkFrame(const ClipInput& clip, int width, int height) {
  FUZZ_CHECK(clip.width() == width && clip.height() == height);
  FUZZ_CHECK(clip.frame().width == width && clip.frame().height == height);
  FUZZ_CHECK(clip.planar().width == width && clip.planar().height == height);
  FUZZ_CHECK(clip.planar().format == AV_PIX_FMT_YUV420P && clip.engineFrame().format == AV_PIX_FMT_YUV420P);
  FUZZ_CHECK(clip.nv21Width() % 4 == 0 && clip.nv21Width() - width >= 0 && clip.nv21Width() - width < 4);
  FUZZ_CHECK(clip.nv21Height() % 2 == 0 && clip.nv21Height() - height >= 0 && clip.nv21Height() - height < 2);
  FUZZ_CHECK(clip.engineFrame().width == clip.nv21Width() && clip.engineFrame().height == clip.nv21Height());
  FUZZ_CHECK(std::isfinite(clip.seconds()));
}

// The NV21 frame begins with the engine's luma, row by row.
void checkNv21(ClipInput* clip) {
  const AVFrame& planar = clip->engineFrame();
  const std::vector<uint8_t>& nv21 = clip->nv21();
  FUZZ_CHECK(nv21.size() == nv21Size(clip->nv21Width(), clip->nv21Height()));
  const auto width = static_cast<size_t>(planar.width);
  for (int y = 0; y < planar.height; ++y) {
    const uint8_t* row = planar.data[0] + static_cast<ptrdiff_t>(y) * planar.linesize[0];
    FUZZ_CHECK(std::equal(row, row + width, nv21.begin() + static_cast<ptrdiff_t>(width) * y));
  }
}

void readClip() {
  ClipInput clip("-");
  const int width = clip.frame().width;
  const int height = clip.frame().height;
  FUZZ_CHECK(width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide);
  FUZZ_CHECK(clip.reader().nominalIntervalUs() > 0 && clip.reader().expectedFrames() >= 0);
  int64_t last = clip.frame().pts;
  checkFrame(clip, width, height);
  checkNv21(&clip);
  for (int i = 1; i < kMaxFrames && clip.next(); ++i) {
    checkFrame(clip, width, height);
    checkNv21(&clip);
    FUZZ_CHECK(clip.frame().pts > last);
    last = clip.frame().pts;
  }
  FUZZ_CHECK(clip.reader().damagedPackets() >= 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int file = [] {
    av_log_set_level(AV_LOG_QUIET);
    return memfd_create("clip", MFD_CLOEXEC);
  }();
  const auto* text = reinterpret_cast<const char*>(data);
  if (std::string_view(text, size).substr(0, 9) != "YUV4MPEG2") return 0;  // FFmpeg's many other formats
  if (!isSmall(std::string(text, std::find(text, text + size, '\n')))) return 0;
  FUZZ_CHECK(file >= 0 && ftruncate(file, 0) == 0);
  FUZZ_CHECK(pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  FUZZ_CHECK(lseek(file, 0, SEEK_SET) == 0 && dup2(file, STDIN_FILENO) == STDIN_FILENO);
  try {
    readClip();
  } catch (const ToolError& error) {
    FUZZ_CHECK(error.code() == kExitUnreadable || error.code() == kExitFailed);
    FUZZ_CHECK(error.what()[0] != '\0');
  }
  return 0;
}
