# Run by cpack when the files of all packages are staged: adds what every Debian package has, its copyright and
# changelogs, compresses the manual, and tells dpkg-shlibdeps where libnoxel.so.1 will be.
set(release ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
find_program(gzip gzip REQUIRED)
function(compress)
  execute_process(COMMAND ${gzip} -9nf ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

if(DEFINED ENV{SOURCE_DATE_EPOCH})
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
else()
  string(TIMESTAMP date "%a, %d %b %Y 00:00:00 +0000" UTC)
endif()
file(READ ${CPACK_NOXEL_SOURCE}/LICENSE license)
string(REGEX MATCH "Copyright [^\n]*" copyright "${license}")
string(REGEX REPLACE "^.*Copyright [^\n]*\n+" "" license "${license}")
string(STRIP "${license}" license)
string(REPLACE "\n\n" "\n.\n" license "${license}")
string(REPLACE "\n" "\n " license "${license}")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  set(documents ${root}/usr/share/doc/${package})
  file(WRITE ${documents}/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: Noxel

Files: *
${copyright}
License: BSD-2-Clause
 ${license}
")
  file(WRITE ${documents}/changelog.Debian
"noxel (${release}) unstable; urgency=medium

  * As released; changelog.gz says what is new.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  file(COPY_FILE ${CPACK_NOXEL_SOURCE}/CHANGELOG.md ${documents}/changelog)
  compress(${documents}/changelog.Debian ${documents}/changelog)
  file(GLOB pages ${root}/usr/share/man/*/*.[1-9])
  if(pages)
    compress(${pages})
  endif()
  if(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS OR NOT DEFINED CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS)
    # The folder is dpkg-shlibdeps' own and removed after it has run.
    file(WRITE ${root}/debian/shlibs.local
         "libnoxel ${CPACK_PACKAGE_VERSION_MAJOR} libnoxel${CPACK_PACKAGE_VERSION_MAJOR} (>= ${CPACK_PACKAGE_VERSION})\n")
  endif()
endforeach()

# libNoxel-GLESv3.so is loaded by this very name, so it is in the package of the library and not in that for
# development. cpack writes maintainer scripts that call ldconfig, beside the trigger.
file(WRITE ${CPACK_TEMPORARY_DIRECTORY}/library/usr/share/lintian/overrides/libnoxel1
"libnoxel1: shared-library-lacks-version
libnoxel1: package-name-doesnt-match-sonames
libnoxel1: maintscript-calls-ldconfig
")
