// PNG and JPEG pictures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/av_types.h"

namespace noxel::tool {

// Of AV_PIX_FMT_RGB24 or RGBA.
std::vector<uint8_t> encodePng(const AVFrame& picture);

// Of AV_PIX_FMT_BGR24 or GRAY8.
std::vector<uint8_t> encodeBmp(const AVFrame& picture);

// Of AV_PIX_FMT_YUVJ420P. `quality`: the quantiser scale, 2 (best) to 31.
std::vector<uint8_t> encodeJpeg(const AVFrame& picture, int quality);

// Both planar, of one size, in the engine's colours; the PNG is twice as wide.
std::vector<uint8_t> sideBySidePng(const AVFrame& before, const AVFrame& after);

// Keeps frame `index` before and after; the last frame if the clip is shorter.
class PictureKeeper {
 public:
  explicit PictureKeeper(int64_t index) : index_(index) {}
  bool wants(int64_t frame) const { return frame <= index_; }
  void keep(FramePtr before, FramePtr after);
  void write(const std::string& path) const;  // after at least one keep()

 private:
  int64_t index_;  // from 0
  FramePtr before_;
  FramePtr after_;
};

}  // namespace noxel::tool
