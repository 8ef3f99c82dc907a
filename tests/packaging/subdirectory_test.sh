#!/usr/bin/env bash
# subdirectory_test.sh SOURCE BUILD VERSION [OPTION ...]: builds a program that takes Noxel in by add_subdirectory,
# and checks that nothing of Noxel's own build reaches it. Options go to cmake. The folder stays in BUILD: the library
# is compiled once.
set -euo pipefail
source=$1 build=$2 version=$3
shift 3
work=$build/tests/packaging/subdirectory
mkdir -p "$work"
rm -f "$work/CMakeCache.txt"

fail() {
  echo "$*" >&2
  exit 1
}

# Reported at the end of the program's own project: whatever add_subdirectory could have changed there.
cat >"$work/report.cmake" <<'END'
function(report)
  file(WRITE ${CMAKE_BINARY_DIR}/report.txt "")
  foreach(variable CMAKE_BUILD_TYPE CMAKE_POSITION_INDEPENDENT_CODE CMAKE_CXX_STANDARD CMAKE_CXX_FLAGS CMAKE_C_FLAGS
                   CMAKE_C_VISIBILITY_PRESET CMAKE_CXX_EXTENSIONS BUILD_SHARED_LIBS BUILD_TESTING)
    file(APPEND ${CMAKE_BINARY_DIR}/report.txt "${variable}=${${variable}}\n")
  endforeach()
  foreach(property COMPILE_OPTIONS COMPILE_DEFINITIONS LINK_OPTIONS INCLUDE_DIRECTORIES TESTS)
    get_directory_property(value ${property})
    file(APPEND ${CMAKE_BINARY_DIR}/report.txt "directory ${property}=${value}\n")
  endforeach()
  foreach(target Noxel::noxel Noxel::noxel_static Noxel::gles)
    foreach(property INTERFACE_COMPILE_OPTIONS INTERFACE_COMPILE_DEFINITIONS INTERFACE_COMPILE_FEATURES INTERFACE_LINK_OPTIONS)
      get_target_property(value ${target} ${property})
      file(APPEND ${CMAKE_BINARY_DIR}/report.txt "${target} ${property}=${value}\n")
    endforeach()
  endforeach()
endfunction()
cmake_language(DEFER CALL report)
END
cmake -S "$source/examples/consumers/add_subdirectory" -B "$work" -DNOXEL_SOURCE="$source" \
  -DCMAKE_PROJECT_noxel_add_subdirectory_INCLUDE="$work/report.cmake" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON "$@" >"$work/log"
changed=$(grep -Ev '=$|=value-NOTFOUND$|^CMAKE_(C|CXX)_FLAGS=' "$work/report.txt" || true)
[ -z "$changed" ] || fail "the program's project has these from Noxel: $changed"
sought=$(grep -iE '^(GTest|benchmark|CLI11|nlohmann_json|PKG_CONFIG|FFMPEG|SDL2|CAIRO|PNG|Doxygen|Python)[A-Z0-9a-z_]*:' \
  "$work/CMakeCache.txt" || true)
[ -z "$sought" ] || fail "these were looked for: $sought"
if grep -e -Werror "$work/compile_commands.json" >&2; then fail "warnings are errors in another project"; fi
grep -q -e -Wall "$work/compile_commands.json" || fail "the library is not in compile_commands.json"

cmake --build "$work" >>"$work/log" || { tail -n 40 "$work/log" >&2; fail "it does not build"; }
printed=$("$work/enhancer" || [ "${NOXEL_REQUIRE_GL:-}" != 1 ]) || fail "it does not run: $printed"
grep -qx "libnoxel $version" <<<"$printed" || fail "another version: $printed"
[ -e "$work/noxel/src/libnoxel.so.$version" ] || fail "the library is not shared"
[ ! -e "$work/noxel/src/libNoxel-GLESv3.so" ] || fail "a library that nothing links was built"
