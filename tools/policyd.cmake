# ardvex-policyd (the Postfix policy service) and ardvex-admin (the administrator's tool),
# with the judge and settings code they share as a small internal library. The library does
# not link the engine itself, so the tests can put the testing build of the engine under it.
set(ARDVEX_POLICY_DIR ${CMAKE_CURRENT_SOURCE_DIR}/policyd)
add_library(ardvex_policy STATIC
  ${ARDVEX_POLICY_DIR}/policy_config.cpp
  ${ARDVEX_POLICY_DIR}/policy_request.cpp
  ${ARDVEX_POLICY_DIR}/policy_judge.cpp
  ${ARDVEX_POLICY_DIR}/rate_limiter.cpp)
target_include_directories(ardvex_policy PUBLIC ${ARDVEX_POLICY_DIR} ${CMAKE_SOURCE_DIR}/include
  ${CMAKE_BINARY_DIR}/generated)
target_compile_options(ardvex_policy PRIVATE ${ARDVEX_WARNINGS})
target_compile_definitions(ardvex_policy PRIVATE _GNU_SOURCE)

foreach(program ardvex-policyd ardvex-admin)
  add_executable(${program} ${ARDVEX_POLICY_DIR}/${program}.cpp)
  target_link_libraries(${program} PRIVATE ardvex_policy ardvex_static)
  target_compile_options(${program} PRIVATE ${ARDVEX_WARNINGS})
  install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  configure_file(${ARDVEX_POLICY_DIR}/${program}.8 ${CMAKE_CURRENT_BINARY_DIR}/${program}.8 @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${program}.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
endforeach()

# The service's socket and service units, beside the metrics client's.
set(ARDVEX_SYSTEMD_UNIT_DIR "lib/systemd/system"
  CACHE STRING "Where the systemd units are installed (relative: under the install prefix)")
foreach(unit ardvex-policyd.socket ardvex-policyd.service)
  ardvex_install_rendered(${ARDVEX_POLICY_DIR}/systemd/${unit}
    ${CMAKE_CURRENT_BINARY_DIR}/systemd/${unit} ${ARDVEX_SYSTEMD_UNIT_DIR})
endforeach()
# The settings file is the administrator's: installed as an example, never over theirs.
install(FILES ${ARDVEX_POLICY_DIR}/policyd.conf
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/ardvex RENAME policyd.conf.example)

# Test programs of the tools (tests/tools/policyd_*_test.cpp) link the shared code and get the
# programs' paths.
function(ardvex_policy_wire_tests)
  foreach(test tools_policyd_test tools_policyd_service_test tools_ardvex_admin_test)
    if(TARGET ${test})
      target_link_libraries(${test} PRIVATE ardvex_policy ardvex_testing)
      add_dependencies(${test} ardvex-policyd ardvex-admin)
      target_compile_definitions(${test} PRIVATE
        ARDVEX_POLICYD="$<TARGET_FILE:ardvex-policyd>" ARDVEX_ADMIN="$<TARGET_FILE:ardvex-admin>")
    endif()
  endforeach()
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL ardvex_policy_wire_tests)
