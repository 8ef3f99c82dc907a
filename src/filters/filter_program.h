// How the filters of this room make a program.
#pragma once

#include <new>

#include "gl/runtime/program.h"
#include "platform/log.h"

namespace noxel {

inline bool linked(const Program* program) {
  return program != nullptr && program->initialized == 1;
}

// Null when memory ran out.
inline Program* newProgram(const char* fragmentText, const char* vertexText, const char* name,
                           const CacheDirectory& cacheDirectory) {
  const char* const cacheName = cacheDirectory.path[0] != '\0' ? name : nullptr;
  auto* program = new (std::nothrow) Program(fragmentText, vertexText, cacheName, cacheDirectory);
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
