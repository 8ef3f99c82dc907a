#include "enhance/resume.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "common/tool_error.h"
#include "media/remux.h"
#include "media/video_reader.h"

namespace noxel::tool {
namespace {

bool agree(int64_t frames, int64_t expected) {
  return std::abs(frames - expected) <= std::max<int64_t>(2, expected / 100);
}

}  // namespace

std::optional<std::string> reasonToWrite(const EnhanceOptions& options) {
  std::error_code ignored;
  if (!std::filesystem::exists(options.output, ignored)) return "";
  int64_t expected = 0;
  int marks = 0;
  try {
    VideoReader input(options.input, "", options.range);
    marks = partialMarks(input.companions().metadata);  // of a partial input's own comment, which is copied
    expected = input.countFrames();
  } catch (const ToolError&) {
    return "";  // enhancing says what is wrong with the input
  }
  try {
    VideoReader output(options.output);
    if (partialMarks(output.companions().metadata) > marks) return "it is partial";
    const int64_t frames = output.countFrames();
    if (agree(frames, expected)) return std::nullopt;
    return "it has " + std::to_string(frames) + " of " + std::to_string(expected) + " frames";
  } catch (const ToolError& error) {
    return error.what();
  }
}

bool leaveWhole(const EnhanceOptions& options) {
  const std::optional<std::string> reason = reasonToWrite(options);
  if (!options.quiet && !reason) std::fprintf(stderr, "noxel: note: %s is whole, skipped\n", options.output.c_str());
  if (!options.quiet && reason && !reason->empty())
    std::fprintf(stderr, "noxel: note: %s is written anew: %s\n", options.output.c_str(), reason->c_str());
  return !reason;
}

}  // namespace noxel::tool
