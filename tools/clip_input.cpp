#include "clip_input.h"

#include <filesystem>
#include <system_error>

#include "interrupt.h"
#include "nv21_frame.h"
#include "output_file.h"
#include "tool_error.h"

namespace noxel::tool {
namespace {

FramePtr firstFrame(VideoReader& reader, const std::string& path) {
  FramePtr frame = reader.next();
  if (frame) return frame;
  if (stopRequested()) throw ToolError(kExitFailed, "stopped before the first frame; nothing was written");
  throw ToolError(kExitUnreadable, "no frame of " + path + " can be decoded");
}

std::string sizeText(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace

ClipInput::ClipInput(const std::string& path)
    : reader_(path),
      frame_(firstFrame(reader_, path)),
      width_(frame_->width),
      height_(frame_->height),
      nv21Width_(paddedWidth(width_)),
      nv21Height_(paddedHeight(height_)),
      highDynamicRange_(frame_->color_trc == AVCOL_TRC_SMPTE2084 || frame_->color_trc == AVCOL_TRC_ARIB_STD_B67),
      colours_(*frame_),
      nv21_(nv21Size(nv21Width_, nv21Height_)) {
  pack();
}

bool ClipInput::next() {
  frame_ = reader_.next();
  reader_.takeAudio();  // nobody listens
  if (!frame_) return false;
  ++index_;
  if (frame_->width != width_ || frame_->height != height_) {
    throw ToolError(kExitFailed, "frame " + std::to_string(index_) + " changes the size from " +
                                     sizeText(width_, height_) + " to " + sizeText(frame_->width, frame_->height) +
                                     "; cut the clip there and take the parts one by one");
  }
  pack();
  return true;
}

double ClipInput::seconds() const {
  return static_cast<double>(frame_->pts) * av_q2d(reader_.timeBase());
}

void ClipInput::pack() {
  packNv21(*colours_.toEngine(*padded(*colours_.planar(*frame_))), nv21_.data());
}

void checkMayWriteBeside(const std::string& input, const std::string& output, bool overwrite) {
  std::error_code ignored;
  if (input != "-" && std::filesystem::equivalent(input, output, ignored)) {
    throw ToolError(kExitUsage, output + " is the input; choose another name");
  }
  checkMayWrite(output, overwrite);
}

}  // namespace noxel::tool
