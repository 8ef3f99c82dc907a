// A finished file's comment.
#pragma once

#include <string>

#include "media/av_types.h"
#include "media/container.h"

namespace noxel::tool {

// Begins what is added to the comment of a file that was not finished.
constexpr char kPartialMark[] = "partial: stopped after frame ";
// How often the comment has it: null has none.
int partialMarks(const AVDictionary* metadata);

// To what is there already.
void addComment(AVDictionary*& metadata, const std::string& comment);

// All streams of a file of ours as they are, into another one. False when that failed; what is written then is of no use.
bool copyWithComment(const std::string& from, const std::string& to, const Container& container,
                     const std::string& comment);

}  // namespace noxel::tool
