# What `cmake --install` writes, by component:
#
#   library    libnoxel.so.1, libNoxel-GLESv3.so
#   dev        headers, libnoxel.so and libnoxel.a, the packages for CMake and pkg-config
#   tools      noxel, noxel-register, their manual pages and completion
#
# Nothing of it names the prefix, so the installed tree may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(libraries noxel_shared noxel_archive)
if(NOXEL_SHARED)
  list(APPEND libraries noxel_library)
endif()
install(
  TARGETS ${libraries}
  EXPORT NoxelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/noxel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# The C++ runtime, which the linker of a C program does not add to the archive.
set(cxx_runtime ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(FILTER cxx_runtime INCLUDE REGEX "^(stdc\\+\\+|c\\+\\+|c\\+\\+abi|m)$")
list(REMOVE_DUPLICATES cxx_runtime)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Noxel)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/NoxelConfig.cmake.in ${PROJECT_BINARY_DIR}/NoxelConfig.cmake
                              INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/NoxelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT NoxelTargets NAMESPACE Noxel:: DESTINATION ${package_folder} COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/NoxelConfig.cmake ${PROJECT_BINARY_DIR}/NoxelConfigVersion.cmake
        DESTINATION ${package_folder} COMPONENT dev)

# pkg-config: the prefix is found from the file's own place, and folders outside it keep their names.
function(pkg_config_folder variable folder)
  if(NOT IS_ABSOLUTE ${folder})
    string(PREPEND folder "\${prefix}/")
  endif()
  set(${variable} ${folder} PARENT_SCOPE)
endfunction()
set(pkg_config_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  file(RELATIVE_PATH up /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" up ${up})
  set(pkg_config_prefix "\${pcfiledir}/${up}")
endif()
pkg_config_folder(pkg_config_libdir ${CMAKE_INSTALL_LIBDIR})
pkg_config_folder(pkg_config_includedir ${CMAKE_INSTALL_INCLUDEDIR})
set(needs ${noxel_archive_needs} ${cxx_runtime})
list(TRANSFORM needs PREPEND "-l")
list(JOIN needs " " pkg_config_private)
find_package(Threads REQUIRED)
if(CMAKE_THREAD_LIBS_INIT)
  string(APPEND pkg_config_private " ${CMAKE_THREAD_LIBS_INIT}")
endif()
set(pkg_config_public "")
if(NOT NOXEL_SHARED)
  set(pkg_config_public " ${pkg_config_private}")
  set(pkg_config_private "")
endif()
foreach(package noxel noxel-gles)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

if(NOXEL_BUILD_TOOLS)
  install(TARGETS noxel noxel-register RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  foreach(command noxel noxel-register)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/manual/completion.bash RENAME ${command}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  endforeach()
  if(NOXEL_MANUAL)
    install(DIRECTORY ${NOXEL_MANUAL} DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
  endif()
endif()

if(PROJECT_IS_TOP_LEVEL)
  add_custom_target(uninstall COMMAND ${CMAKE_COMMAND} -DBUILD=${PROJECT_BINARY_DIR} -P
                                      ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake VERBATIM)
  include(${CMAKE_CURRENT_LIST_DIR}/packages.cmake)
endif()
