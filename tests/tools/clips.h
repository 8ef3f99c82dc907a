// Small test clips, made with FFmpeg's encoders.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "media/av_types.h"
#include "media/video_reader.h"
#include "support/temporary_directory.h"

namespace noxel::tool {

struct ClipSpec {
  int width = 64;
  int height = 48;
  AVRational timeBase = {1, 1000};
  std::vector<int64_t> times = {0, 40, 80, 120, 160, 200};  // one frame each, in timeBase
  AVCodecID video = AV_CODEC_ID_MPEG4;                      // or MJPEG
  AVCodecID audio = AV_CODEC_ID_NONE;                       // AAC or PCM, one second of a tone
  bool furnished = false;                                   // Matroska: subtitles, a chapter, an attachment, metadata
  bool rotated = false;                                     // displayed turned by 90 degrees
  AVColorSpace matrix = AVCOL_SPC_SMPTE170M;
  AVColorRange range = AVCOL_RANGE_JPEG;
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
  AVPixelFormat format = AV_PIX_FMT_NONE;      // of the pictures; default: 8-bit 4:2:0
  AVFieldOrder fields = AV_FIELD_UNKNOWN;      // TT or BB: coded and flagged as interlaced. MPEG4
  std::function<FramePtr(int frame)> picture;  // planar; default: a luma ramp with a mean of lumaOf(frame)
};

// The container follows from the extension; Matroska keeps all but the rotation, MP4 keeps that.
void writeClip(const std::string& path, const ClipSpec& spec);
int lumaOf(int frame);  // mean luma of frame i before encoding

// Y4M in the engine's own colours (no conversion), grey; `frames` are luma planes.
void writeY4m(const std::string& path, int width, int height, const std::vector<std::vector<uint8_t>>& frames,
              int framesPerSecond = 25);

inline uint8_t& sample(const AVFrame& frame, int plane, int x, int y) {
  return frame.data[plane][static_cast<ptrdiff_t>(y) * frame.linesize[plane] + x];
}
FramePtr flatPlanar(int width, int height, int y, int u, int v);
FramePtr rampPlanar(int width, int height, int meanLuma);

// Times of all frames in seconds; the sizes (bytes) of all audio packets.
struct ClipContents {
  std::vector<double> seconds;
  std::vector<int> audioSizes;  // and of other streams beside the video
  std::optional<DisplayMatrix> displayMatrix;
};
ClipContents contentsOf(const std::string& path);

}  // namespace noxel::tool
