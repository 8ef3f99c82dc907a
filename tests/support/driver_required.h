// Whether a test that finds no driver, or no screen, is to fail instead of being skipped.
#pragma once

#include <cstdlib>
#include <cstring>

namespace noxel {

inline bool driverRequired() {
  const char* required = std::getenv("NOXEL_REQUIRE_GL");
  return required != nullptr && std::strcmp(required, "1") == 0;
}

}  // namespace noxel
