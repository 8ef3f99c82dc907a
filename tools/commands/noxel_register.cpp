// The command `noxel-register`: the engine's registration on raw luma planes.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "api/engine.h"
#include "common/output_file.h"
#include "common/percentile.h"
#include "common/standard_streams.h"
#include "common/tool_error.h"
#include "kernels/worker_pool.h"
#include "registration/plane_registration.h"

namespace noxel::tool {
namespace {

struct Options {
  std::string file;
  int width = 0;
  int height = 0;
  int frames = 0;
  bool full = false;
  int threads = 0;
  bool stats = false;
  std::string field;
};

int engineThreads() {
  return std::clamp(static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)) - 1, 0, kMaxRegistrationWorkers);
}

Options parse(CLI::App& app, int argc, char** argv) {
  Options options;
  options.threads = engineThreads();
  app.add_option("FILE", options.file, "N planes of W x H bytes, back to back")->required();
  app.add_option("W", options.width, "Width")->required()->check(CLI::Range(1, INT_MAX));
  app.add_option("H", options.height, "Height")->required()->check(CLI::Range(1, INT_MAX));
  app.add_option("N", options.frames, "Number of planes")->required()->check(CLI::Range(1, INT_MAX));
  app.add_flag("--full", options.full, "Do not halve frames that are more than 1000 pixels wide or high");
  app.add_option("--threads", options.threads, "Worker threads besides the main one")
      ->check(CLI::Range(0, 64))
      ->default_str("processors less one, up to " + std::to_string(kMaxRegistrationWorkers));
  app.add_flag("--stats", options.stats, "Summary on standard error: frames lost, points, time");
  app.add_option("--field", options.field, "Write what moves otherwise than the whole picture into this file")
      ->type_name("FILE");
  app.footer(R"(Prints one line per frame, from the second on:

  valid m00 m01 m02 m10 m11 m12 ms

valid    1, or 0 when registration failed and the matrix is the identity
m        x' = m00 x + m01 y + m02, y' = m10 x + m11 y + m12 maps a pixel of the previous frame into this one; in pixels
         of the file, (0, 0) is the centre of the first
ms       CPU time of the frame over all threads, milliseconds

--field writes the same frames, block by block, row by row: three little-endian 32-bit floats dx, dy, confidence. Blocks
are of this frame, 8 x 8 pixels from the corner on, ceil(W / 8) x ceil(H / 8) of them; of a frame that is halved, 16 x 16
pixels, ceil((W / 2) / 8) x ceil((H / 2) / 8).

dx, dy      what was at x in the previous frame is at m x + (dx, dy) in this one; in pixels of the file
confidence  0 to 1: how sure that is; 0, and no displacement, where m explains the block or the frame is not valid

Exit codes: 0 success, 1 failed while running, 2 usage error, 4 the file cannot be read or is too short.
)");
  app.parse(argc, argv);
  if (int64_t{options.width} * options.height > INT_MAX / 4) throw ToolError(kExitUsage, "the frames are too large");
  return options;
}

// Threads that serve a pool for its lifetime.
class Workers {
 public:
  explicit Workers(int count) {
    for (int i = 0; i < count; ++i) threads_.emplace_back([this] { pool_.serve(); });
  }
  ~Workers() {
    pool_.stop();
    for (std::thread& thread : threads_) thread.join();
  }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  WorkerPool* pool() { return threads_.empty() ? nullptr : &pool_; }

 private:
  WorkerPool pool_;
  std::vector<std::thread> threads_;
};

struct Motion {
  bool valid = false;
  double m[6] = {1, 0, 0, 0, 1, 0};  // current from previous, pixel centres at integers
};

double processorMs() {
  timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) * 1e-6;
}

struct Summary {
  int lost = 0;
  std::vector<double> tracked;
  std::vector<double> kept;
  std::vector<double> ms;

  void print() const {
    std::fprintf(stderr, "%zu frames, %d lost, median points tracked %.0f kept %.0f, ms p50 %.2f p95 %.2f\n", ms.size(),
                 lost, percentile(tracked, 50), percentile(kept, 50), percentile(ms, 50), percentile(ms, 95));
  }
};

// The motion fields, frame after frame. The file appears when it is complete.
class FieldFile {
 public:
  explicit FieldFile(const std::string& path) : path_(path), pending_(path) {
    file_ = std::fopen(pending_.temporaryPath().c_str(), "wb");
    if (file_ == nullptr) fail();
  }
  ~FieldFile() {
    if (file_ != nullptr) std::fclose(file_);
  }
  FieldFile(const FieldFile&) = delete;
  FieldFile& operator=(const FieldFile&) = delete;

  // factor: pixels of the file per pixel of the field.
  void add(const MotionField& field, int factor) {
    bytes_.clear();
    const auto append = [&](float value) {
      const auto bits = std::bit_cast<uint32_t>(value);
      for (int shift = 0; shift < 32; shift += 8) bytes_.push_back(static_cast<uint8_t>(bits >> shift));
    };
    for (int i = 0; i < field.columns * field.rows; ++i) {
      append(static_cast<float>(factor) * field.blocks[i].dx);
      append(static_cast<float>(factor) * field.blocks[i].dy);
      append(field.blocks[i].confidence);
    }
    if (std::fwrite(bytes_.data(), 1, bytes_.size(), file_) != bytes_.size()) fail();
  }
  void commit() {
    std::FILE* file = std::exchange(file_, nullptr);
    if (std::fclose(file) != 0) fail();
    pending_.commit();
  }

 private:
  [[noreturn]] void fail() const {
    throw ToolError(kExitFailed, "cannot write " + path_ + ": " + std::strerror(errno));
  }

  std::string path_;
  PendingFile pending_;
  std::FILE* file_ = nullptr;
  std::vector<uint8_t> bytes_;
};

void run(const Options& options) {
  std::ifstream file(options.file, std::ios::binary);
  if (!file) throw ToolError(kExitUnreadable, "cannot read " + options.file);
  std::vector<uint8_t> luma(static_cast<size_t>(options.width) * static_cast<size_t>(options.height));
  Workers workers(options.threads);
  PlaneRegistration registration;
  if (!registration.create(options.width, options.height, options.full, workers.pool())) throw std::bad_alloc();
  std::optional<FieldFile> fields;
  if (!options.field.empty()) {
    checkMayWrite(options.field, true);
    fields.emplace(options.field);
    if (!registration.enableField()) throw std::bad_alloc();
  }
  Summary summary;
  for (int i = 0; i < options.frames; ++i) {
    file.read(reinterpret_cast<char*>(luma.data()), static_cast<std::streamsize>(luma.size()));
    if (!file) {
      throw ToolError(kExitUnreadable, options.file + " ends within plane " + std::to_string(i) + " of " +
                                           std::to_string(options.frames));
    }
    const double start = processorMs();
    Motion motion;
    motion.valid = registration.measure(luma.data());
    if (motion.valid) registration.currentFromPrevious(motion.m);
    const double ms = processorMs() - start;
    if (i == 0) continue;
    const double* m = motion.m;
    std::printf("%d %.9g %.9g %.9g %.9g %.9g %.9g %.3f\n", motion.valid ? 1 : 0, m[0], m[1], m[2], m[3], m[4], m[5],
                ms);
    if (std::ferror(stdout) != 0) break;
    if (fields) fields->add(registration.field(), registration.factor());
    if (!motion.valid) ++summary.lost;
    summary.tracked.push_back(registration.state().trackedCount);
    summary.kept.push_back(registration.state().matchedCount);
    summary.ms.push_back(ms);
  }
  flushStandardOutput();
  if (fields) fields->commit();
  if (options.stats) summary.print();
}

int runCommand(int argc, char** argv) {
  CLI::App app("Measures the camera's motion on raw luma planes.", "noxel-register");
  try {
    run(parse(app, argc, argv));
    return kExitFine;
  } catch (const CLI::Success& asked) {
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "noxel-register: %s; see noxel-register --help\n", error.what());
    return kExitUsage;
  } catch (const ToolError& error) {
    std::fprintf(stderr, "noxel-register: %s\n", error.what());
    return error.code();
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "noxel-register: out of memory\n");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "noxel-register: %s\n", error.what());
  }
  return kExitFailed;
}

}  // namespace
}  // namespace noxel::tool

int main(int argc, char** argv) {
  noxel::tool::secureStandardStreams();
  return noxel::tool::runCommand(argc, argv);
}
