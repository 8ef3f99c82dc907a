// The strings that identify the EGL and GL driver.
#pragma once

namespace noxel {

struct DriverInfo {
  char eglVendor[256];
  char eglVersion[256];
  char glVendor[256];
  char glRenderer[256];
  char glVersion[256];
  int programBinaryFormats;  // 0: compiled programs cannot be cached
};

// Makes an off-screen context on the calling thread, queries it and releases it. False (the log says why) and empty strings
// without a usable OpenGL ES 3.0. Not on a thread that has a context current.
bool queryDriver(DriverInfo* info);

}  // namespace noxel
