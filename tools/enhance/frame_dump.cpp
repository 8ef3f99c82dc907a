#include "enhance/frame_dump.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

#include "common/output_file.h"
#include "common/tool_error.h"
#include "media/colour_conversion.h"
#include "media/nv21_frame.h"
#include "media/picture.h"

namespace noxel::tool {
namespace {

void write(const std::string& folder, int64_t frame, const char* name, const AVFrame& picture) {
  char number[32];
  std::snprintf(number, sizeof(number), "frame-%06lld-", static_cast<long long>(frame));
  const std::vector<uint8_t> bmp = encodeBmp(picture);
  writeWholeFile(folder + "/" + number + name + ".bmp", bmp.data(), bmp.size());
}

}  // namespace

FrameDump::FrameDump(std::string folder) : folder_(std::move(folder)) {
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (error) throw ToolError(kExitFailed, "cannot create the folder " + folder_ + ": " + error.message());
}

void FrameDump::picture(int64_t frame, const char* name, const AVFrame& planar, int width, int height) const {
  const FramePtr bgr = engineToRgb(planar, AV_PIX_FMT_BGR24);
  crop(*bgr, width, height);
  write(folder_, frame, name, *bgr);
}

void FrameDump::grey(int64_t frame, const char* name, const uint8_t* pixels, int width, int height) const {
  const FramePtr grey = makePicture(width, height, AV_PIX_FMT_GRAY8);
  for (int y = 0; y < height; ++y) {
    std::copy_n(pixels + static_cast<ptrdiff_t>(y) * width, width,
                grey->data[0] + static_cast<ptrdiff_t>(y) * grey->linesize[0]);
  }
  write(folder_, frame, name, *grey);
}

void checkMayDump(const std::string& folder, bool overwrite) {
  std::error_code ignored;
  if (folder.empty() || overwrite || !std::filesystem::exists(folder, ignored)) return;
  if (std::filesystem::is_directory(folder, ignored) && std::filesystem::is_empty(folder, ignored)) return;
  throw ToolError(kExitUsage, folder + " exists and is not an empty folder; -y writes into it");
}

}  // namespace noxel::tool
