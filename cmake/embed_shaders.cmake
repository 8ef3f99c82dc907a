# cmake -DOUTPUT=header -DSHADERS="a.vert;b.frag" -P embed_shaders.cmake
#
# Writes each text as `inline constexpr char k<Name><Kind>[]`, and kShaderTexts, a table of all texts and their file names.
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
