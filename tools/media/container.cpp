#include "media/container.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <climits>
#include <filesystem>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr char kPictures[] = "image2";
constexpr char kY4m[] = "yuv4mpegpipe";

constexpr Container kContainers[] = {
    // extension, muxer, codec, counts frames, rotation, chapters, metadata, marks late
    {".mp4", "mp4", "h264", false, true, true, MetadataKept::kAll, true},
    {".mov", "mov", "h264", false, true, true, MetadataKept::kAll, true},
    {".mkv", "matroska", "h264", false, false, true, MetadataKept::kAll, false},
    {".webm", "webm", "vp9", false, false, true, MetadataKept::kAll, false},
    {".avi", "avi", "h264", true, false, false, MetadataKept::kInfo, false},
    {".gif", "gif", "", false, true, false, MetadataKept::kNone, false},  // drawn upright, as pictures
    {".png", kPictures, "", true, true, false, MetadataKept::kNone, false},
    {".y4m", kY4m, "", true, false, false, MetadataKept::kNone, false},
};

}  // namespace

bool isPictures(const Container& container) {
  return container.muxer == std::string(kPictures);
}

bool isY4m(const Container& container) {
  return container.muxer == std::string(kY4m);
}

const Container& containerOf(const std::string& path) {
  const std::string extension = path == "-" ? ".y4m" : std::filesystem::path(path).extension().string();
  for (const Container& container : kContainers) {
    if (extension != container.extension) continue;
    if (!isPictures(container) || !numberedPath(path, 1).empty()) return container;
  }
  throw ToolError(kExitUsage,
                  "output " + path +
                      " must end in .mp4, .mov, .mkv, .webm, .avi, .gif, .y4m or %04d.png (.png for a single "
                      "picture), or be - for Y4M on standard output");
}

std::string numberedPath(const std::string& pattern, int number) {
  char path[PATH_MAX];
  return av_get_frame_filename(path, sizeof(path), pattern.c_str(), number) == 0 ? path : "";
}

}  // namespace noxel::tool
