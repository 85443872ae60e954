# Installation: library, header, CMake package, pkg-config file and the tool. The Debian packages
# are made from it by debian/rules.
include(CMakePackageConfigHelpers)

set(RFSI_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${RFSI_PACKAGE_NAME})

install(TARGETS rfSystemInfo EXPORT rfSystemInfoTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${RFSI_PACKAGE_NAME} COMPONENT development)
# The stand-ins (or the link to the instrument's own services) are only ever reached through
# librfSystemInfo: in a folder of its own (found through the library's run path), exported so that a
# caller's link finds them, with no development link of their own.
install(TARGETS rfsi_platform EXPORT rfSystemInfoTargets
    LIBRARY DESTINATION ${RFSI_PRIVATE_LIBDIR} COMPONENT runtime NAMELINK_SKIP)
if(RFSI_BUILD_TOOL)
    install(TARGETS rfsysinfo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
    # The fleet pieces: a timer that writes the metrics for node_exporter's textfile collector, and
    # alerting rules (with their promtool unit tests) to start from.
    install(FILES tools/rfsysinfo/systemd/rfsysinfo-metrics.service tools/rfsysinfo/systemd/rfsysinfo-metrics.timer
        DESTINATION ${RFSI_SYSTEMD_UNITDIR} COMPONENT tool)
    # The service's command: the unit names it at this fixed place.
    install(PROGRAMS tools/rfsysinfo/systemd/write-metrics DESTINATION libexec/rfsysinfo COMPONENT tool)
    # Updates: the boot's judgement that boot-complete.target requires, RAUC's pre-install handler,
    # SWUpdate's hardware revision, and Mender's state script (linked into /etc/mender/scripts by the
    # integration) and inventory script (where mender-client looks for them).
    install(FILES tools/rfsysinfo/systemd/rfsysinfo-boot-check.service DESTINATION ${RFSI_SYSTEMD_UNITDIR}
        COMPONENT tool)
    install(PROGRAMS tools/rfsysinfo/update/rauc-pre-install tools/rfsysinfo/update/swupdate-hwrevision
        DESTINATION libexec/rfsysinfo COMPONENT tool)
    install(PROGRAMS tools/rfsysinfo/update/ArtifactCommit_Enter_50_rfsysinfo
        DESTINATION ${CMAKE_INSTALL_DATADIR}/rfsysinfo/mender COMPONENT tool)
    install(PROGRAMS tools/rfsysinfo/update/mender-inventory-rfsysinfo
        DESTINATION ${CMAKE_INSTALL_DATADIR}/mender/inventory COMPONENT tool)
    # The manual page and the bash completion (bash-completion's layout).
    install(FILES docs/rfsysinfo.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
    install(FILES tools/rfsysinfo/completion/rfsysinfo DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        COMPONENT tool)
    install(FILES examples/prometheus/rfsysinfo-rules.yml examples/prometheus/rfsysinfo-rules-test.yml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/rfsysinfo/prometheus COMPONENT tool)
endif()

install(EXPORT rfSystemInfoTargets NAMESPACE rfSystemInfo:: DESTINATION ${RFSI_CMAKE_DIR} COMPONENT development)
configure_package_config_file(cmake/rfSystemInfoConfig.cmake.in
    ${PROJECT_BINARY_DIR}/${RFSI_PACKAGE_NAME}Config.cmake INSTALL_DESTINATION ${RFSI_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${RFSI_PACKAGE_NAME}ConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/${RFSI_PACKAGE_NAME}Config.cmake ${PROJECT_BINARY_DIR}/${RFSI_PACKAGE_NAME}ConfigVersion.cmake
    DESTINATION ${RFSI_CMAKE_DIR} COMPONENT development)

# The .pc file finds its prefix from where it stands, so an installed tree can move.
file(RELATIVE_PATH RFSI_PC_PREFIX_FROM_PCDIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" RFSI_PC_PREFIX_FROM_PCDIR "${RFSI_PC_PREFIX_FROM_PCDIR}")
configure_file(cmake/rfSystemInfo.pc.in ${PROJECT_BINARY_DIR}/${RFSI_PACKAGE_NAME}.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/${RFSI_PACKAGE_NAME}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
