// libnoxel's calls in any order, as the input spells them out: sizes, modes, formats, strides, times and settings of every kind.
//
// Checked: results are known ones, complete enhancers return every frame once and in order, and nothing beside the planes is
// written.
#include <algorithm>
#include <cstdlib>
#include <deque>
#include <vector>

#include "fuzz_input.h"
#include "noxel/meter.h"
#include "support/driver_required.h"

namespace {

using noxel::fuzz::Input;

constexpr int kMaxCalls = 64;
constexpr uint8_t kCanary = 0xA5;

// Planes of one enhancer's size with room between rows, upside down or not.
struct Planes {
  Planes(int width, int height, int mode, Input* input) {
    constexpr int kFormats[] = {NOXEL_PLANES_NV12, NOXEL_PLANES_NV21, NOXEL_PLANES_I420,
                                NOXEL_PLANES_YV12, NOXEL_PLANES_RGB,  NOXEL_PLANES_BGR};
    const int format = mode == NOXEL_MODE_PICTURE ? NOXEL_PLANES_RGBA : kFormats[input->below(6)];
    noxel_frame_init(&frame, sizeof(frame));
    frame.format = format;
    frame.range = static_cast<int>(input->below(2));
    frame.matrix = static_cast<int>(input->below(2));
    const bool upwards = input->below(2) == 1;
    const int padding = static_cast<int>(input->below(5));
    const int columns = (width + 1) / 2;
    const bool pairs = format <= NOXEL_PLANES_NV21;
    const int pixelBytes = format == NOXEL_PLANES_RGBA ? 4 : format > NOXEL_PLANES_RGBA ? 3 : 1;
    count = pixelBytes > 1 ? 1 : pairs ? 2 : 3;
    for (int plane = 0; plane < count; ++plane) {
      used[plane] = plane > 0 ? (pairs ? 2 * columns : columns) : pixelBytes * width;
      rows[plane] = plane > 0 ? (height + 1) / 2 : height;
      const int stride = used[plane] + padding;
      bytes[plane].assign(static_cast<size_t>(stride) * static_cast<size_t>(rows[plane]), kCanary);
      frame.planes[plane] = bytes[plane].data() + (upwards ? stride * (rows[plane] - 1) : 0);
      frame.strides[plane] = upwards ? -stride : stride;
    }
  }
  void fill(uint8_t seed) {
    for (int plane = 0; plane < 3; ++plane) {
      for (int y = 0; y < rows[plane]; ++y) {
        uint8_t* row = frame.planes[plane] + y * frame.strides[plane];
        for (int x = 0; x < used[plane]; ++x) row[x] = static_cast<uint8_t>(60 + (7 * x + 5 * y + seed) % 90);
      }
    }
  }
  bool paddingHolds() const {
    for (int plane = 0; plane < 3; ++plane) {
      for (int y = 0; y < rows[plane]; ++y) {
        const uint8_t* row = frame.planes[plane] + y * frame.strides[plane];
        const auto end = row + std::abs(frame.strides[plane]);
        if (!std::all_of(row + used[plane], end, [](uint8_t byte) { return byte == kCanary; })) return false;
      }
    }
    return true;
  }

  noxel_frame frame;
  std::vector<uint8_t> bytes[3];
  int count;  // of planes
  int used[3] = {};
  int rows[3] = {};
};

class Session {
 public:
  explicit Session(Input* input) : input_(input) {
    noxel_config_init(&config_, sizeof(config_), 1 + static_cast<int>(input->below(64)),
                      1 + static_cast<int>(input->below(48)));
    config_.mode = static_cast<int>(input->below(7));
    config_.quality = static_cast<int>(input->below(4));
    config_.delivery = static_cast<int>(input->below(2));
    config_.lead_in = static_cast<int>(input->below(2));
    config_.diagnostics = static_cast<unsigned>(input->below(8));
    const int made = noxel_create(&config_, &enhancer_);
    if (made == NOXEL_ERROR_NO_GL) FUZZ_CHECK(!noxel::driverRequired());
    FUZZ_CHECK((made == NOXEL_OK) == (enhancer_ != nullptr));
    FUZZ_CHECK((config_.mode > 5 || config_.quality > 2) == (made == NOXEL_ERROR_ARGUMENT));
  }
  ~Session() {
    noxel_free(&enhancer_);
    noxel_meter_free(&meter_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void call();

 private:
  void send();
  void receive();
  void measure();

  Input* input_;
  noxel_config config_;
  noxel_enhancer* enhancer_ = nullptr;
  noxel_meter* meter_ = nullptr;
  std::deque<uint64_t> sent_;
  uint64_t next_ = 0;
  int64_t timeUs_ = 0;
};

void Session::send() {
  Planes planes(config_.width, config_.height, config_.mode, input_);
  planes.fill(input_->byte());
  planes.frame.tag = next_;
  timeUs_ += (static_cast<int64_t>(input_->byte()) - 4) * 20'000;
  planes.frame.time_us = timeUs_;
  const bool broken = input_->below(8) == 0;
  if (broken) {  // one that the mode does not take, or that does not exist
    const bool exists = input_->below(2) == 0;
    const int other = planes.frame.format == NOXEL_PLANES_RGBA ? NOXEL_PLANES_RGB : NOXEL_PLANES_RGBA;
    planes.frame.format = exists ? other : 7 + static_cast<int>(input_->below(9));
  }
  const int result = noxel_send(enhancer_, &planes.frame);
  if (enhancer_ == nullptr || broken) {
    FUZZ_CHECK(result == NOXEL_ERROR_ARGUMENT);
    return;
  }
  FUZZ_CHECK(result == NOXEL_OK || result == (config_.delivery == NOXEL_LIVE ? NOXEL_DROPPED : NOXEL_AGAIN));
  if (result == NOXEL_OK) sent_.push_back(next_++);
}

void Session::receive() {
  Planes planes(config_.width, config_.height, config_.mode, input_);
  noxel_frame_info info;
  noxel_frame_info_init(&info, sizeof(info));
  const bool dropped = input_->below(4) == 0;
  const int result = noxel_receive(enhancer_, dropped ? nullptr : &planes.frame, &info);
  FUZZ_CHECK(planes.paddingHolds());
  if (enhancer_ == nullptr) return;
  FUZZ_CHECK(result == NOXEL_OK || result == NOXEL_AGAIN || result == NOXEL_END);
  if (result == NOXEL_END) FUZZ_CHECK(config_.delivery == NOXEL_LIVE || sent_.empty());
  if (result != NOXEL_OK) return;
  while (config_.delivery == NOXEL_LIVE && !sent_.empty() && sent_.front() != info.tag) sent_.pop_front();
  FUZZ_CHECK(!sent_.empty() && sent_.front() == info.tag);
  sent_.pop_front();
  int width = 0, height = 0;
  const char* name = nullptr;
  uint64_t nanoseconds = 0;
  FUZZ_CHECK(noxel_tracks(enhancer_, 0, nullptr, 0) >= 0 && noxel_tracks(enhancer_, 1, nullptr, 0) >= 0);
  FUZZ_CHECK(noxel_history(enhancer_, nullptr, 0, &width, &height) != NOXEL_OK);
  FUZZ_CHECK(noxel_pass(enhancer_, 0, &name, &nanoseconds) <= NOXEL_END);
}

// The same frames, but for their times, without an enhancer.
void Session::measure() {
  if (meter_ == nullptr) FUZZ_CHECK(noxel_meter_create(&config_, &meter_) == NOXEL_OK);
  Planes planes(config_.width, config_.height, NOXEL_MODE_CLEAR, input_);
  planes.fill(input_->byte());
  timeUs_ += (static_cast<int64_t>(input_->byte()) - 4) * 20'000;
  planes.frame.time_us = timeUs_;
  const bool usable = input_->below(8) != 0;
  if (!usable) planes.frame.planes[input_->below(planes.count)] = nullptr;
  const int strength = static_cast<int>(input_->byte()) - 20;
  FUZZ_CHECK((noxel_meter_set_exposure(meter_, strength) == NOXEL_OK) == (strength >= 0 && strength <= 100));
  noxel_frame_info info;
  noxel_frame_info_init(&info, sizeof(info));
  const int result = noxel_meter_measure(meter_, &planes.frame, &info);
  FUZZ_CHECK(result == (usable ? NOXEL_OK : NOXEL_ERROR_ARGUMENT));
  if (result == NOXEL_OK) FUZZ_CHECK(info.gain >= 1 && info.gamma > 0 && info.tone[0] == 0 && info.tone[255] >= 0);
}

void Session::call() {
  switch (input_->below(9)) {
    case 0:
    case 1:
    case 2:
      return send();
    case 3:
    case 4:
      return receive();
    case 5: {
      const int setting = static_cast<int>(input_->below(12)) - 1;
      const double value = (static_cast<double>(input_->byte()) - 20) / (input_->below(2) == 0 ? 1 : 4);
      const int result = noxel_set(enhancer_, setting, value);
      double found = 0;
      if (result == NOXEL_OK) FUZZ_CHECK(noxel_get(enhancer_, setting, &found) == NOXEL_OK && found == value);
      return;
    }
    case 6:
      noxel_flush(enhancer_);
      return;
    case 7:
      return measure();
    default:
      if (noxel_reset(enhancer_) == NOXEL_OK) sent_.clear();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  Session session(&input);
  for (int i = 0; i < kMaxCalls && !input.empty(); ++i) session.call();
  return 0;
}
