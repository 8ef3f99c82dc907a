#include "media/tone_map.h"

extern "C" {
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr int kDiffuseWhiteNits = 203;
constexpr double kUsualPeakNits = 1000;  // of phones, and the reference display of HLG
constexpr double kMaxPeakNits = 10000;   // PQ's end
constexpr const char* kKeptBelow = "0.5";

double statedPeakNits(const AVFrame& frame) {
  if (const auto* side = av_frame_get_side_data(&frame, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL)) {
    const unsigned peak = reinterpret_cast<const AVContentLightMetadata*>(side->data)->MaxCLL;
    if (peak > 0) return peak;
  }
  if (const auto* side = av_frame_get_side_data(&frame, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA)) {
    const auto* display = reinterpret_cast<const AVMasteringDisplayMetadata*>(side->data);
    if (display->has_luminance != 0 && display->max_luminance.den != 0) return av_q2d(display->max_luminance);
  }
  return 0;
}

double peakNits(const AVFrame& first) {
  const double stated = first.color_trc == AVCOL_TRC_SMPTE2084 ? statedPeakNits(first) : 0;
  return std::clamp(stated > 0 ? stated : kUsualPeakNits, double{kDiffuseWhiteNits}, kMaxPeakNits);
}

std::string filters(double peak) {
  return "zscale=transfer=linear:npl=" + std::to_string(kDiffuseWhiteNits) +
         ",format=gbrpf32le,zscale=primaries=bt709,tonemap=mobius:param=" + kKeptBelow +
         ":peak=" + std::to_string(peak / kDiffuseWhiteNits) +
         ",zscale=transfer=bt709:matrix=bt709:range=limited,format=yuv420p";
}

FilterPass makePass(const AVFrame& frame, double peak) {
  try {
    return FilterPass(frame.width, frame.height, filters(peak), static_cast<AVPixelFormat>(frame.format));
  } catch (const ToolError& error) {
    throw ToolError(kExitFailed, std::string("the clip is HDR, and this FFmpeg cannot tone-map it (") + error.what() +
                                     "); convert it to BT.709 SDR first");
  }
}

}  // namespace

bool isHighDynamicRange(const AVFrame& frame) {
  return frame.color_trc == AVCOL_TRC_SMPTE2084 || frame.color_trc == AVCOL_TRC_ARIB_STD_B67;
}

ToneMap::ToneMap(const AVFrame& first)
    : from_{first.colorspace, first.color_range, first.color_primaries, first.color_trc, first.chroma_location},
      peakNits_(peakNits(first)),
      format_(first.format),
      pass_(makePass(first, peakNits_)) {
  const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(first.format));
  const bool rgb = format != nullptr && (format->flags & AV_PIX_FMT_FLAG_RGB) != 0;
  if (rgb) from_.matrix = AVCOL_SPC_RGB;
  if (from_.matrix == AVCOL_SPC_UNSPECIFIED || from_.matrix == AVCOL_SPC_RESERVED) from_.matrix = AVCOL_SPC_BT2020_NCL;
  if (from_.primaries == AVCOL_PRI_UNSPECIFIED || from_.primaries == AVCOL_PRI_RESERVED ||
      from_.primaries == AVCOL_PRI_RESERVED0) {
    from_.primaries = AVCOL_PRI_BT2020;
  }
  if (from_.range == AVCOL_RANGE_UNSPECIFIED) from_.range = rgb ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
}

FramePtr ToneMap::run(const AVFrame& frame) {
  if (frame.format != format_) {
    pass_ = makePass(frame, peakNits_);
    format_ = frame.format;
  }
  FramePtr tagged = share(frame);
  tagged->colorspace = from_.matrix;
  tagged->color_range = from_.range;
  tagged->color_primaries = from_.primaries;
  tagged->color_trc = from_.transfer;
  FramePtr mapped = pass_.run(*tagged);
  mapped->colorspace = AVCOL_SPC_BT709;
  mapped->color_range = AVCOL_RANGE_MPEG;
  mapped->color_primaries = AVCOL_PRI_BT709;
  mapped->color_trc = AVCOL_TRC_BT709;
  for (const AVFrameSideDataType hdr :
       {AV_FRAME_DATA_CONTENT_LIGHT_LEVEL, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA, AV_FRAME_DATA_DYNAMIC_HDR_PLUS,
        AV_FRAME_DATA_DOVI_METADATA, AV_FRAME_DATA_DOVI_RPU_BUFFER}) {
    av_frame_remove_side_data(mapped.get(), hdr);
  }
  return mapped;
}

}  // namespace noxel::tool
