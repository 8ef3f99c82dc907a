#include "enhance/batch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <thread>

#include "common/engine_log.h"
#include "common/interrupt.h"
#include "common/output_file.h"
#include "common/tool_error.h"
#include "enhance/clip_lines.h"
#include "enhance/resume.h"
#include "media/clip_input.h"
#include "media/container.h"

namespace noxel::tool {
namespace {

namespace fs = std::filesystem;

constexpr int kPollMs = 200;
constexpr int kCoresPerClip = 4;
constexpr int kMiBPerClip = 1024;
constexpr const char* kPhotos[] = {".png", ".jpg", ".jpeg", ".bmp", ".tif", ".tiff"};

// Of the container, in lower case, with the dot.
std::string extensionFor(const std::string& input) {
  std::string extension = fs::path(input).extension().string();
  std::ranges::transform(extension, extension.begin(), [](unsigned char c) { return std::tolower(c); });
  if (std::ranges::find(kPhotos, extension) != std::end(kPhotos)) return ".png";
  try {
    containerOf("clip" + extension);
    return extension;
  } catch (const ToolError&) {
    return ".mp4";
  }
}

std::string nameOf(const std::string& input) {
  return fs::path(input).filename().string();
}

std::string filled(const std::string& pattern, const std::string& name) {
  std::string path = pattern;
  for (size_t at = 0; (at = path.find(kNamePlace, at)) != std::string::npos; at += name.size()) {
    path.replace(at, std::strlen(kNamePlace), name);
  }
  return path;
}

std::vector<std::string*> filesOf(EnhanceOptions& clip) {
  return {&clip.statsFile, &clip.reportFile, &clip.pictureFile, &clip.dumpFolder};
}

std::vector<EnhanceOptions> clipsOf(const BatchOptions& options) {
  std::vector<EnhanceOptions> clips;
  std::map<fs::path, std::string> outputs;  // and of which input each is
  std::error_code ignored;
  for (const std::string& input : options.inputs) {
    if (input == "-") throw ToolError(kExitUsage, "standard input has no name to write under; give --output");
    EnhanceOptions clip = options.clip;
    clip.input = input;
    clip.output = outputFor(input, options);
    std::vector<std::string> written = {clip.output};
    for (std::string* file : filesOf(clip)) {
      if (file->empty()) continue;
      if (options.inputs.size() > 1 && file->find(kNamePlace) == std::string::npos) {
        throw ToolError(kExitUsage, *file + " would be written by each clip; put " + kNamePlace +
                                        " into its name, which becomes the clip's");
      }
      *file = filled(*file, fs::path(input).stem().string());
      written.push_back(*file);
    }
    for (const std::string& path : written) {
      const auto [other, added] = outputs.emplace(fs::weakly_canonical(path, ignored), input);
      if (!added) {
        throw ToolError(kExitUsage, other->second + " and " + input + " would both be written to " + path +
                                        "; enhance them separately");
      }
    }
    clips.push_back(std::move(clip));
  }
  for (const std::string& input : options.inputs) {
    const auto found = outputs.find(fs::weakly_canonical(input, ignored));
    if (found == outputs.end()) continue;
    throw ToolError(kExitUsage, input + " would be overwritten as the output of " + found->second +
                                    "; choose another --output-dir or --suffix");
  }
  return clips;
}

// Removed again if it is empty at the end, as after a usage error.
class OutputFolder {
 public:
  explicit OutputFolder(const std::string& path) : path_(path) {
    std::error_code error;
    created_ = fs::create_directories(path, error);
    if (error) throw ToolError(kExitFailed, "cannot create the folder " + path + ": " + error.message());
  }
  ~OutputFolder() {
    if (created_) rmdir(path_.c_str());
  }
  OutputFolder(const OutputFolder&) = delete;
  OutputFolder& operator=(const OutputFolder&) = delete;

 private:
  const std::string path_;
  bool created_ = false;
};

int64_t availableMiB() {
  std::ifstream file("/proc/meminfo");
  std::string name, unit;
  for (int64_t kib = 0; file >> name >> kib;) {
    if (name == "MemAvailable:") return kib / 1024;
    std::getline(file, unit);
  }
  return sysconf(_SC_AVPHYS_PAGES) * (sysconf(_SC_PAGESIZE) / 1024) / 1024;
}

enum class Ending { kNotBegun, kDone, kSkipped, kStopped, kFailed };

struct Result {
  Ending ending = Ending::kNotBegun;
  int code = kExitFine;
  std::string reason;  // of a failure
};

// In the clip's process: does the work and says in one letter and a reason how it ended.
[[noreturn]] void workOn(EnhanceOptions clip, const EnhancerFactory& factory, int result) {
  std::string told = "d";
  int code = kExitFine;
  try {
    if (clip.resume && leaveWhole(clip)) {
      told = "s";
    } else {
      clip.overwrite = clip.overwrite || clip.resume;
      clip.resume = false;
      code = runEnhance(clip, factory);
    }
  } catch (const ToolError& error) {
    if (error.code() == kExitNoGl) EngineLog::printKept();
    told = std::string("f") + error.what();
    code = error.code();
  } catch (const std::bad_alloc&) {
    told = "fout of memory";
    code = kExitFailed;
  } catch (const std::exception& error) {
    told = std::string("f") + error.what();
    code = kExitFailed;
  }
  while (write(result, told.data(), told.size()) < 0 && errno == EINTR) continue;
  std::fflush(nullptr);
  _exit(code);
}

// A clip in its process. The process is ended with this.
class Job {
 public:
  Job(const EnhanceOptions& clip, const EnhancerFactory& factory) : name_(nameOf(clip.input)) {
    int said[2], result[2];
    if (pipe2(said, O_CLOEXEC) != 0) throw ToolError(kExitFailed, std::string("no pipe: ") + std::strerror(errno));
    if (pipe2(result, O_CLOEXEC) != 0) throw ToolError(kExitFailed, std::string("no pipe: ") + std::strerror(errno));
    std::fflush(nullptr);
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ < 0) throw ToolError(kExitFailed, std::string("no process: ") + std::strerror(errno));
    if (process_ == 0) {
      // A group of its own: Ctrl-C in the terminal comes once, from runBatch(), which stands for the terminal. When that is
      // killed the clip is finished, or with a second signal given up.
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGINT);
      if (getppid() != parent) _exit(kExitFailed);
      const int nothing = open("/dev/null", O_RDONLY);
      if (nothing >= 0) dup2(nothing, STDIN_FILENO);
      dup2(said[1], STDERR_FILENO);
      pendingFiles_.keep();
      workOn(clip, factory, result[1]);
    }
    setpgid(process_, process_);
    close(said[1]);
    close(result[1]);
    said_ = said[0];
    result_ = result[0];
  }
  ~Job() {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
    close(said_);
    close(result_);
  }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  const std::string& name() const { return name_; }
  int descriptor() const { return said_; }
  std::string state() const { return lines_.state(); }
  void signal(int number) const { kill(process_, number); }

  // What it said meanwhile. False: it ended.
  bool read(std::vector<std::string>& lines) {
    char bytes[4096];
    const ssize_t count = ::read(said_, bytes, sizeof(bytes));
    if (count < 0 && errno == EINTR) return true;
    if (count <= 0) {
      lines = lines_.take("\n");
      return false;
    }
    lines = lines_.take({bytes, static_cast<size_t>(count)});
    return true;
  }

  Result wait() {
    std::string told;
    char bytes[1024];
    for (ssize_t count = 0; (count = ::read(result_, bytes, sizeof(bytes))) != 0;) {
      if (count > 0) told.append(bytes, static_cast<size_t>(count));
      if (count < 0 && errno != EINTR) break;
    }
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) continue;
    process_ = 0;
    if (!WIFEXITED(status)) {
      pendingFiles_.remove();
      const int number = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
      return {Ending::kFailed, kExitFailed, std::string("its process crashed: ") + strsignal(number)};
    }
    const int code = WEXITSTATUS(status);
    if (told.starts_with('s')) return {Ending::kSkipped, code, ""};
    if (told.starts_with('d')) return {code == kExitFine ? Ending::kDone : Ending::kStopped, code, ""};
    return {Ending::kFailed, code, told.empty() ? "its process ended early" : told.substr(1)};
  }

 private:
  const std::string name_;
  pid_t process_ = 0;
  int said_ = -1;    // its standard error
  int result_ = -1;  // as workOn() tells it
  ClipLines lines_;
  PendingFilesOfProcess pendingFiles_;
};

class Batch {
 public:
  Batch(std::vector<EnhanceOptions> clips, size_t jobs, bool quiet)
      : clips_(std::move(clips)),
        results_(clips_.size()),
        jobs_(jobs),
        quiet_(quiet),
        terminal_(!quiet && isatty(STDERR_FILENO) != 0),
        screen_(terminal_, stderr) {
    for (EnhanceOptions& clip : clips_) clip.shownOnTerminal = terminal_;
  }

  void run(const EnhancerFactory& factory);
  int finish();  // prints the summary, and returns the exit code

 private:
  void begin(const EnhancerFactory& factory);
  void listen();
  void end(size_t clip);
  std::string state() const;
  std::string namesOf(Ending ending) const;
  size_t count(Ending ending) const {
    return static_cast<size_t>(std::ranges::count(results_, ending, &Result::ending));
  }

  std::vector<EnhanceOptions> clips_;
  std::vector<Result> results_;
  const size_t jobs_;
  const bool quiet_;
  const bool terminal_;
  Screen screen_;
  std::map<size_t, std::unique_ptr<Job>> running_;  // by clip
  size_t next_ = 0;
  bool told_ = false;  // the processes, to stop
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void Batch::run(const EnhancerFactory& factory) {
  for (;;) {
    while (!stopRequested() && next_ < clips_.size() && running_.size() < jobs_) begin(factory);
    if (running_.empty()) return;
    if (stopRequested() && !told_) {
      for (const auto& [clip, job] : running_) job->signal(stoppedExitCode() - 128);
      told_ = true;
    }
    listen();
    screen_.show(state());
  }
}

void Batch::begin(const EnhancerFactory& factory) {
  const size_t clip = next_++;
  try {
    running_[clip] = std::make_unique<Job>(clips_[clip], factory);
  } catch (const ToolError& error) {
    running_.erase(clip);
    results_[clip] = {Ending::kFailed, error.code(), error.what()};
  }
}

void Batch::listen() {
  std::vector<pollfd> waiting;
  std::vector<size_t> clips;
  for (const auto& [clip, job] : running_) {
    waiting.push_back({job->descriptor(), POLLIN, 0});
    clips.push_back(clip);
  }
  if (poll(waiting.data(), waiting.size(), kPollMs) <= 0) return;
  for (size_t i = 0; i < clips.size(); ++i) {
    if (waiting[i].revents == 0) continue;
    Job& job = *running_[clips[i]];
    std::vector<std::string> lines;
    const bool more = job.read(lines);
    for (const std::string& line : lines) screen_.print(job.name() + ": " + line);
    if (!more) end(clips[i]);
  }
}

void Batch::end(size_t clip) {
  const std::unique_ptr<Job> job = std::move(running_[clip]);
  running_.erase(clip);
  results_[clip] = job->wait();
  if (results_[clip].ending == Ending::kFailed) screen_.print(job->name() + ": failed: " + results_[clip].reason);
}

std::string Batch::state() const {
  std::string text;
  for (const auto& [clip, job] : running_) {
    text +=
        (text.empty() ? "[" + std::to_string(next_) + "/" + std::to_string(clips_.size()) + "] " : " | ") + job->name();
    if (!job->state().empty()) text += ": " + job->state();
  }
  return text;
}

std::string Batch::namesOf(Ending ending) const {
  std::string names;
  for (size_t i = 0; i < clips_.size(); ++i) {
    if (results_[i].ending == ending) names += (names.empty() ? "" : ", ") + nameOf(clips_[i].input);
  }
  return names;
}

int Batch::finish() {
  screen_.show("");
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start_;
  std::string text = std::to_string(count(Ending::kDone)) + " of " + std::to_string(clips_.size()) + " clips done";
  for (const auto& [ending, word] : {std::pair{Ending::kSkipped, "skipped"},
                                     {Ending::kFailed, "failed"},
                                     {Ending::kStopped, "stopped"},
                                     {Ending::kNotBegun, "not begun"}}) {
    if (count(ending) > 0) text += ", " + std::to_string(count(ending)) + " " + word;
  }
  if (!quiet_) std::fprintf(stderr, "%s, in %.1f s\n", text.c_str(), seconds.count());
  int code = kExitFine;
  for (size_t i = 0; i < clips_.size(); ++i) {
    const Result& result = results_[i];
    if (result.ending != Ending::kFailed) continue;
    code = code == kExitFine || code == result.code ? result.code : kExitFailed;
    if (!quiet_) std::fprintf(stderr, "failed: %s: %s\n", nameOf(clips_[i].input).c_str(), result.reason.c_str());
  }
  for (const auto& [ending, word] :
       {std::pair{Ending::kStopped, "stopped, the output is partial"}, {Ending::kNotBegun, "not begun"}}) {
    if (!quiet_ && count(ending) > 0) std::fprintf(stderr, "%s: %s\n", word, namesOf(ending).c_str());
  }
  return stopRequested() ? stoppedExitCode() : code;
}

}  // namespace

std::string outputFor(const std::string& input, const BatchOptions& options) {
  const std::string extension = options.container.empty() ? extensionFor(input) : "." + options.container;
  return (fs::path(options.outputFolder) / (fs::path(input).stem().string() + options.suffix + extension)).string();
}

int jobsFor(int clips, int cores, int64_t availableMiB) {
  const int64_t jobs = std::min<int64_t>({clips, cores / kCoresPerClip, availableMiB / kMiBPerClip});
  return static_cast<int>(std::max<int64_t>(jobs, 1));
}

int runBatch(const BatchOptions& options) {
  return runBatch(options, makeSession);
}

int runBatch(const BatchOptions& options, const EnhancerFactory& factory) {
  std::vector<EnhanceOptions> clips = clipsOf(options);
  const OutputFolder folder(options.outputFolder);
  for (const EnhanceOptions& clip : clips) checkEnhance(clip);
  const int cores = static_cast<int>(std::thread::hardware_concurrency());
  const int jobs = options.jobs > 0 ? options.jobs : jobsFor(static_cast<int>(clips.size()), cores, availableMiB());
  Batch batch(std::move(clips), static_cast<size_t>(jobs), options.clip.quiet);
  batch.run(factory);
  return batch.finish();
}

}  // namespace noxel::tool
