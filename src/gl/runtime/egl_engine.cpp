#include "gl/runtime/egl_engine.h"

#include <cstring>
#include <initializer_list>

#include "gl/runtime/gl.h"
#include "platform/log.h"

#define LOG_EGL_ERROR(...) platform::print(platform::kLogError, "KorvaneEGLEngine", __VA_ARGS__)

namespace noxel {
namespace {

bool succeeded(EGLBoolean result, const char* call) {
  if (result == EGL_TRUE) return true;
  LOG_EGL_ERROR("Error: %s failed %d\n", call, eglGetError());
  return false;
}

template <typename EntryPoint>
bool findEntryPoint(EntryPoint& entryPoint, const char* name) {
  entryPoint = reinterpret_cast<EntryPoint>(eglGetProcAddress(name));
  if (entryPoint == nullptr) LOG_EGL_ERROR("could not find %s", name);
  return entryPoint != nullptr;
}

// Only asks: the answer is for a debugger or a driver's trace.
void printGLString(const char* label, GLenum name) {
  (void)label;
  (void)glGetString(name);
}

}  // namespace

int EGLEngine::Initialize(int width, int height, void* window, void* shareContext, int alphaSize) {
  if (window == nullptr) return initWithPBuffer(width, height, shareContext);
  return initWithWindow(width, height, window, shareContext, alphaSize);
}

int EGLEngine::initWithWindow(int /*width*/, int /*height*/, void* window, void* shareContext, int alphaSize) {
  if (openDisplay() == 0) return 0;
  // The visual of an X11 window is fixed: one without alpha may refuse a config that has it.
  int alpha = alphaSize;
  while (createSurface(window, alpha) == 0) {
    if (alpha == 0) return 0;
    alpha = 0;
  }
  return createContext(shareContext);
}

int EGLEngine::initWithPBuffer(int /*width*/, int /*height*/, void* shareContext) {
  if (openDisplay() == 0 || createSurface(nullptr, 0) == 0) return 0;
  return createContext(shareContext);
}

int EGLEngine::openDisplay() {
  if (sharedDisplay != EGL_NO_DISPLAY) {
    display = sharedDisplay;
    released = false;
    return 1;
  }
  display = platform::engineDisplay();
  if (display == EGL_NO_DISPLAY) {
    LOG_EGL_ERROR("Error: eglGetDisplay failed %d\n", eglGetError());
    return 0;
  }
  displayInitialized =
      succeeded(eglInitialize(display, nullptr, nullptr), "eglInitialize");  // the next call fails, and tells
  released = false;
  (void)succeeded(eglBindAPI(EGL_OPENGL_ES_API), "eglBindAPI");  // OpenGL ES is every thread's first API anyway
  return 1;
}

int EGLEngine::createSurface(void* window, int alphaSize) {
  const EGLint windowConfig[] = {EGL_SURFACE_TYPE,
                                 EGL_WINDOW_BIT,
                                 EGL_RENDERABLE_TYPE,
                                 EGL_OPENGL_ES2_BIT,
                                 EGL_ALPHA_SIZE,
                                 alphaSize,
                                 EGL_GREEN_SIZE,
                                 8,
                                 EGL_BLUE_SIZE,
                                 8,
                                 EGL_RED_SIZE,
                                 8,
                                 EGL_NONE};
  const EGLint pbufferConfig[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_NONE};
  EGLint count = 0;
  eglChooseConfig(display, window != nullptr ? windowConfig : pbufferConfig, &config, 1, &count);
  if (count != 1) {
    LOG_EGL_ERROR("Error: eglChooseConfig(): config not found.\n");
    return 0;
  }
  if (window != nullptr) {
    surface = eglCreateWindowSurface(display, config, platform::nativeWindow(window), nullptr);
  } else {
    const EGLint attributes[] = {
        EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_TEXTURE_TARGET, EGL_NO_TEXTURE, EGL_TEXTURE_FORMAT, EGL_NO_TEXTURE, EGL_NONE};
    surface = eglCreatePbufferSurface(display, config, attributes);
  }
  const EGLint error = eglGetError();
  if (error == EGL_SUCCESS && surface != EGL_NO_SURFACE) return 1;
  LOG_EGL_ERROR("Error: surface creation failed %d\n", error);
  return 0;
}

int EGLEngine::createContext(void* shareContext) {
  const EGLint attributes[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
  context = eglCreateContext(display, config, shareContext, attributes);
  const EGLint error = eglGetError();
  if (error != EGL_SUCCESS || context == EGL_NO_CONTEXT) {
    LOG_EGL_ERROR("Error: context creation failed %d\n", error);
    return 0;
  }
  if (MakeCurrent(surface, surface) != EGL_SUCCESS) return 0;  // no GL call may be made without it
  loadExtensions();
  return 1;
}

void EGLEngine::loadExtensions() {
  findEntryPoint(presentationTime, "eglPresentationTimeANDROID");
  findEntryPoint(createImage, "eglCreateImageKHR");
  findEntryPoint(destroyImage, "eglDestroyImageKHR");
  findEntryPoint(createSync, "eglCreateSyncKHR");
  findEntryPoint(clientWaitSync, "eglClientWaitSyncKHR");
  findEntryPoint(destroySync, "eglDestroySyncKHR");

  // The GL string alone decides; the wrappers test their own entry point as well.
  syncKind = HasGLExtension("GL_OES_EGL_sync") ? 1 : HasGLExtension("GL_NV_fence") ? 2 : 0;
  syncSupported = syncKind != 0;
}

int EGLEngine::Release() {
  if (display == EGL_NO_DISPLAY || released) return 1;
  released = true;
  if (eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT) != EGL_TRUE) {
    LOG_EGL_ERROR("Error: make current failed %d\n", eglGetError());
  }
  if (context != EGL_NO_CONTEXT) (void)succeeded(eglDestroyContext(display, context), "eglDestroyContext");
  if (surface != EGL_NO_SURFACE) (void)succeeded(eglDestroySurface(display, surface), "eglDestroySurface");
  if (displayInitialized) leaveDisplay();
  (void)succeeded(eglReleaseThread(), "eglReleaseThread");
  return 1;
}

void EGLEngine::leaveDisplay() {
  if (platform::displayCountsUsers(display)) {
    (void)succeeded(eglTerminate(display), "eglTerminate");
  } else {
    platform::keepDisplay();
  }
  displayInitialized = false;
}

EGLBoolean EGLEngine::SwapBuffers() {
  const EGLBoolean swapped = eglSwapBuffers(display, surface);
  tellOnce(&swapFails, swapped == EGL_TRUE, "eglSwapBuffers");
  return swapped;
}

EGLBoolean EGLEngine::SwapBuffers(void* otherSurface) {
  return eglSwapBuffers(display, otherSurface);
}

EGLBoolean EGLEngine::SetSwapInterval(int interval) {
  return eglSwapInterval(display, interval);
}

void EGLEngine::tellOnce(bool* fails, bool success, const char* call) {
  const EGLint error = success ? EGL_SUCCESS : eglGetError();
  if (!success && !*fails) LOG_EGL_ERROR("Error: %s failed %d\n", call, error);
  *fails = !success;
  contextLost = contextLost || error == EGL_CONTEXT_LOST;
}

void EGLEngine::GetSurfaceSize(int* width, int* height) {
  EGLint surfaceWidth = 0, surfaceHeight = 0;
  const bool told = eglQuerySurface(display, surface, EGL_WIDTH, &surfaceWidth) == EGL_TRUE &&
                    eglQuerySurface(display, surface, EGL_HEIGHT, &surfaceHeight) == EGL_TRUE;
  tellOnce(&queryFails, told, "eglQuerySurface");
  if (!told || surfaceWidth < 1 || surfaceHeight < 1) return;
  *width = surfaceWidth;
  *height = surfaceHeight;
}

EGLint EGLEngine::MakeCurrent(void* draw, void* read) {
  const EGLBoolean made = eglMakeCurrent(display, draw, read, context);
  const EGLint error = eglGetError();
  if (made == EGL_TRUE && error == EGL_SUCCESS) return EGL_SUCCESS;
  LOG_EGL_ERROR("Error: make current failed %d\n", error);
  return error != EGL_SUCCESS ? error : EGL_BAD_ACCESS;
}

void* EGLEngine::CreateWindowSurface(void* window) {
  const EGLSurface created = eglCreateWindowSurface(display, config, platform::nativeWindow(window), nullptr);
  const EGLint error = eglGetError();
  if (created == EGL_NO_SURFACE || error != EGL_SUCCESS) LOG_EGL_ERROR("Error: surface creation failed %d\n", error);
  return created;
}

EGLBoolean EGLEngine::DestroySurface(void* otherSurface) {
  return eglDestroySurface(display, otherSurface);
}

void EGLEngine::PrintGLInfo() {
  printGLString("Version", GL_VERSION);
  printGLString("Vendor", GL_VENDOR);
  printGLString("Renderer", GL_RENDERER);
  printGLString("Extensions", GL_EXTENSIONS);
}

void EGLEngine::PrintEGLInfo() {
  for (const EGLint name : {EGL_VERSION, EGL_VENDOR, EGL_CLIENT_APIS, EGL_EXTENSIONS}) {
    (void)eglQueryString(display, name);
  }
}

int EGLEngine::HasGLExtension(const char* name) {
  const char* extensions = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
  if (extensions == nullptr) return 0;
  const size_t wanted = std::strlen(name);
  const char* end = extensions + std::strlen(extensions);
  for (const char* word = extensions; word < end;) {
    const size_t length = std::strcspn(word, " ");
    if (length == wanted && std::strncmp(word, name, length) == 0) return 1;
    word += length + 1;
  }
  return 0;
}

void* EGLEngine::CreateImage(unsigned target, void* buffer, const int* attributes) {
  if (createImage == nullptr) return nullptr;
  return createImage(display, EGL_NO_CONTEXT, target, buffer, attributes);
}

int EGLEngine::DestroyImage(void* image) {
  if (destroyImage == nullptr || image == nullptr) return 0;
  return static_cast<int>(destroyImage(display, image));
}

void* EGLEngine::CreateSync(unsigned type, const int* attributes) {
  if (!syncSupported || createSync == nullptr) return nullptr;
  return createSync(display, type, attributes);
}

int EGLEngine::ClientWaitSync(void* sync, int flags, uint64_t timeoutNs) {
  if (!syncSupported || clientWaitSync == nullptr) return 0;
  return clientWaitSync(display, sync, flags, timeoutNs);
}

int EGLEngine::DestroySync(void* sync) {
  if (!syncSupported || destroySync == nullptr) return 0;
  return static_cast<int>(destroySync(display, sync));
}

int EGLEngine::SetPresentationTime(void* otherSurface, int64_t nanoseconds) {
  if (presentationTime == nullptr) return 0;
  return static_cast<int>(presentationTime(display, otherSurface, nanoseconds));
}

}  // namespace noxel
