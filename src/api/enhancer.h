// What is behind noxel_enhancer: frames that wait, a thread that enhances them one by one, frames that are done.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "api/caller_log.h"
#include "api/enhancer_engine.h"
#include "api/enhancer_settings.h"
#include "api/frames_ahead.h"
#include "noxel/enhancer.h"
#include "platform/signal.h"

namespace noxel {

// What a caller may want to see of how a frame was made. Null where it was not asked for.
struct FrameDiagnostics {
  static constexpr int kMaxPasses = 64;
  struct Pass {
    const char* name;
    uint64_t nanoseconds;
  };

  noxel_track* tracks[2] = {};  // of the common motion, on their own
  int trackCounts[2] = {};
  unsigned char* history = nullptr;
  int historyWidth = 0;  // 0: not known of this frame
  int historyHeight = 0;
  Pass* passes = nullptr;
  int passCount = 0;
};

// A frame on its way through an enhancer. Belongs to the caller's thread until it waits, then to the worker, and to the
// receiver once it is done.
struct EnhancerFrame {
  unsigned char* nv21 = nullptr;  // padded; mode 4: RGBA
  int matrix = NOXEL_MATRIX_BT601;
  double settings[kSettingCount] = {};  // as they were when it was sent
  bool cut = false;                     // it begins a sequence
  bool slow = false;                    // its clip has few frames a second
  int64_t intervalUs = 0;               // from the frame before
  uint64_t sentNs = 0;
  noxel_frame_info info = {};
  FrameDiagnostics diagnostics;
};

// Places of frames, first in, first out.
class FrameQueue {
 public:
  static constexpr int kCapacity = 32;
  int size() const { return size_; }
  int at(int i) const { return places_[(first_ + i) % kCapacity]; }
  void push(int place) { places_[(first_ + size_++) % kCapacity] = place; }
  int pop() {
    const int place = places_[first_];
    first_ = (first_ + 1) % kCapacity;
    --size_;
    return place;
  }
  int popNewest() { return places_[(first_ + --size_) % kCapacity]; }

 private:
  int places_[kCapacity] = {};
  int first_ = 0;
  int size_ = 0;
};

// The calls are those of enhancer.h, with arguments that are not null.
class Enhancer {
 public:
  static int make(const noxel_config& config, Enhancer** result);
  ~Enhancer();
  Enhancer(const Enhancer&) = delete;
  Enhancer& operator=(const Enhancer&) = delete;

  int send(const noxel_frame& frame);
  int receive(noxel_frame* frame, noxel_frame_info* info);
  int renderTexture(unsigned texture, int width, int height, noxel_frame_info* info);
  int flush();
  int reset();
  int latencyFrames() const;
  int set(int setting, double value);
  double get(int setting) const { return settings_[setting].load(std::memory_order_relaxed); }
  platform::LogTarget* log() { return log_.target(); }
  int setCorners(int picture, const float* corners);
  // Of the frame received last; null: there is none.
  const FrameDiagnostics* diagnostics() const { return received_ >= 0 ? &frames_[received_].diagnostics : nullptr; }

 private:
  explicit Enhancer(const noxel_config& config);
  int setUp(const noxel_config& config);
  int places() const;
  int takeFinished(int* place);

  // Under mutex_.
  bool looksAhead(const double* settings) const;
  int framesWanted() const;
  bool canWork() const;
  int framesBeforeCut() const;
  void discard(FrameQueue* queue);

  // The worker's.
  static void* workerMain(void* enhancer);
  void work();
  void enhance(int available);
  void beginSequence(int available);
  void settleExposure(const EnhancerFrame& first);
  const unsigned char* registeredNext(int available) const;
  void fillInfo(EnhancerFrame* frame, bool enhanced);
  bool allocateDiagnostics(FrameDiagnostics* diagnostics) const;
  bool enableDiagnostics();
  void fillDiagnostics(EnhancerFrame* frame);
  static void notePass(void* enhancer, const char* pass, uint64_t nanoseconds);

  const int width_;
  const int height_;
  const int mode_;
  const bool live_;
  const bool intoWindow_;
  const bool leadIn_;
  noxel_config config_;  // for the second engine; the cache directory is our copy
  char* cacheDirectory_ = nullptr;
  CallerLog log_;
  std::atomic<double> settings_[kSettingCount];  // relaxed: a frame late is fine

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
  EnhancerFrame frames_[FrameQueue::kCapacity];
  FrameQueue free_;     // under mutex_, as all below
  FrameQueue waiting_;  // sent; the first one is being enhanced while busy_
  FrameQueue finished_;
  bool busy_ = false;
  bool flushing_ = false;
  bool stopping_ = false;
  CutFinder cuts_;
  pthread_t worker_ = {};
  bool workerStarted_ = false;
  int received_ = -1;                // the receiver's alone: the frame that was received last, not free yet
  std::atomic<bool> hurry_ = false;  // what is being done is not wanted any more

  // The worker's alone.
  FrameDiagnostics* passesOf_ = nullptr;  // of the frame that is drawn; the GPU thread's meanwhile
  EnhancerEngine engine_;
  FramesAhead ahead_;
  enum class Ahead { kUntried, kThere, kRefused };
  std::atomic<Ahead> aheadState_ = Ahead::kUntried;
  std::atomic<bool> chunkIsDone_ = true;  // the next frame begins a chunk; read under mutex_ while the worker waits
  unsigned char* scratch_ = nullptr;
  bool followsLeadIn_ = false;  // the next frame does
};

}  // namespace noxel
