# What cmake/armhf-toolchain.cmake and cmake/arm64-toolchain.cmake share: Debian's cross compiler of a triplet, the
# libraries of scripts/arm-root, and the user-mode emulator.
function(noxel_arm_linux architecture triplet emulator)
  set(CMAKE_SYSTEM_NAME Linux PARENT_SCOPE)
  set(CMAKE_LIBRARY_ARCHITECTURE ${triplet} PARENT_SCOPE)
  set(CMAKE_C_COMPILER ${triplet}-gcc PARENT_SCOPE)
  set(CMAKE_CXX_COMPILER ${triplet}-g++ PARENT_SCOPE)

  cmake_path(SET root NORMALIZE "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../build/${architecture}-root")
  set(CMAKE_SYSROOT ${root} PARENT_SCOPE)
  set(CMAKE_FIND_ROOT_PATH ${root} PARENT_SCOPE)
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER PARENT_SCOPE)
  foreach(kind LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY PARENT_SCOPE)
  endforeach()
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${root})
  set(ENV{PKG_CONFIG_LIBDIR} ${root}/usr/lib/${triplet}/pkgconfig:${root}/usr/share/pkgconfig)

  set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator} -L ${root} PARENT_SCOPE)
endfunction()
