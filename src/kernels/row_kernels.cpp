#include "kernels/row_kernels.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace noxel::kernels {
namespace {

// Null until the first call. Concurrent first calls store the same pointer, to constant tables.
std::atomic<const RowKernels*> chosen = nullptr;

const RowKernels* choice() {
  const char* wanted = std::getenv("NOXEL_KERNELS");
  const bool plain = wanted != nullptr && std::strcmp(wanted, "plain") == 0;
  return plain || kVectorRows == nullptr ? &kPlainRows : kVectorRows;
}

}  // namespace

const RowKernels& rowKernels() {
  const RowKernels* rows = chosen.load(std::memory_order_relaxed);
  if (rows == nullptr) {
    rows = choice();
    chosen.store(rows, std::memory_order_relaxed);
  }
  return *rows;
}

void rereadKernelChoice() {
  chosen.store(nullptr, std::memory_order_relaxed);
}

}  // namespace noxel::kernels
