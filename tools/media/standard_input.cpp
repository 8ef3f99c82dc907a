#include "media/standard_input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/interrupt.h"
#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr int kBuffer = 1 << 16;
constexpr int kPollMs = 200;
constexpr uint64_t kMaxIndex = 64 << 20;  // bytes of an index that is kept in memory; a day of video has about 30 MB
constexpr size_t kBoxHeader = 8;          // bytes: length, big endian, and name
constexpr std::string_view kY4m = "YUV4MPEG2";

uint64_t bigEndian(const uint8_t* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value = value << 8 | bytes[i];
  return value;
}

// -1: failed or stopped, see errno. The signal of a stop may arrive on another thread, so a pipe is never waited for in
// read().
ssize_t readSome(int descriptor, void* data, size_t size) {
  pollfd waiting = {descriptor, POLLIN, 0};
  while (!stopRequested()) {
    if (poll(&waiting, 1, kPollMs) == 0) continue;
    const ssize_t got = ::read(descriptor, data, size);
    if (got >= 0 || (errno != EINTR && errno != EAGAIN)) return got;
  }
  errno = EINTR;
  return -1;
}

[[noreturn]] void failSpooling() {
  if (stopRequested()) throw stoppedBeforeTheFirstFrame();
  throw ToolError(kExitUnreadable,
                  std::string("cannot spool standard input: ") + std::strerror(errno) + "; TMPDIR says where to");
}

std::FILE* openSpool() {
  const char* folder = std::getenv("TMPDIR");
  std::string path = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/noxel-XXXXXX";
  const int file = mkostemp(path.data(), O_CLOEXEC);
  if (file < 0) failSpooling();
  unlink(path.c_str());
  std::FILE* stream = fdopen(file, "w+b");
  if (stream == nullptr) close(file);
  if (stream == nullptr) failSpooling();
  return stream;
}

}  // namespace

StandardInput::StandardInput() {
  struct stat status = {};
  const bool file =
      fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode) && lseek(STDIN_FILENO, 0, SEEK_CUR) == 0;
  if (!file) {
    peek(kY4m.size());
    if (!isY4m() && mustSeek()) spool();
  } else {
    char start[kY4m.size()];
    const ssize_t got = pread(STDIN_FILENO, start, sizeof(start), 0);
    if (got > 0) peeked_.assign(start, start + got);
    given_ = peeked_.size();  // they are read again
  }
  auto* buffer = static_cast<uint8_t*>(allocated(av_malloc(kBuffer)));
  io_ = avio_alloc_context(buffer, kBuffer, 0, this, onRead, nullptr, file || spooled_ != nullptr ? onSeek : nullptr);
  if (io_ != nullptr) return;
  av_free(buffer);
  if (spooled_ != nullptr) std::fclose(spooled_);
  throw std::bad_alloc();
}

StandardInput::~StandardInput() {
  av_freep(&io_->buffer);
  avio_context_free(&io_);
  if (spooled_ != nullptr) std::fclose(spooled_);
}

bool StandardInput::isY4m() const {
  return peeked_.size() >= kY4m.size() && std::equal(kY4m.begin(), kY4m.end(), peeked_.begin());
}

void StandardInput::peek(size_t bytes) {
  while (peeked_.size() < bytes) {
    const size_t before = peeked_.size();
    peeked_.resize(std::min(bytes, before + kBuffer));
    const ssize_t got = readSome(STDIN_FILENO, peeked_.data() + before, peeked_.size() - before);
    peeked_.resize(before + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got <= 0) return;
  }
}

// Goes through an MP4's boxes. With its index ("moov") before its data ("mdat") it can be read as it comes.
bool StandardInput::mustSeek() {
  for (uint64_t start = 0;;) {
    peek(start + 2 * kBoxHeader);
    if (peeked_.size() < start + kBoxHeader) return false;  // the end: not for us to judge
    uint64_t size = bigEndian(&peeked_[start], 4);
    const std::string_view name(reinterpret_cast<const char*>(&peeked_[start + 4]), 4);
    const bool plain = name == "ftyp" || name == "free" || name == "skip" || name == "wide" || name == "uuid";
    if (start == 0 && !plain && name != "moov" && name != "mdat") return false;  // something else
    if (name == "moov") return false;
    if (!plain) return true;
    if (size == 1 && peeked_.size() >= start + 2 * kBoxHeader) size = bigEndian(&peeked_[start + 8], 8);
    if (size < kBoxHeader || size > kMaxIndex || start + size > kMaxIndex) return true;
    start += size;
    peek(start);
  }
}

void StandardInput::spool() {
  spooled_ = openSpool();
  try {
    std::vector<uint8_t> bytes = std::move(peeked_);
    peeked_.clear();
    for (;;) {
      if (std::fwrite(bytes.data(), 1, bytes.size(), spooled_) != bytes.size()) failSpooling();
      bytes.resize(kBuffer);
      const ssize_t got = readSome(STDIN_FILENO, bytes.data(), bytes.size());
      if (got < 0) failSpooling();
      if (got == 0) break;
      bytes.resize(static_cast<size_t>(got));
    }
    if (std::fflush(spooled_) != 0) failSpooling();
  } catch (...) {
    std::fclose(spooled_);
    throw;
  }
  descriptor_ = fileno(spooled_);
  lseek(descriptor_, 0, SEEK_SET);
}

int StandardInput::read(uint8_t* data, int size) {
  const auto wanted = static_cast<size_t>(size);
  if (given_ < peeked_.size()) {
    const size_t count = std::min(wanted, peeked_.size() - given_);
    std::copy_n(&peeked_[given_], count, data);
    given_ += count;
    return static_cast<int>(count);
  }
  if (!peeked_.empty()) {
    peeked_ = {};
    given_ = 0;
  }
  const ssize_t got = readSome(descriptor_, data, wanted);
  if (got < 0) return stopRequested() ? AVERROR_EXIT : AVERROR(errno);
  return got == 0 ? AVERROR_EOF : static_cast<int>(got);
}

int StandardInput::onRead(void* self, uint8_t* data, int size) {
  return static_cast<StandardInput*>(self)->read(data, size);
}

int64_t StandardInput::onSeek(void* self, int64_t offset, int whence) {
  const int descriptor = static_cast<StandardInput*>(self)->descriptor_;
  if (whence == AVSEEK_SIZE) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 ? status.st_size : AVERROR(errno);
  }
  const off_t place = lseek(descriptor, offset, whence & ~AVSEEK_FORCE);
  return place < 0 ? AVERROR(errno) : place;
}

}  // namespace noxel::tool
