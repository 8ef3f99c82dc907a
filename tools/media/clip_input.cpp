#include "media/clip_input.h"

#include <filesystem>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

#include "common/interrupt.h"
#include "common/output_file.h"
#include "common/tool_error.h"
#include "media/nv21_frame.h"

namespace noxel::tool {

ClipInput::ClipInput(const std::string& path)
    : reader_(path),
      current_(first(reader_, toneMap_)),
      width_(frame().width),
      height_(frame().height),
      nv21Width_(paddedWidth(width_)),
      nv21Height_(paddedHeight(height_)),
      colours_(frame()) {
  convert(current_);
}

ClipInput::Converted ClipInput::first(VideoReader& reader, std::unique_ptr<ToneMap>& toneMap) {
  FramePtr frame = reader.first();
  if (isHighDynamicRange(*frame)) {
    toneMap = std::make_unique<ToneMap>(*frame);
    frame = toneMap->run(*frame);
  }
  return {std::move(frame)};
}

bool ClipInput::next() {
  if (stopRequested() || ahead(1).nv21 == nullptr) return false;
  std::vector<PacketPtr>& beside = queue_.front().beside;
  beside.insert(beside.begin(), std::make_move_iterator(current_.beside.begin()),
                std::make_move_iterator(current_.beside.end()));
  current_ = std::move(queue_.front());
  queue_.pop_front();
  return true;
}

FrameAhead ClipInput::ahead(size_t steps) {
  while (queue_.size() < steps) {
    Converted read = {reader_.next()};
    if (!read.frame) return {};
    if (toneMap_) read.frame = toneMap_->run(*read.frame);
    convert(read);
    queue_.push_back(std::move(read));
  }
  Converted& found = queue_[steps - 1];
  return {found.nv21.data(), microseconds(*found.frame)};
}

std::vector<PacketPtr> ClipInput::takeBeside() {
  std::vector<PacketPtr> packets = std::exchange(current_.beside, {});
  if (!queue_.empty()) return packets;
  for (PacketPtr& packet : reader_.takeBeside()) packets.push_back(std::move(packet));
  return packets;
}

double ClipInput::seconds() const {
  return static_cast<double>(frame().pts) * av_q2d(reader_.timeBase());
}

int64_t ClipInput::microseconds(const AVFrame& frame) const {
  return av_rescale_q(frame.pts, reader_.timeBase(), kMicroseconds);
}

void ClipInput::convert(Converted& converted) {
  converted.planar = colours_.planar(*converted.frame);
  converted.engineFrame = colours_.toEngine(*padded(*converted.planar));
  converted.nv21.resize(nv21Size(nv21Width_, nv21Height_));
  packNv21(*converted.engineFrame, converted.nv21.data());
  converted.beside = reader_.takeBeside();
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
