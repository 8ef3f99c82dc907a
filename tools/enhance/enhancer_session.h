// The engine as `noxel enhance` runs it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "enhance/engine_handle.h"
#include "enhance/look.h"
#include "enhance/overlay.h"
#include "media/clip_input.h"
#include "media/presentation_clock.h"

namespace noxel::tool {

class LookAhead;

struct EnhancerSettings {
  int width = 0;  // padded
  int height = 0;
  int64_t nominalIntervalUs = 40'000;
  Look look;
  bool overlay = false;    // keep the data for overlay()
  bool ownTracks = false;  // with what moves on its own
  bool noise = false;      // measure it for report()
  ClipInput* clip = nullptr;  // its current frame is the one to enhance; null: nothing can be known of the next ones
};

// Enhances one clip frame by frame, in place and synchronously. One thread.
class Enhancer {
 public:
  virtual ~Enhancer() = default;
  // Settles the exposure on the first frame, which is not changed. Returns the number of rounds.
  virtual int warmUp(const uint8_t* nv21) = 0;
  // Shows a frame that comes after the first one, in reverse order; changes it. The first one to enhance then has them for its
  // history, and the camera is at rest there.
  virtual void leadIn(uint8_t* nv21) = 0;
  // As EngineHandle::timePasses.
  virtual void timePasses(PassTimes& times) = 0;
  virtual void enhance(uint8_t* nv21, int64_t presentationUs) = 0;
  // Of the latest frame.
  virtual FrameReport report() const = 0;
  virtual Overlay overlay() const = 0;
  // For the user: what is not as it was asked for. Empty: nothing.
  virtual std::string note() const { return {}; }
};

using EnhancerFactory = std::function<std::unique_ptr<Enhancer>(const EnhancerSettings&)>;

// Engine modes 0 to 3 and 5. Owns an engine and the process-wide frame clock: one at a time. ToolError, kExitNoGl without usable
// GL.
class EnhancerSession : public Enhancer {
 public:
  explicit EnhancerSession(const EnhancerSettings& settings);
  ~EnhancerSession() override;
  EnhancerSession(const EnhancerSession&) = delete;
  EnhancerSession& operator=(const EnhancerSession&) = delete;

  int warmUp(const uint8_t* nv21) override;
  void leadIn(uint8_t* nv21) override;
  void timePasses(PassTimes& times) override { engine_.timePasses(times); }
  void enhance(uint8_t* nv21, int64_t presentationUs) override;
  FrameReport report() const override;
  Overlay overlay() const override;
  std::string note() const override { return note_; }

 private:
  EnhancerSettings settings_;
  PresentationClock clock_;
  EngineHandle engine_;
  uint64_t ledIn_ = 0;      // frames
  bool isLedInto_ = false;  // the next frame follows them
  bool isFirst_ = false;    // the latest one does
  std::unique_ptr<LookAhead> lookAhead_;  // null: it is not wanted, or cannot be had
  std::string note_;
};

// Tells from successive reports when gamma and gain have settled.
class ExposureSettling {
 public:
  static constexpr float kSmallChange = 0.001f;
  static constexpr int kQuietRounds = 5;
  static constexpr int kMinRounds = 10;  // easing starts slowly: no change this early does not mean settled
  static constexpr int kMaxRounds = 60;

  bool settled(const FrameReport& report);
  int rounds() const { return rounds_; }

 private:
  float gamma_ = 1.0f;
  float gain_ = 1.0f;
  int rounds_ = 0;
  int quiet_ = 0;
};

}  // namespace noxel::tool
