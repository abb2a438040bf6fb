# Packaging of the metrics client beyond the program itself: the systemd service and the
# timer that runs it once a day, and its manual page. Paths inside them are filled in from
# the build's configuration.
# Relative to the install prefix unless absolute: /usr/lib/systemd/system for prefix /usr.
set(ARDVEX_SYSTEMD_UNIT_DIR "lib/systemd/system"
  CACHE STRING "Where the systemd units are installed (relative: under the install prefix)")

# The collectors' programs and the transfer's own limits, with a minute to spare.
math(EXPR ARDVEX_UNIT_TIMEOUT "${ARDVEX_METRICS_CONNECT_TIMEOUT} + ${ARDVEX_METRICS_MAX_TIME} + 60")
foreach(unit ardvex-metrics-client.service ardvex-metrics-client.timer)
  ardvex_install_rendered(${CMAKE_CURRENT_SOURCE_DIR}/systemd/${unit}
    ${CMAKE_CURRENT_BINARY_DIR}/systemd/${unit} ${ARDVEX_SYSTEMD_UNIT_DIR})
endforeach()

configure_file(${CMAKE_CURRENT_SOURCE_DIR}/ardvex-metrics-client.8
  ${CMAKE_CURRENT_BINARY_DIR}/ardvex-metrics-client.8 @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ardvex-metrics-client.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
