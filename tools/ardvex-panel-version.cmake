# ardvex-panel-version: stand-in for the suite's panel-version tool (a POSIX sh script with
# Zimbra's directory filled in), installed with the suite's programs.
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/ardvex-panel-version.in
  ${CMAKE_CURRENT_BINARY_DIR}/ardvex-panel-version
  @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
  WORLD_READ WORLD_EXECUTE)
install(PROGRAMS ${CMAKE_CURRENT_BINARY_DIR}/ardvex-panel-version
  DESTINATION ${ARDVEX_SUITE_BIN_DIR})
