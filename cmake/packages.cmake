# Debian packages, made by scripts/package: the components of install.cmake, one package each, and the GStreamer
# element's where that is built.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME noxel)
set(CPACK_PACKAGE_VENDOR "The Noxel authors")
set(NOXEL_PACKAGE_CONTACT "The Noxel authors <noxel@localhost>" CACHE STRING "Maintainer of the Debian packages")
set(CPACK_PACKAGE_CONTACT ${NOXEL_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian_files.cmake)
set(CPACK_NOXEL_SOURCE ${PROJECT_SOURCE_DIR})

set(CPACK_COMPONENTS_ALL library dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# debian_package(component NAME package SECTION section SUMMARY text DESCRIPTION text [DEPENDS list] [RECOMMENDS list])
macro(debian_package component)
  cmake_parse_arguments(DEB "" "NAME;SECTION;SUMMARY;DESCRIPTION;DEPENDS;RECOMMENDS" "" ${ARGN})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${DEB_NAME})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${DEB_SECTION})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${DEB_DEPENDS}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_RECOMMENDS "${DEB_RECOMMENDS}")
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${DEB_SUMMARY}\n${DEB_DESCRIPTION}")
endmacro()

set(what "Noxel averages what the camera and everything that moves on its own
allow, takes the rest of the noise out of the frame, brightens dark
pictures and steadies shaken ones, on OpenGL ES 3.0.")
debian_package(library
  NAME libnoxel1 SECTION libs
  SUMMARY "Denoises, brightens and steadies dark video: libraries"
  DESCRIPTION "${what}\n\nlibnoxel takes frames as planes, libNoxel-GLESv3 enhances camera
frames in place."
  # Loaded at run time by libegl1, so that no symbol asks for it: a driver that works without a GPU.
  RECOMMENDS "libegl-mesa0, libgl1-mesa-dri")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
debian_package(dev
  NAME libnoxel-dev SECTION libdevel
  SUMMARY "Denoises, brightens and steadies dark video: development files"
  DESCRIPTION "${what}\n\nHeaders, the archive libnoxel.a, and the packages by which CMake and
pkg-config find them."
  DEPENDS "libnoxel1 (= ${PROJECT_VERSION}-1), libegl-dev, libgles-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS g++)  # the C++ runtime, which programs with libnoxel.a link
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
if(NOXEL_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  debian_package(tools
    NAME noxel-tools SECTION video
    SUMMARY "Denoises, brightens and steadies dark video: commands"
    DESCRIPTION "${what}\n\nnoxel enhances, plays and measures video files, noxel-register
measures the camera's motion."
    RECOMMENDS "libegl-mesa0, libgl1-mesa-dri")
endif()
if(TARGET noxel_gstreamer)
  list(APPEND CPACK_COMPONENTS_ALL gstreamer)
  debian_package(gstreamer
    NAME gstreamer1.0-noxel SECTION video
    SUMMARY "Denoises, brightens and steadies dark video: GStreamer element"
    DESCRIPTION "${what}\n\nThe element noxelenhance, for GStreamer's pipelines.")
endif()
include(CPack)
