// Faults at the border of the library: its calls of the C library, EGL and GL go through the linker's --wrap.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

namespace noxel {

enum class Fault { kThread, kMemory, kEgl, kMap, kCount };

// Lets the nth call (0 is the next) and every later one of a class fail while it lives; n below 0 fails none and counts.
class FaultInjection {
 public:
  FaultInjection(Fault fault, int nth);
  ~FaultInjection();
  FaultInjection(const FaultInjection&) = delete;
  FaultInjection& operator=(const FaultInjection&) = delete;

  int calls() const;

 private:
  Fault fault;
};

// Holds every read-back, and with it the GPU thread, while it lives.
class StalledGpu {
 public:
  StalledGpu();
  ~StalledGpu();
  StalledGpu(const StalledGpu&) = delete;
  StalledGpu& operator=(const StalledGpu&) = delete;

  bool isHolding() const;  // a thread stands at the gate
};

// Pass codes drawn by LowLightFilter::drawPass, in order, since the last call. While no frame is being processed.
std::vector<int> takeDrawnPasses();

}  // namespace noxel
