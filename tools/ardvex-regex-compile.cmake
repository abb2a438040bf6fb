# ardvex-regex-compile: the administrator's tool that builds the compiled pattern files of
# the screening engine from text files of patterns.
add_executable(ardvex-regex-compile ${CMAKE_CURRENT_SOURCE_DIR}/ardvex-regex-compile.cpp)
target_include_directories(ardvex-regex-compile PRIVATE
  ${CMAKE_SOURCE_DIR}/corelib ${CMAKE_BINARY_DIR}/generated)
target_link_libraries(ardvex-regex-compile PRIVATE ardvex_static)
target_compile_options(ardvex-regex-compile PRIVATE ${ARDVEX_WARNINGS})
install(TARGETS ardvex-regex-compile RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# Its test program (tests/tools/ardvex_regex_compile_test.cpp) runs the real tool: tell it
# where the tool is and build the tool first. The test target only exists once tests/ has
# been read, so the wiring waits for the end of the top-level directory.
function(ardvex_regex_compile_wire_test)
  if(TARGET tools_ardvex_regex_compile_test)
    add_dependencies(tools_ardvex_regex_compile_test ardvex-regex-compile)
    target_compile_definitions(tools_ardvex_regex_compile_test PRIVATE
      ARDVEX_REGEX_COMPILE="$<TARGET_FILE:ardvex-regex-compile>")
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL ardvex_regex_compile_wire_test)
