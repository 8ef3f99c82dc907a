#include "enhance/still.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "common/output_file.h"
#include "common/tool_error.h"
#include "enhance/rgba_session.h"
#include "media/colour_conversion.h"
#include "media/container.h"
#include "media/picture.h"
#include "media/tone_map.h"
#include "media/video_reader.h"

namespace noxel::tool {
namespace {

void check(const EnhanceOptions& options) {
  if (options.look.mode() != NOXEL_MODE_PICTURE) {
    throw ToolError(kExitUsage, options.output + " is a single picture, which needs --engine-mode 4");
  }
  for (const char* clipOnly : {"--stats", "--report", "--passes", "--picture", "--picture-frame", "--dump-frames",
                               "--codec", "--preset", "--crf", "--hwaccel", "--no-warm-up", "--start", "--duration"}) {
    if (std::find(options.given.begin(), options.given.end(), clipOnly) == options.given.end()) continue;
    throw ToolError(kExitUsage, std::string(clipOnly) + " is for clips; the output is a single picture");
  }
}

bool hasAlpha(const AVFrame& frame) {
  const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
  return format != nullptr && (format->flags & (AV_PIX_FMT_FLAG_ALPHA | AV_PIX_FMT_FLAG_PAL)) != 0;
}

void copyLeftHalfRgba(const AVFrame& before, AVFrame& after) {
  const auto bytes = static_cast<size_t>(before.width / 2) * 4;
  for (ptrdiff_t y = 0; y < before.height; ++y) {
    std::memcpy(after.data[0] + y * after.linesize[0], before.data[0] + y * before.linesize[0], bytes);
  }
}

}  // namespace

bool isStill(const std::string& outputPath) {
  return std::filesystem::path(outputPath).extension() == ".png" && numberedPath(outputPath, 1).empty();
}

int runStill(const EnhanceOptions& options) {
  check(options);
  VideoReader reader(options.input);
  FramePtr given = reader.first();
  if (reader.next()) {
    throw ToolError(kExitUsage, options.input + " has more than one frame; write .mp4 or .mkv");
  }
  const bool hdr = isHighDynamicRange(*given);
  if (hdr) given = ToneMap(*given).run(*given);
  FramePtr before = ColourConversion(*given).rgba(*given);
  const std::string turn = uprighting(reader.displayMatrix()).filters;
  if (!turn.empty()) before = FilterPass(before->width, before->height, turn, AV_PIX_FMT_RGBA).run(*before);
  const FramePtr after = RgbaEngine(before->width, before->height, options.look).enhanced(*before);
  if (options.compare) copyLeftHalfRgba(*before, *after);
  const std::vector<uint8_t> png = encodePng(hasAlpha(*given) ? *after : *withoutAlpha(*after));
  writeWholeFile(options.output, png.data(), png.size());
  if (options.quiet) return kExitFine;
  if (hdr) std::fprintf(stderr, "noxel: note: %s\n", toneMapNote());
  std::fprintf(stderr, "one picture, %d x %d: %s\n", before->width, before->height, options.output.c_str());
  return kExitFine;
}

}  // namespace noxel::tool
