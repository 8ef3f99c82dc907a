// Random schedules: two callers, a setter of parameters, and a keeper that releases and makes engines, all at once. Under
// ThreadSanitizer this is where a race shows. NOXEL_SCHEDULES: how many seeds, NOXEL_FIRST_SEED: which is the first.
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/test_engine.h"
#include "support/watchdog.h"

namespace noxel {
namespace {

constexpr int kWidth = 16;
constexpr int kHeight = 8;
constexpr int kLuma = kWidth * kHeight;
constexpr int kPeriod = 70;  // numbers a picture tells apart

// A frame's number is its luma, two levels apart, and once more its chroma: a frame put together from two shows in either.
int lumaOf(unsigned number) {
  return 60 + 2 * static_cast<int>(number % kPeriod);
}
int vOf(unsigned number) {
  return 110 + 2 * static_cast<int>(number % kPeriod % 10);
}
int uOf(unsigned number) {
  return 150 - 2 * static_cast<int>(number % kPeriod % 10);
}

std::vector<unsigned char> numbered(unsigned number) {
  std::vector<unsigned char> bytes =
      TestFrame(kWidth, kHeight, static_cast<unsigned char>(lumaOf(number)), static_cast<unsigned char>(vOf(number)),
                static_cast<unsigned char>(uOf(number)))
          .bytes;
  bytes.resize(kLuma * 4);  // a frame of mode 4 is larger
  return bytes;
}

// The number of a delivered frame, or -1 for one that is torn. Two conversions of colour move a level by one each.
int numberIn(const std::vector<unsigned char>& frame) {
  const auto number = static_cast<unsigned>(std::lround((frame[0] - 60) / 2.0)) % kPeriod;
  for (int i = 0; i < kLuma; ++i) {
    if (std::abs(frame[i] - lumaOf(number)) > 1) return -1;
  }
  for (int i = kLuma; i < kLuma * 3 / 2; i += 2) {
    if (std::abs(frame[i] - vOf(number)) > 2 || std::abs(frame[i + 1] - uOf(number)) > 2) return -1;
  }
  return static_cast<int>(number);
}

// One engine after another. `turn` and `settersTurn` are held over a call; the keeper takes both once an engine is
// released, so that no call reaches the memory that the next one is made in.
struct Place {
  std::mutex turn;
  std::mutex settersTurn;
  std::mutex state;  // of the next six
  _KRSuperResEngine* engine = nullptr;
  bool releasing = false;
  bool ready = false;
  bool waits = false;
  int mode = 0;
  int slots = 0;
  unsigned submitted = 0;  // under turn, as the next two
  bool full = false;
  int delivered = -1;
};

class Schedule {
 public:
  explicit Schedule(unsigned scheduleSeed) : seed(scheduleSeed), count(1 + seed % 4) {}

  void run() {
    std::mt19937 random(seed * 7);
    for (int i = 0; i < count; ++i) birth(&places[i], &random);
    std::thread actors[] = {std::thread([&] { call(1); }), std::thread([&] { call(2); }), std::thread([&] { set(3); }),
                            std::thread([&] { keep(4); })};
    for (std::thread& actor : actors) actor.join();
    for (int i = 0; i < count; ++i) {
      drain(places[i]);
      death(&places[i]);
    }
  }

  int frames() const { return processed; }
  int compared() const { return numbersSeen; }
  int progressed() const { return numbersNew; }

 private:
  static int draw(std::mt19937* random, int below) {
    return static_cast<int>((*random)() % static_cast<unsigned>(below));
  }

  void birth(Place* place, std::mt19937* random) {
    // Mode 3 with strength 0 gives back what it is given, which is what numbers need.
    const int mode = draw(random, 3) != 0 ? kModeNeutralExposure : draw(random, 6);
    const int slots = 1 + draw(random, 3);
    _KRSuperResEngine* made = nullptr;
    const int delay = 1 + draw(random, 3);
    const int waits = draw(random, 2);
    ASSERT_EQ(initializeEngine(kWidth, kHeight, mode, slots, delay, waits, nullptr, &made), 0);
    const int strength = 0;
    if (mode == kModeNeutralExposure) {
      EXPECT_EQ(KRSetParameter(kParamNoiseReductionStrength, &strength, made), 0);
    }
    const bool ready = engineReady(made);
    std::scoped_lock lock(place->turn, place->state);
    place->engine = made;
    place->releasing = false;
    place->ready = ready;
    place->waits = waits == 1;
    place->mode = mode;
    place->slots = slots;
    place->delivered = -1;
    place->full = false;
  }

  // A caller that waits takes its frame; of the others all are delivered without another call.
  static void drain(const Place& place) {
    if (place.engine == nullptr || place.engine->syncWithCaller == 1) return;
    EXPECT_TRUE(drains(place.engine));
  }

  void death(Place* place) {
    _KRSuperResEngine* engine = nullptr;
    {
      std::lock_guard lock(place->state);
      engine = place->engine;
      place->releasing = true;
    }
    if (engine == nullptr) return;
    EXPECT_EQ(releaseEngine(&engine), 0);
    std::scoped_lock lock(place->turn, place->settersTurn, place->state);
    place->engine = nullptr;
  }

  void call(unsigned actor) {
    std::mt19937 random(seed * 7 + actor);
    for (int i = 0; i < 60; ++i) {
      Place* place = &places[draw(&random, count)];
      const bool breaks = draw(&random, 12) == 0;
      clock.advance(breaks ? 250.0 + 1500.0 * draw(&random, 2) : 1.0 + draw(&random, 30));
      std::lock_guard turn(place->turn);
      _KRSuperResEngine* engine = nullptr;
      {
        std::lock_guard lock(place->state);
        engine = place->engine;
      }
      if (engine == nullptr) continue;
      // A full ring takes no frame: the next one brings the same number.
      if (place->full) std::this_thread::sleep_for(std::chrono::milliseconds(draw(&random, 8)));
      if (!place->full) ++place->submitted;
      std::vector<unsigned char> frame = numbered(place->submitted);
      const int result = KRProcessFrame(frame.data(), engine);
      ++processed;
      std::lock_guard lock(place->state);
      if (place->releasing) continue;
      EXPECT_EQ(result, 0);
      const int queued = engine->queuedFrames.load();
      place->full = queued >= place->slots;
      EXPECT_TRUE(queued >= 0 && queued <= place->slots) << queued << " of " << place->slots;
      if (place->mode == kModeNeutralExposure && place->ready) compare(place, frame, breaks);
    }
  }

  // Numbers come round: half a period ahead is ahead. A caller that does not wait may get its own frame back, which is newer
  // than the outputs after it.
  void compare(Place* place, const std::vector<unsigned char>& frame, bool breaks) {
    const int number = numberIn(frame);
    ASSERT_GE(number, 0) << "torn: luma " << int{frame[0]} << " to " << int{frame[kLuma - 1]} << ", V "
                         << int{frame[kLuma]};
    const int late = (static_cast<int>(place->submitted % kPeriod) - number + kPeriod) % kPeriod;
    EXPECT_LT(late, kPeriod / 2) << "from the future, or very old";
    ++numbersSeen;
    if (late == 0 && !place->waits) return;
    if (place->delivered >= 0) {
      EXPECT_LT((number - place->delivered + kPeriod) % kPeriod, kPeriod / 2)
          << number << " after " << place->delivered;
    }
    if (!breaks && place->delivered >= 0 && number != place->delivered) ++numbersNew;
    place->delivered = number;
  }

  void set(unsigned actor) {
    constexpr unsigned kIds[] = {kParamLightMode,        kParamLightMode,  kParamStabilization,
                                 kParamSharpening,       kParamContrast,   kParamDeghosting,
                                 kParamExposureStrength, kParamFlipChroma, kParamQuality};
    std::mt19937 random(seed * 7 + actor);
    for (int i = 0; i < 200; ++i) {
      Place* place = &places[draw(&random, count)];
      std::lock_guard turn(place->settersTurn);
      _KRSuperResEngine* engine = nullptr;
      {
        std::lock_guard lock(place->state);
        engine = place->engine;
      }
      const int value = draw(&random, 3);
      const float zoom = 1.0f + static_cast<float>(value);
      if (i % 9 == 0) {
        KRSetParameter(kParamZoom, &zoom, engine);
      } else {
        KRSetParameter(kIds[draw(&random, 9)], &value, engine);
      }
      if (i % 8 == 0) std::this_thread::sleep_for(std::chrono::microseconds(draw(&random, 2000)));
    }
  }

  void keep(unsigned actor) {
    std::mt19937 random(seed * 7 + actor);
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(draw(&random, 40)));
      Place* place = &places[draw(&random, count)];
      death(place);
      birth(place, &random);
    }
  }

  const unsigned seed;
  const int count;
  TestClock clock;
  std::array<Place, 4> places;
  std::atomic<int> processed = 0;
  std::atomic<int> numbersSeen = 0;
  std::atomic<int> numbersNew = 0;
};

TEST(Schedules, EndWithNothingTornLostOrLeft) {
  const auto number = [](const char* name, int otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? std::atoi(text) : otherwise;
  };
  const int first = number("NOXEL_FIRST_SEED", 1);
  const int seeds = number("NOXEL_SCHEDULES", 8);
  int frames = 0, compared = 0, progressed = 0;
  for (int seed = first; seed < first + seeds; ++seed) {
    std::snprintf(watchedFor, sizeof(watchedFor), "seed %d does not end\n", seed);
    watch(120);  // a sanitizer on a busy machine takes seconds
    const LogCapture log;
    Schedule schedule(static_cast<unsigned>(seed));
    schedule.run();
    frames += schedule.frames();
    compared += schedule.compared();
    progressed += schedule.progressed();
    EXPECT_EQ(held(), Held{});
    if (HasFailure()) FAIL() << "seed " << seed << "\n" << log.text();
  }
  watch(0);
  EXPECT_GT(frames, 0);
  if (driverRequired()) {
    EXPECT_GT(compared, frames / 4);
    EXPECT_GT(progressed, compared / 8) << "the same frames again and again";
  }
  std::printf("%d schedules, %d frames, %d numbers read, %d of them new\n", seeds, frames, compared, progressed);
}

}  // namespace
}  // namespace noxel
