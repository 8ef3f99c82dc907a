#include "platform/properties.h"

#if defined(__ANDROID__)
#include <dlfcn.h>
#else
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#endif

namespace noxel::platform {
namespace {

#if defined(__ANDROID__)

void* openLibrary(const char* name) {
  return dlopen(name, RTLD_NOW);
}

void* findSymbol(void* library, const char* name) {
  return dlsym(library, name);
}

const char* lastError() {
  const char* text = dlerror();
  return text != nullptr ? text : "no error";
}

#else

int propertyFromEnvironment(const char* key, char* value, const char* defaultValue) {
  char name[kPropertyValueMax];
  size_t length = 0;
  for (; key[length] != '\0' && length + 1 < sizeof(name); ++length) {
    const auto letter = static_cast<unsigned char>(key[length]);
    name[length] = letter == '.' ? '_' : static_cast<char>(std::toupper(letter));
  }
  name[length] = '\0';
  const char* found = std::getenv(name);
  std::snprintf(value, kPropertyValueMax, "%s", found != nullptr ? found : defaultValue);
  return static_cast<int>(std::strlen(value));
}

char builtInLibrary;  // its address is the handle

void* openLibrary(const char* name) {
  return std::strcmp(name, "libcutils.so") == 0 ? &builtInLibrary : nullptr;
}

void* findSymbol(void* library, const char* name) {
  if (library != &builtInLibrary || std::strcmp(name, "property_get") != 0) return nullptr;
  return reinterpret_cast<void*>(&propertyFromEnvironment);
}

const char* lastError() {
  return "not on this host";
}

#endif

constexpr DynamicLibraries kHostLibraries = {openLibrary, findSymbol, lastError};
const DynamicLibraries* current = &kHostLibraries;

}  // namespace

const DynamicLibraries& dynamicLibraries() {
  return *current;
}

void setDynamicLibraries(const DynamicLibraries* libraries) {
  current = libraries != nullptr ? libraries : &kHostLibraries;
}

}  // namespace noxel::platform
