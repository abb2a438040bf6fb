# ardvex-secure: stand-in for the suite's privileged program runner (a POSIX sh script with
# the suite's directories filled in), installed with the suite's programs.
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/ardvex-secure.in ${CMAKE_CURRENT_BINARY_DIR}/ardvex-secure
  @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
  WORLD_READ WORLD_EXECUTE)
install(PROGRAMS ${CMAKE_CURRENT_BINARY_DIR}/ardvex-secure DESTINATION ${ARDVEX_SUITE_BIN_DIR})
