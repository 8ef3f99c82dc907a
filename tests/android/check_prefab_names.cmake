# cmake "-DDECLARED=libbuilt=libdeclared ..." -P check_prefab_names.cmake
#
# Checks that both libraries are handed to applications, each under the name of the file that is built.
separate_arguments(pairs UNIX_COMMAND "${DECLARED}")
list(LENGTH pairs count)
if(NOT count EQUAL 2)
  message(FATAL_ERROR "android/noxel/build.gradle declares ${count} libraries: ${DECLARED}")
endif()
foreach(pair IN LISTS pairs)
  if(NOT pair MATCHES "^(.+)=(.+)$" OR NOT CMAKE_MATCH_1 STREQUAL CMAKE_MATCH_2)
    message(FATAL_ERROR "android/noxel/build.gradle and CMake disagree: ${pair}")
  endif()
endforeach()
