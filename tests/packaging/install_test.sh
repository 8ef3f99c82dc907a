#!/usr/bin/env bash
# install_test.sh SOURCE BUILD VERSION: installs the build by components, moves the tree, and uses it as strangers
# would: through CMake, through pkg-config, and by uninstalling it.
set -euo pipefail
source=$1 build=$2 version=$3
work=$(mktemp -d)

# Of a real installation from this build folder, so that it can still be uninstalled afterwards.
mkdir "$work/manifests"
find "$build" -maxdepth 1 -name 'install_manifest*.txt' -exec mv -t "$work/manifests" {} +
clean_up() {
  find "$work/manifests" -type f -exec mv -t "$build" {} +
  rm -rf "$work"
}
trap clean_up EXIT

fail() {
  echo "$*" >&2
  exit 1
}
same() { diff <(echo "$1") <(echo "$2") >&2 || fail "$3"; }  # expected, actual, what is wrong
files_below() { (cd "$1" && find . ! -type d -printf '%P\n' | sort); }

# Each component has its files, and together they are everything.
components=$(cd "$build" && find . -name cmake_install.cmake -not -path './tests/*' \
  -exec sed -n 's/.*INSTALL_COMPONENT STREQUAL "\([a-z]*\)".*/\1/p' {} + | sort -u)
for component in $components; do
  mkdir "$work/$component"
  cmake --install "$build" --prefix "$work/$component" --component $component >/dev/null
  files_below "$work/$component"
done | sort >"$work/by_component"
cmake --install "$build" --prefix "$work/first" >/dev/null
same "$(files_below "$work/first")" "$(cat "$work/by_component")" "the components overlap or leave out files"
mv "$work/first" "$work/moved"
prefix=$work/moved
libdir=$(dirname "$(find "$prefix" -name libnoxel.a)")
lib=${libdir#"$prefix/"}
same "$lib/libNoxel-GLESv3.so
$lib/libnoxel.so.1
$lib/libnoxel.so.$version" "$(files_below "$work/library")" "the component library has other files than the libraries"
[ "$(readlink "$libdir/libnoxel.so.1")" = "libnoxel.so.$version" ] || fail "libnoxel.so.1 is another library"
same "bin/noxel
bin/noxel-register" "$(cd "$work/tools" && find bin -type f | sort)" "the component tools has other commands"

# What the libraries show and ask for.
soname() { readelf -dW "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p'; }
same libnoxel.so.1 "$(soname "$libdir/libnoxel.so")" "the soname of libnoxel"
same libNoxel-GLESv3.so "$(soname "$libdir/libNoxel-GLESv3.so")" "the soname of libNoxel-GLESv3"
exported=$(nm -D --defined-only "$libdir/libnoxel.so" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | sort)
declared=$(sed -n 's/^NOXEL_API .*[ *]\(noxel_[a-z_]*\)(.*/\1/p' "$prefix"/include/noxel/{enhancer,meter}.h | sort)
same "$declared" "$exported" "libnoxel exports something else than its headers declare"
cmake -DNM=nm -DLIBRARY="$libdir/libNoxel-GLESv3.so" -P "$source/tests/api/check_exports.cmake"
for binary in "$libdir"/lib*.so "$prefix"/bin/*; do
  if readelf -dW "$binary" | grep -E 'RPATH|RUNPATH' >&2; then fail "$binary has a library path built in"; fi
done
for folder in "$source" "$build" "$work/first"; do
  if grep -rlF "$folder" "$prefix" >&2; then fail "installed files name $folder"; fi
done

# Programs outside this tree.
cp -r "$source/examples/consumers" "$work/consumers"
cd "$work/consumers"
driver_is_missing() { [ "${NOXEL_REQUIRE_GL:-}" != 1 ] && grep -q 'no usable OpenGL ES' <<<"$1"; }
check_programs() { # FOLDER
  local printed
  printed=$("$1/enhancer") || driver_is_missing "$printed" || fail "$1/enhancer: $printed"
  grep -qx "libnoxel $version" <<<"$printed" || fail "$1: another version: $printed"
  grep -q '^strength: 0 to 100' <<<"$printed" || fail "$1: no settings: $printed"
  same "$printed" "$("$1/enhancer_static" || true)" "$1: the archive is another library"
  if readelf -dW "$1/enhancer_static" | grep libnoxel >&2; then fail "$1/enhancer_static needs the shared library"; fi
  "$1/camera" | grep -q "^Version: $version.*accepted" || fail "$1/camera does not run"
}
echo 'enable_language(CXX)' >enable_cxx.cmake
touch no_cxx.cmake
for extra in no_cxx enable_cxx; do # a project in C alone, which has to be told of the C++ runtime, and one with C++
  cmake -S find_package -B $extra -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS=-Werror \
    -DCMAKE_PROJECT_INCLUDE="$PWD/$extra.cmake" >/dev/null
  cmake --build $extra >/dev/null
  check_programs $extra
done
sed -i 's/find_package(Noxel 1.2/find_package(Noxel 2.0/' find_package/CMakeLists.txt
if cmake -S find_package -B newer -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
  fail "find_package(Noxel 2.0) finds version $version"
fi

export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
make -s -C pkg_config
check_programs pkg_config
same "$version" "$(pkg-config --modversion noxel)" "the version of noxel.pc"

# Uninstalled, staged as a packager does, with a space in the path.
export DESTDIR="$work/staged tree"
rm -f "$build"/install_manifest*.txt
cmake --install "$build" --prefix /usr >/dev/null
touch "$DESTDIR/usr/bin/of-another"
cmake --build "$build" --target uninstall >/dev/null
same usr/bin/of-another "$(files_below "$DESTDIR")" "uninstall leaves files, or removes those of others"
left=$(find "$DESTDIR" -iname '*noxel*')
[ -z "$left" ] || fail "uninstall leaves $left"
