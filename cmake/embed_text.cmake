# cmake -DINPUT=file -DOUTPUT=header -DNAME=kName -P embed_text.cmake
#
# Writes the file's text as `inline constexpr char kName[]` in namespace noxel::tool.
file(READ "${INPUT}" text)
get_filename_component(file "${INPUT}" NAME)
file(CONFIGURE OUTPUT "${OUTPUT}" CONTENT [[
// Generated from @file@ by cmake/embed_text.cmake.
#pragma once

namespace noxel::tool {

inline constexpr char @NAME@[] = R"text(@text@)text";

}  // namespace noxel::tool
]] @ONLY)
