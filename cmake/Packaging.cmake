# Installation (library, header, CMake package, pkg-config file, tool) and the Debian packages.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(RFSI_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/rfSystemInfo)

install(TARGETS rfSystemInfo EXPORT rfSystemInfoTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/rfSystemInfo COMPONENT development)
# The stand-ins (or the link to the instrument's own services) are only ever reached through
# librfSystemInfo: exported so that a caller's link finds them, with no development link of their own.
install(TARGETS rfsi_platform EXPORT rfSystemInfoTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_SKIP)
install(TARGETS rfsysinfo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
# The fleet pieces: a timer that writes the metrics for node_exporter's textfile collector, and
# alerting rules (with their promtool unit tests) to start from.
install(FILES tools/rfsysinfo/systemd/rfsysinfo-metrics.service tools/rfsysinfo/systemd/rfsysinfo-metrics.timer
    DESTINATION lib/systemd/system COMPONENT tool)
# The manual page and the bash completion (bash-completion's layout).
install(FILES docs/rfsysinfo.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
install(FILES tools/rfsysinfo/completion/rfsysinfo DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    COMPONENT tool)
install(FILES examples/prometheus/rfsysinfo-rules.yml examples/prometheus/rfsysinfo-rules-test.yml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/rfsysinfo/prometheus COMPONENT tool)

install(EXPORT rfSystemInfoTargets NAMESPACE rfSystemInfo:: DESTINATION ${RFSI_CMAKE_DIR} COMPONENT development)
configure_package_config_file(cmake/rfSystemInfoConfig.cmake.in
    ${PROJECT_BINARY_DIR}/rfSystemInfoConfig.cmake INSTALL_DESTINATION ${RFSI_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/rfSystemInfoConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/rfSystemInfoConfig.cmake ${PROJECT_BINARY_DIR}/rfSystemInfoConfigVersion.cmake
    DESTINATION ${RFSI_CMAKE_DIR} COMPONENT development)

# The .pc file finds its prefix from where it stands, so an installed tree can move.
file(RELATIVE_PATH RFSI_PC_PREFIX_FROM_PCDIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" RFSI_PC_PREFIX_FROM_PCDIR "${RFSI_PC_PREFIX_FROM_PCDIR}")
configure_file(cmake/rfSystemInfo.pc.in ${PROJECT_BINARY_DIR}/rfSystemInfo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/rfSystemInfo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME rfsysteminfo)
set(CPACK_PACKAGE_VENDOR "rfSystemInfo developers")
set(CPACK_PACKAGE_CONTACT "rfSystemInfo developers <rfsysteminfo@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool's dependency on our own library is declared between the components; dpkg-shlibdeps only
# needs to find it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/rfSystemInfo ${PROJECT_BINARY_DIR}/platform)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME librfsysteminfo${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME librfsysteminfo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qtbase5-dev (>= ${RFSI_QT_MINIMUM_VERSION})")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME rfsysinfo)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "RF instrument system information library (and service stand-ins)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "RF instrument system information library: header, CMake and pkg-config files")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "rfsysinfo: reports the RF instrument's system information as text, JSON, a check or Prometheus metrics")
include(CPack)
cpack_add_component(runtime)
cpack_add_component(development DEPENDS runtime)
cpack_add_component(tool DEPENDS runtime)
