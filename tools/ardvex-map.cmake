# ardvex-map: the administrator's viewer of map files (the metrics cache among them).
add_executable(ardvex-map ${CMAKE_CURRENT_SOURCE_DIR}/ardvex-map.cpp)
target_link_libraries(ardvex-map PRIVATE ardvex_static)
target_compile_options(ardvex-map PRIVATE ${ARDVEX_WARNINGS})
install(TARGETS ardvex-map RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# Its test program (tests/tools/ardvex_map_test.cpp) runs the real tool.
function(ardvex_map_wire_test)
  if(TARGET tools_ardvex_map_test)
    add_dependencies(tools_ardvex_map_test ardvex-map)
    target_compile_definitions(tools_ardvex_map_test PRIVATE ARDVEX_MAP="$<TARGET_FILE:ardvex-map>")
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL ardvex_map_wire_test)
