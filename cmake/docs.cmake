# cmake --build ... --target docs: the headers as HTML, in docs/html of the build tree.
find_package(Doxygen QUIET)
find_package(Python3 QUIET COMPONENTS Interpreter)
if(DOXYGEN_FOUND AND Python3_Interpreter_FOUND)
  configure_file(${PROJECT_SOURCE_DIR}/docs/doxygen/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile @ONLY)
  add_custom_target(docs COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/docs/Doxyfile VERBATIM)
else()
  add_custom_target(docs COMMAND ${CMAKE_COMMAND} -E echo "docs needs Doxygen and Python: scripts/install-packages docs"
                    COMMAND ${CMAKE_COMMAND} -E false VERBATIM)
endif()
