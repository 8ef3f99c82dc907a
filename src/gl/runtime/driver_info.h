// What the EGL and GL driver say of themselves.
#pragma once

namespace noxel {

struct DriverInfo {
  char eglVendor[256];
  char eglVersion[256];
  char glVendor[256];
  char glRenderer[256];
  char glVersion[256];
  int programBinaryFormats;  // 0: compiled programs cannot be kept
};

// Makes an off-screen context on the calling thread, asks, and releases it. False (the log says why) without a usable
// OpenGL ES 3.0; the strings are empty then. Not on a thread that has a context current.
bool queryDriver(DriverInfo* info);

}  // namespace noxel
