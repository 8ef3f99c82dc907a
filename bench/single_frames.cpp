// The temporal path without history: every frame is the first of a sequence. The baseline of scripts/measure-temporal.
//
//   noxel_single_frames INPUT OUTPUT        neutral exposure; OUTPUT as for `noxel enhance`, .y4m is lossless
#include <cstdio>
#include <exception>
#include <memory>

#include "common/engine_log.h"
#include "enhance/enhance.h"
#include "enhance/enhancer_session.h"

namespace noxel::tool {
namespace {

class SingleFrames : public EnhancerSession {
 public:
  using EnhancerSession::EnhancerSession;

  bool send(const uint8_t* nv21, int64_t) override {
    shownUs_ += kHoleUs;
    return EnhancerSession::send(nv21, shownUs_);
  }

 private:
  static constexpr int64_t kHoleUs = 3'600'000'000;  // breaks the sequence at any frame rate

  int64_t shownUs_ = 0;
};

int run(const char* input, const char* output) {
  const EngineLog log(false);
  EnhanceOptions options;
  options.input = input;
  options.output = output;
  options.overwrite = true;
  options.quiet = true;
  options.look.denoise = "temporal";
  options.look.neutralExposure = true;
  options.warmUp = false;
  return runEnhance(options, [](const EnhancerSettings& settings) { return std::make_unique<SingleFrames>(settings); });
}

}  // namespace
}  // namespace noxel::tool

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: noxel_single_frames INPUT OUTPUT\n");
    return 2;
  }
  try {
    return noxel::tool::run(argv[1], argv[2]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "noxel_single_frames: %s\n", error.what());
  }
  return 1;
}
