# cmake -DOUTPUT=header -DSHADERS="a.vert;b.frag" -P embed_shaders.cmake
#
# Writes each text as `inline constexpr char k<Name><Kind>[]`, and kShaderTexts, a table of all texts and their file names. A
# line `#include "file"` stands for that file's text, from the same folder; what it includes as well.
set(constants "")
set(table "")
foreach(shader IN LISTS SHADERS)
  get_filename_component(name ${shader} NAME)
  string(REGEX MATCHALL "[a-z0-9]+" words ${name})
  set(identifier "k")
  foreach(word IN LISTS words)
    string(SUBSTRING ${word} 0 1 first)
    string(SUBSTRING ${word} 1 -1 rest)
    string(TOUPPER ${first} first)
    string(APPEND identifier ${first}${rest})
  endforeach()
  file(READ ${shader} text)
  get_filename_component(folder ${shader} DIRECTORY)
  while(text MATCHES "#include \"([a-z_.]+)\"")
    set(include "${CMAKE_MATCH_0}")
    file(READ ${folder}/${CMAKE_MATCH_1} included)
    string(REPLACE "${include}" "${included}" text "${text}")
  endwhile()
  string(APPEND constants "inline constexpr char ${identifier}[] = R\"shader(${text})shader\";\n\n")
  string(APPEND table "    {\"${name}\", ${identifier}},\n")
endforeach()
file(CONFIGURE OUTPUT ${OUTPUT} CONTENT [[
// Generated from src/filters/shaders by cmake/embed_shaders.cmake.
#pragma once

namespace noxel::shaders {

@constants@struct ShaderText {
  const char* file;
  const char* text;
};

inline constexpr ShaderText kShaderTexts[] = {
@table@};

}  // namespace noxel::shaders
]] @ONLY)
