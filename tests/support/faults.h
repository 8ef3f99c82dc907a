// Faults at the border of the library: its calls of the C library, EGL and GL go through the linker's --wrap. They can be
// made to fail or to stall, and what they hold is counted.
#pragma once

#include <atomic>

namespace noxel {

// Which calls fail together.
enum class Fault {
  kMemory,       // malloc, calloc, realloc, new (std::nothrow), of arrays too
  kThread,       // pthread_create
  kEgl,          // every call of EGL but eglGetError, which reports the failure
  kShader,       // making, compiling, linking shaders and programs
  kFramebuffer,  // completeness
  kMap,          // glMapBufferRange
  kRead,         // glReadPixels
  kFile,         // open, fstat, stat, mkdir, mkstemp, read, write, close, rename
  kCount
};

enum class Lasting { kOnce, kFromThenOn };

// Lets the nth call (0 is the next) of a class fail while it lives, alone or with every later one; n below 0 fails none and
// counts. What a call gives back (eglDestroyContext, close) is given back even when it is made to report a failure.
class FaultInjection {
 public:
  FaultInjection(Fault fault, int nth, Lasting lasting = Lasting::kFromThenOn);
  ~FaultInjection();
  FaultInjection(const FaultInjection&) = delete;
  FaultInjection& operator=(const FaultInjection&) = delete;

  int calls() const;               // of the class, since construction
  const char* failedCall() const;  // the first that was made to fail; null: none was

 private:
  Fault fault;
};

enum class Gate { kMap, kSwap };

enum class Whom { kAll, kFirst };  // the first thread that comes, and no other meanwhile

// Holds maps of a read-back buffer, or swaps, and with them the GPU thread, while it lives.
class StalledGpu {
 public:
  explicit StalledGpu(Gate stalled = Gate::kMap, Whom whom = Whom::kAll);
  ~StalledGpu();
  StalledGpu(const StalledGpu&) = delete;
  StalledGpu& operator=(const StalledGpu&) = delete;

  bool isHolding() const;  // a thread stands at the gate; false after ten seconds without one
};

// A native window while it lives, on a display that has none: EGL makes it a pbuffer of this size. One at a time.
class FakeWindow {
 public:
  FakeWindow(int width, int height);
  ~FakeWindow();
  FakeWindow(const FakeWindow&) = delete;
  FakeWindow& operator=(const FakeWindow&) = delete;

  void* native() { return this; }
};

// What the library has and has not given back; the records of released engines, which it keeps for a while, are freed first.
struct Held {
  long allocations = 0;
  int threads = 0;
  int glObjects = 0;  // textures, framebuffers, buffers, shaders, programs; EGL's contexts and surfaces
  bool operator==(const Held&) const = default;
};
Held held();

}  // namespace noxel
