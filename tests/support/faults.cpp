#include "support/faults.h"

#define EGL_NO_X11 1
#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>
#include <unordered_set>

#include "api/engine_registry.h"

extern "C" void* __real_malloc(size_t);
extern "C" void __real_free(void*);

namespace noxel {
namespace {

struct FaultState {
  std::atomic<int> failFrom{-1};
  std::atomic<bool> once{false};
  std::atomic<int> seen{0};
  std::atomic<const char*> failedCall{nullptr};
};
FaultState faultStates[static_cast<int>(Fault::kCount)];

bool fails(Fault fault, const char* call) {
  FaultState& state = faultStates[static_cast<int>(fault)];
  const int index = state.seen.fetch_add(1);
  const int from = state.failFrom.load();
  if (from < 0 || (state.once ? index != from : index < from)) return false;
  const char* none = nullptr;
  state.failedCall.compare_exchange_strong(none, call);
  return true;
}

struct Turnstile {
  bool closed = false;  // under gateMutex, as the next two
  bool holdsOne = false;
  int waiting = 0;
};
std::mutex gateMutex;
std::condition_variable gateChanged;
Turnstile gates[2];
Gate stalledGate = Gate::kMap;  // under gateMutex, as the next

void pass(Gate which) {
  std::unique_lock lock(gateMutex);
  Turnstile& gate = gates[static_cast<int>(which)];
  if (gate.holdsOne && gate.waiting > 0) return;
  ++gate.waiting;
  gateChanged.notify_all();
  gateChanged.wait(lock, [&] { return !gate.closed; });
  --gate.waiting;
}

// Memory of others passes through the same calls: an address that was not handed out here is not counted.
std::mutex allocationMutex;
std::atomic<int> threadsAlive{0};
std::atomic<int> glObjectsAlive{0};
thread_local EGLint injectedError = EGL_SUCCESS;
FakeWindow* fakeWindow = nullptr;  // set while no engine lives
EGLint fakeSize[2] = {};

// Of the set that keeps the count, which is itself not counted.
template <typename T>
struct Uncounted {
  using value_type = T;
  Uncounted() = default;
  template <typename Other>
  Uncounted(const Uncounted<Other>&) {}
  T* allocate(size_t count) { return static_cast<T*>(__real_malloc(count * sizeof(T))); }
  void deallocate(T* memory, size_t) { __real_free(memory); }
  bool operator==(const Uncounted&) const { return true; }
};
using Addresses = std::unordered_set<void*, std::hash<void*>, std::equal_to<>, Uncounted<void*>>;

Addresses& allocations() {
  static auto* const kept = new Addresses;  // outlives every static of the process
  return *kept;
}

void* noteAllocated(void* memory) {
  if (memory != nullptr) {
    std::lock_guard lock(allocationMutex);
    allocations().insert(memory);
  }
  return memory;
}

void* noteFreed(void* memory) {
  if (memory != nullptr) {
    std::lock_guard lock(allocationMutex);
    allocations().erase(memory);
  }
  return memory;
}

struct ThreadStart {
  void* (*routine)(void*);
  void* argument;
};

void* countedThread(void* given) {
  const ThreadStart start = *static_cast<ThreadStart*>(given);
  delete static_cast<ThreadStart*>(given);
  void* const result = start.routine(start.argument);
  --threadsAlive;
  return result;
}

void countNames(GLsizei count, const GLuint* names, int by) {
  for (GLsizei i = 0; i < count; ++i) glObjectsAlive += names[i] != 0 ? by : 0;
}

void* countMade(void* object) {
  glObjectsAlive += object != nullptr ? 1 : 0;
  return object;
}

bool failsEgl(const char* call) {
  if (!fails(Fault::kEgl, call)) return false;
  injectedError = EGL_BAD_ALLOC;
  return true;
}

}  // namespace

FaultInjection::FaultInjection(Fault injected, int nth, Lasting lasting) : fault(injected) {
  FaultState& state = faultStates[static_cast<int>(fault)];
  state.seen = 0;
  state.failedCall = nullptr;
  state.once = lasting == Lasting::kOnce;
  state.failFrom = nth;
}

FaultInjection::~FaultInjection() {
  faultStates[static_cast<int>(fault)].failFrom = -1;
}

int FaultInjection::calls() const {
  return faultStates[static_cast<int>(fault)].seen;
}

const char* FaultInjection::failedCall() const {
  return faultStates[static_cast<int>(fault)].failedCall;
}

StalledGpu::StalledGpu(Gate stalled, Whom whom) {
  std::lock_guard lock(gateMutex);
  stalledGate = stalled;
  Turnstile& gate = gates[static_cast<int>(stalled)];
  gate.closed = true;
  gate.holdsOne = whom == Whom::kFirst;
}

StalledGpu::~StalledGpu() {
  std::lock_guard lock(gateMutex);
  gates[static_cast<int>(stalledGate)].closed = false;
  gateChanged.notify_all();
}

bool StalledGpu::isHolding() const {
  std::unique_lock lock(gateMutex);
  return gateChanged.wait_for(lock, std::chrono::seconds(10),
                              [] { return gates[static_cast<int>(stalledGate)].waiting > 0; });
}

FakeWindow::FakeWindow(int width, int height) {
  fakeSize[0] = width;
  fakeSize[1] = height;
  fakeWindow = this;
}

FakeWindow::~FakeWindow() {
  fakeWindow = nullptr;
}

Held held() {
  freeRecords();
  std::lock_guard lock(allocationMutex);
  return {static_cast<long>(allocations().size()), threadsAlive, glObjectsAlive};
}

}  // namespace noxel

using noxel::countNames;
using noxel::fails;
using noxel::failsEgl;
using noxel::fakeWindow;
using noxel::Fault;

// A call that only can fail: with `failure`, before anything was done.
#define NOXEL_FAILING(failing, result, failure, name, parameters, arguments) \
  result __real_##name parameters;                                           \
  result __wrap_##name parameters {                                          \
    return failing ? failure : __real_##name arguments;                      \
  }
#define NOXEL_FAILING_EGL(result, failure, name, parameters, arguments) \
  NOXEL_FAILING(failsEgl(#name), result, failure, name, parameters, arguments)
#define NOXEL_FAILING_FILE(result, name, parameters, arguments) \
  NOXEL_FAILING((fails(Fault::kFile, #name) && (errno = EIO) != 0), result, -1, name, parameters, arguments)
// One that gives something back, and reports a failure all the same.
#define NOXEL_FAILING_AFTER(failing, result, failure, name, parameters, arguments) \
  result __real_##name parameters;                                                 \
  result __wrap_##name parameters {                                                \
    const result done = __real_##name arguments;                                   \
    return failing ? failure : done;                                               \
  }
#define NOXEL_COUNTED_NAMES(kind)                                  \
  void __real_glGen##kind(GLsizei, GLuint*);                       \
  void __wrap_glGen##kind(GLsizei count, GLuint* names) {          \
    __real_glGen##kind(count, names);                              \
    countNames(count, names, 1);                                   \
  }                                                                \
  void __real_glDelete##kind(GLsizei, const GLuint*);              \
  void __wrap_glDelete##kind(GLsizei count, const GLuint* names) { \
    __real_glDelete##kind(count, names);                           \
    countNames(count, names, -1);                                  \
  }

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
  if (fails(Fault::kThread, "pthread_create")) return EAGAIN;
  ++noxel::threadsAlive;
  auto* counted = new noxel::ThreadStart{start, argument};
  const int result = __real_pthread_create(thread, attributes, noxel::countedThread, counted);
  if (result != 0) {
    --noxel::threadsAlive;
    delete counted;
  }
  return result;
}

void* __wrap_malloc(size_t size) {
  return fails(Fault::kMemory, "malloc") ? nullptr : noxel::noteAllocated(__real_malloc(size));
}

void* __real_calloc(size_t, size_t);
void* __wrap_calloc(size_t count, size_t size) {
  return fails(Fault::kMemory, "calloc") ? nullptr : noxel::noteAllocated(__real_calloc(count, size));
}

void* __real_realloc(void*, size_t);
void* __wrap_realloc(void* memory, size_t size) {
  if (fails(Fault::kMemory, "realloc")) return nullptr;
  noxel::noteFreed(memory);
  return noxel::noteAllocated(__real_realloc(memory, size));
}

void __wrap_free(void* memory) {
  __real_free(noxel::noteFreed(memory));
}

// operator new (size, nothrow), whose size is an unsigned long or, on 32-bit machines, an unsigned int.
#if __SIZEOF_SIZE_T__ == 8
#define NOXEL_NEW(prefix) prefix##_ZnwmRKSt9nothrow_t
#define NOXEL_NEW_ARRAY(prefix) prefix##_ZnamRKSt9nothrow_t
#define NOXEL_SIZED_DELETE(prefix) prefix##_ZdlPvm
#define NOXEL_SIZED_ARRAY_DELETE(prefix) prefix##_ZdaPvm
#else
#define NOXEL_NEW(prefix) prefix##_ZnwjRKSt9nothrow_t
#define NOXEL_NEW_ARRAY(prefix) prefix##_ZnajRKSt9nothrow_t
#define NOXEL_SIZED_DELETE(prefix) prefix##_ZdlPvj
#define NOXEL_SIZED_ARRAY_DELETE(prefix) prefix##_ZdaPvj
#endif
void* NOXEL_NEW(__real_)(size_t, const std::nothrow_t&);
void* NOXEL_NEW(__wrap_)(size_t size, const std::nothrow_t& tag) {
  return fails(Fault::kMemory, "new") ? nullptr : noxel::noteAllocated(NOXEL_NEW(__real_)(size, tag));
}

void* NOXEL_NEW_ARRAY(__real_)(size_t, const std::nothrow_t&);
void* NOXEL_NEW_ARRAY(__wrap_)(size_t size, const std::nothrow_t& tag) {
  return fails(Fault::kMemory, "new[]") ? nullptr : noxel::noteAllocated(NOXEL_NEW_ARRAY(__real_)(size, tag));
}

void __real__ZdaPv(void*);
void __wrap__ZdaPv(void* memory) {
  __real__ZdaPv(noxel::noteFreed(memory));
}

void NOXEL_SIZED_ARRAY_DELETE(__real_)(void*, size_t);
void NOXEL_SIZED_ARRAY_DELETE(__wrap_)(void* memory, size_t size) {
  NOXEL_SIZED_ARRAY_DELETE(__real_)(noxel::noteFreed(memory), size);
}

void __real__ZdlPv(void*);
void __wrap__ZdlPv(void* memory) {
  __real__ZdlPv(noxel::noteFreed(memory));
}

void NOXEL_SIZED_DELETE(__real_)(void*, size_t);
void NOXEL_SIZED_DELETE(__wrap_)(void* memory, size_t size) {
  NOXEL_SIZED_DELETE(__real_)(noxel::noteFreed(memory), size);
}

EGLint __real_eglGetError();
EGLint __wrap_eglGetError() {
  const EGLint error = __real_eglGetError();
  const EGLint injected = noxel::injectedError;
  noxel::injectedError = EGL_SUCCESS;
  return injected != EGL_SUCCESS ? injected : error;
}

NOXEL_FAILING_EGL(EGLDisplay, EGL_NO_DISPLAY, eglGetDisplay, (EGLNativeDisplayType native), (native))
NOXEL_FAILING_EGL(EGLBoolean, EGL_FALSE, eglInitialize, (EGLDisplay display, EGLint* major, EGLint* minor),
                  (display, major, minor))
NOXEL_FAILING_EGL(EGLBoolean, EGL_FALSE, eglBindAPI, (EGLenum api), (api))
NOXEL_FAILING_EGL(const char*, nullptr, eglQueryString, (EGLDisplay display, EGLint name), (display, name))
EGLSurface __real_eglCreatePbufferSurface(EGLDisplay, EGLConfig, const EGLint*);
EGLSurface __wrap_eglCreatePbufferSurface(EGLDisplay display, EGLConfig config, const EGLint* attributes) {
  if (failsEgl("eglCreatePbufferSurface")) return EGL_NO_SURFACE;
  return noxel::countMade(__real_eglCreatePbufferSurface(display, config, attributes));
}

EGLContext __real_eglCreateContext(EGLDisplay, EGLConfig, EGLContext, const EGLint*);
EGLContext __wrap_eglCreateContext(EGLDisplay display, EGLConfig config, EGLContext share, const EGLint* attributes) {
  if (failsEgl("eglCreateContext")) return EGL_NO_CONTEXT;
  return noxel::countMade(__real_eglCreateContext(display, config, share, attributes));
}

NOXEL_FAILING_EGL(EGLBoolean, EGL_FALSE, eglQuerySurface,
                  (EGLDisplay display, EGLSurface surface, EGLint name, EGLint* value), (display, surface, name, value))
NOXEL_FAILING_AFTER(--noxel::glObjectsAlive < 0 || failsEgl("eglDestroyContext"), EGLBoolean, EGL_FALSE,
                    eglDestroyContext, (EGLDisplay display, EGLContext context), (display, context))
NOXEL_FAILING_AFTER(--noxel::glObjectsAlive < 0 || failsEgl("eglDestroySurface"), EGLBoolean, EGL_FALSE,
                    eglDestroySurface, (EGLDisplay display, EGLSurface surface), (display, surface))
NOXEL_FAILING_AFTER(failsEgl("eglTerminate"), EGLBoolean, EGL_FALSE, eglTerminate, (EGLDisplay display), (display))
NOXEL_FAILING_AFTER(failsEgl("eglReleaseThread"), EGLBoolean, EGL_FALSE, eglReleaseThread, (), ())

using EglFunction = void (*)();
NOXEL_FAILING_EGL(EglFunction, nullptr, eglGetProcAddress, (const char* name), (name))

// No window, no config for windows: a fake one is a pbuffer.
EGLBoolean __real_eglChooseConfig(EGLDisplay, const EGLint*, EGLConfig*, EGLint, EGLint*);
EGLBoolean __wrap_eglChooseConfig(EGLDisplay display, const EGLint* attributes, EGLConfig* configs, EGLint size,
                                  EGLint* count) {
  if (failsEgl("eglChooseConfig")) return EGL_FALSE;
  const EGLint pbuffer[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_NONE};
  return __real_eglChooseConfig(display, fakeWindow != nullptr ? pbuffer : attributes, configs, size, count);
}

EGLSurface __real_eglCreateWindowSurface(EGLDisplay, EGLConfig, EGLNativeWindowType, const EGLint*);
EGLSurface __wrap_eglCreateWindowSurface(EGLDisplay display, EGLConfig config, EGLNativeWindowType window,
                                         const EGLint* attributes) {
  if (failsEgl("eglCreateWindowSurface")) return EGL_NO_SURFACE;
  if (fakeWindow == nullptr) {
    return noxel::countMade(__real_eglCreateWindowSurface(display, config, window, attributes));
  }
  const EGLint size[] = {EGL_WIDTH, noxel::fakeSize[0], EGL_HEIGHT, noxel::fakeSize[1], EGL_NONE};
  return noxel::countMade(__real_eglCreatePbufferSurface(display, config, size));
}

// Letting go of a context is done even when it is to fail.
EGLBoolean __real_eglMakeCurrent(EGLDisplay, EGLSurface, EGLSurface, EGLContext);
EGLBoolean __wrap_eglMakeCurrent(EGLDisplay display, EGLSurface draw, EGLSurface read, EGLContext context) {
  const bool failing = failsEgl("eglMakeCurrent");
  if (failing && context != EGL_NO_CONTEXT) return EGL_FALSE;
  const EGLBoolean made = __real_eglMakeCurrent(display, draw, read, context);
  return failing ? EGL_FALSE : made;
}

EGLBoolean __real_eglSwapBuffers(EGLDisplay, EGLSurface);
EGLBoolean __wrap_eglSwapBuffers(EGLDisplay display, EGLSurface surface) {
  noxel::pass(noxel::Gate::kSwap);
  return failsEgl("eglSwapBuffers") ? EGL_FALSE : __real_eglSwapBuffers(display, surface);
}

void* __real_glMapBufferRange(GLenum, GLintptr, GLsizeiptr, GLbitfield);
void* __wrap_glMapBufferRange(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access) {
  noxel::pass(noxel::Gate::kMap);
  return fails(Fault::kMap, "glMapBufferRange") ? nullptr : __real_glMapBufferRange(target, offset, length, access);
}

// A size that is none is GL's own reason to fail.
void __real_glReadPixels(GLint, GLint, GLsizei, GLsizei, GLenum, GLenum, void*);
void __wrap_glReadPixels(GLint x, GLint y, GLsizei width, GLsizei height, GLenum format, GLenum type, void* pixels) {
  __real_glReadPixels(x, y, fails(Fault::kRead, "glReadPixels") ? -1 : width, height, format, type, pixels);
}

NOXEL_FAILING(fails(Fault::kFramebuffer, "glCheckFramebufferStatus"), GLenum, GL_FRAMEBUFFER_UNSUPPORTED,
              glCheckFramebufferStatus, (GLenum target), (target))
NOXEL_COUNTED_NAMES(Textures)
NOXEL_COUNTED_NAMES(Framebuffers)
NOXEL_COUNTED_NAMES(Buffers)

// A shader that fails to compile is one whose text is wrong, and a program that fails to link was never linked: status and
// log are the driver's own.
void __real_glShaderSource(GLuint, GLsizei, const GLchar* const*, const GLint*);
void __wrap_glShaderSource(GLuint shader, GLsizei count, const GLchar* const* texts, const GLint* lengths) {
  const GLchar* const wrong = "#version 300 es\nwrong";
  if (fails(Fault::kShader, "glCompileShader")) return __real_glShaderSource(shader, 1, &wrong, nullptr);
  __real_glShaderSource(shader, count, texts, lengths);
}

void __real_glLinkProgram(GLuint);
void __wrap_glLinkProgram(GLuint program) {
  if (!fails(Fault::kShader, "glLinkProgram")) __real_glLinkProgram(program);
}

void __real_glProgramBinary(GLuint, GLenum, const void*, GLsizei);
void __wrap_glProgramBinary(GLuint program, GLenum format, const void* binary, GLsizei length) {
  if (!fails(Fault::kShader, "glProgramBinary")) __real_glProgramBinary(program, format, binary, length);
}

GLuint __real_glCreateShader(GLenum);
GLuint __wrap_glCreateShader(GLenum type) {
  const GLuint name = fails(Fault::kShader, "glCreateShader") ? 0 : __real_glCreateShader(type);
  countNames(1, &name, 1);
  return name;
}

GLuint __real_glCreateProgram();
GLuint __wrap_glCreateProgram() {
  const GLuint name = fails(Fault::kShader, "glCreateProgram") ? 0 : __real_glCreateProgram();
  countNames(1, &name, 1);
  return name;
}

void __real_glDeleteShader(GLuint);
void __wrap_glDeleteShader(GLuint name) {
  __real_glDeleteShader(name);
  countNames(1, &name, -1);
}

void __real_glDeleteProgram(GLuint);
void __wrap_glDeleteProgram(GLuint name) {
  __real_glDeleteProgram(name);
  countNames(1, &name, -1);
}

int __real_open(const char*, int, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(rest, unsigned)) : 0;
  va_end(rest);
  if (!fails(Fault::kFile, "open")) return __real_open(path, flags, mode);
  errno = EIO;
  return -1;
}

using StatRecord = struct stat;
NOXEL_FAILING_FILE(int, fstat, (int file, StatRecord* record), (file, record))
NOXEL_FAILING_FILE(int, stat, (const char* path, StatRecord* record), (path, record))
NOXEL_FAILING_FILE(int, mkdir, (const char* path, mode_t mode), (path, mode))
NOXEL_FAILING_FILE(int, mkstemp, (char* pattern), (pattern))
NOXEL_FAILING_FILE(ssize_t, read, (int file, void* bytes, size_t size), (file, bytes, size))
NOXEL_FAILING_FILE(ssize_t, write, (int file, const void* bytes, size_t size), (file, bytes, size))
NOXEL_FAILING_FILE(int, rename, (const char* from, const char* to), (from, to))
NOXEL_FAILING_AFTER((fails(Fault::kFile, "close") && (errno = EIO) != 0), int, -1, close, (int file), (file))
}
