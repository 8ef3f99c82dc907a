// The enhancer as `noxel enhance` runs it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "enhance/look.h"
#include "enhance/overlay.h"
#include "enhance/pass_times.h"
#include "noxel/enhancer.h"

namespace noxel::tool {

struct EnhancerSettings {
  int width = 0;  // padded
  int height = 0;
  int64_t nominalIntervalUs = 40'000;
  Look look;
  bool warmUp = true;    // a first frame is as clean, and as bright, as those after it
  bool overlay = false;  // keep the data for overlay()
  bool passes = false;   // and for addPasses()
};

// Enhances one clip frame by frame, each some frames after it was sent. Frames are NV21 of full range, BT.601. One thread.
class Enhancer {
 public:
  virtual ~Enhancer() = default;
  // In place of that of the settings, but for its mode. Before the first frame.
  virtual void setLook(const Look&) {}
  // False: it is full, receive first.
  virtual bool send(const uint8_t* nv21, int64_t presentationUs) = 0;
  // No more come: none waits for a later one.
  virtual void finish() = 0;
  // The next frame, in the order sent. False: more must be sent first.
  virtual bool receive(uint8_t* nv21) = 0;
  // How many frames wait for later ones.
  virtual int latency() const { return 0; }

  // Of the frame received last.
  virtual FrameReport report() const = 0;
  virtual double totalMs() const { return 0; }  // from sent to ready
  virtual Overlay overlay() const = 0;
  virtual void addPasses(PassTimes&) const {}
  // For the user: what is not as it was asked for. Empty: nothing new.
  virtual std::string takeNote() { return {}; }
};

// With the tool's program cache, and the tool's log unless the configuration has its own. ToolError, kExitNoGl without usable GL.
noxel_enhancer* makeEnhancer(noxel_config config);
// The passes of the frame received last.
void addPasses(const noxel_enhancer* enhancer, PassTimes& times);

// May be called on another thread than the enhancer's.
using EnhancerFactory = std::function<std::unique_ptr<Enhancer>(const EnhancerSettings&)>;

// Engine modes 0 to 3 and 5. ToolError, kExitNoGl without usable GL.
class EnhancerSession : public Enhancer {
 public:
  explicit EnhancerSession(const EnhancerSettings& settings);
  ~EnhancerSession() override;
  EnhancerSession(const EnhancerSession&) = delete;
  EnhancerSession& operator=(const EnhancerSession&) = delete;

  void setLook(const Look& look) override { setParameters(look, enhancer_); }
  bool send(const uint8_t* nv21, int64_t presentationUs) override;
  void finish() override;
  bool receive(uint8_t* nv21) override;
  int latency() const override;
  FrameReport report() const override;
  double totalMs() const override { return info_.total_ms; }
  Overlay overlay() const override;
  void addPasses(PassTimes& times) const override;
  std::string takeNote() override;

 private:
  static void receiveLog(void* session, int level, const char* message);
  noxel_frame frameOf(const uint8_t* nv21) const;

  const EnhancerSettings settings_;
  noxel_enhancer* enhancer_ = nullptr;
  noxel_frame_info info_ = {};
  std::mutex mutex_;
  std::string note_;  // under mutex_
};

}  // namespace noxel::tool
