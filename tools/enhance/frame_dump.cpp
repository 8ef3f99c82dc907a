#include "enhance/frame_dump.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "common/output_file.h"
#include "common/tool_error.h"
#include "kernels/bmp.h"
#include "media/colour_conversion.h"

namespace noxel::tool {
namespace {

void write(const std::string& folder, int64_t frame, const char* name, const kernels::ConstPlane& plane,
           kernels::BmpPixels pixels) {
  char number[32];
  std::snprintf(number, sizeof(number), "frame-%06lld-", static_cast<long long>(frame));
  const std::string path = folder + "/" + number + name + ".bmp";
  PendingFile pending(path);
  std::FILE* file = std::fopen(pending.temporaryPath().c_str(), "wb");
  if (file == nullptr) throw ToolError(kExitFailed, "cannot write " + path + ": " + std::strerror(errno));
  const char* reason = nullptr;
  errno = 0;
  const bool written = kernels::writeBmp(file, plane, pixels, &reason);
  if (!written && errno != 0) reason = std::strerror(errno);
  if (std::fclose(file) != 0 && written) reason = std::strerror(errno);
  if (reason != nullptr) throw ToolError(kExitFailed, "cannot write " + path + ": " + reason);
  pending.commit();
}

}  // namespace

FrameDump::FrameDump(std::string folder) : folder_(std::move(folder)) {
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (error) throw ToolError(kExitFailed, "cannot create the folder " + folder_ + ": " + error.message());
}

void FrameDump::picture(int64_t frame, const char* name, const AVFrame& planar, int width, int height) const {
  const FramePtr bgr = engineToRgb(planar, AV_PIX_FMT_BGR24);
  write(folder_, frame, name, {bgr->data[0], width * 3, height, bgr->linesize[0]}, kernels::BmpPixels::kBlueGreenRed);
}

void FrameDump::grey(int64_t frame, const char* name, const uint8_t* pixels, int width, int height) const {
  write(folder_, frame, name, {pixels, width, height, width}, kernels::BmpPixels::kGrey);
}

void checkMayDump(const std::string& folder, bool overwrite) {
  std::error_code ignored;
  if (folder.empty() || overwrite || !std::filesystem::exists(folder, ignored)) return;
  if (std::filesystem::is_directory(folder, ignored) && std::filesystem::is_empty(folder, ignored)) return;
  throw ToolError(kExitUsage, folder + " exists and is not an empty folder; -y writes into it");
}

}  // namespace noxel::tool
