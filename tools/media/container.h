// The files that `noxel enhance` writes, by extension.
#pragma once

#include <string>

namespace noxel::tool {

enum class MetadataKept { kNone, kInfo, kAll };

struct Container {
  const char* extension;
  const char* muxer;  // FFmpeg's name
  const char* codec;  // by default; empty: no choice
  bool countsFrames;  // a fixed frame rate instead of time stamps
  bool rotation;      // holds a display matrix
  bool chapters;
  MetadataKept metadata;
  bool marksLate;  // metadata may still change when the file is finished
};

bool isPictures(const Container& container);  // one PNG a frame
bool isY4m(const Container& container);

// "-" is Y4M; a .png needs a number such as %04d. Usage error for an unknown extension.
const Container& containerOf(const std::string& path);

// The nth name of a pattern such as frame-%04d.png, from 1; empty when the path has no number.
std::string numberedPath(const std::string& pattern, int number);

}  // namespace noxel::tool
