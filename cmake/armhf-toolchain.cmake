# 32-bit ARM Linux, hard-float, with NEON.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
include(${CMAKE_CURRENT_LIST_DIR}/arm-linux.cmake)
noxel_arm_linux(armhf arm-linux-gnueabihf qemu-arm-static)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -Wno-psabi")  # notes on an ABI change of GCC 7
