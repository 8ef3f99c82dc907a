// Arrays that are allocated once, when a registration is created.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace noxel::tracker {

// Zeroed, for at least one element, to be freed with std::free. Null when out of memory.
template <class T>
T* allocateArray(int count) {
  return static_cast<T*>(std::calloc(static_cast<size_t>(std::max(count, 1)), sizeof(T)));
}

}  // namespace noxel::tracker
