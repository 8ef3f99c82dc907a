// What the sample calls of Android, on Linux: its log goes to standard error, and each surface is an X11 window.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <android/log.h>
#include <android/native_window.h>
#include <android/native_window_jni.h>
#include <jni.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace {

constexpr int kWidth = 320, kHeight = 240;

Display* display = nullptr;
Window newest = None;

}  // namespace

extern "C" {

int __android_log_write(int priority, const char* tag, const char* text) {
  return priority < ANDROID_LOG_WARN ? 0 : std::fprintf(stderr, "%s: %s\n", tag, text);
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  char text[256];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  return __android_log_write(priority, tag, text);
}

// As libnoxel takes windows on Linux: the X11 id, cast to a pointer.
ANativeWindow* ANativeWindow_fromSurface(JNIEnv* /*env*/, jobject /*surface*/) {
  if (display == nullptr) display = XOpenDisplay(nullptr);
  if (display == nullptr) return nullptr;
  newest = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, kWidth, kHeight, 0, 0, 0);
  XMapWindow(display, newest);
  XSync(display, False);
  return reinterpret_cast<ANativeWindow*>(static_cast<uintptr_t>(newest));
}

void ANativeWindow_release(ANativeWindow* window) {
  XDestroyWindow(display, static_cast<Window>(reinterpret_cast<uintptr_t>(window)));
  XSync(display, False);
}

// The window's middle pixel: 0xRRGGBB, or -1 where none can be read.
JNIEXPORT jint JNICALL Java_noxel_sample_EnhancerRun_shown(JNIEnv* /*env*/, jclass /*type*/) {
  XImage* image = XGetImage(display, newest, kWidth / 2, kHeight / 2, 1, 1, AllPlanes, ZPixmap);
  if (image == nullptr) return -1;
  const auto pixel = static_cast<jint>(XGetPixel(image, 0, 0) & 0xffffff);
  XDestroyImage(image);
  return pixel;
}

}  // extern "C"
