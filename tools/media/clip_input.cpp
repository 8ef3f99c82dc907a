#include "media/clip_input.h"

#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

#include "common/interrupt.h"
#include "common/output_file.h"
#include "common/tool_error.h"
#include "media/nv21_frame.h"

namespace noxel::tool {

ClipInput::ClipInput(const std::string& path, const TimeRange& range, Fields fields)
    : reader_(path, "", range, fields),
      frame_(first()),
      width_(frame().width),
      height_(frame().height),
      nv21Width_(paddedWidth(width_)),
      nv21Height_(paddedHeight(height_)),
      colours_(frame()) {
  convert();
}

FramePtr ClipInput::first() {
  FramePtr frame = reader_.first();
  if (isHighDynamicRange(*frame)) {
    hdr_ = frame->color_trc == AVCOL_TRC_SMPTE2084 ? "PQ" : "HLG";
    toneMap_ = std::make_unique<ToneMap>(*frame);
    frame = toneMap_->run(*frame);
  }
  return frame;
}

FramePtr ClipInput::read() {
  if (!marked_ && !kept_.empty()) {
    FramePtr frame = std::move(kept_.front());
    kept_.pop_front();
    return frame;
  }
  FramePtr frame = reader_.next();
  if (frame && toneMap_) frame = toneMap_->run(*frame);
  if (frame && marked_) kept_.push_back(share(*frame));
  return frame;
}

bool ClipInput::next() {
  if (stopRequested()) return false;
  FramePtr frame = read();
  if (!frame) return false;
  frame_ = std::move(frame);
  convert();
  return true;
}

bool ClipInput::seek(double seconds) {
  return reader_.seek(seconds) && next();
}

void ClipInput::mark() {
  marked_ = true;
  kept_.push_back(share(*frame_));
}

void ClipInput::returnToMark() {
  marked_ = false;
  frame_ = read();
  convert();
}

double ClipInput::seconds() const {
  return static_cast<double>(frame().pts) * av_q2d(reader_.timeBase());
}

int64_t ClipInput::microseconds() const {
  return av_rescale_q(frame().pts, reader_.timeBase(), kMicroseconds);
}

void ClipInput::convert() {
  planar_ = colours_.planar(*frame_);
  engineFrame_ = colours_.toEngine(*padded(*planar_));
  nv21_.resize(nv21Size(nv21Width_, nv21Height_));
  packNv21(*engineFrame_, nv21_.data());
}

void checkOutputFiles(const std::string& input, const std::vector<std::string>& outputs, bool overwrite) {
  std::error_code ignored;
  std::set<std::filesystem::path> files;
  for (const std::string& output : outputs) {
    if (output.empty() || output == "-") continue;
    if (input != "-" && std::filesystem::equivalent(input, output, ignored)) {
      throw ToolError(kExitUsage, output + " is the input; choose another name");
    }
    checkMayWrite(output, overwrite);
    if (!files.insert(std::filesystem::weakly_canonical(output, ignored)).second) {
      throw ToolError(kExitUsage, output + " is given for two outputs; choose another name for one");
    }
  }
}

}  // namespace noxel::tool
