// How the filters of this room make a program.
#pragma once

#include <new>

#include "gl/runtime/program.h"
#include "platform/log.h"

namespace noxel {

inline bool linked(const Program* program) {
  return program != nullptr && program->initialized == 1;
}

// Null when memory ran out. `cacheDirectory` null or empty: not cached.
inline Program* newProgram(const char* fragmentText, const char* vertexText, const char* name,
                           const char* cacheDirectory) {
  const bool cached = cacheDirectory != nullptr && cacheDirectory[0] != '\0';
  auto* program = new (std::nothrow) Program(fragmentText, vertexText, cached ? name : nullptr, cacheDirectory);
  if (program == nullptr) NOXEL_LOG_ERROR("no memory for program %s", name);
  if (program != nullptr && !linked(program)) NOXEL_LOG_ERROR("program %s is missing", name);
  return program;
}

// Deletes and forgets.
inline void dropProgram(Program*& program) {
  delete program;
  program = nullptr;
}

}  // namespace noxel
