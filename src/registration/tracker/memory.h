// Memory that is taken once, when a registration is created.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace noxel::tracker {

// Zeroed, for std::free; room for one at least. Null when memory ran out.
template <class T>
T* allocateArray(int count) {
  return static_cast<T*>(std::calloc(static_cast<size_t>(std::max(count, 1)), sizeof(T)));
}

}  // namespace noxel::tracker
