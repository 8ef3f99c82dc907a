// The native methods of noxel.sample.Enhancer.
#include <android/log.h>
#include <android/native_window.h>
#include <android/native_window_jni.h>
#include <jni.h>
#include <noxel/enhancer.h>

#include <memory>
#include <new>
#include <vector>

#include "camera_planes.h"

namespace {

using noxel::sample::CameraPlane;

constexpr char kTag[] = "noxel";

struct ReleaseWindow {
  void operator()(ANativeWindow* window) const { ANativeWindow_release(window); }
};

// What a Java Enhancer holds. Its methods are called from one thread at a time.
struct Session {
  Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() { noxel_free(&enhancer); }

  // Declared before the enhancer: the window outlives what draws into it.
  std::unique_ptr<ANativeWindow, ReleaseWindow> window;
  noxel_enhancer* enhancer = nullptr;
  int width = 0;
  int height = 0;
  std::vector<uint8_t> chroma;  // of cameras whose planes have to be copied
};

Session& sessionOf(jlong handle) {
  return *reinterpret_cast<Session*>(static_cast<intptr_t>(handle));
}

// libnoxel's levels are Android's priorities.
void writeLog(void* /*context*/, int level, const char* message) {
  __android_log_write(level, kTag, message);
}

// A Java string as UTF-8; empty where memory has run out.
class Text {
 public:
  Text(JNIEnv* env, jstring string)
      : env_(env), string_(string), characters_(env->GetStringUTFChars(string, nullptr)) {}
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  ~Text() {
    if (characters_ != nullptr) env_->ReleaseStringUTFChars(string_, characters_);
  }
  const char* get() const { return characters_; }

 private:
  JNIEnv* env_;
  jstring string_;
  const char* characters_;
};

CameraPlane planeOf(JNIEnv* env, jobject buffer, jint rowStride, jint pixelStride) {
  const jlong size = env->GetDirectBufferCapacity(buffer);  // -1: not a direct buffer
  return {static_cast<const uint8_t*>(env->GetDirectBufferAddress(buffer)), static_cast<size_t>(size < 0 ? 0 : size),
          rowStride, pixelStride};
}

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_noxel_sample_Enhancer_create(JNIEnv* env, jclass /*type*/, jint width, jint height,
                                                          jobject surface, jstring cacheDirectory) {
  const Text cache(env, cacheDirectory);
  std::unique_ptr<Session> session(new (std::nothrow) Session);
  if (cache.get() == nullptr || session == nullptr) return 0;
  session->width = width;
  session->height = height;
  session->window.reset(ANativeWindow_fromSurface(env, surface));
  if (session->window == nullptr) {
    __android_log_write(ANDROID_LOG_ERROR, kTag, "the surface has been released");
    return 0;
  }

  noxel_config config;
  int result = noxel_config_init(&config, sizeof(config), width, height);
  config.delivery = NOXEL_LIVE;
  config.log = writeLog;
  config.cache_directory = cache.get();
  config.window = session->window.get();
  if (result == NOXEL_OK) result = noxel_create(&config, &session->enhancer);
  if (result != NOXEL_OK) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "no enhancer: %s", noxel_error_text(result));
    return 0;
  }
  return static_cast<jlong>(reinterpret_cast<intptr_t>(session.release()));
}

JNIEXPORT void JNICALL Java_noxel_sample_Enhancer_setOriginal(JNIEnv* /*env*/, jclass /*type*/, jlong handle,
                                                              jboolean original) {
  // At 0 the first leaves the noise as it is, the second the tone.
  for (const char* name : {"strength", "exposure"}) {
    const noxel_setting_info* setting = noxel_setting(name);
    noxel_set(sessionOf(handle).enhancer, setting->id, original != JNI_FALSE ? 0 : setting->initial);
  }
}

JNIEXPORT jint JNICALL Java_noxel_sample_Enhancer_send(JNIEnv* env, jclass /*type*/, jlong handle, jobject y, jint yRow,
                                                       jint yPixel, jobject u, jint uRow, jint uPixel, jobject v,
                                                       jint vRow, jint vPixel, jlong timeNs) {
  Session& session = sessionOf(handle);
  const CameraPlane planes[3] = {planeOf(env, y, yRow, yPixel), planeOf(env, u, uRow, uPixel),
                                 planeOf(env, v, vRow, vPixel)};
  noxel_frame frame;
  noxel_frame_init(&frame, sizeof(frame));
  if (!noxel::sample::mapCameraPlanes(session.width, session.height, planes, session.chroma, frame)) {
    return NOXEL_ERROR_ARGUMENT;
  }
  // Android's default for YUV_420_888 is that of JPEG: full range, BT.601.
  frame.range = NOXEL_RANGE_FULL;
  frame.matrix = NOXEL_MATRIX_BT601;
  frame.time_us = timeNs / 1000;
  const int result = noxel_send(session.enhancer, &frame);
  // Frames are drawn into the window; what is known of them is not wanted here, and must not pile up.
  int received = NOXEL_OK;
  while (received == NOXEL_OK) received = noxel_receive(session.enhancer, nullptr, nullptr);
  return received < 0 ? received : result;
}

JNIEXPORT void JNICALL Java_noxel_sample_Enhancer_free(JNIEnv* /*env*/, jclass /*type*/, jlong handle) {
  delete &sessionOf(handle);
}

}  // extern "C"
