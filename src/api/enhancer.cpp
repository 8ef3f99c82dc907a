#include "api/enhancer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "api/frame_planes.h"
#include "noxel/noxel.h"
#include "platform/log.h"
#include "registration/exposure.h"
#include "registration/registration_state.h"

namespace noxel {
namespace {

constexpr int kFramesInHistory = 16;  // the history of mode 5 counts no more
constexpr int kFinishedComplete = 3;  // frames done ahead of the receiver
constexpr int kWaitingLive = 2;       // the one being enhanced included
constexpr int kFinishedLive = 1;

void tell(const EnhancerFrame& frame, noxel_frame_info* info) {
  if (info == nullptr) return;
  const size_t size = info->size;
  std::memcpy(info, &frame.info, size);
  info->size = size;
}

size_t frameBytes(int width, int height, int mode) {
  if (mode == NOXEL_MODE_PICTURE) return 4 * static_cast<size_t>(width) * static_cast<size_t>(height);
  return static_cast<size_t>(engineWidth(width)) * static_cast<size_t>(engineHeight(height)) * 3 / 2;
}

}  // namespace

Enhancer::Enhancer(const noxel_config& config)
    : width_(config.width),
      height_(config.height),
      mode_(config.mode),
      live_(config.delivery == NOXEL_LIVE),
      intoWindow_(config.window != nullptr),
      leadIn_(config.lead_in != 0 && !live_),
      config_(config),
      log_(config.log, config.log_context),
      cuts_(config.frame_interval_us) {
  for (int id = 0; id < kSettingCount; ++id) settings_[id].store(settingInfo(id).initial, std::memory_order_relaxed);
  settings_[NOXEL_QUALITY].store(config.quality, std::memory_order_relaxed);
  if (config.mode != NOXEL_MODE_CLEAR) settings_[NOXEL_STRENGTH].store(65, std::memory_order_relaxed);
}

int Enhancer::make(const noxel_config& config, Enhancer** result) {
  auto* enhancer = new (std::nothrow) Enhancer(config);
  if (enhancer == nullptr) return NOXEL_ERROR_MEMORY;
  const platform::LogScope log(enhancer->log_.target());
  const int made = enhancer->setUp(config);
  if (made == NOXEL_OK) {
    *result = enhancer;
  } else {
    delete enhancer;
  }
  return made;
}

// Live: two that wait, one done, one received, one being filled.
int Enhancer::places() const {
  if (live_) return kWaitingLive + kFinishedLive + 2;
  const int ahead = mode_ == NOXEL_MODE_CLEAR ? FramesAhead::reachFor(width_, height_).frames() : 1;
  return std::min(std::max(ahead, leadIn_ ? kFramesInHistory : 1) + kFinishedComplete + 1, FrameQueue::kCapacity);
}

int Enhancer::setUp(const noxel_config& config) {
  if (config.cache_directory != nullptr) {
    const size_t size = std::strlen(config.cache_directory) + 1;
    cacheDirectory_ = static_cast<char*>(std::malloc(size));
    if (cacheDirectory_ == nullptr) return NOXEL_ERROR_MEMORY;
    std::memcpy(cacheDirectory_, config.cache_directory, size);
    config_.cache_directory = cacheDirectory_;
  }
  const size_t bytes = frameBytes(width_, height_, mode_);
  scratch_ = static_cast<unsigned char*>(std::malloc(bytes));
  bool allocated = scratch_ != nullptr;
  const int count = places();
  for (int i = 0; i < count && allocated; ++i) {
    frames_[i].nv21 = static_cast<unsigned char*>(std::malloc(bytes));
    allocated = frames_[i].nv21 != nullptr && allocateDiagnostics(&frames_[i].diagnostics);
    free_.push(i);
  }
  if (!allocated) {
    NOXEL_LOG_ERROR("no memory for %d frames of %d x %d", count, width_, height_);
    return NOXEL_ERROR_MEMORY;
  }
  const bool padded = mode_ != NOXEL_MODE_PICTURE;
  const int made = engine_.make(config_, padded ? engineWidth(width_) : width_,
                                padded ? engineHeight(height_) : height_, log_.target());
  if (made != NOXEL_OK) return made;
  if (!enableDiagnostics()) return NOXEL_ERROR_MEMORY;
  workerStarted_ = pthread_create(&worker_, nullptr, workerMain, this) == 0;
  if (!workerStarted_) NOXEL_LOG_ERROR("could not start the enhancer's thread");
  return workerStarted_ ? NOXEL_OK : NOXEL_ERROR_MEMORY;
}

Enhancer::~Enhancer() {
  if (workerStarted_) {
    {
      Lock lock(mutex_);
      stopping_ = true;
      hurry_.store(true, std::memory_order_relaxed);
      pthread_cond_broadcast(&changed_);
    }
    pthread_join(worker_, nullptr);
    engine_.finishAhead();
  }
  for (EnhancerFrame& frame : frames_) {
    std::free(frame.nv21);
    for (noxel_track* tracks : frame.diagnostics.tracks) std::free(tracks);
    std::free(frame.diagnostics.history);
    std::free(frame.diagnostics.passes);
  }
  std::free(scratch_);
  std::free(cacheDirectory_);
  pthread_cond_destroy(&changed_);
  pthread_mutex_destroy(&mutex_);
}

int Enhancer::set(int setting, double value) {
  if (setting < 0 || setting >= kSettingCount || !isInRange(settingInfo(setting), value)) return NOXEL_ERROR_ARGUMENT;
  settings_[setting].store(value, std::memory_order_relaxed);
  return NOXEL_OK;
}

bool Enhancer::looksAhead(const double* settings) const {
  return !live_ && mode_ == NOXEL_MODE_CLEAR && static_cast<int>(settings[NOXEL_QUALITY]) == NOXEL_QUALITY_BEST &&
         settings[NOXEL_STRENGTH] > 0 && settings[NOXEL_PER_FRAME] == 0 &&
         aheadState_.load(std::memory_order_relaxed) != Ahead::kRefused;
}

int Enhancer::latencyFrames() const {
  double settings[kSettingCount];
  for (int id = 0; id < kSettingCount; ++id) settings[id] = get(id);
  if (live_) return 0;
  if (looksAhead(settings)) return FramesAhead::reachFor(width_, height_).frames() - 1;
  return leadIn_ && mode_ == NOXEL_MODE_CLEAR ? kFramesInHistory - 1 : 0;
}

int Enhancer::send(const noxel_frame& frame) {
  if (!isUsable(frame, width_, height_, mode_)) return NOXEL_ERROR_ARGUMENT;
  int place;
  {
    Lock lock(mutex_);
    if (live_ ? waiting_.size() >= kWaitingLive : flushing_ || free_.size() == 0)
      return live_ ? NOXEL_DROPPED : NOXEL_AGAIN;
    place = free_.popNewest();  // memory that is never needed is never touched
  }
  EnhancerFrame* slot = &frames_[place];
  slot->sentNs = KRTimeNow();
  slot->matrix = matrixOf(frame);
  if (mode_ == NOXEL_MODE_PICTURE) {
    takeRgba(frame, width_, height_, slot->nv21);
  } else {
    takePlanes(frame, width_, height_, slot->nv21);
  }
  if (mode_ != NOXEL_MODE_CLEAR && mode_ != NOXEL_MODE_PICTURE) {
    convertMatrix(slot->matrix, NOXEL_MATRIX_BT601, engineWidth(width_), engineHeight(height_), slot->nv21);
    slot->matrix = NOXEL_MATRIX_BT601;
  }
  for (int id = 0; id < kSettingCount; ++id) slot->settings[id] = get(id);
  slot->info = {};
  slot->info.tag = frame.tag;
  slot->info.time_us = frame.time_us;
  Lock lock(mutex_);
  slot->cut = cuts_.next(frame.time_us);
  slot->slow = cuts_.isSlow();
  slot->intervalUs = cuts_.intervalUs();
  waiting_.push(place);
  pthread_cond_broadcast(&changed_);
  return NOXEL_OK;
}

// Takes the next frame that is done off its queue.
int Enhancer::takeFinished(int* place) {
  Lock lock(mutex_);
  if (received_ >= 0) free_.push(std::exchange(received_, -1));
  while (finished_.size() == 0) {
    if (flushing_ && waiting_.size() == 0) {
      flushing_ = false;
      cuts_.restart();
      return NOXEL_END;
    }
    if (live_ || !(busy_ || canWork())) return NOXEL_AGAIN;
    pthread_cond_wait(&changed_, &mutex_);
  }
  *place = received_ = finished_.pop();
  pthread_cond_broadcast(&changed_);
  return NOXEL_OK;
}

int Enhancer::receive(noxel_frame* frame, noxel_frame_info* info) {
  const bool written = frame != nullptr && !intoWindow_;
  if (written && !isUsable(*frame, width_, height_, mode_)) return NOXEL_ERROR_ARGUMENT;
  int place = 0;
  const int result = takeFinished(&place);
  if (result != NOXEL_OK) return result;
  const EnhancerFrame& finished = frames_[place];
  if (written && mode_ == NOXEL_MODE_PICTURE) {
    giveRgba(finished.nv21, width_, height_, *frame);
  } else if (written) {
    convertMatrix(finished.matrix, matrixOf(*frame), engineWidth(width_), engineHeight(height_), finished.nv21);
    givePlanes(finished.nv21, width_, height_, *frame);
  }
  if (frame != nullptr) {
    frame->tag = finished.info.tag;
    frame->time_us = finished.info.time_us;
  }
  tell(finished, info);
  return NOXEL_OK;
}

int Enhancer::renderTexture(unsigned texture, int width, int height, noxel_frame_info* info) {
  if (config_.share_context == nullptr || mode_ == NOXEL_MODE_PICTURE) return NOXEL_ERROR_UNSUPPORTED;
  if (texture == 0 || width < 1 || height < 1) return NOXEL_ERROR_ARGUMENT;
  int place = 0;
  const int result = takeFinished(&place);
  if (result != NOXEL_OK) return result;
  const EnhancerFrame& finished = frames_[place];
  convertMatrix(finished.matrix, NOXEL_MATRIX_BT601, engineWidth(width_), engineHeight(height_), finished.nv21);
  const bool drawn = drawIntoTexture(engine_.get(), finished.nv21, width_, height_, texture, width, height) == 0;
  tell(finished, info);
  return drawn ? NOXEL_OK : NOXEL_ERROR_ARGUMENT;
}

int Enhancer::flush() {
  Lock lock(mutex_);
  flushing_ = true;
  pthread_cond_broadcast(&changed_);
  return NOXEL_OK;
}

void Enhancer::discard(FrameQueue* queue) {
  while (queue->size() > 0) free_.push(queue->pop());
}

int Enhancer::reset() {
  Lock lock(mutex_);
  hurry_.store(true, std::memory_order_relaxed);
  while (busy_) pthread_cond_wait(&changed_, &mutex_);
  hurry_.store(false, std::memory_order_relaxed);
  engine_.finishAhead();
  discard(&waiting_);
  discard(&finished_);
  if (received_ >= 0) free_.push(std::exchange(received_, -1));
  flushing_ = false;
  cuts_.restart();
  chunkIsDone_.store(true, std::memory_order_relaxed);
  pthread_cond_broadcast(&changed_);
  return NOXEL_OK;
}

// Of those that wait, from the first one on.
int Enhancer::framesBeforeCut() const {
  int count = 1;
  while (count < waiting_.size() && !frames_[waiting_.at(count)].cut) ++count;
  return count;
}

// How many frames must wait so that the first of them can be enhanced.
int Enhancer::framesWanted() const {
  if (waiting_.size() == 0) return 1;
  const EnhancerFrame& first = frames_[waiting_.at(0)];
  int wanted = 1;
  if (looksAhead(first.settings)) {
    if (first.cut || chunkIsDone_.load(std::memory_order_relaxed))
      wanted = FramesAhead::reachFor(width_, height_).frames();
  } else if (first.cut && leadIn_ && mode_ == NOXEL_MODE_CLEAR) {
    wanted = kFramesInHistory;
  }
  return wanted;
}

bool Enhancer::canWork() const {
  if (waiting_.size() == 0 || (!live_ && finished_.size() >= kFinishedComplete)) return false;
  if (live_ || flushing_) return true;
  const int wanted = framesWanted();
  return waiting_.size() >= wanted || framesBeforeCut() < waiting_.size();
}

void* Enhancer::workerMain(void* enhancer) {
  auto* self = static_cast<Enhancer*>(enhancer);
  const platform::LogScope log(self->log_.target());
  self->work();
  return nullptr;
}

void Enhancer::work() {
  Lock lock(mutex_);
  while (!stopping_) {
    if (hurry_.load(std::memory_order_relaxed) || !canWork()) {
      pthread_cond_wait(&changed_, &mutex_);
      continue;
    }
    busy_ = true;
    const int available = framesBeforeCut();
    pthread_mutex_unlock(&mutex_);
    enhance(available);
    pthread_mutex_lock(&mutex_);
    const int place = waiting_.pop();
    if (live_ && finished_.size() >= kFinishedLive) free_.push(finished_.pop());
    finished_.push(place);
    busy_ = false;
    pthread_cond_broadcast(&changed_);
  }
}

// The first frame that waits; `available` of them belong to its sequence. They are the worker's: senders only add behind them.
void Enhancer::enhance(int available) {
  EnhancerFrame* frame = &frames_[waiting_.at(0)];
  engine_.apply(frame->settings);
  const bool ahead = looksAhead(frame->settings);
  if (frame->cut) {
    ahead_.restart();
    engine_.clock.cut();
    if (!ahead) beginSequence(available);
  }
  if (ahead && aheadState_.load(std::memory_order_relaxed) == Ahead::kUntried) {
    const bool made = ahead_.make(config_, engineWidth(width_), engineHeight(height_), log_.target(), engine_);
    aheadState_.store(made ? Ahead::kThere : Ahead::kRefused, std::memory_order_relaxed);
    if (!made) NOXEL_LOG_WARNING("not enough memory to look ahead: the quality is that of a live picture");
  }
  if (aheadState_.load(std::memory_order_relaxed) == Ahead::kThere && (ahead || !ahead_.chunkIsDone())) {
    if (chunkIsDone_.load(std::memory_order_relaxed)) ahead_.restart();
    if (ahead_.chunkIsDone()) {
      engine_.finishAhead();  // the frames are written, with what they hold
      unsigned char* future[FrameQueue::kCapacity];
      const int count = std::min(available, FramesAhead::reachFor(width_, height_).frames());
      for (int i = 0; i < count; ++i) future[i] = frames_[waiting_.at(i)].nv21;
      ahead_.lookBack(future, count, frame->settings, hurry_);
    }
    ahead_.offer(engine_);
    chunkIsDone_.store(ahead_.chunkIsDone(), std::memory_order_relaxed);
  }
  const bool leads = followsLeadIn_;
  followsLeadIn_ = false;
  if (leads) {
    engine_.clock.stepOnce();
  } else if (!frame->cut) {
    engine_.clock.step(frame->intervalUs, frame->slow);
  }
  passesOf_ = &frame->diagnostics;
  passesOf_->passCount = 0;
  if (mode_ == NOXEL_MODE_PICTURE) std::memcpy(scratch_, frame->nv21, frameBytes(width_, height_, mode_));
  const bool enhanced = engine_.process(frame->nv21, registeredNext(available));
  if (mode_ == NOXEL_MODE_PICTURE) copyAlpha(scratch_, width_, height_, frame->nv21);
  passesOf_ = nullptr;  // those of a lead-in are nobody's
  fillInfo(frame, enhanced);
  fillDiagnostics(frame);
}

// What the engine may look at while it draws the first frame that waits. Tracks are read after that frame.
const unsigned char* Enhancer::registeredNext(int available) const {
  if (available < 2 || mode_ == NOXEL_MODE_PICTURE || (config_.diagnostics & NOXEL_DIAGNOSE_TRACKS) != 0)
    return nullptr;
  const EnhancerFrame& next = frames_[waiting_.at(1)];
  return std::equal(next.settings, next.settings + kSettingCount, frames_[waiting_.at(0)].settings) ? next.nv21
                                                                                                    : nullptr;
}

// A sequence's first frame has no history: it is shown the frames that follow, the last of them first.
void Enhancer::beginSequence(int available) {
  const EnhancerFrame& first = frames_[waiting_.at(0)];
  const bool perFrame = first.settings[NOXEL_PER_FRAME] != 0;
  if (!leadIn_) return;
  if (mode_ == NOXEL_MODE_ENHANCE || (mode_ == NOXEL_MODE_STABILIZE && perFrame)) settleExposure(first);
  if (mode_ != NOXEL_MODE_CLEAR || perFrame || first.settings[NOXEL_STRENGTH] == 0) return;
  for (int i = std::min(available, kFramesInHistory) - 1; i > 0 && !hurry_.load(std::memory_order_relaxed); --i) {
    std::memcpy(scratch_, frames_[waiting_.at(i)].nv21, frameBytes(width_, height_, mode_));
    if (followsLeadIn_) engine_.clock.stepOnce();
    engine_.process(scratch_);
    followsLeadIn_ = true;
  }
  if (followsLeadIn_) restartCameraPath(engine_.get());
}

// Gamma and gain ease from frame to frame: the first frame is shown until they stand still.
void Enhancer::settleExposure(const EnhancerFrame& first) {
  ExposureSettling settling;
  FrameReport report;
  do {
    std::memcpy(scratch_, first.nv21, frameBytes(width_, height_, mode_));
    if (settling.rounds() > 0) engine_.clock.stepOnce();
    engine_.process(scratch_);
    report = lastFrameReport(engine_.get());
  } while (!settling.settled(report.gamma, report.gain) && !hurry_.load(std::memory_order_relaxed));
  engine_.clock.cut();
}

void Enhancer::fillInfo(EnhancerFrame* frame, bool enhanced) {
  const FrameReport report = lastFrameReport(engine_.get());
  noxel_frame_info* info = &frame->info;
  // To the caller the first frame of a sequence has none before it, whatever the engine was shown.
  info->enhanced = enhanced ? 1 : 0;
  info->starts_sequence = frame->cut ? 1 : report.startsSequence ? 1 : 0;
  info->motion_known = report.status == 1 && !frame->cut ? 1 : 0;
  info->points_tracked = frame->cut ? 0 : report.pointsTracked;
  info->points_kept = frame->cut ? 0 : report.pointsKept;
  const FrameReport still;
  std::copy_n(frame->cut ? still.previousFromCurrent : report.previousFromCurrent, 9, info->previous_from_current);
  std::copy_n(report.stabilizedFromCurrent, 9, info->stabilized_from_current);
  info->zoom = report.zoom;
  const bool toned = mode_ == NOXEL_MODE_ENHANCE;
  info->gamma = toned ? report.gamma : 1.0f;
  info->gain = toned ? report.gain : 1.0f;
  info->noise_known = report.noise.known ? 1 : 0;
  std::copy_n(report.noise.variance, NoiseCurve::kEntries, info->noise_luma);
  std::copy_n(report.noise.chromaVariance[0], NoiseCurve::kEntries, info->noise_blue);
  std::copy_n(report.noise.chromaVariance[1], NoiseCurve::kEntries, info->noise_red);
  std::copy_n(report.toneLevels, 256, info->tone);
  info->upload_ms = report.uploadMs;
  info->motion_ms = report.registrationMs;
  info->gpu_ms = report.gpuMs;
  info->total_ms = static_cast<double>(KRTimeDiff(frame->sentNs, KRTimeNow())) * 1e-6;
}

namespace {

_KRMatch* matches(noxel_track* tracks) {
  return reinterpret_cast<_KRMatch*>(tracks);
}

}  // namespace

bool Enhancer::allocateDiagnostics(FrameDiagnostics* diagnostics) const {
  const size_t width = static_cast<size_t>(engineWidth(width_)), height = static_cast<size_t>(engineHeight(height_));
  bool complete = true;
  if ((config_.diagnostics & NOXEL_DIAGNOSE_TRACKS) != 0) {
    const size_t counts[] = {kMaxPoints, (width / 8 + 1) * (height / 8 + 1)};
    for (int own = 0; own < 2; ++own) {
      diagnostics->tracks[own] = static_cast<noxel_track*>(std::calloc(counts[own], sizeof(noxel_track)));
      complete = complete && diagnostics->tracks[own] != nullptr;
    }
  }
  if ((config_.diagnostics & NOXEL_DIAGNOSE_HISTORY) != 0) {
    diagnostics->history = static_cast<unsigned char*>(std::calloc(width * height, 1));
    complete = complete && diagnostics->history != nullptr;
  }
  if ((config_.diagnostics & NOXEL_DIAGNOSE_PASSES) != 0) {
    diagnostics->passes =
        static_cast<FrameDiagnostics::Pass*>(std::calloc(FrameDiagnostics::kMaxPasses, sizeof(FrameDiagnostics::Pass)));
    complete = complete && diagnostics->passes != nullptr;
  }
  return complete;
}

bool Enhancer::enableDiagnostics() {
  const bool blends = mode_ == NOXEL_MODE_ENHANCE || mode_ == NOXEL_MODE_NEUTRAL_EXPOSURE || mode_ == NOXEL_MODE_CLEAR;
  bool complete = true;
  if ((config_.diagnostics & NOXEL_DIAGNOSE_HISTORY) != 0 && blends)
    complete = captureGhostMask(engine_.get(), true) == 0;
  if ((config_.diagnostics & NOXEL_DIAGNOSE_TRACKS) != 0) complete = complete && measureOwnMotion(engine_.get()) == 0;
  if ((config_.diagnostics & NOXEL_DIAGNOSE_PASSES) != 0)
    complete = complete && observePasses(engine_.get(), notePass, this) == 0;
  return complete;
}

void Enhancer::notePass(void* enhancer, const char* pass, uint64_t nanoseconds) {
  FrameDiagnostics* diagnostics = static_cast<Enhancer*>(enhancer)->passesOf_;
  if (diagnostics == nullptr || diagnostics->passCount == FrameDiagnostics::kMaxPasses) return;
  diagnostics->passes[diagnostics->passCount++] = {pass, nanoseconds};
}

void Enhancer::fillDiagnostics(EnhancerFrame* frame) {
  static_assert(sizeof(_KRMatch) == sizeof(noxel_track));
  FrameDiagnostics* diagnostics = &frame->diagnostics;
  diagnostics->historyWidth = diagnostics->historyHeight = 0;
  diagnostics->trackCounts[0] = diagnostics->trackCounts[1] = 0;
  if (diagnostics->tracks[0] != nullptr && !frame->cut) {
    const int blocks = (engineWidth(width_) / 8 + 1) * (engineHeight(height_) / 8 + 1);
    diagnostics->trackCounts[0] = lastTracks(engine_.get(), matches(diagnostics->tracks[0]), kMaxPoints);
    diagnostics->trackCounts[1] = lastOwnTracks(engine_.get(), matches(diagnostics->tracks[1]), blocks);
  }
  if (diagnostics->history == nullptr) return;
  const int capacity = engineWidth(width_) * engineHeight(height_);
  if (!lastGhostMask(engine_.get(), diagnostics->history, capacity, &diagnostics->historyWidth,
                     &diagnostics->historyHeight)) {
    diagnostics->historyWidth = diagnostics->historyHeight = 0;
  }
}

int Enhancer::setCorners(int picture, const float* corners) {
  if (picture != NOXEL_PICTURE_ENHANCED && picture != NOXEL_PICTURE_AS_IT_CAME) return NOXEL_ERROR_ARGUMENT;
  for (int i = 0; corners != nullptr && i < 8; ++i) {
    if (!std::isfinite(corners[i])) return NOXEL_ERROR_ARGUMENT;
  }
  float mirrored[8];
  // Off-screen, the first row of the picture is at y = -1 in the engine.
  for (int i = 0; corners != nullptr && i < 8; ++i) mirrored[i] = i % 2 == 1 && !intoWindow_ ? -corners[i] : corners[i];
  KRSetParameter(picture == NOXEL_PICTURE_ENHANCED ? kParamQuadB : kParamQuadA, corners != nullptr ? mirrored : nullptr,
                 engine_.get());
  return NOXEL_OK;
}

}  // namespace noxel
