# 64-bit ARM Linux.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/arm-linux.cmake)
noxel_arm_linux(arm64 aarch64-linux-gnu qemu-aarch64-static)
