// System properties: libcutils' property_get, found at run time.
#pragma once

namespace noxel::platform {

inline constexpr int kPropertyValueMax = 92;  // Android's PROPERTY_VALUE_MAX, the terminator included

// Writes the property's value, or the default, to `value` (kPropertyValueMax bytes); returns its length.
using PropertyGet = int (*)(const char* key, char* value, const char* defaultValue);

// How a library is found by name: dlopen, dlsym and dlerror on Android. Elsewhere a table that knows "libcutils.so" alone,
// whose "property_get" reads the environment variable of the property's name in capitals with '_' for '.':
// PERSIST_CAMERA_RTSP_LOG=1 turns the verbose log on.
struct DynamicLibraries {
  void* (*open)(const char* name);
  void* (*symbol)(void* library, const char* name);
  const char* (*lastError)();
};

const DynamicLibraries& dynamicLibraries();

// Replaces the table, for tests of a missing library; null restores the host's. Not while an engine is being initialised.
void setDynamicLibraries(const DynamicLibraries* libraries);

}  // namespace noxel::platform
