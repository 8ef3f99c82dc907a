#include "support/faults.h"

#define EGL_NO_X11 1
#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <thread>

#include "filters/low_light_filter.h"

namespace noxel {
namespace {

struct FaultState {
  std::atomic<int> failFrom{-1};
  std::atomic<int> seen{0};
};
FaultState faultStates[static_cast<int>(Fault::kCount)];

bool fails(Fault fault) {
  FaultState& state = faultStates[static_cast<int>(fault)];
  const int call = state.seen.fetch_add(1);
  const int from = state.failFrom.load();
  return from >= 0 && call >= from;
}

std::mutex gateMutex;
std::condition_variable gateChanged;
bool gateClosed = false;  // under gateMutex, as the next two
int held = 0;
std::vector<int> drawnPasses;

void passGate() {
  std::unique_lock lock(gateMutex);
  ++held;
  gateChanged.notify_all();
  gateChanged.wait(lock, [] { return !gateClosed; });
  --held;
}

}  // namespace

FaultInjection::FaultInjection(Fault injected, int nth) : fault(injected) {
  FaultState& state = faultStates[static_cast<int>(fault)];
  state.seen = 0;
  state.failFrom = nth;
}

FaultInjection::~FaultInjection() {
  faultStates[static_cast<int>(fault)].failFrom = -1;
}

int FaultInjection::calls() const {
  return faultStates[static_cast<int>(fault)].seen;
}

StalledGpu::StalledGpu() {
  std::lock_guard lock(gateMutex);
  gateClosed = true;
}

StalledGpu::~StalledGpu() {
  std::lock_guard lock(gateMutex);
  gateClosed = false;
  gateChanged.notify_all();
}

bool StalledGpu::isHolding() const {
  std::unique_lock lock(gateMutex);
  return gateChanged.wait_for(lock, std::chrono::seconds(10), [] { return held > 0; });
}

std::vector<int> takeDrawnPasses() {
  std::lock_guard lock(gateMutex);
  std::vector<int> taken;
  taken.swap(drawnPasses);
  return taken;
}

}  // namespace noxel

using noxel::fails;
using noxel::Fault;

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
  return fails(Fault::kThread) ? 11 /* EAGAIN */ : __real_pthread_create(thread, attributes, start, argument);
}

void* __real_malloc(size_t);
void* __wrap_malloc(size_t size) {
  return fails(Fault::kMemory) ? nullptr : __real_malloc(size);
}

void* __real_calloc(size_t, size_t);
void* __wrap_calloc(size_t count, size_t size) {
  return fails(Fault::kMemory) ? nullptr : __real_calloc(count, size);
}

void* __real_realloc(void*, size_t);
void* __wrap_realloc(void* memory, size_t size) {
  return fails(Fault::kMemory) ? nullptr : __real_realloc(memory, size);
}

void* __real__ZnwmRKSt9nothrow_t(size_t, const std::nothrow_t&);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  return fails(Fault::kMemory) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

EGLBoolean __real_eglInitialize(EGLDisplay, EGLint*, EGLint*);
EGLBoolean __wrap_eglInitialize(EGLDisplay display, EGLint* major, EGLint* minor) {
  return fails(Fault::kEgl) ? EGL_FALSE : __real_eglInitialize(display, major, minor);
}

EGLBoolean __real_eglChooseConfig(EGLDisplay, const EGLint*, EGLConfig*, EGLint, EGLint*);
EGLBoolean __wrap_eglChooseConfig(EGLDisplay display, const EGLint* attributes, EGLConfig* configs, EGLint size,
                                  EGLint* count) {
  return fails(Fault::kEgl) ? EGL_FALSE : __real_eglChooseConfig(display, attributes, configs, size, count);
}

EGLSurface __real_eglCreatePbufferSurface(EGLDisplay, EGLConfig, const EGLint*);
EGLSurface __wrap_eglCreatePbufferSurface(EGLDisplay display, EGLConfig config, const EGLint* attributes) {
  return fails(Fault::kEgl) ? EGL_NO_SURFACE : __real_eglCreatePbufferSurface(display, config, attributes);
}

EGLContext __real_eglCreateContext(EGLDisplay, EGLConfig, EGLContext, const EGLint*);
EGLContext __wrap_eglCreateContext(EGLDisplay display, EGLConfig config, EGLContext share, const EGLint* attributes) {
  return fails(Fault::kEgl) ? EGL_NO_CONTEXT : __real_eglCreateContext(display, config, share, attributes);
}

EGLBoolean __real_eglMakeCurrent(EGLDisplay, EGLSurface, EGLSurface, EGLContext);
EGLBoolean __wrap_eglMakeCurrent(EGLDisplay display, EGLSurface draw, EGLSurface read, EGLContext context) {
  return fails(Fault::kEgl) ? EGL_FALSE : __real_eglMakeCurrent(display, draw, read, context);
}

void* __real_glMapBufferRange(GLenum, GLintptr, GLsizeiptr, GLbitfield);
void* __wrap_glMapBufferRange(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access) {
  noxel::passGate();
  return fails(Fault::kMap) ? nullptr : __real_glMapBufferRange(target, offset, length, access);
}

bool __real__ZN5noxel14LowLightFilter8drawPassEb(noxel::LowLightFilter*, bool);
bool __wrap__ZN5noxel14LowLightFilter8drawPassEb(noxel::LowLightFilter* filter, bool selectorLuma) {
  {
    std::lock_guard lock(noxel::gateMutex);
    noxel::drawnPasses.push_back(filter->state.passCode);
  }
  return __real__ZN5noxel14LowLightFilter8drawPassEb(filter, selectorLuma);
}
}
