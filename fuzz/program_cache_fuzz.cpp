// Files of the program cache: exactly those of the format are taken, with their contents, and survive a round trip.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "gl/runtime/program_cache.h"
#include "platform/log.h"
#include "support/temporary_directory.h"

namespace {

constexpr size_t kHeaderSize = 12;
constexpr uint32_t kVersion = 10;
constexpr off_t kMaxFileSize = off_t{64} << 20;

// Bits of the first byte.
constexpr int kVersionRight = 1;
constexpr int kChecksumRight = 2;
constexpr int kTooLarge = 4;  // a hole behind the bytes
constexpr int kWriteBack = 8;
constexpr int kFingerprint = 16;  // the bytes are the file "fingerprint" instead

uint32_t wordAt(const std::vector<uint8_t>& bytes, size_t offset) {
  uint32_t word = 0;
  std::memcpy(&word, bytes.data() + offset, sizeof(word));
  return word;
}

uint32_t byteSum(const std::vector<uint8_t>& bytes) {
  uint32_t sum = 0;
  for (size_t i = kHeaderSize; i < bytes.size(); ++i) sum += bytes[i];
  return sum;
}

// A file without a name, reachable by path.
class File {
 public:
  File() : file_(memfd_create("program", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(file_)) {
    FUZZ_CHECK(file_ >= 0);
  }
  void store(const std::vector<uint8_t>& bytes, off_t size) {
    FUZZ_CHECK(ftruncate(file_, 0) == 0);
    FUZZ_CHECK(pwrite(file_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    FUZZ_CHECK(ftruncate(file_, size) == 0);
  }
  const char* path() const { return path_.c_str(); }

 private:
  const int file_;
  const std::string path_;
};

void checkRoundTrip(const noxel::ProgramBinary& binary) {
  static const noxel::TemporaryDirectory directory;
  const std::string path = directory.file("program");
  FUZZ_CHECK(binary.write(path.c_str()));
  noxel::ProgramBinary again;
  FUZZ_CHECK(again.read(path.c_str()));
  FUZZ_CHECK(again.format == binary.format && again.size == binary.size);
  FUZZ_CHECK(std::equal(binary.blob, binary.blob + binary.size, again.blob));
}

// A cache is used as it is when its fingerprint is that of the build, and emptied otherwise.
void checkFingerprint(const std::vector<uint8_t>& bytes) {
  static const noxel::TemporaryDirectory directory;
  const std::string program = directory.file("kr_w1");
  const std::string own(64, 'a');
  const std::string found(bytes.begin(), bytes.end());
  std::ofstream(program) << "a program";
  std::ofstream(directory.file("fingerprint"), std::ios::binary) << found;
  FUZZ_CHECK(noxel::openProgramCache(directory.path().c_str(), own.c_str()).readable == (found == own));
  FUZZ_CHECK(std::filesystem::exists(program) == (found == own));
  FUZZ_CHECK(noxel::openProgramCache(directory.path().c_str(), own.c_str()).readable);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silent = noxel::platform::setLogLevel(8) != 8;
  (void)silent;
  if (size == 0) return 0;
  const int patches = data[0];
  std::vector<uint8_t> bytes(data + 1, data + size);
  if ((patches & kFingerprint) != 0) {
    checkFingerprint(bytes);
    return 0;
  }
  if (bytes.size() >= kHeaderSize) {
    const uint32_t sum = byteSum(bytes);
    if ((patches & kChecksumRight) != 0) std::memcpy(bytes.data(), &sum, sizeof(sum));
    if ((patches & kVersionRight) != 0) std::memcpy(bytes.data() + 4, &kVersion, sizeof(kVersion));
  }
  const bool tooLarge = (patches & kTooLarge) != 0;
  static File file;
  file.store(bytes, tooLarge ? kMaxFileSize + 1 : static_cast<off_t>(bytes.size()));

  noxel::ProgramBinary binary;
  const bool taken = binary.read(file.path());
  const bool valid =
      bytes.size() > kHeaderSize && !tooLarge && wordAt(bytes, 4) == kVersion && wordAt(bytes, 0) == byteSum(bytes);
  FUZZ_CHECK(taken == valid);
  if (!taken) return 0;
  FUZZ_CHECK(binary.format == wordAt(bytes, 8) && binary.size == bytes.size() - kHeaderSize);
  FUZZ_CHECK(std::equal(binary.blob, binary.blob + binary.size, bytes.begin() + kHeaderSize));
  if ((patches & kWriteBack) != 0) checkRoundTrip(binary);
  return 0;
}
