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

ClipInput::ClipInput(const std::string& path, const TimeRange& range)
    : reader_(path, "", range),
      frame_(first(reader_, toneMap_)),
      width_(frame().width),
      height_(frame().height),
      nv21Width_(paddedWidth(width_)),
      nv21Height_(paddedHeight(height_)),
      colours_(frame()) {
  convert();
}

FramePtr ClipInput::first(VideoReader& reader, std::unique_ptr<ToneMap>& toneMap) {
  FramePtr frame = reader.first();
  if (isHighDynamicRange(*frame)) {
    toneMap = std::make_unique<ToneMap>(*frame);
    frame = toneMap->run(*frame);
  }
  return frame;
}

bool ClipInput::next() {
  if (stopRequested()) return false;
  FramePtr read = reader_.next();
  if (!read) return false;
  if (toneMap_) read = toneMap_->run(*read);
  frame_ = std::move(read);
  convert();
  return true;
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
