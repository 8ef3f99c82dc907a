#include "media/picture.h"

#include <cstring>
#include <utility>

#include "common/output_file.h"
#include "common/tool_error.h"
#include "media/colour_conversion.h"

namespace noxel::tool {
namespace {

std::vector<uint8_t> encode(AVCodecID id, const char* name, const AVFrame& picture, int quality) {
  const AVCodec* codec = avcodec_find_encoder(id);
  if (codec == nullptr) throw ToolError(kExitFailed, std::string("this FFmpeg has no ") + name + " encoder");
  const CodecPtr encoder(allocated(avcodec_alloc_context3(codec)));
  encoder->width = picture.width;
  encoder->height = picture.height;
  encoder->pix_fmt = static_cast<AVPixelFormat>(picture.format);
  encoder->time_base = {1, 1};
  if (quality > 0) {
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * quality;
  }
  const PacketPtr packet = makePacket();
  int result = avcodec_open2(encoder.get(), codec, nullptr);
  if (result >= 0) result = avcodec_send_frame(encoder.get(), &picture);
  if (result >= 0) result = avcodec_send_frame(encoder.get(), nullptr);
  if (result >= 0) result = avcodec_receive_packet(encoder.get(), packet.get());
  if (result < 0) throw ToolError(kExitFailed, "cannot encode the picture: " + avErrorText(result));
  return {packet->data, packet->data + packet->size};
}

}  // namespace

std::vector<uint8_t> encodePng(const AVFrame& picture) {
  return encode(AV_CODEC_ID_PNG, "PNG", picture, 0);
}

std::vector<uint8_t> encodeJpeg(const AVFrame& picture, int quality) {
  return encode(AV_CODEC_ID_MJPEG, "JPEG", picture, quality);
}

std::vector<uint8_t> encodeBmp(const AVFrame& picture) {
  return encode(AV_CODEC_ID_BMP, "BMP", picture, 0);
}

std::vector<uint8_t> sideBySidePng(const AVFrame& before, const AVFrame& after) {
  const FramePtr halves[] = {engineToRgb(before), engineToRgb(after)};
  const FramePtr whole = makePicture(before.width * 2, before.height, AV_PIX_FMT_RGB24);
  const auto halfBytes = static_cast<size_t>(before.width) * 3;
  for (int y = 0; y < before.height; ++y) {
    uint8_t* row = whole->data[0] + static_cast<ptrdiff_t>(y) * whole->linesize[0];
    for (const FramePtr& source : halves) {
      std::memcpy(row, source->data[0] + static_cast<ptrdiff_t>(y) * source->linesize[0], halfBytes);
      row += halfBytes;
    }
  }
  return encodePng(*whole);
}

void PictureKeeper::keep(FramePtr before, FramePtr after) {
  before_ = std::move(before);
  after_ = std::move(after);
}

void PictureKeeper::write(const std::string& path) const {
  const std::vector<uint8_t> png = sideBySidePng(*before_, *after_);
  writeWholeFile(path, png.data(), png.size());
}

}  // namespace noxel::tool
